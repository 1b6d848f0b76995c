// The daemon's status menu in the tray, read and clicked as a tray host does it: on a private session bus
// with Debian's status-notifier-watcher, the menu through com.canonical.dbusmenu (GetLayout, Event). The
// bubbles go to a notification service of the test's own, on a thread of its own, which can press a button.
#include <gio/gio.h>

#include <thread>

#include "host/QVProgramRunner.h"

using namespace qvtest;
using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

constexpr const char* kWatcher = "/usr/bin/status-notifier-watcher";
constexpr const char* kNotificationsXML = R"xml(<node><interface name="org.freedesktop.Notifications">
  <method name="GetServerInformation"><arg direction="out" type="s"/><arg direction="out" type="s"/>
    <arg direction="out" type="s"/><arg direction="out" type="s"/></method>
  <method name="Notify"><arg type="s"/><arg type="u"/><arg type="s"/><arg type="s"/><arg type="s"/><arg type="as"/>
    <arg type="a{sv}"/><arg type="i"/><arg direction="out" type="u"/></method>
  <method name="CloseNotification"><arg type="u"/></method></interface></node>)xml";

struct Entry {
  std::int32_t id = 0;
  std::string label, type;
  bool visible = true;
  std::vector<Entry> children;
};

Entry entryOf(GVariant* layout) {
  Entry entry;
  GVariant* properties = nullptr;
  GVariantIter* children = nullptr;
  g_variant_get(layout, "(i@a{sv}av)", &entry.id, &properties, &children);
  if (const gchar* s = nullptr; g_variant_lookup(properties, "label", "&s", &s)) entry.label = s;
  if (const gchar* s = nullptr; g_variant_lookup(properties, "type", "&s", &s)) entry.type = s;
  if (gboolean b = TRUE; g_variant_lookup(properties, "visible", "b", &b)) entry.visible = b;
  for (GVariant* child = nullptr; g_variant_iter_next(children, "v", &child); g_variant_unref(child))
    entry.children.push_back(entryOf(child));
  g_variant_iter_free(children);
  g_variant_unref(properties);
  return entry;
}

struct Bubble {
  std::uint32_t id;
  std::string body;
  std::vector<std::string> actions;
};

class QVTrayTest : public HostTest {
 protected:
  void SetUp() override {
    if (!std::filesystem::exists("/usr/bin/dbus-daemon") || !std::filesystem::exists(kWatcher))
      GTEST_SKIP() << "needs dbus-daemon and status-notifier-watcher (scripts/setup.sh --tests)";
    g_test_dbus_up(m_dbus);  // sets DBUS_SESSION_BUS_ADDRESS for the test and the programs it starts
    m_bus = connect();
    ASSERT_TRUE(m_bus);
    m_notifications = std::thread([this] { serveNotifications(); });
    while (!m_serving) std::this_thread::sleep_for(milliseconds(10));
    startWatcher();
  }
  void TearDown() override {
    if (m_daemon) stopDaemon();
    stopWatcher();
    if (m_notifications.joinable()) {
      g_main_loop_quit(m_loop);
      m_notifications.join();
    }
    if (m_bus) g_dbus_connection_close_sync(m_bus, nullptr, nullptr), g_object_unref(m_bus), g_test_dbus_down(m_dbus);
    g_object_unref(m_dbus);
  }

