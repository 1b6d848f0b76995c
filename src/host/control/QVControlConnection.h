// QVControlConnection is one end of a conversation on the control socket, driven by the main loop: it
// reads frames as they arrive, hands each whole message to its handler, and queues what it sends until
// the peer takes it. It never blocks: a peer that sends half a message, or stops reading, holds up
// nobody else. A frame the reader refuses is answered with an "error" message and ends the conversation.
// Owned by whoever talks on it; never destroyed from inside its own handlers (the owner lets it go later
// on the main loop). Main thread.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <string>

#include "host/control/QVControlProtocol.h"

class QVControlConnection {
 public:
  // What may be queued for a peer that does not read before the connection is dropped.
  static constexpr std::size_t kQueueLimit = 16 << 20;

  // Takes fd, a connected Unix stream socket (made non-blocking here); messages larger than limit are
  // refused.
  explicit QVControlConnection(int fd, std::size_t limit = kQVControlMessageLimit);
  ~QVControlConnection();
  QVControlConnection(const QVControlConnection&) = delete;
  QVControlConnection& operator=(const QVControlConnection&) = delete;

  // Connects to the daemon's socket. nullptr when nothing listens there (no daemon).
  static std::unique_ptr<QVControlConnection> connectTo(const std::string& socketPath);

  using MessageHandler = std::function<void(QVDictionary& message)>;
  // why: "" for an orderly end by the peer, else what went wrong.
  using CloseHandler = std::function<void(const std::string& why)>;
  void start(MessageHandler onMessage, CloseHandler onClose);

  // Queues the message. false when the connection is closed, or is closed now because the peer has left
  // too much unread.
  bool send(const QVDictionary& message);
  // Sends "error" {message} and closes once it is out.
  void refuse(const std::string& why);
  // Stops reading and writing now; the close handler is told why.
  void close(const std::string& why);
  bool isOpen() const { return m_fd >= 0; }

  // The peer's process and user (from the socket's credentials); -1 when unknown.
  pid_t peerProcess() const { return m_peerPid; }
  uid_t peerUser() const { return m_peerUid; }

 private:
  void watch();
  bool onReady();
  bool readAvailable();
  bool writeQueued();

  int m_fd;
  unsigned m_watch = 0;
  bool m_watchingReads = false;
  bool m_watchingWrites = false;
  bool m_closeWhenSent = false;
  pid_t m_peerPid = -1;
  uid_t m_peerUid = static_cast<uid_t>(-1);
  std::string m_queue;
  QVControlMessageReader m_reader;
  MessageHandler m_onMessage;
  CloseHandler m_onClose;
};
