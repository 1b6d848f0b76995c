// Desktop notifications of stellwin-backup against a notification service of our own on a private
// session bus: what the bubble says, its buttons, one bubble for several failures, a click on its first
// button, and the daemon that runs a due group and logs its outcome.
#include <gio/gio.h>
#include <gtest/gtest.h>

#include <fcntl.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "host/QVProgramRunner.h"
#include "support/QVTestSupport.h"

namespace fs = std::filesystem;
using nlohmann::json;
using qvtest::ProgramResult;
using qvtest::RunningProgram;
using qvtest::runProgram;

namespace {

constexpr const char* kIntrospection = R"(
<node>
  <interface name="org.freedesktop.Notifications">
    <method name="GetServerInformation">
      <arg direction="out" type="s"/><arg direction="out" type="s"/><arg direction="out" type="s"/>
      <arg direction="out" type="s"/>
    </method>
    <method name="GetCapabilities"><arg direction="out" type="as"/></method>
    <method name="Notify">
      <arg direction="in" type="s"/><arg direction="in" type="u"/><arg direction="in" type="s"/>
      <arg direction="in" type="s"/><arg direction="in" type="s"/><arg direction="in" type="as"/>
      <arg direction="in" type="a{sv}"/><arg direction="in" type="i"/><arg direction="out" type="u"/>
    </method>
    <method name="CloseNotification"><arg direction="in" type="u"/></method>
    <signal name="ActionInvoked"><arg type="u"/><arg type="s"/></signal>
    <signal name="NotificationClosed"><arg type="u"/><arg type="u"/></signal>
  </interface>
</node>)";

// One Notify call as the service received it.
struct Bubble {
  std::uint32_t replacesId = 0;
  std::uint32_t id = 0;
  std::string body;
  std::vector<std::string> actions;
  int timeout = 0;
};