  GDBusConnection* connect() {
    return g_dbus_connection_new_for_address_sync(g_test_dbus_get_bus_address(m_dbus),
                                                  GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                                       G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
                                                  nullptr, nullptr, nullptr);
  }
  GVariant* call(const std::string& name, const char* path, const char* interface, const char* method,
                 GVariant* parameters, GDBusConnection* bus = nullptr) {
    return g_dbus_connection_call_sync(bus ? bus : m_bus, name.c_str(), path, interface, method, parameters, nullptr,
                                       G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr);
  }
  bool hasOwner(const char* name) {
    GVariant* reply = call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameHasOwner",
                           g_variant_new("(s)", name));
    gboolean owned = FALSE;
    if (reply) g_variant_get(reply, "(b)", &owned), g_variant_unref(reply);
    return owned;
  }

  // ---- The watcher, a real one
  void startWatcher() {
    const char* argv[] = {kWatcher, nullptr};
    ASSERT_TRUE(
        g_spawn_async(nullptr, const_cast<char**>(argv), nullptr,
                      GSpawnFlags(G_SPAWN_DO_NOT_REAP_CHILD | G_SPAWN_STDOUT_TO_DEV_NULL | G_SPAWN_STDERR_TO_DEV_NULL),
                      nullptr, nullptr, &m_watcher, nullptr));
    ASSERT_TRUE(eventually([&] { return hasOwner("org.kde.StatusNotifierWatcher"); }, seconds(20)));
  }
  void stopWatcher() {
    if (m_watcher <= 0) return;
    kill(m_watcher, SIGTERM), waitpid(m_watcher, nullptr, 0), m_watcher = 0;
    eventually([&] { return !hasOwner("org.kde.StatusNotifierWatcher"); }, seconds(10));
  }
  std::vector<std::string> registeredItems() {
    GVariant* reply =
        call("org.kde.StatusNotifierWatcher", "/StatusNotifierWatcher", "org.freedesktop.DBus.Properties", "Get",
             g_variant_new("(ss)", "org.kde.StatusNotifierWatcher", "RegisteredStatusNotifierItems"));
    std::vector<std::string> items;
    if (!reply) return items;
    GVariant* value = nullptr;
    g_variant_get(reply, "(v)", &value);
    GVariantIter iter;
    g_variant_iter_init(&iter, value);
    for (const gchar* item = nullptr; g_variant_iter_next(&iter, "&s", &item);) items.push_back(item);
    g_variant_unref(value), g_variant_unref(reply);
    return items;
  }

  // ---- The daemon and its item
  void startDaemon() {
    m_daemon = std::make_unique<RunningProgram>(std::vector<std::string>{"daemon"});
    ASSERT_TRUE(m_daemon->waitFor([&] { return m_daemon->err.find("started with") != std::string::npos; }, seconds(20)))
        << m_daemon->err;
  }
  void stopDaemon() {
    kill(m_daemon->pid, SIGTERM);
    EXPECT_EQ(m_daemon->finish(seconds(60)).status, 0) << m_daemon->err;
    m_daemon.reset();
  }
  bool eventually(const std::function<bool()>& condition, milliseconds timeout) {
    if (m_daemon) return m_daemon->waitFor(condition, timeout);
    for (auto deadline = std::chrono::steady_clock::now() + timeout; !condition();) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(milliseconds(20));
    }
    return true;
  }
  // The item the watcher knows, once it knows one.
  std::string item() {
    std::vector<std::string> items;
    EXPECT_TRUE(eventually([&] { return !(items = registeredItems()).empty(); }, seconds(10))) << "not registered";
    return items.empty() ? "" : items.front().substr(0, items.front().find('/'));
  }
  std::string property(const char* name) {
    GVariant* reply = call(item(), "/StatusNotifierItem", "org.freedesktop.DBus.Properties", "Get",
                           g_variant_new("(ss)", "org.kde.StatusNotifierItem", name));
    if (!reply) return "(none)";
    GVariant* value = nullptr;
    g_variant_get(reply, "(v)", &value);
    g_autofree gchar* printed = g_variant_print(value, FALSE);
    std::string text =
        g_variant_is_of_type(value, G_VARIANT_TYPE_STRING) ? g_variant_get_string(value, nullptr) : printed;
    g_variant_unref(value), g_variant_unref(reply);
    return text;
  }
  Entry layout() {
    GVariant* reply =
        call(item(), "/MenuBar", "com.canonical.dbusmenu", "GetLayout", g_variant_new("(iias)", 0, -1, nullptr));
    if (!reply) return {};
    GVariant* root = g_variant_get_child_value(reply, 1);
    Entry entry = entryOf(root);
    g_variant_unref(root), g_variant_unref(reply);
    return entry;
  }
  // The menu as a person sees it: one line per shown entry, "-" for a separator, submenus indented.
  static void render(const Entry& entry, const std::string& indent, std::string& text) {
    for (const auto& child : entry.children) {
      if (!child.visible) continue;
      text += indent + (child.type == "separator" ? "-" : child.label) + "\n";
      render(child, indent + "  ", text);
    }
  }
  std::string menu() {
    std::string text;
    render(layout(), "", text);
    return text;
  }
  bool menuShows(const std::string& expected, milliseconds timeout = seconds(1)) {
    std::string shown;
    bool ok = eventually([&] { return (shown = menu()) == expected; }, timeout);
    EXPECT_TRUE(ok) << "shown:\n" << shown << "expected:\n" << expected << m_daemon->err;
    return ok;
  }
  // Clicks the shown entry labelled label in the submenu of the group titled group.
  void click(const std::string& group, const std::string& label) {
    for (const auto& groupEntry : layout().children)
      for (const auto& entry : groupEntry.label == group ? groupEntry.children : std::vector<Entry>{})
        if (entry.visible && entry.label == label) {
          GVariant* reply = call(item(), "/MenuBar", "com.canonical.dbusmenu", "Event",
                                 g_variant_new("(isvu)", entry.id, "clicked", g_variant_new_int32(0), 0u));
          EXPECT_TRUE(reply);
          if (reply) g_variant_unref(reply);
          return;
        }
    ADD_FAILURE() << "no entry " << label << " under " << group << " in\n" << menu();
  }
  nlohmann::json storedGroup(const std::string& title) {
    const nlohmann::json preferences = nlohmann::json::parse(readFile(m_env.preferencesPath()));
    for (const auto& group : preferences["QVBackupAgent"]["groups"])
      if (group["title"] == title) return group;
    return nullptr;
  }

  // ---- Notifications: a stand-in that keeps each bubble and can press its button
  void serveNotifications() {
    GMainContext* context = g_main_context_new();
    g_main_context_push_thread_default(context);
    m_loop = g_main_loop_new(context, FALSE);
    GDBusConnection* bus = connect();
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(kNotificationsXML, nullptr);
    static const GDBusInterfaceVTable vtable = {&QVTrayTest::notificationCall, nullptr, nullptr, {}};
    g_dbus_connection_register_object(bus, "/org/freedesktop/Notifications", node->interfaces[0], &vtable, this,
                                      nullptr, nullptr);
    g_dbus_node_info_unref(node);
    GVariant* owned = call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
                           g_variant_new("(su)", "org.freedesktop.Notifications", 0), bus);
    if (owned) g_variant_unref(owned);
    m_notificationBus = bus;
    m_serving = true;
    g_main_loop_run(m_loop);
    g_dbus_connection_close_sync(bus, nullptr, nullptr), g_object_unref(bus);
    g_main_loop_unref(m_loop);
    g_main_context_pop_thread_default(context);
    g_main_context_unref(context);
  }
  static void notificationCall(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* method,
                               GVariant* parameters, GDBusMethodInvocation* invocation, gpointer data) {
    auto* self = static_cast<QVTrayTest*>(data);
    if (std::string(method) == "GetServerInformation")
      return g_dbus_method_invocation_return_value(invocation, g_variant_new("(ssss)", "stand-in", "test", "1", "1.2"));
    if (std::string(method) != "Notify") return g_dbus_method_invocation_return_value(invocation, nullptr);
    const gchar* body;
    g_auto(GStrv) actions = nullptr;
    g_variant_get(parameters, "(&su&s&s&s^as@a{sv}i)", nullptr, nullptr, nullptr, nullptr, &body, &actions, nullptr,
                  nullptr);
    std::lock_guard<std::mutex> lock(self->m_mutex);
    self->m_bubbles.push_back({static_cast<std::uint32_t>(self->m_bubbles.size() + 1), body,
                               std::vector<std::string>(actions, actions + g_strv_length(actions))});
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(u)", self->m_bubbles.back().id));
  }
  // The newest bubble whose text contains text, waiting for it.
  std::optional<Bubble> bubble(const std::string& text) {
    std::optional<Bubble> found;
    eventually(
        [&] {
          std::lock_guard<std::mutex> lock(m_mutex);
          for (const auto& b : m_bubbles)
            if (b.body.find(text) != std::string::npos) found = b;
          return found.has_value();
        },
        seconds(5));
    EXPECT_TRUE(found) << "no bubble with " << text;
    return found;
  }
  void press(const Bubble& bubble, const std::string& key) {
    g_dbus_connection_emit_signal(m_notificationBus, nullptr, "/org/freedesktop/Notifications",
                                  "org.freedesktop.Notifications", "ActionInvoked",
                                  g_variant_new("(us)", bubble.id, key.c_str()), nullptr);
  }

  GTestDBus* m_dbus = g_test_dbus_new(G_TEST_DBUS_NONE);
  GDBusConnection* m_bus = nullptr;
  GPid m_watcher = 0;
  std::unique_ptr<RunningProgram> m_daemon;
  std::thread m_notifications;
  std::atomic<bool> m_serving{false};
  GMainLoop* m_loop = nullptr;
  GDBusConnection* m_notificationBus = nullptr;
  std::mutex m_mutex;
  std::vector<Bubble> m_bubbles;  // guarded by m_mutex
};

