// The main loop (GLib's default main context) as the agent and the host use it: posting work to the main
// thread from any thread, in the order posted; one-shot timers at a date; Unix signals; and running the
// loop until a condition holds. Timers and signal handlers belong to the main thread.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "platform/QVValue.h"

namespace qv {

// Any thread: runs work on the main thread at its next pass, after the work posted before it.
void postToMainThread(std::function<void()> work);

// Main thread: runs the loop until quitMainLoop is called.
void runMainLoop();
void quitMainLoop();

// Main thread: runs the loop until condition() is true or the timeout passes; returns condition().
bool runMainLoopUntil(const std::function<bool()>& condition,
                      std::chrono::milliseconds timeout = std::chrono::seconds(30));

// Main thread: handles the signal (SIGINT, SIGTERM, SIGHUP, SIGUSR1, SIGUSR2) on the main loop instead of
// the default action. Returns an id for removeSignalHandler.
unsigned addSignalHandler(int signal, std::function<void()> handler);
void removeSignalHandler(unsigned id);

// Main thread: calls handler on the main loop whenever fd has hung up or failed, can be read (if
// forReading) or can be written (if forWriting). The handler returns false to stop watching (the watch is
// then gone, as after removeFileDescriptorWatch). The caller keeps fd open while it is watched.
unsigned addFileDescriptorWatch(int fd, bool forReading, bool forWriting, std::function<bool()> handler);
void removeFileDescriptorWatch(unsigned id);

}  // namespace qv

// A one-shot timer on the main loop that fires once at its date (at once when the date has passed)
// unless it is invalidated first. Destroying the timer invalidates it. Main thread.
class QVTimer {
 public:
  QVTimer(QVDate fireDate, std::function<void(QVTimer&)> action);
  ~QVTimer();
  QVTimer(const QVTimer&) = delete;
  QVTimer& operator=(const QVTimer&) = delete;

  void invalidate();
  bool isValid() const;
  QVDate fireDate() const { return m_fireDate; }

 private:
  struct Impl;
  QVDate m_fireDate;
  std::unique_ptr<Impl> m_impl;
};
