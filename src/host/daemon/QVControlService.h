// QVControlService is the daemon's side of the control socket. It listens at the user's socket (mode
// 0600, in the private runtime folder), refuses every connection from another user, and carries out each
// request with the daemon's agent as the command would at home:
//   - the registry commands, status, cancel and menu at once: their output and exit status go back whole;
//   - backup: it starts the runs and tells the command their progress and outcomes as they come; a
//     "cancel" from that command cancels them;
//   - restore and verify: it holds the group, so that no backup of it starts until the command that reads
//     it has gone; a run that its timer, a wake or the menu asks for meanwhile starts then.
// A connection that sends no whole request within kRequestTimeout is dropped; one that breaks the
// protocol gets an error and is dropped. Neither disturbs the others or a running backup. Out of file
// descriptors, it stops accepting for kAcceptPause rather than spin.
// Owned by the daemon command; uses the agent, the monitor and the host without owning them. Main thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/QVValue.h"

class QVBackupAgent;
class QVControlConnection;
class QVHostApp;
class QVRunMonitor;
class QVTimer;
struct QVCommandOptions;
struct QVGroup;
struct QVRunOutcome;

class QVControlService {
 public:
  static constexpr std::chrono::seconds kRequestTimeout{10};
  static constexpr std::chrono::milliseconds kAcceptPause{200};

  QVControlService(QVBackupAgent& agent, QVRunMonitor& monitor, QVHostApp& host, std::ostream& log);
  ~QVControlService();
  QVControlService(const QVControlService&) = delete;
  QVControlService& operator=(const QVControlService&) = delete;

  // Listens at socketPath, replacing what is there (only the holder of the agent lock listens).
  bool listen(const std::string& socketPath, std::string& error);
  // Stops listening and removes the socket; connections already open go on.
  void stopListening();

  // mayChange is asked before a request that changes the preferences; false answers "busy" (the daemon
  // is about to read changed preferences). didChange is told after each request that may have changed them.
  void setChangeHooks(std::function<bool()> mayChange, std::function<void()> didChange);

  // Run events, as the daemon's monitor reports them.
  void runStarted(const QVGroup& group);
  void runProgress(const std::string& groupID, std::int64_t percent, const std::string& item);
  void runEnded(const QVRunOutcome& outcome);

  // A restore or verify holds some group.
  bool hasHolds() const;
  // Some run waits for a hold to end (it starts on the main loop once the holder has gone).
  bool hasWaitingRuns() const { return !m_waitingRuns.empty(); }

 private:
  struct Client {
    std::unique_ptr<QVControlConnection> connection;
    std::unique_ptr<QVTimer> deadline;  // until its request has come
    bool requested = false;
    std::vector<std::string> following;  // backup: groups whose outcome it waits for
    std::vector<std::string> held;       // restore, verify: groups no backup may start
  };

  bool acceptConnections();
  void onMessage(std::uint64_t clientID, QVDictionary& message);
  void handleRequest(Client& client, const QVDictionary& message);
  void startBackups(Client& client, const QVCommandOptions& options);
  void holdGroup(Client& client, const QVCommandOptions& options);
  void sendResult(Client& client, int status, const std::string& out, const std::string& err);
  bool isHeld(const std::string& groupID) const;
  // Lets go of closed connections, later on the main loop (never inside their own handlers).
  void sweepSoon();

  QVBackupAgent& m_agent;
  QVRunMonitor& m_monitor;
  QVHostApp& m_host;
  std::ostream& m_log;
  std::string m_socketPath;
  int m_listener = -1;
  unsigned m_listenWatch = 0;
  std::map<std::uint64_t, Client> m_clients;
  std::vector<std::string> m_waitingRuns;  // groups whose run was asked for while they were held
  std::unique_ptr<QVTimer> m_acceptPause;
  std::uint64_t m_nextClientID = 1;
  bool m_sweepPosted = false;
  std::function<bool()> m_mayChange;
  std::function<void()> m_didChange;
  std::shared_ptr<int> m_alive = std::make_shared<int>(0);  // posted work checks that the service lives
};