TEST_F(QVTrayTest, ShowsTheMenuLiveAsTheCommandLineChangesTheGroups) {
  startDaemon();
  EXPECT_EQ(menu(), "") << "no groups: no backup section";
  EXPECT_EQ(property("Status"), "Active");
  EXPECT_EQ(property("IconName"), "stellwin-backup");
  EXPECT_TRUE(
      std::filesystem::exists(property("IconThemePath") + "/hicolor/scalable/apps/stellwin-backup-running.svg"));

  runJSON({"group", "add", "Photos", makeFile("p.jpg")});
  menuShows("Backup\n-\nPhotos\n  Last backup: Never\n  -\n  Backup Now\n  Remove group\n");
  runJSON({"group", "add", "Papers", makeFile("q.pdf")});
  runJSON({"group", "set", "Photos", "--title", "Pictures"});
  menuShows(
      "Backup\n-\nPictures\n  Last backup: Never\n  -\n  Backup Now\n  Remove group\n"
      "Papers\n  Last backup: Never\n  -\n  Backup Now\n  Remove group\n");
  EXPECT_NE(property("ToolTip").find("Pictures: Last backup: Never"), std::string::npos) << property("ToolTip");
  runJSON({"group", "remove", "Pictures"});
  runJSON({"group", "remove", "Papers"});
  menuShows("");
}

