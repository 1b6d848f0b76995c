#include "platform/QVWakeMonitor.h"

#include <gio/gio.h>
#include <gio/gunixsocketaddress.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "platform/QVRunLoop.h"
#include "support/QVTestSupport.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

void spinMainLoop(std::chrono::milliseconds duration) {
  qv::runMainLoopUntil([] { return false; }, duration);
}

class ScopedSystemBusAddress {
 public:
  explicit ScopedSystemBusAddress(const std::string& address) {
    if (const char* old = std::getenv("DBUS_SYSTEM_BUS_ADDRESS")) m_saved = old;
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
  }
  ~ScopedSystemBusAddress() {
    if (m_saved)
      setenv("DBUS_SYSTEM_BUS_ADDRESS", m_saved->c_str(), 1);
    else
      unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
  }

 private:
  std::optional<std::string> m_saved;
};

// A private dbus-daemon standing in for the system bus, with a connection that owns logind's name and
// emits its PrepareForSleep signal.
class FakeLogind {
 public:
  FakeLogind() {
    GError* error = nullptr;
    m_daemon = g_subprocess_new(G_SUBPROCESS_FLAGS_STDOUT_PIPE, &error, "dbus-daemon", "--session", "--nofork",
                                "--print-address", nullptr);
    if (!m_daemon) {
      fail(error);
      return;
    }
    GDataInputStream* out = g_data_input_stream_new(g_subprocess_get_stdout_pipe(m_daemon));
    char* line = g_data_input_stream_read_line(out, nullptr, nullptr, &error);
    g_object_unref(out);
    if (!line) {
      fail(error);
      return;
    }
    m_address = line;
    g_free(line);
    m_logind = connect(&error);
    if (!m_logind) {
      fail(error);
      return;
    }
    GVariant* reply = g_dbus_connection_call_sync(
        m_logind, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
        g_variant_new("(su)", "org.freedesktop.login1", 4u /* do not queue */), G_VARIANT_TYPE("(u)"),
        G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, &error);
    if (!reply) {
      fail(error);
      return;
    }
    g_variant_unref(reply);
  }
  ~FakeLogind() {
    if (m_logind) g_object_unref(m_logind);
    stopDaemon();
  }

  const std::string& problem() const { return m_problem; }
  const std::string& address() const { return m_address; }

  GDBusConnection* connect(GError** error) {
    return g_dbus_connection_new_for_address_sync(
        m_address.c_str(),
        GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                             G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, error);
  }

