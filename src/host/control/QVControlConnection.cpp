#include "host/control/QVControlConnection.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/QVRunLoop.h"

namespace {

constexpr int kConnectTimeoutMs = 2000;

}  // namespace

QVControlConnection::QVControlConnection(int fd, std::size_t limit) : m_fd(fd), m_reader(limit) {
  fcntl(m_fd, F_SETFL, fcntl(m_fd, F_GETFL) | O_NONBLOCK);
  struct ucred credentials {};
  socklen_t length = sizeof credentials;
  if (getsockopt(m_fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) == 0) {
    m_peerPid = credentials.pid;
    m_peerUid = credentials.uid;
  }
}

QVControlConnection::~QVControlConnection() {
  qv::removeFileDescriptorWatch(m_watch);
  if (m_fd >= 0) ::close(m_fd);
}

std::unique_ptr<QVControlConnection> QVControlConnection::connectTo(const std::string& socketPath) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (socketPath.size() >= sizeof address.sun_path) return nullptr;
  std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return nullptr;
  // A daemon whose queue of new connections is full answers in a moment; one that does not is stuck.
  for (int waited = 0; connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0; waited += 50) {
    if (errno != EAGAIN || waited >= kConnectTimeoutMs) {
      ::close(fd);
      return nullptr;
    }
    poll(nullptr, 0, 50);
  }
  auto connection = std::make_unique<QVControlConnection>(fd, kQVControlReplyLimit);
  // Only this user's daemon is told anything (a password may follow).
  if (connection->peerUser() != geteuid()) return nullptr;
  return connection;
}

void QVControlConnection::start(MessageHandler onMessage, CloseHandler onClose) {
  m_onMessage = std::move(onMessage);
  m_onClose = std::move(onClose);
  watch();
}

void QVControlConnection::watch() {
  if (m_fd < 0) return;
  const bool wantReads = !m_closeWhenSent;
  const bool wantWrites = !m_queue.empty();
  if (m_watch != 0 && wantWrites == m_watchingWrites && wantReads == m_watchingReads) return;
  qv::removeFileDescriptorWatch(m_watch);
  m_watchingReads = wantReads;
  m_watchingWrites = wantWrites;
  m_watch = qv::addFileDescriptorWatch(m_fd, wantReads, wantWrites, [this] { return onReady(); });
}

bool QVControlConnection::onReady() {
  const unsigned current = m_watch;
  if (!writeQueued() || !readAvailable()) return false;  // closed: the watch went with it
  if (m_watch != current) return false;                  // replaced by a watch for other events
  return true;
}

bool QVControlConnection::readAvailable() {
  if (m_closeWhenSent) return m_fd >= 0;  // only the refusal is still going out
  char buffer[65536];
  // A bounded share per wake-up: a peer that never stops sending cannot keep the others waiting.
  for (int round = 0; round < 16; ++round) {
    const ssize_t count = recv(m_fd, buffer, sizeof buffer, 0);
    if (count > 0) {
      m_reader.append(buffer, static_cast<std::size_t>(count));
      QVDictionary message;
      std::string error;
      for (;;) {
        const auto status = m_reader.next(message, error);
        if (status == QVControlMessageReader::Status::incomplete) break;
        if (status == QVControlMessageReader::Status::refused) {
          refuse(error);
          return m_fd >= 0;
        }
        if (m_onMessage) m_onMessage(message);
        if (m_fd < 0 || m_closeWhenSent) return m_fd >= 0;
      }
      continue;
    }
    if (count == 0) {
      if (m_reader.hasPartialMessage())
        refuse("the message was cut short");
      else if (m_queue.empty())
        close("");
      else {
        m_closeWhenSent = true;
        watch();
      }
      return m_fd >= 0;
    }
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) return true;
    close(std::string("the connection failed: ") + std::strerror(errno));
    return false;
  }
  return true;
}

bool QVControlConnection::writeQueued() {
  while (m_fd >= 0 && !m_queue.empty()) {
    const ssize_t count = ::send(m_fd, m_queue.data(), m_queue.size(), MSG_NOSIGNAL);
    if (count > 0) {
      m_queue.erase(0, static_cast<std::size_t>(count));
      continue;
    }
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
    close("the peer went away");
    return false;
  }
  if (m_fd < 0) return false;
  if (m_queue.empty() && m_closeWhenSent) {
    close("");
    return false;
  }
  watch();
  return true;
}

bool QVControlConnection::send(const QVDictionary& message) {
  if (m_fd < 0) return false;
  m_queue += qv::encodeControlMessage(message);
  if (m_queue.size() > kQueueLimit) {
    close("the peer does not read what is sent to it");
    return false;
  }
  return writeQueued();
}

void QVControlConnection::refuse(const std::string& why) {
  if (m_fd < 0) return;
  QVDictionary message = qv::controlMessage("error");
  message["message"] = why;
  m_closeWhenSent = true;
  shutdown(m_fd, SHUT_RD);
  send(message);
}

void QVControlConnection::close(const std::string& why) {
  if (m_fd < 0) return;
  qv::removeFileDescriptorWatch(m_watch);
  m_watch = 0;
  ::close(m_fd);
  m_fd = -1;
  m_queue.clear();
  if (m_onClose) {
    CloseHandler onClose = std::move(m_onClose);
    onClose(why);
  }
}