TEST_F(QVTrayTest, NoDestinationShowsTheGroupInABubbleWithTheCommandThatShowsMore) {
  runJSON({"group", "add", "Loose", makeFile("l.txt")});
  editStoredGroup("Loose", [](nlohmann::json& g) { g["target"] = "nil"; });
  startDaemon();
  menuShows("Backup\n-\nLoose\n  Last backup: Never\n  -\n  No destination\n  Remove group\n");
  click("Loose", "No destination");
  std::optional<Bubble> shown = bubble("Loose: Last backup: Never (No destination)");
  ASSERT_TRUE(shown);
  EXPECT_NE(shown->body.find("stellwin-backup group show " + storedGroup("Loose")["id"].get<std::string>()),
            std::string::npos)
      << shown->body;
}

// The same clicks in English and in German: an entry is known by its place, never by its title.
struct Language {
  const char* language;
  const char* backupNow;
  const char* cancel;
  const char* progress;
  const char* last;
};

class QVTrayRunTest : public QVTrayTest, public ::testing::WithParamInterface<Language> {
 protected:
  void SetUp() override {
    for (const char* name : {"LANGUAGE", "LC_ALL"})
      if (const char* value = getenv(name))
        m_saved.emplace_back(name, value);
      else
        m_saved.emplace_back(name, std::nullopt);
    setenv("LANGUAGE", GetParam().language, 1);
    setenv("LC_ALL", "C.UTF-8", 1);
    QVTrayTest::SetUp();
  }
  void TearDown() override {
    QVTrayTest::TearDown();
    for (const auto& [name, value] : m_saved) value ? setenv(name, value->c_str(), 1) : unsetenv(name);
  }
  std::vector<std::pair<const char*, std::optional<std::string>>> m_saved;
};

