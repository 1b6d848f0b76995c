#include "platform/QVURLSession.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <mutex>

#include "platform/QVFoundation.h"
#include "platform/QVLog.h"

namespace {

constexpr long kDefaultIdleTimeout = 60;          // seconds without a byte moving
constexpr long kConnectTimeout = 30;              // seconds to make a connection
constexpr std::size_t kMaxBodySize = 256u << 20;  // a reply larger than this is refused, not held

std::atomic<long> g_idleTimeout{kDefaultIdleTimeout};

// A small file read whole (a certificate bundle); false when it cannot be read.
bool readWholeFile(const std::string& path, std::string& contents) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return false;
  contents.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  return !file.bad();
}

void initializeLibraryOnce() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_ALL); });
}

}  // namespace

std::unique_ptr<QVInputStream> QVInputStream::inputStreamWithFileAtPath(const std::string& path) {
  const int fd = qv::openRegularFileForReading(path);
  if (fd < 0) return nullptr;
  struct stat info {};
  ::fstat(fd, &info);
  ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  return std::unique_ptr<QVInputStream>(new QVInputStream(fd, static_cast<std::uint64_t>(info.st_size)));
}

QVInputStream::~QVInputStream() { ::close(m_fd); }

bool QVInputStream::seek(std::uint64_t offset) {
  return offset <= m_length && ::lseek(m_fd, static_cast<off_t>(offset), SEEK_SET) == static_cast<off_t>(offset);
}

long QVInputStream::read(char* buffer, std::size_t size) {
  for (;;) {
    ssize_t n = ::read(m_fd, buffer, size);
    if (n >= 0) return static_cast<long>(n);
    if (errno != EINTR) return -1;
  }
}

struct QVURLSession::Impl {
  CURLM* multi = nullptr;
  CURL* easy = nullptr;
  char errorBuffer[CURL_ERROR_SIZE] = {};

  // The request under way.
  std::string url;
  curl_slist* headers = nullptr;
  bool inMulti = false;
  bool done = false;
  CURLcode result = CURLE_OK;
  std::string body;
  bool bodyTooLarge = false;
  const QVURLSession::QVBodySink* sink = nullptr;
  std::unique_ptr<QVInputStream> upload;
  std::int64_t sent = 0;
  QVURLConnectionDelegate* delegate = nullptr;
  std::string trustedBundle;  // the file of certificates trusted beside the system's, when one is given

