#include "host/control/QVControlClient.h"

#include <unistd.h>

#include <chrono>
#include <csignal>
#include <ostream>

#include "host/cli/QVRunPresenter.h"
#include "host/control/QVControlConnection.h"
#include "host/control/QVControlProtocol.h"
#include "host/run/QVRecords.h"
#include "host/run/QVRunMonitor.h"
#include "platform/QVRunLoop.h"

namespace {

constexpr const char* kProgram = "stellwin-backup";
// How long a command waits for the daemon's answer (a listing of a slow server takes its time).
constexpr auto kAnswerTimeout = std::chrono::minutes(10);

std::string workingFolder() {
  char buffer[4096];
  return getcwd(buffer, sizeof buffer) ? std::string(buffer) : std::string();
}

}  // namespace

std::unique_ptr<QVControlClient> QVControlClient::connect(const std::string& socketPath) {
  auto connection = QVControlConnection::connectTo(socketPath);
  if (!connection) return nullptr;
  return std::unique_ptr<QVControlClient>(new QVControlClient(std::move(connection)));
}

QVControlClient::QVControlClient(std::unique_ptr<QVControlConnection> connection)
    : m_connection(std::move(connection)) {
  m_connection->start([this](QVDictionary& message) { m_inbox.push_back(std::move(message)); },
                      [this](const std::string& why) {
                        m_closed = true;
                        m_closeReason = why;
                      });
}

QVControlClient::~QVControlClient() = default;

QVControlClient::Result QVControlClient::run(const QVCommandOptions& options, std::ostream& out, std::ostream& err) {
  QVDictionary request = qv::controlMessage("request");
  request["options"] = qv::dictionaryFromOptions(options);
  request["folder"] = workingFolder();
  if (!m_connection->send(request)) return {};

  // Ctrl-C before the daemon has taken a backup (or a menu entry that may start one) cancels the runs it
  // then starts, rather than leaving them running with nobody following.
  m_interrupted = false;
  unsigned handlers[2] = {0, 0};
  if (options.command == QVCommand::backup || options.command == QVCommand::menu) {
    m_onInterrupt = [this] {
      // A second one while the daemon has not answered ends the wait at once.
      if (m_interrupted) _exit(130);
      m_interrupted = true;
    };
    handlers[0] = qv::addSignalHandler(SIGINT, [this] { m_onInterrupt(); });
    handlers[1] = qv::addSignalHandler(SIGTERM, [this] { m_onInterrupt(); });
  }
  struct RemoveHandlers {
    unsigned* ids;
    ~RemoveHandlers() {
      for (int i = 0; i < 2; ++i)
        if (ids[i] != 0) qv::removeSignalHandler(ids[i]);
    }
  } removeHandlers{handlers};

  if (!qv::runMainLoopUntil([this] { return !m_inbox.empty() || m_closed; }, kAnswerTimeout)) {
    err << kProgram << ": the daemon did not answer within " << kAnswerTimeout.count() << " minutes" << std::endl;
    return {Answer::done, 1};
  }
  if (m_inbox.empty()) {
    // Closed in order before an answer: the daemon is starting anew, and took nothing. Anything else
    // is told, never tried again (the command may have been carried out).
    if (m_closeReason.empty()) return m_interrupted ? Result{Answer::done, 130} : Result{};
    err << kProgram << ": lost the connection to the daemon: " << m_closeReason << std::endl;
    return {Answer::done, 1};
  }
  const QVDictionary answer = m_inbox.front();
  m_inbox.erase(m_inbox.begin());
  const std::string type = qv::controlString(answer, "type");
  if (type == "result") {
    out << qv::controlString(answer, "out");
    out.flush();
    err << qv::controlString(answer, "err");
    err.flush();
    const QVValue* status = qv::valueForKey(answer, "status");
    return {Answer::done, static_cast<int>(status ? status->integerValue().value_or(1) : 1)};
  }
  if (type == "held") return {Answer::held, 0};
  if (type == "busy") return m_interrupted ? Result{Answer::done, 130} : Result{};
  if (type == "accepted") return followBackup(answer, options, out, err);
  err << kProgram << ": the daemon refused the command: "
      << (type == "error" ? qv::controlString(answer, "message") : "unexpected answer \"" + type + "\"") << std::endl;
  return {Answer::done, 1};
}

QVControlClient::Result QVControlClient::followBackup(const QVDictionary& accepted, const QVCommandOptions& options,
                                                      std::ostream& out, std::ostream& err) {
  out << qv::controlString(accepted, "out");
  out.flush();
  err << qv::controlString(accepted, "err");
  err.flush();
  std::vector<std::string> requested;
  if (const QVValue* groups = qv::valueForKey(accepted, "groups"); groups && groups->array())
    for (const auto& id : *groups->array())
      if (id.string()) requested.push_back(*id.string());

  // A menu entry's run is shown as the menu command shows it at home: as text.
  QVRunPresenter presenter(requested, options.json && options.command == QVCommand::backup, out);
  bool interrupted = false;
  auto cancel = [&] {
    if (!interrupted) presenter.say("cancelling the running backups...");
    interrupted = true;
    presenter.setNote("cancelling...");
    m_connection->send(qv::controlMessage("cancel"));
  };
  m_onInterrupt = cancel;
  if (m_interrupted) cancel();

  auto handle = [&](const QVDictionary& message) {
    const std::string type = qv::controlString(message, "type");
    const std::string groupID = qv::controlString(message, "group");
    if (type == "started") {
      presenter.begin(groupID, qv::controlString(message, "title"));
    } else if (type == "progress") {
      const QVValue* percent = qv::valueForKey(message, "percent");
      presenter.update(groupID, percent ? percent->integerValue().value_or(0) : 0, qv::controlString(message, "item"));
    } else if (type == "message") {
      presenter.say(qv::controlString(message, "text"));
    } else if (type == "outcome") {
      const QVValue* fields = qv::valueForKey(message, "outcome");
      if (!fields || !fields->dictionary()) return;
      const QVRunOutcome outcome = qv::outcomeFromRecord(*fields->dictionary());
      if (outcome.kind == QVRunOutcome::Kind::cancelled && !interrupted)
        presenter.say("the backup of " + outcome.title +
                      " was cancelled in the daemon (by \"stellwin-backup cancel\", the menu, or the daemon stopping)");
      presenter.report(outcome);
    } else if (type == "error") {
      presenter.say("the daemon refused: " + qv::controlString(message, "message"));
    }
  };
  for (;;) {
    while (!m_inbox.empty()) {
      const QVDictionary message = std::move(m_inbox.front());
      m_inbox.erase(m_inbox.begin());
      handle(message);
    }
    if (presenter.isDone() || m_closed) break;
    qv::runMainLoopUntil([this] { return !m_inbox.empty() || m_closed; }, std::chrono::hours(1));
  }
  m_onInterrupt = [] {};
  const bool lost = !presenter.isDone();
  if (lost) presenter.say("the daemon stopped before the backups ended; see \"stellwin-backup log\"");
  const int status = presenter.finish(interrupted);
  return {Answer::done, lost && status == 0 ? 1 : status};
}
