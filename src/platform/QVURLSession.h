// QVURLSession is the HTTP client of the WebDAV destination: one connection to one server, kept alive
// across every request that the session sends, with HTTP Basic credentials given apart from the URL
// (so a user name or password may hold any character). It sends requests without a body synchronously,
// and streams a request body from a local file asynchronously: the caller starts the upload, then turns
// the session with runOnce() until its delegate hears that the upload completed or failed, and may
// cancel it between turns.
//
//   startUpload ──> runOnce ──> runOnce ... ──> didReceiveResponse* ──> didFinishLoading | didFailWithError
//                     └── cancelUpload (no further callback)
//
// Every request fails when no byte moves for the idle timeout (60 s) or when no connection is made within
// the connect timeout; a transfer that moves has no limit. The request's own URL never carries the
// credentials. Owned by one destination object and used by one thread at a time; the callbacks arrive on
// that thread, inside runOnce().
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

// A transport failure: no response, or one cut short. The code is the transport library's own (never 0).
struct QVURLError {
  std::int64_t code = 0;
  std::string localizedDescription;
  std::string failingURLString;
  // The kind of transport failure, for a message that says what to do.
  enum class Kind { other, couldNotConnect, timedOut, untrustedCertificate, wrongHostName, expiredCertificate, tls };
  Kind kind = Kind::other;
};

// Where an upload's events go. Called on the thread that turns the session, inside runOnce().
class QVURLConnectionDelegate {
 public:
  virtual ~QVURLConnectionDelegate() = default;
  // A final (non-1xx) response's status; each response of the upload calls it again.
  virtual void connectionDidReceiveResponse(std::int64_t statusCode) = 0;
  virtual void connectionDidFailWithError(const QVURLError& error) = 0;
  virtual void connectionDidFinishLoading() = 0;
  // Bytes of the body handed to the connection in this step, so far, and in all.
  virtual void connectionDidSendBodyData(std::int64_t bytesWritten, std::int64_t totalBytesWritten,
                                         std::int64_t totalBytesExpectedToWrite) = 0;
};

// A local file opened to be sent as a request body.
class QVInputStream {
 public:
  // nullptr when the file cannot be opened for reading or is not a regular file (a folder, a pipe).
  static std::unique_ptr<QVInputStream> inputStreamWithFileAtPath(const std::string& path);
  ~QVInputStream();
  QVInputStream(const QVInputStream&) = delete;
  QVInputStream& operator=(const QVInputStream&) = delete;
  // Reads up to size bytes; 0 at the end; -1 on a read error.
  long read(char* buffer, std::size_t size);
  // Goes back (or on) to offset from the start; false when it cannot.
  bool seek(std::uint64_t offset);
  std::uint64_t length() const { return m_length; }

 private:
  QVInputStream(int fd, std::uint64_t length) : m_fd(fd), m_length(length) {}
  int m_fd;
  std::uint64_t m_length;
};

class QVURLSession {
 public:
  using QVHeaders = std::vector<std::pair<std::string, std::string>>;

  QVURLSession();
  ~QVURLSession();
  QVURLSession(const QVURLSession&) = delete;
  QVURLSession& operator=(const QVURLSession&) = delete;

  // Sends HTTP Basic authentication with every request from now on.
  void setCredentials(const std::string& user, const std::string& password);
  // Answers the server's Basic or Digest challenge with these credentials instead: nothing is sent before
  // the server asks for it, and the choice it made holds for the requests after. Redirects are never
  // followed, so the credentials reach no other server.
  void setCredentialsForChallenge(const std::string& user, const std::string& password);
  // Allows https:// URLs besides http://. The server's certificate is always verified against the
  // system's trust store, and against the certificates of trustedCertificatesFile (PEM) when it is not
  // empty, for this session alone. False (with *error) when that file cannot be read or holds no
  // certificate.
  bool allowHTTPS(const std::string& trustedCertificatesFile, std::string* error);
  // Polled while a synchronous request waits, so that a cancel of the work ends it within a fraction of a
  // second; a request ended so fails as a transport error.
  void setCancellationCheck(std::function<bool()> isCancelled) { m_isCancelled = std::move(isCancelled); }

  // Sends one request without a body and waits for its end. False on a transport error (*error set when
  // given); otherwise *statusCode holds the response's status and *body its content.
  bool sendSynchronousRequest(const std::string& method, const std::string& url, const QVHeaders& headers,
                              std::int64_t* statusCode, std::string* body, QVURLError* error);
  // The same, with the body of a 2xx response handed to sink as it arrives instead of kept (any other
  // response's body goes to *body). A sink that answers false ends the request as a transport error.
  using QVBodySink = std::function<bool(const char* bytes, std::size_t length)>;
  bool sendSynchronousRequest(const std::string& method, const std::string& url, const QVHeaders& headers,
                              std::int64_t* statusCode, const QVBodySink& sink, std::string* body, QVURLError* error);

  // Starts sending body to url with method; events go to delegate during runOnce(). Requires: no upload
  // is running.
  void startUpload(const std::string& method, const std::string& url, std::unique_ptr<QVInputStream> body,
                   QVURLConnectionDelegate* delegate);
  // Waits at most maxWait for the running upload's next events and handles them. Does nothing without one.
  void runOnce(std::chrono::milliseconds maxWait = std::chrono::milliseconds(100));
  // Ends the running upload at once; its delegate hears nothing more.
  void cancelUpload();

  // A shorter idle timeout for this session alone (and a connect timeout no longer than it): for a quick
  // question to a server that must not hold up the caller.
  void setIdleTimeout(long seconds);

  // Tests: the idle timeout of sessions made from now on (seconds; 0 restores the default of 60).
  static void setIdleTimeoutForTesting(long seconds);

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
  std::function<bool()> m_isCancelled;
};
