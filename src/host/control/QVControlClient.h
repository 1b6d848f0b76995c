// QVControlClient is a command's side of the control socket: it hands the command to the running daemon
// and shows what the daemon answers as the command would at home, with the same output and exit status.
// A backup is followed live (a progress bar per group on a terminal, a line per outcome); Ctrl-C or
// SIGTERM asks the daemon to cancel those runs, and the status is then 130. For restore and verify the
// daemon only holds the group; the command then reads the destination itself.
// Made by the program for one command; main thread.
#pragma once

#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include "host/cli/QVCommandLine.h"
#include "platform/QVValue.h"

class QVControlConnection;

class QVControlClient {
 public:
  // Connects to the daemon's socket; nullptr when no daemon listens there.
  static std::unique_ptr<QVControlClient> connect(const std::string& socketPath);
  ~QVControlClient();
  QVControlClient(const QVControlClient&) = delete;
  QVControlClient& operator=(const QVControlClient&) = delete;

  enum class Answer {
    done,   // carried out (or refused) by the daemon: status is the command's exit status
    held,   // restore, verify: the group is held for as long as this object lives
    retry,  // the daemon is busy reading changed preferences, or went away before it took the command
  };
  struct Result {
    Answer answer = Answer::retry;
    int status = 0;
  };
  // Requires: options.suppliedPassword holds the password that the command would read itself.
  Result run(const QVCommandOptions& options, std::ostream& out, std::ostream& err);
  // Whether the daemon's side has ended the connection (a held group is then held no longer).
  bool isClosed() const { return m_closed; }

 private:
  explicit QVControlClient(std::unique_ptr<QVControlConnection> connection);
  Result followBackup(const QVDictionary& accepted, const QVCommandOptions& options, std::ostream& out,
                      std::ostream& err);

  std::unique_ptr<QVControlConnection> m_connection;
  std::vector<QVDictionary> m_inbox;
  bool m_closed = false;
  std::string m_closeReason;            // "" for an orderly end
  std::function<void()> m_onInterrupt;  // what Ctrl-C or SIGTERM does now
  bool m_interrupted = false;           // before the daemon's answer
};
