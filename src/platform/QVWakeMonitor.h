// QVWakeMonitor tells its owner when the system has resumed from suspend: through logind's
// PrepareForSleep signal on the system bus where one answers, else by noticing CLOCK_BOOTTIME running
// ahead of CLOCK_MONOTONIC (the time spent asleep) on a periodic check. Main thread: the callback runs
// on the main loop.
#pragma once

#include <functional>
#include <memory>

class QVWakeMonitor {
 public:
  explicit QVWakeMonitor(std::function<void()> onWake);
  ~QVWakeMonitor();

  // Calls the callback as after a real wake (used by the host's diagnostics and the tests).
  void simulateWake();

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};
