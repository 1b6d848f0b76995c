// Failure bubbles of stellwin-backup, shown by a notification service of our own on a private session bus.
#include <gio/gio.h>

#include "host/QVProgramRunner.h"

using namespace qvtest;

namespace {

constexpr const char* kInterface = R"(<node><interface name="org.freedesktop.Notifications">
  <method name="GetServerInformation"><arg direction="out" type="s"/><arg direction="out" type="s"/>
    <arg direction="out" type="s"/><arg direction="out" type="s"/></method>
  <method name="Notify"><arg type="s"/><arg type="u"/><arg type="s"/><arg type="s"/><arg type="s"/><arg type="as"/>
    <arg type="a{sv}"/><arg type="i"/><arg direction="out" type="u"/></method>
  <method name="CloseNotification"><arg type="u"/></method></interface></node>)";
constexpr const char* kPath = "/org/freedesktop/Notifications";
constexpr const char* kName = "org.freedesktop.Notifications";

struct Bubble {
  std::uint32_t replacesId, id;
  std::string body;
  std::vector<std::string> actions;
  int timeout;
};

class QVDesktopNotificationsTest : public HostTest {
 protected:
  void SetUp() override {
    if (!std::filesystem::exists("/usr/bin/dbus-daemon")) GTEST_SKIP() << "needs dbus-daemon";
    g_test_dbus_up(m_dbus);  // sets DBUS_SESSION_BUS_ADDRESS
    m_bus = g_dbus_connection_new_for_address_sync(g_test_dbus_get_bus_address(m_dbus),
                                                   GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
                                                   nullptr, nullptr, nullptr);
    ASSERT_TRUE(m_bus);
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(kInterface, nullptr);
    static const GDBusInterfaceVTable vtable = {&QVDesktopNotificationsTest::call, nullptr, nullptr, {}};
    g_dbus_connection_register_object(m_bus, kPath, node->interfaces[0], &vtable, this, nullptr, nullptr);
    g_dbus_node_info_unref(node);
    GVariant* name = g_dbus_connection_call_sync(m_bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                 "org.freedesktop.DBus", "RequestName", g_variant_new("(su)", kName, 0),
                                                 nullptr, G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr);
    ASSERT_TRUE(name);
    g_variant_unref(name);
  }
  void TearDown() override {
    if (m_bus) g_dbus_connection_close_sync(m_bus, nullptr, nullptr), g_object_unref(m_bus), g_test_dbus_down(m_dbus);
    g_object_unref(m_dbus);
  }

  static void call(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* method,
                   GVariant* parameters, GDBusMethodInvocation* invocation, gpointer data) {
    auto* self = static_cast<QVDesktopNotificationsTest*>(data);
    Bubble bubble{};
    if (std::string(method) == "GetServerInformation")
      return g_dbus_method_invocation_return_value(invocation, g_variant_new("(ssss)", "fake", "test", "1", "1.2"));
    if (std::string(method) == "CloseNotification") {
      g_variant_get(parameters, "(u)", &bubble.id);
      self->m_closed.push_back(bubble.id);
      return g_dbus_method_invocation_return_value(invocation, nullptr);
    }
    const gchar* body;
    g_auto(GStrv) actions = nullptr;
    g_variant_get(parameters, "(&su&s&s&s^as@a{sv}i)", nullptr, &bubble.replacesId, nullptr, nullptr, &body, &actions,
                  nullptr, &bubble.timeout);
    bubble.body = body;
    bubble.actions.assign(actions, actions + g_strv_length(actions));
    bubble.id = bubble.replacesId ? bubble.replacesId : self->m_bubbles.size() + 1;
    self->m_bubbles.push_back(bubble);
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(u)", bubble.id));
  }

  GTestDBus* m_dbus = g_test_dbus_new(G_TEST_DBUS_NONE);
  GDBusConnection* m_bus = nullptr;
  std::vector<Bubble> m_bubbles;
  std::vector<std::uint32_t> m_closed;
};

TEST_F(QVDesktopNotificationsTest, GathersTheFailuresOfARunInOneBubbleWhoseButtonsTheDaemonAnswers) {
  runJSON({"group", "add", "Photos", makeFile("p.jpg")});
  runJSON({"group", "add", "Papers", makeFile("q.pdf")});
  std::filesystem::remove_all(backups());
  ProgramResult result = RunningProgram({"backup", "Photos", "Papers"}).finish(std::chrono::seconds(60));
  EXPECT_EQ(result.err.find("Backup for group"), std::string::npos) << "shown as a bubble:\n" << result.err;

  // The second failure updates the bubble of the first, which then tells of both; the runs end in either order.
  ASSERT_EQ(m_bubbles.size(), 2u);
  const std::string message = " - Backup destination directory not found. Check your Backup Preferences.";
  const bool photosFirst = m_bubbles[0].body.find("Photos") != std::string::npos;
  const std::string first = (photosFirst ? "Photos" : "Papers") + message;
  const std::string second = (photosFirst ? "Papers" : "Photos") + message;
  EXPECT_EQ(m_bubbles[0].body, "Backup for group failed: " + first);
  EXPECT_EQ(m_bubbles[0].actions, (std::vector<std::string>{"1", "View Details...", "2", "Cancel"}));
  EXPECT_EQ(m_bubbles[0].timeout, 10000);
  EXPECT_EQ(m_bubbles[0].replacesId, 0u);
  EXPECT_EQ(m_bubbles[1].replacesId, m_bubbles[0].id);
  EXPECT_EQ(m_bubbles[1].body, "Backup for groups failed: " + first + ", " + second);

  // The daemon's bubble: "View Details..." shows the group in a bubble of its own, "Cancel" does not.
  const std::string shownGroup =
      "stellwin-backup group show " + runJSON({"group", "show", "Photos", "--json"})["groupID"].get<std::string>();
  for (const std::string button : {"2", "1"}) {
    makeDue("Photos");
    RunningProgram daemon({"daemon"});
    const std::size_t shown = m_bubbles.size(), closed = m_closed.size();
    ASSERT_TRUE(daemon.waitFor([&] { return m_bubbles.size() > shown; }, std::chrono::seconds(30)));
    EXPECT_EQ(m_bubbles.back().body.find("Backup for group failed: Photos - "), 0u) << m_bubbles.back().body;
    g_dbus_connection_emit_signal(m_bus, nullptr, kPath, kName, "ActionInvoked",
                                  g_variant_new("(us)", m_bubbles.back().id, button.c_str()), nullptr);
    EXPECT_TRUE(daemon.waitFor([&] { return m_closed.size() > closed; }, std::chrono::seconds(10)));
    kill(daemon.pid, SIGTERM);
    ProgramResult result = daemon.finish(std::chrono::seconds(30));
    EXPECT_EQ(result.status, 0) << result.err;
    const bool detailed = std::any_of(m_bubbles.begin() + shown, m_bubbles.end(), [&](const Bubble& b) {
      return b.body.starts_with("Photos: Last backup: Never") && b.body.find(shownGroup) != std::string::npos;
    });
    EXPECT_EQ(detailed, button == "1") << button << ":\n" << m_bubbles.back().body;
  }
}

}  // namespace
