// QVRunPresenter shows the runs that one backup command waits for, wherever they run (in this process
// or in the daemon): a live progress bar per running group on a terminal, one line per outcome on stdout
// (with what the run left out under it) or, with --json, one array at the end in the order asked for;
// messages on stderr above the bars. Runs that a group's timer started meanwhile are told on stderr.
// Made by the command for the time it waits; main thread.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include "host/run/QVRunMonitor.h"

class QVProgressDisplay;

class QVRunPresenter {
 public:
  // requested: the groups asked for, by identifier, in order.
  QVRunPresenter(std::vector<std::string> requested, bool json, std::ostream& out);
  ~QVRunPresenter();
  QVRunPresenter(const QVRunPresenter&) = delete;
  QVRunPresenter& operator=(const QVRunPresenter&) = delete;

  void begin(const std::string& groupID, const std::string& title);
  void update(const std::string& groupID, std::int64_t percent, const std::string& item = "");
  void report(const QVRunOutcome& outcome);
  // "stellwin-backup: <line>" on stderr, above the bars.
  void say(const std::string& line);
  // A line under the bars while any are drawn ("" for none).
  void setNote(const std::string& note);
  void setBusyQuery(std::function<bool()> busy);

  // Every requested group has its outcome.
  bool isDone() const { return m_outcomes.size() >= m_requested.size(); }
  // Prints the JSON array (with --json) and returns the exit status: 130 when interrupted, 0 when every
  // requested group completed, 1 otherwise.
  int finish(bool interrupted);

 private:
  std::vector<std::string> m_requested;
  bool m_json;
  std::ostream& m_out;
  std::unique_ptr<QVProgressDisplay> m_display;
  std::vector<QVRunOutcome> m_outcomes;
};