// A private bus (dbus-daemon with a configuration of its own) and a notification service on it that
// records what it is asked. Runs on this process's main context: iterate() lets it answer.
class FakeNotificationService {
 public:
  explicit FakeNotificationService(const std::string& folder) {
    const std::string socket = folder + "/bus";
    const std::string config = folder + "/bus.conf";
    qvtest::writeFile(config,
                      "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\" "
                      "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
                      "<busconfig><type>session</type><listen>unix:path=" + socket + "</listen>"
                      "<policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
                      "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n");
    std::string program = "/usr/bin/dbus-daemon";
    std::string configArgument = "--config-file=" + config;
    char* argv[] = {program.data(), configArgument.data(), const_cast<char*>("--nofork"),
                    const_cast<char*>("--nopidfile"), const_cast<char*>("--print-address=3"), nullptr};
    // The daemon prints its address once it listens; the socket file alone appears before that.
    int ready[2];
    if (pipe(ready) != 0) return;
    m_daemon = fork();
    if (m_daemon == 0) {
      dup2(ready[1], 3);
      int quiet = open("/dev/null", O_WRONLY);
      dup2(quiet, 2);  // it complains that it may not raise its file limit
      execv(argv[0], argv);
      _exit(127);
    }
    close(ready[1]);
    char buffer[512];
    ssize_t n = read(ready[0], buffer, sizeof buffer);  // blocks until printed or the daemon is gone
    close(ready[0]);
    if (n <= 0) {
      ADD_FAILURE() << "dbus-daemon did not start";
      return;
    }
    m_address = "unix:path=" + socket;

    GError* error = nullptr;
    m_bus = g_dbus_connection_new_for_address_sync(
        m_address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    if (!m_bus) {
      ADD_FAILURE() << "private bus: " << (error ? error->message : "?");
      if (error) g_error_free(error);
      return;
    }
    g_dbus_connection_set_exit_on_close(m_bus, FALSE);
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(kIntrospection, nullptr);
    static const GDBusInterfaceVTable vtable = {&FakeNotificationService::call, nullptr, nullptr, {}};
    m_registration = g_dbus_connection_register_object(m_bus, "/org/freedesktop/Notifications",
                                                       node->interfaces[0], &vtable, this, nullptr, nullptr);
    g_dbus_node_info_unref(node);
    GVariant* reply = g_dbus_connection_call_sync(
        m_bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
        g_variant_new("(su)", "org.freedesktop.Notifications", 0u), G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE,
        5000, nullptr, &error);
    if (!reply) {
      ADD_FAILURE() << "RequestName: " << (error ? error->message : "?");
      if (error) g_error_free(error);
      return;
    }
    std::uint32_t answer = 0;
    g_variant_get(reply, "(u)", &answer);
    g_variant_unref(reply);
    EXPECT_EQ(answer, 1u) << "the service must own its name";
  }

  ~FakeNotificationService() {
    if (m_registration) g_dbus_connection_unregister_object(m_bus, m_registration);
    if (m_bus) {
      g_dbus_connection_close_sync(m_bus, nullptr, nullptr);
      g_object_unref(m_bus);
    }
    if (m_daemon > 0) {
      kill(m_daemon, SIGTERM);
      waitpid(m_daemon, nullptr, 0);
    }
  }

  const std::string& address() const { return m_address; }
  const std::vector<Bubble>& bubbles() const { return m_bubbles; }
  const std::vector<std::uint32_t>& closed() const { return m_closed; }

  static void iterate() {
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
  }

  void clickButton(std::uint32_t id, const std::string& key) {
    g_dbus_connection_emit_signal(m_bus, nullptr, "/org/freedesktop/Notifications", "org.freedesktop.Notifications",
                                  "ActionInvoked", g_variant_new("(us)", id, key.c_str()), nullptr);
    g_dbus_connection_flush_sync(m_bus, nullptr, nullptr);
  }

 private:
  static void call(GDBusConnection* bus, const gchar*, const gchar* path, const gchar* interface, const gchar* method,
                   GVariant* parameters, GDBusMethodInvocation* invocation, gpointer data) {
    auto* self = static_cast<FakeNotificationService*>(data);
    const std::string name = method;
    if (name == "GetServerInformation") {
      g_dbus_method_invocation_return_value(invocation, g_variant_new("(ssss)", "fake", "test", "1", "1.2"));
    } else if (name == "GetCapabilities") {
      const gchar* capabilities[] = {"actions", "body", nullptr};
      g_dbus_method_invocation_return_value(invocation, g_variant_new("(^as)", capabilities));
    } else if (name == "Notify") {
      Bubble bubble;
      const gchar *application, *icon, *summary, *body;
      GVariantIter* actions;
      GVariant* hints;
      g_variant_get(parameters, "(&su&s&s&sas@a{sv}i)", &application, &bubble.replacesId, &icon, &summary, &body,
                    &actions, &hints, &bubble.timeout);
      bubble.body = body;
      const gchar* action;
      while (g_variant_iter_next(actions, "&s", &action)) bubble.actions.push_back(action);
      g_variant_iter_free(actions);
      g_variant_unref(hints);
      bubble.id = bubble.replacesId ? bubble.replacesId : ++self->m_lastId;
      self->m_bubbles.push_back(bubble);
      g_dbus_method_invocation_return_value(invocation, g_variant_new("(u)", bubble.id));
    } else if (name == "CloseNotification") {
      std::uint32_t id = 0;
      g_variant_get(parameters, "(u)", &id);
      self->m_closed.push_back(id);
      g_dbus_method_invocation_return_value(invocation, nullptr);
      g_dbus_connection_emit_signal(bus, nullptr, path, interface, "NotificationClosed", g_variant_new("(uu)", id, 3u),
                                    nullptr);
    } else {
      g_dbus_method_invocation_return_dbus_error(invocation, "org.freedesktop.DBus.Error.UnknownMethod", method);
    }
  }

  pid_t m_daemon = -1;
  std::string m_address;
  GDBusConnection* m_bus = nullptr;
  guint m_registration = 0;
  std::uint32_t m_lastId = 0;
  std::vector<Bubble> m_bubbles;
  std::vector<std::uint32_t> m_closed;
};

class QVDesktopNotificationsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!fs::exists("/usr/bin/dbus-daemon")) GTEST_SKIP() << "needs dbus-daemon (Debian package dbus-daemon)";
    m_service = std::make_unique<FakeNotificationService>(m_env.root() + "/runtime");
    setenv("DBUS_SESSION_BUS_ADDRESS", m_service->address().c_str(), 1);
  }

  std::string makeFile(const std::string& relative) {
    const std::string path = m_env.home() + "/" + relative;
    qvtest::writeFile(path, "data");
    return path;
  }

  ProgramResult runServed(const std::vector<std::string>& arguments) {
    RunningProgram program(arguments);
    return program.finish(std::chrono::seconds(60), &FakeNotificationService::iterate);
  }

  // Makes the group due at once for a daemon: daily, last attempted long ago.
  void makeDue(const std::string& title) {
    ASSERT_EQ(runProgram({"group", "set", title, "--schedule", "daily"}).status, 0);
    json preferences = json::parse(qvtest::readFile(m_env.preferencesPath()));
    for (auto& group : preferences["QVBackupAgent"]["groups"])
      if (group["title"] == title) group["lastBackupAttemptDate"] = {{"$date", "2020-01-01T00:00:00.000Z"}};
    qvtest::writeFile(m_env.preferencesPath(), preferences.dump(2));
  }

  const std::string m_message = "Backup destination directory not found. Check your Backup Preferences.";
  qvtest::IsolatedEnvironment m_env;
  std::unique_ptr<FakeNotificationService> m_service;
};