TEST_P(QVTrayRunTest, BackupNowRunsInTheDaemonCancelEndsItAndTheIconFollowsTheOutcome) {
  const Language& l = GetParam();
  runJSON({"group", "add", "Big", makeFile("big.bin", "", 8ull << 30)});
  runJSON({"group", "add", "Small", makeFile("s.txt")});
  startDaemon();

  click("Small", l.backupNow);
  ASSERT_TRUE(eventually([&] { return storedGroup("Small").contains("lastBackupDate"); }, seconds(20)))
      << m_daemon->err;
  EXPECT_TRUE(
      eventually([&] { return menu().find(std::string("Small\n  ") + l.last) != std::string::npos; }, seconds(2)))
      << menu();

  const std::int32_t bigStatusLine = layout().children.at(2).children.at(0).id;
  int updates = 0;
  const guint subscription = g_dbus_connection_signal_subscribe(
      m_bus, nullptr, "com.canonical.dbusmenu", nullptr, "/MenuBar", nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
      [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant*, gpointer count) {
        ++*static_cast<int*>(count);
      },
      &updates, nullptr);
  click("Big", l.backupNow);
  std::string shown;
  ASSERT_TRUE(eventually(
      [&] { return (shown = menu()).find(std::string("Big\n  ") + l.progress) != std::string::npos; }, seconds(20)))
      << shown << m_daemon->err;
  m_daemon->waitFor([] { return false; }, seconds(2));
  g_dbus_connection_signal_unsubscribe(m_bus, subscription);
  EXPECT_LE(updates, 14) << "a few updates a second, never one per progress step";
  EXPECT_EQ(layout().children.at(2).children.at(0).id, bigStatusLine) << "updated in place, so an open menu stays open";
  EXPECT_NE(shown.find(std::string("  -\n  ") + l.cancel + "\nSmall"), std::string::npos)
      << "only Cancel while it runs:\n"
      << shown;
  EXPECT_EQ(property("IconName"), "stellwin-backup-running");
  click("Big", l.cancel);
  ASSERT_TRUE(eventually([&] { return storedGroup("Big")["statusCode"] == -128; }, seconds(30))) << m_daemon->err;
  EXPECT_TRUE(eventually([&] { return property("IconName") == "stellwin-backup"; }, seconds(2)));
  EXPECT_EQ(property("Status"), "Active") << "a cancelled run asks for no attention";

  // A failed run asks for attention until the group's next complete run.
  std::filesystem::rename(backups(), backups() + ".away");
  click("Small", l.backupNow);
  EXPECT_TRUE(eventually([&] { return property("Status") == "NeedsAttention"; }, seconds(20))) << m_daemon->err;
  EXPECT_EQ(property("IconName"), "stellwin-backup-attention");
  std::filesystem::rename(backups() + ".away", backups());
  click("Small", l.backupNow);
  EXPECT_TRUE(eventually([&] { return property("Status") == "Active"; }, seconds(20))) << m_daemon->err;
}

INSTANTIATE_TEST_SUITE_P(Languages, QVTrayRunTest,
                         ::testing::Values(Language{"en", "Backup Now", "Cancel backup",
                                                    "Backup progress: ", "Last backup: "},
                                           Language{"de", "Jetzt sichern", "Sicherung abbrechen",
                                                    "Fortschritt der Sicherung: ", "Letzte Sicherung: "}),
                         [](const auto& info) { return std::string(info.param.language); });

TEST_F(QVTrayTest, RemoveGroupThenUndoPutsTheGroupBackByteForByte) {
  runJSON({"group", "add", "First", makeFile("f.txt")});
  runJSON({"group", "add", "Photos", makeFile("a.jpg"), makeFile("b jpg ü.jpg")});
  runJSON({"group", "set", "Photos", "--versions", "5", "--schedule", "daily@03:00"});
  runJSON({"group", "add", "Last", makeFile("z.txt")});
  runJSON({"backup", "Photos"});
  startDaemon();
  const std::string before = readFile(m_env.preferencesPath());

  click("Photos", "Remove group");
  std::optional<Bubble> removed = bubble("Removed group Photos");
  ASSERT_TRUE(removed);
  EXPECT_EQ(removed->actions, (std::vector<std::string>{"1", "Undo"}));
  EXPECT_TRUE(storedGroup("Photos").is_null()) << "removed at once";
  press(*removed, "1");
  EXPECT_TRUE(eventually([&] { return readFile(m_env.preferencesPath()) == before; }, seconds(5)))
      << readFile(m_env.preferencesPath()) << "\nexpected:\n"
      << before;
  EXPECT_TRUE(eventually([&] { return menu().find("First\n") < menu().find("Photos\n"); }, seconds(1))) << menu();
}

TEST_F(QVTrayTest, RegistersWithAWatcherThatStartsLaterOrRestarts) {
  stopWatcher();
  startDaemon();
  m_daemon->waitFor([] { return false; }, milliseconds(500));  // published, with no one to register with
  startWatcher();
  EXPECT_FALSE(item().empty());
  stopWatcher();
  startWatcher();
  EXPECT_FALSE(item().empty()) << "registered again with the restarted watcher";
  EXPECT_EQ(m_daemon->status, -1) << "the daemon runs on";
}

}  // namespace