  Impl() {
    initializeLibraryOnce();
    multi = curl_multi_init();
    easy = curl_easy_init();
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, errorBuffer);
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http");
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT, kConnectTimeout);
    // A transfer fails once less than one byte a second moved for the idle timeout; one that moves goes on.
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, g_idleTimeout.load());
    curl_easy_setopt(easy, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Impl::writeBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);
    curl_easy_setopt(easy, CURLOPT_READFUNCTION, &Impl::readBody);
    curl_easy_setopt(easy, CURLOPT_READDATA, this);
    curl_easy_setopt(easy, CURLOPT_SEEKFUNCTION, &Impl::seekBody);
    curl_easy_setopt(easy, CURLOPT_SEEKDATA, this);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &Impl::header);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, this);
  }

  ~Impl() {
    detach();
    if (easy) curl_easy_cleanup(easy);
    if (multi) curl_multi_cleanup(multi);
    curl_slist_free_all(headers);
  }

  static size_t writeBody(char* data, size_t size, size_t count, void* context) {
    auto* self = static_cast<Impl*>(context);
    const size_t length = size * count;
    if (self->sink) {
      long status = 0;
      curl_easy_getinfo(self->easy, CURLINFO_RESPONSE_CODE, &status);
      if (status >= 200 && status <= 299) return (*self->sink)(data, length) ? length : 0;
    }
    if (self->body.size() + length > kMaxBodySize) {
      self->bodyTooLarge = true;
      return 0;  // ends the transfer with a write error
    }
    self->body.append(data, length);
    return length;
  }

  static size_t readBody(char* buffer, size_t size, size_t count, void* context) {
    auto* self = static_cast<Impl*>(context);
    if (!self->upload) return 0;
    // The request announced the file's length: a file that grew meanwhile sends no more than that (the
    // rest would reach the server as the start of another request), and fails rather than arrive cut
    // short.
    const auto left = self->upload->length() - static_cast<std::uint64_t>(self->sent);
    if (left == 0) return 0;
    long n = self->upload->read(buffer, static_cast<std::size_t>(std::min<std::uint64_t>(size * count, left)));
    if (n < 0) return CURL_READFUNC_ABORT;
    if (char more; n > 0 && static_cast<std::uint64_t>(n) == left && self->upload->read(&more, 1) > 0) {
      qv::debugLog("platform", "upload " + self->url + ": the file grew beyond its announced length");
      return CURL_READFUNC_ABORT;
    }
    // The file shrank while it was sent: the request announced more than will come, and the server would
    // wait for the rest until the idle timeout. Ended at once instead, as a failed upload.
    if (n == 0 && self->sent < static_cast<std::int64_t>(self->upload->length())) {
      qv::debugLog("platform", "upload " + self->url + ": the file ended before its announced length");
      return CURL_READFUNC_ABORT;
    }
    if (n > 0) {
      self->sent += n;
      if (self->delegate)
        self->delegate->connectionDidSendBodyData(n, self->sent, static_cast<std::int64_t>(self->upload->length()));
    }
    return static_cast<size_t>(n);
  }

  // Sending the body again, when the server asked for credentials after it began.
  static int seekBody(void* context, curl_off_t offset, int origin) {
    auto* self = static_cast<Impl*>(context);
    if (!self->upload || origin != SEEK_SET || !self->upload->seek(static_cast<std::uint64_t>(offset)))
      return CURL_SEEKFUNC_CANTSEEK;
    self->sent = static_cast<std::int64_t>(offset);
    return CURL_SEEKFUNC_OK;
  }

  static size_t header(char* data, size_t size, size_t count, void* context) {
    auto* self = static_cast<Impl*>(context);
    const size_t length = size * count;
    // The blank line that ends a response's headers: a final response is reported, an interim one is not.
    if (self->delegate && (length == 2 || length == 1) && (data[0] == '\r' || data[0] == '\n')) {
      long status = 0;
      curl_easy_getinfo(self->easy, CURLINFO_RESPONSE_CODE, &status);
      if (status >= 200) self->delegate->connectionDidReceiveResponse(status);
    }
    return length;
  }

  void prepare(const std::string& method, const std::string& requestURL, const QVHeaders& requestHeaders) {
    url = requestURL;
    errorBuffer[0] = '\0';
    done = false;
    result = CURLE_OK;
    body.clear();
    bodyTooLarge = false;
    sent = 0;
    curl_slist_free_all(headers);
    headers = nullptr;
    for (const auto& [name, value] : requestHeaders)
      headers = curl_slist_append(headers, (name + ": " + value).c_str());
    curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);  // clears the upload mode of an earlier request
    curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
  }

  void attach() {
    if (multi && easy && curl_multi_add_handle(multi, easy) == CURLM_OK) {
      inMulti = true;
      return;
    }
    // Nothing can be sent: the request ends at once as a failure.
    done = true;
    result = CURLE_FAILED_INIT;
  }

  void detach() {
    if (!inMulti) return;
    curl_multi_remove_handle(multi, easy);
    inMulti = false;
  }

  // One step: waits at most maxWait for the connection, moves what can move, and notes the end.
  void step(std::chrono::milliseconds maxWait) {
    int running = 0;
    curl_multi_perform(multi, &running);
    if (running) {
      curl_multi_poll(multi, nullptr, 0, static_cast<int>(maxWait.count()), nullptr);
      curl_multi_perform(multi, &running);
    }
    int queued = 0;
    while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
      if (message->msg == CURLMSG_DONE && message->easy_handle == easy) {
        done = true;
        result = message->data.result;
      }
    }
  }

  QVURLError error() const {
    QVURLError e;
    e.code = static_cast<std::int64_t>(result);
    e.localizedDescription = bodyTooLarge     ? "The server's reply is too large"
                             : errorBuffer[0] ? errorBuffer
                                              : curl_easy_strerror(result);
    e.failingURLString = url;
    const std::string text = errorBuffer;
    switch (result) {
      case CURLE_COULDNT_CONNECT:
      case CURLE_COULDNT_RESOLVE_HOST:
        e.kind = QVURLError::Kind::couldNotConnect;
        break;
      case CURLE_OPERATION_TIMEDOUT:
        e.kind = QVURLError::Kind::timedOut;
        break;
      case CURLE_PEER_FAILED_VERIFICATION:
        if (text.find("expired") != std::string::npos)
          e.kind = QVURLError::Kind::expiredCertificate;
        else if (text.find("host name") != std::string::npos || text.find("subject name") != std::string::npos)
          e.kind = QVURLError::Kind::wrongHostName;
        else
          e.kind = QVURLError::Kind::untrustedCertificate;
        break;
      case CURLE_SSL_CONNECT_ERROR:
      case CURLE_SSL_CERTPROBLEM:
      case CURLE_SSL_CACERT_BADFILE:
        e.kind = QVURLError::Kind::tls;
        break;
      default:
        break;
    }
    return e;
  }
};

QVURLSession::QVURLSession() : m_impl(std::make_unique<Impl>()) {}

QVURLSession::~QVURLSession() = default;

void QVURLSession::setCredentials(const std::string& user, const std::string& password) {
  curl_easy_setopt(m_impl->easy, CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_BASIC));
  curl_easy_setopt(m_impl->easy, CURLOPT_USERNAME, user.c_str());
  curl_easy_setopt(m_impl->easy, CURLOPT_PASSWORD, password.c_str());
}