TEST_F(QVDesktopNotificationsTest, GathersTheFailuresOfARunInOneBubbleInsteadOfStderr) {
  ASSERT_EQ(runProgram({"group", "add", "Photos", makeFile("p.jpg")}).status, 0);
  ASSERT_EQ(runProgram({"group", "add", "Papers", makeFile("q.pdf")}).status, 0);
  fs::remove_all(m_env.home() + "/Documents/Stellwin Backups");

  ProgramResult result = runServed({"backup", "Photos", "Papers"});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.out.find("Photos: failed (-120)"), std::string::npos) << result.out;
  EXPECT_EQ(result.err.find("Backup for group"), std::string::npos) << "shown as a bubble:\n" << result.err;

  // The two runs end in either order.
  const auto& bubbles = m_service->bubbles();
  ASSERT_EQ(bubbles.size(), 2u);
  const std::string photos = "Photos - " + m_message;
  const std::string papers = "Papers - " + m_message;
  EXPECT_TRUE(bubbles[0].body == "Backup for group failed: " + photos ||
              bubbles[0].body == "Backup for group failed: " + papers)
      << bubbles[0].body;
  EXPECT_EQ(bubbles[0].actions, (std::vector<std::string>{"1", "View Details...", "2", "Cancel"}));
  EXPECT_EQ(bubbles[0].timeout, 10000);
  EXPECT_EQ(bubbles[0].replacesId, 0u);
  // The second failure updates the same bubble, which then tells of both.
  EXPECT_EQ(bubbles[1].replacesId, bubbles[0].id);
  EXPECT_TRUE(bubbles[1].body == "Backup for groups failed: " + photos + ", " + papers ||
              bubbles[1].body == "Backup for groups failed: " + papers + ", " + photos)
      << bubbles[1].body;
}

TEST_F(QVDesktopNotificationsTest, DaemonRunsADueGroupAndShowsItsGroupOnViewDetails) {
  const std::string item = makeFile("Bilder/p.jpg");
  ASSERT_EQ(runProgram({"group", "add", "Photos", item}).status, 0);
  const std::string groupID = json::parse(runProgram({"group", "list", "--json"}).out)[0]["id"];
  makeDue("Photos");
  fs::remove_all(m_env.home() + "/Documents/Stellwin Backups");

  RunningProgram daemon({"daemon"});
  auto iterate = &FakeNotificationService::iterate;
  ASSERT_TRUE(daemon.waitFor([&] { return !m_service->bubbles().empty(); }, std::chrono::seconds(30), iterate))
      << daemon.err();
  EXPECT_TRUE(daemon.waitFor([&] { return daemon.err().find("\"Photos\" failed (-120)") != std::string::npos; },
                             std::chrono::seconds(10), iterate))
      << daemon.err();
  EXPECT_NE(daemon.err().find("started \"Photos\""), std::string::npos) << daemon.err();
  // Written at once, while the daemon still runs.
  EXPECT_EQ(json::parse(runProgram({"group", "show", "Photos", "--json"}).out)["statusCode"], -120);

  const std::uint32_t id = m_service->bubbles().back().id;
  m_service->clickButton(id, "1");
  EXPECT_TRUE(daemon.waitFor([&] { return daemon.out().find(item) != std::string::npos; }, std::chrono::seconds(10),
                             iterate))
      << daemon.out();
  EXPECT_NE(daemon.out().find("Photos (" + groupID + ")"), std::string::npos) << daemon.out();
  EXPECT_TRUE(daemon.waitFor([&] { return !m_service->closed().empty(); }, std::chrono::seconds(10), iterate));

  daemon.signal(SIGTERM);
  ProgramResult result = daemon.finish(std::chrono::seconds(30), iterate);
  EXPECT_EQ(result.status, 0) << result.err;
}

}  // namespace