  static void emit(GDBusConnection* connection, GVariant* parameters) {
    g_dbus_connection_emit_signal(connection, nullptr, "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                                  "PrepareForSleep", parameters, nullptr);
    g_dbus_connection_flush_sync(connection, nullptr, nullptr);
  }
  void emitFromLogind(GVariant* parameters) { emit(m_logind, parameters); }
  void prepareForSleep(bool goingToSleep) { emit(m_logind, g_variant_new("(b)", goingToSleep)); }

  void stopDaemon() {
    if (!m_daemon) return;
    g_subprocess_force_exit(m_daemon);
    g_subprocess_wait(m_daemon, nullptr, nullptr);
    g_clear_object(&m_daemon);
  }

 private:
  void fail(GError* error) {
    m_problem = error ? error->message : "unknown error";
    g_clear_error(&error);
  }

  GSubprocess* m_daemon = nullptr;
  GDBusConnection* m_logind = nullptr;
  std::string m_address;
  std::string m_problem;
};

// ---- Without logind ---------------------------------------------------------------------------------

TEST(QVWakeMonitorTest, SimulatedWakeCallsTheCallbackOnTheMainThread) {
  const auto mainThread = std::this_thread::get_id();
  int wakes = 0;
  bool onMainThread = false;
  QVWakeMonitor monitor([&] {
    ++wakes;
    onMainThread = std::this_thread::get_id() == mainThread;
  });
  monitor.simulateWake();
  monitor.simulateWake();
  EXPECT_EQ(wakes, 2);
  EXPECT_TRUE(onMainThread);
  spinMainLoop(100ms);
  EXPECT_EQ(wakes, 2) << "no wake without a resume";
}

TEST(QVWakeMonitorTest, TheCallbackMayDestroyTheMonitor) {
  std::unique_ptr<QVWakeMonitor> monitor;
  auto captured = std::make_shared<int>(42);
  int seen = 0;
  monitor = std::make_unique<QVWakeMonitor>([&, captured] {
    monitor.reset();
    seen = *captured;
  });
  monitor->simulateWake();
  EXPECT_EQ(monitor, nullptr);
  EXPECT_EQ(seen, 42);
  spinMainLoop(100ms);
}

TEST(QVWakeMonitorTest, StartsAtOnceWhereNoSystemBusAnswers) {
  qvtest::TemporaryDirectory dir;
  // One address with nothing behind it, one with a socket that accepts and never says a word.
  GError* error = nullptr;
  GSocket* silent = g_socket_new(G_SOCKET_FAMILY_UNIX, G_SOCKET_TYPE_STREAM, G_SOCKET_PROTOCOL_DEFAULT, &error);
  ASSERT_NE(silent, nullptr);
  GSocketAddress* where = g_unix_socket_address_new((dir / "silent").c_str());
  ASSERT_TRUE(g_socket_bind(silent, where, TRUE, &error) && g_socket_listen(silent, &error));
  g_object_unref(where);

  for (std::string address : {"unix:path=" + (dir / "nothing-here"), "unix:path=" + (dir / "silent")}) {
    ScopedSystemBusAddress bus(address);
    int wakes = 0;
    auto start = Clock::now();
    auto monitor = std::make_unique<QVWakeMonitor>([&] { ++wakes; });
    EXPECT_LT(Clock::now() - start, 2s) << address;
    spinMainLoop(200ms);
    monitor.reset();  // while the silent bus still holds the connection attempt
    spinMainLoop(50ms);
    EXPECT_EQ(wakes, 0);
  }
  g_socket_close(silent, nullptr);
  g_object_unref(silent);
  spinMainLoop(200ms);  // the abandoned attempt ends now; nothing may call into the gone monitor
}

// ---- With logind ------------------------------------------------------------------------------------

TEST(QVWakeMonitorTest, ReportsEachResumeThatLogindAnnouncesOnce) {
  FakeLogind logind;
  ASSERT_EQ(logind.problem(), "") << "cannot run a private dbus-daemon";
  ScopedSystemBusAddress bus(logind.address());
  int wakes = 0;
  QVWakeMonitor monitor([&] { ++wakes; });

  // The monitor connects in the background: announce resumes until it has heard one.
  for (auto deadline = Clock::now() + 10s; wakes == 0 && Clock::now() < deadline;) {
    logind.prepareForSleep(false);
    qv::runMainLoopUntil([&] { return wakes > 0; }, 100ms);
  }
  ASSERT_GT(wakes, 0) << "the monitor never listened to logind";
  spinMainLoop(300ms);
  wakes = 0;

  logind.prepareForSleep(true);
  spinMainLoop(200ms);
  EXPECT_EQ(wakes, 0) << "going to sleep is no wake";
  logind.prepareForSleep(false);
  EXPECT_TRUE(qv::runMainLoopUntil([&] { return wakes == 1; }, 5s));

  // A malformed signal is ignored; the real one after it shows that it has been seen.
  logind.emitFromLogind(g_variant_new("(s)", "false"));
  logind.prepareForSleep(false);
  EXPECT_TRUE(qv::runMainLoopUntil([&] { return wakes == 2; }, 5s));
  spinMainLoop(200ms);
  EXPECT_EQ(wakes, 2);

  // The bus going away must not take the program with it.
  logind.stopDaemon();
  spinMainLoop(300ms);
  monitor.simulateWake();
  EXPECT_EQ(wakes, 3);
}

}  // namespace