void QVURLSession::setCredentialsForChallenge(const std::string& user, const std::string& password) {
  curl_easy_setopt(m_impl->easy, CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_BASIC | CURLAUTH_DIGEST));
  curl_easy_setopt(m_impl->easy, CURLOPT_USERNAME, user.c_str());
  curl_easy_setopt(m_impl->easy, CURLOPT_PASSWORD, password.c_str());
}

bool QVURLSession::allowHTTPS(const std::string& trustedCertificatesFile, std::string* error) {
  CURL* easy = m_impl->easy;
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
  if (trustedCertificatesFile.empty()) return true;
  std::string added;
  if (!readWholeFile(trustedCertificatesFile, added) ||
      added.find("-----BEGIN CERTIFICATE-----") == std::string::npos) {
    if (error) *error = "\"" + trustedCertificatesFile + "\" cannot be read or holds no PEM certificate";
    return false;
  }
  // The one file and the system's store (its hashed folder) together, for this connection alone. Given
  // as paths: libcurl 7.88 leaks the certificates of a CA bundle handed over in memory.
  m_impl->trustedBundle = trustedCertificatesFile;
  curl_easy_setopt(easy, CURLOPT_CAINFO, m_impl->trustedBundle.c_str());
  curl_easy_setopt(easy, CURLOPT_CAPATH, "/etc/ssl/certs");
  return true;
}

bool QVURLSession::sendSynchronousRequest(const std::string& method, const std::string& url, const QVHeaders& headers,
                                          std::int64_t* statusCode, std::string* body, QVURLError* error) {
  return sendSynchronousRequest(method, url, headers, statusCode, QVBodySink(), body, error);
}

bool QVURLSession::sendSynchronousRequest(const std::string& method, const std::string& url, const QVHeaders& headers,
                                          std::int64_t* statusCode, const QVBodySink& sink, std::string* body,
                                          QVURLError* error) {
  Impl& impl = *m_impl;
  impl.delegate = nullptr;
  impl.upload.reset();
  impl.prepare(method, url, headers);
  impl.sink = sink ? &sink : nullptr;
  impl.attach();
  while (!impl.done && impl.inMulti) {
    if (m_isCancelled && m_isCancelled()) {
      impl.done = true;
      impl.result = CURLE_ABORTED_BY_CALLBACK;
      break;
    }
    impl.step(std::chrono::milliseconds(100));
  }
  impl.detach();
  impl.sink = nullptr;
  long status = 0;
  curl_easy_getinfo(impl.easy, CURLINFO_RESPONSE_CODE, &status);
  if (statusCode) *statusCode = status;
  if (body) *body = std::move(impl.body);
  impl.body.clear();
  qv::debugLog("platform",
               method + " " + url + " -> " + std::to_string(status) + " (" + curl_easy_strerror(impl.result) + ")");
  if (impl.result == CURLE_OK) return true;
  if (error) *error = impl.error();
  return false;
}

void QVURLSession::startUpload(const std::string& method, const std::string& url, std::unique_ptr<QVInputStream> body,
                               QVURLConnectionDelegate* delegate) {
  Impl& impl = *m_impl;
  impl.prepare(method, url, {});
  impl.upload = std::move(body);
  impl.delegate = delegate;
  curl_easy_setopt(impl.easy, CURLOPT_CUSTOMREQUEST, nullptr);
  curl_easy_setopt(impl.easy, CURLOPT_UPLOAD, 1L);
  curl_easy_setopt(impl.easy, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(impl.upload->length()));
  if (method != "PUT") curl_easy_setopt(impl.easy, CURLOPT_CUSTOMREQUEST, method.c_str());
  impl.attach();
}

void QVURLSession::runOnce(std::chrono::milliseconds maxWait) {
  Impl& impl = *m_impl;
  if (impl.inMulti) impl.step(maxWait);
  if (!impl.done) return;
  impl.detach();
  QVURLConnectionDelegate* delegate = impl.delegate;
  impl.delegate = nullptr;
  impl.upload.reset();
  impl.body.clear();
  qv::debugLog("platform", "upload " + impl.url + ": " + curl_easy_strerror(impl.result));
  if (!delegate) return;
  if (impl.result == CURLE_OK)
    delegate->connectionDidFinishLoading();
  else
    delegate->connectionDidFailWithError(impl.error());
}

void QVURLSession::cancelUpload() {
  Impl& impl = *m_impl;
  impl.detach();
  impl.delegate = nullptr;
  impl.upload.reset();
}

void QVURLSession::setIdleTimeout(long seconds) {
  curl_easy_setopt(m_impl->easy, CURLOPT_LOW_SPEED_TIME, seconds);
  curl_easy_setopt(m_impl->easy, CURLOPT_CONNECTTIMEOUT, std::min(seconds, kConnectTimeout));
}

void QVURLSession::setIdleTimeoutForTesting(long seconds) {
  g_idleTimeout.store(seconds > 0 ? seconds : kDefaultIdleTimeout);
}
