#include "platform/QVWakeMonitor.h"

#include <gio/gio.h>
#include <time.h>

#include <cstdint>
#include <exception>

#include "platform/QVLog.h"

namespace {

constexpr const char* kLogindName = "org.freedesktop.login1";
constexpr const char* kLogindPath = "/org/freedesktop/login1";
constexpr const char* kLogindManager = "org.freedesktop.login1.Manager";

constexpr guint kClockCheckSeconds = 10;
// More time asleep than this between two checks counts as a suspend and resume.
constexpr std::int64_t kSleepThresholdNs = 5'000'000'000;

std::int64_t clockNs(clockid_t clock) {
  timespec ts{};
  if (clock_gettime(clock, &ts) != 0) return 0;
  return static_cast<std::int64_t>(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

// Total time spent suspended since boot: CLOCK_BOOTTIME counts it, CLOCK_MONOTONIC does not.
std::int64_t timeAsleepNs() { return clockNs(CLOCK_BOOTTIME) - clockNs(CLOCK_MONOTONIC); }

// The monitor's state. The GLib callbacks hold it weakly and lock it while they run, so a callback that is
// already queued when the monitor goes away finds nothing, and a wake callback that destroys the monitor
// does not pull the state from under the running callback. The state owns the GLib resources and
// releases them when the last holder lets go.
struct QVWakeMonitorState {
  using Weak = std::weak_ptr<QVWakeMonitorState>;

  std::function<void()> m_onWake;
  std::int64_t m_asleepBaseline = timeAsleepNs();
  // Between logind's "going to sleep" and its "resumed": whether the clock check reported this resume
  // first, so that logind's signal does not report it again.
  bool m_sleepAnnounced = false;
  bool m_wakeReportedByClock = false;

  GCancellable* m_cancellable = g_cancellable_new();
  GDBusConnection* m_bus = nullptr;
  guint m_subscription = 0;
  guint m_clockSource = 0;

  ~QVWakeMonitorState() {
    g_cancellable_cancel(m_cancellable);
    g_object_unref(m_cancellable);
    if (m_subscription != 0) g_dbus_connection_signal_unsubscribe(m_bus, m_subscription);
    if (m_bus) g_object_unref(m_bus);
    if (m_clockSource != 0) g_source_remove(m_clockSource);
  }

  void start(const std::shared_ptr<QVWakeMonitorState>& self) {
    m_clockSource =
        g_timeout_add_seconds_full(G_PRIORITY_DEFAULT, kClockCheckSeconds, checkClock, boxWeak(self), deleteWeak);
    // Asynchronous: where no system bus answers, construction must not wait for it.
    g_bus_get(G_BUS_TYPE_SYSTEM, m_cancellable, busReady, boxWeak(self));
  }

  void reportWake() {
    // A copy: the callback may destroy the monitor, and with it m_onWake.
    std::function<void()> onWake = m_onWake;
    try {
      if (onWake) onWake();
    } catch (const std::exception& e) {
      qv::debugLog("platform", std::string("wake callback threw: ") + e.what());
    } catch (...) {
      qv::debugLog("platform", "wake callback threw an unknown exception");
    }
  }

  static gpointer boxWeak(const std::shared_ptr<QVWakeMonitorState>& self) {
    return std::make_unique<Weak>(self).release();  // freed by deleteWeak or busReady
  }
  static void deleteWeak(gpointer data) { delete static_cast<Weak*>(data); }
  static std::shared_ptr<QVWakeMonitorState> lock(gpointer data) { return static_cast<Weak*>(data)->lock(); }

  static gboolean checkClock(gpointer data);
  static void busReady(GObject* source, GAsyncResult* result, gpointer data);
  static void prepareForSleep(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                              GVariant* parameters, gpointer data);
};

gboolean QVWakeMonitorState::checkClock(gpointer data) {
  std::shared_ptr<QVWakeMonitorState> state = lock(data);
  if (!state) return G_SOURCE_REMOVE;
  std::int64_t asleep = timeAsleepNs();
  std::int64_t slept = asleep - state->m_asleepBaseline;
  state->m_asleepBaseline = asleep;
  if (slept > kSleepThresholdNs) {
    qv::debugLog("platform", "wake noticed by the clock after " + std::to_string(slept / 1'000'000'000) + " s asleep");
    if (state->m_sleepAnnounced) state->m_wakeReportedByClock = true;
    state->reportWake();
  }
  return G_SOURCE_CONTINUE;
}

void QVWakeMonitorState::prepareForSleep(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                                         GVariant* parameters, gpointer data) {
  std::shared_ptr<QVWakeMonitorState> state = lock(data);
  if (!state || !g_variant_is_of_type(parameters, G_VARIANT_TYPE("(b)"))) return;
  gboolean goingToSleep = FALSE;
  g_variant_get(parameters, "(b)", &goingToSleep);
  if (goingToSleep) {
    state->m_sleepAnnounced = true;
    state->m_wakeReportedByClock = false;
    return;
  }
  bool alreadyReported = state->m_sleepAnnounced && state->m_wakeReportedByClock;
  state->m_sleepAnnounced = false;
  state->m_wakeReportedByClock = false;
  // This resume is accounted for: the clock check must not report it a second time.
  state->m_asleepBaseline = timeAsleepNs();
  if (alreadyReported) return;
  qv::debugLog("platform", "wake reported by logind");
  state->reportWake();
}

void QVWakeMonitorState::busReady(GObject*, GAsyncResult* result, gpointer data) {
  std::unique_ptr<Weak> weak(static_cast<Weak*>(data));
  GError* error = nullptr;
  GDBusConnection* bus = g_bus_get_finish(result, &error);
  if (!bus) {
    if (!g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED))
      qv::debugLog("platform", std::string("no system bus, wake is noticed by the clock only: ") +
                                   (error ? error->message : "unknown error"));
    g_clear_error(&error);
    return;
  }
  // The shared system bus connection would otherwise end the whole program when the bus goes away.
  g_dbus_connection_set_exit_on_close(bus, FALSE);
  std::shared_ptr<QVWakeMonitorState> state = weak->lock();
  if (!state) {
    g_object_unref(bus);
    return;
  }
  state->m_bus = bus;
  state->m_subscription =
      g_dbus_connection_signal_subscribe(bus, kLogindName, kLogindManager, "PrepareForSleep", kLogindPath, nullptr,
                                         G_DBUS_SIGNAL_FLAGS_NONE, prepareForSleep, weak.release(), deleteWeak);
  qv::debugLog("platform", "listening for logind's PrepareForSleep on the system bus");
}

}  // namespace

struct QVWakeMonitor::Impl {
  std::shared_ptr<QVWakeMonitorState> m_state;
};

QVWakeMonitor::QVWakeMonitor(std::function<void()> onWake) : m_impl(std::make_unique<Impl>()) {
  m_impl->m_state = std::make_shared<QVWakeMonitorState>();
  m_impl->m_state->m_onWake = std::move(onWake);
  m_impl->m_state->start(m_impl->m_state);
}

QVWakeMonitor::~QVWakeMonitor() = default;

void QVWakeMonitor::simulateWake() {
  // Held for the call: the callback may destroy this monitor.
  std::shared_ptr<QVWakeMonitorState> state = m_impl->m_state;
  state->reportWake();
}
