#include "host/cli/QVRunPresenter.h"

#include <algorithm>
#include <cstdio>
#include <ostream>

#include "host/cli/QVBackupCommand.h"
#include "host/cli/QVProgressDisplay.h"
#include "host/cli/QVRecordPrinter.h"

namespace {

constexpr const char* kProgram = "stellwin-backup";

}  // namespace

QVRunPresenter::QVRunPresenter(std::vector<std::string> requested, bool json, std::ostream& out)
    : m_requested(std::move(requested)),
      m_json(json),
      m_out(out),
      m_display(std::make_unique<QVProgressDisplay>(stderr, true)) {
  m_out.flush();
}

QVRunPresenter::~QVRunPresenter() = default;

void QVRunPresenter::begin(const std::string& groupID, const std::string& title) { m_display->begin(groupID, title); }

void QVRunPresenter::update(const std::string& groupID, std::int64_t percent, const std::string& item) {
  m_display->update(groupID, percent, item);
}

void QVRunPresenter::say(const std::string& line) { m_display->printLine(stderr, std::string(kProgram) + ": " + line); }

void QVRunPresenter::setNote(const std::string& note) { m_display->setNote(note); }

void QVRunPresenter::setBusyQuery(std::function<bool()> busy) { m_display->setBusyQuery(std::move(busy)); }

void QVRunPresenter::report(const QVRunOutcome& outcome) {
  m_display->end(outcome.groupID);
  const bool requested = std::find(m_requested.begin(), m_requested.end(), outcome.groupID) != m_requested.end();
  const bool known = std::any_of(m_outcomes.begin(), m_outcomes.end(),
                                 [&](const QVRunOutcome& o) { return o.groupID == outcome.groupID; });
  if (requested && !known) {
    m_outcomes.push_back(outcome);
    if (!m_json) {
      const std::string line = outcome.line();
      m_display->printLine(
          stdout, qv::colourWanted(stdout) ? qv::outcomeColoured(line, QVRunOutcome::kindName(outcome.kind)) : line);
      for (const auto& line : outcome.detailLines()) m_display->printLine(stdout, "  " + line);
    }
  } else {
    say("(started by its schedule) " + outcome.line());
    for (const auto& line : outcome.detailLines()) say("  " + line);
  }
}

int QVRunPresenter::finish(bool interrupted) {
  m_display->setNote("");
  if (m_json) {
    // In the order asked for.
    std::vector<QVRunOutcome> ordered;
    for (const auto& groupID : m_requested)
      for (const auto& outcome : m_outcomes)
        if (outcome.groupID == groupID) ordered.push_back(outcome);
    m_out << qv::outcomesJSON(ordered);
    m_out.flush();
  }
  if (interrupted) return 130;
  const bool allComplete =
      m_outcomes.size() == m_requested.size() &&
      std::all_of(m_outcomes.begin(), m_outcomes.end(), [](const QVRunOutcome& o) { return o.isSuccess(); });
  return allComplete ? 0 : 1;
}
