#include "platform/QVWakeMonitor.h"

#include <gio/gio.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <thread>

#include "platform/QVRunLoop.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

void spin(std::chrono::milliseconds duration) {
  qv::runMainLoopUntil([] { return false; }, duration);
}

// A private dbus-daemon standing in for the system bus, and a connection on it that owns logind's name.
struct FakeLogind {
  GSubprocess* daemon = g_subprocess_new(G_SUBPROCESS_FLAGS_STDOUT_PIPE, nullptr, "dbus-daemon", "--session",
                                         "--nofork", "--print-address", nullptr);
  GDBusConnection* logind = nullptr;
  FakeLogind() {
    if (!daemon) return;
    GDataInputStream* out = g_data_input_stream_new(g_subprocess_get_stdout_pipe(daemon));
    g_autofree char* address = g_data_input_stream_read_line(out, nullptr, nullptr, nullptr);
    g_object_unref(out);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address ? address : "", 1);
    auto flags = G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION;
    if (address) logind = g_dbus_connection_new_for_address_sync(address, GDBusConnectionFlags(flags), {}, {}, {});
    if (logind) g_bus_own_name_on_connection(logind, "org.freedesktop.login1", {}, {}, {}, {}, {});
  }
  ~FakeLogind() { stop(); }
  void emit(GVariant* parameters) {
    g_dbus_connection_emit_signal(logind, {}, "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                                  "PrepareForSleep", parameters, {});
    g_dbus_connection_flush_sync(logind, {}, {});
  }
  void stop() {
    g_clear_object(&logind);
    if (daemon) g_subprocess_force_exit(daemon);
    g_clear_object(&daemon);
  }
};

TEST(QVWakeMonitorTest, StartsAtOnceWhenTheSystemBusNeverAnswers) {
  GSocketListener* silent = g_socket_listener_new();  // accepts connections, never says a word
  const guint16 port = g_socket_listener_add_any_inet_port(silent, nullptr, nullptr);
  ASSERT_NE(port, 0);
  setenv("DBUS_SYSTEM_BUS_ADDRESS", ("tcp:host=127.0.0.1,port=" + std::to_string(port)).c_str(), 1);
  const auto start = Clock::now();
  auto monitor = std::make_unique<QVWakeMonitor>([] { ADD_FAILURE() << "no bus, no wake"; });
  EXPECT_LT(Clock::now() - start, 2s);
  spin(200ms);
  monitor.reset();  // while the connection attempt still waits
  g_object_unref(silent);
  spin(200ms);  // the abandoned attempt ends now; nothing may call into the gone monitor
}

// Every wake comes back on the main thread, and its callback may destroy the monitor.
TEST(QVWakeMonitorTest, ReportsEachResumeThatLogindAnnouncesOnceOnTheMainThread) {
  FakeLogind logind;
  ASSERT_NE(logind.logind, nullptr) << "cannot run a private dbus-daemon";
  int wakes = 0;
  bool destroyOnWake = false;
  std::unique_ptr<QVWakeMonitor> monitor;
  monitor = std::make_unique<QVWakeMonitor>([&, mainThread = std::this_thread::get_id()] {
    EXPECT_EQ(std::this_thread::get_id(), mainThread);
    ++wakes;
    if (destroyOnWake) monitor.reset();
  });
  // The monitor connects in the background: announce resumes until it has heard one.
  for (auto deadline = Clock::now() + 10s; !wakes && Clock::now() < deadline; spin(100ms))
    logind.emit(g_variant_new("(b)", FALSE));
  ASSERT_GT(wakes, 0) << "the monitor never listened to logind";
  spin(300ms);
  wakes = 0;
  // Going to sleep and a malformed signal are no wake; the resume after them shows they have been seen.
  for (GVariant* signal : {g_variant_new("(b)", TRUE), g_variant_new("(s)", "false"), g_variant_new("(b)", FALSE)})
    logind.emit(signal);
  EXPECT_TRUE(qv::runMainLoopUntil([&] { return wakes > 0; }, 5s));
  spin(200ms);
  EXPECT_EQ(wakes, 1);
  logind.stop();  // the bus going away must not take the program with it
  spin(300ms);
  destroyOnWake = true;
  monitor->simulateWake();
  EXPECT_EQ(wakes, 2);
  EXPECT_FALSE(monitor);
}

}  // namespace
