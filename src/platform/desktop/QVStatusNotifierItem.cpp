#include "platform/desktop/QVStatusNotifierItem.h"

#include <gio/gio.h>
#include <libdbusmenu-glib/client.h>
#include <libdbusmenu-glib/menuitem.h>
#include <libdbusmenu-glib/server.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <map>

#include "platform/QVLog.h"
#include "platform/QVMenu.h"

namespace {

constexpr const char* kItemPath = "/StatusNotifierItem";
constexpr const char* kMenuPath = "/MenuBar";
constexpr const char* kItemInterface = "org.kde.StatusNotifierItem";
constexpr const char* kWatcherName = "org.kde.StatusNotifierWatcher";
constexpr const char* kWatcherPath = "/StatusNotifierWatcher";
constexpr const char* kWatcherInterface = "org.kde.StatusNotifierWatcher";
constexpr int kCallTimeoutMs = 5000;
// A watcher may take its name a moment before it answers on it.
constexpr guint kRegisterRetryMs = 300;
constexpr int kRegisterAttempts = 20;

constexpr const char* kItemXML = R"xml(<node><interface name="org.kde.StatusNotifierItem">
  <property name="Category" type="s" access="read"/><property name="Id" type="s" access="read"/>
  <property name="Title" type="s" access="read"/><property name="Status" type="s" access="read"/>
  <property name="WindowId" type="i" access="read"/><property name="IconThemePath" type="s" access="read"/>
  <property name="IconName" type="s" access="read"/><property name="IconPixmap" type="a(iiay)" access="read"/>
  <property name="OverlayIconName" type="s" access="read"/>
  <property name="OverlayIconPixmap" type="a(iiay)" access="read"/>
  <property name="AttentionIconName" type="s" access="read"/>
  <property name="AttentionIconPixmap" type="a(iiay)" access="read"/>
  <property name="AttentionMovieName" type="s" access="read"/>
  <property name="ToolTip" type="(sa(iiay)ss)" access="read"/>
  <property name="ItemIsMenu" type="b" access="read"/><property name="Menu" type="o" access="read"/>
  <method name="ContextMenu"><arg name="x" type="i" direction="in"/><arg name="y" type="i" direction="in"/></method>
  <method name="Activate"><arg name="x" type="i" direction="in"/><arg name="y" type="i" direction="in"/></method>
  <method name="SecondaryActivate"><arg name="x" type="i" direction="in"/><arg name="y" type="i" direction="in"/></method>
  <method name="Scroll"><arg name="delta" type="i" direction="in"/><arg name="orientation" type="s" direction="in"/></method>
  <signal name="NewTitle"/><signal name="NewIcon"/><signal name="NewAttentionIcon"/><signal name="NewOverlayIcon"/>
  <signal name="NewToolTip"/><signal name="NewStatus"><arg name="status" type="s"/></signal>
</interface></node>)xml";

bool sessionBusIsKnown() {
  const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  if (address && *address) return true;
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (!runtime || !*runtime) return false;
  struct stat st {};
  const std::string socket = std::string(runtime) + "/bus";
  return stat(socket.c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
}

// A "_" in a label marks the next letter as its mnemonic; a title shows its own underscores doubled.
std::string menuLabel(const std::string& title) {
  std::string label;
  for (char c : title) {
    label += c;
    if (c == '_') label += '_';
  }
  return label;
}

}  // namespace

struct QVStatusNotifierItem::Impl {
  // One published entry and the model item it shows.
  struct Node {
    DbusmenuMenuitem* item = nullptr;  // owned by its parent in the published tree
    std::weak_ptr<QVMenuItem> model;
    bool inert = false;  // no action and no submenu: a heading, a status line or a separator
    bool separator = false;
    std::vector<Node> children;
  };

  Options m_options;
  MenuModel m_menu;
  LookModel m_look;
  ClickHandler m_onClick;
  Look m_shown;

  GCancellable* m_cancellable = g_cancellable_new();
  GDBusConnection* m_bus = nullptr;
  std::string m_busName;
  guint m_ownerID = 0;
  guint m_objectID = 0;
  guint m_watchID = 0;
  bool m_registered = false;
  std::string m_watcherOwner;  // "" while no watcher is on the bus
  int m_attempts = 0;
  guint m_retrySource = 0;
  DbusmenuServer* m_server = nullptr;
  DbusmenuMenuitem* m_root = nullptr;
  std::vector<Node> m_nodes;
  std::map<gint, std::weak_ptr<QVMenuItem>> m_clickable;  // by the entry's id on the bus

  guint m_updateSource = 0;
  gint64 m_lastUpdate = 0;  // monotonic microseconds

  ~Impl() {
    g_cancellable_cancel(m_cancellable);
    g_object_unref(m_cancellable);
    if (m_updateSource) g_source_remove(m_updateSource);
    if (m_retrySource) g_source_remove(m_retrySource);
    if (m_watchID) g_bus_unwatch_name(m_watchID);
    if (m_ownerID) g_bus_unown_name(m_ownerID);
    if (m_objectID) g_dbus_connection_unregister_object(m_bus, m_objectID);
    // A click already queued by the menu server may outlive this object; it must not reach it.
    disconnect(m_nodes);
    if (m_server) g_object_unref(m_server);
    if (m_root) g_object_unref(m_root);
    if (m_bus) g_object_unref(m_bus);
  }

  void disconnect(const std::vector<Node>& nodes) {
    for (const auto& node : nodes) {
      g_signal_handlers_disconnect_by_data(node.item, this);
      disconnect(node.children);
    }
  }

  // ---- Bus and registration

  static void onBus(GObject*, GAsyncResult* result, gpointer data) {
    GError* error = nullptr;
    GDBusConnection* bus = g_bus_get_finish(result, &error);
    if (!bus) {
      if (!g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED))
        qv::debugLog("platform", std::string("tray: session bus: ") + error->message);
      g_error_free(error);
      return;
    }
    static_cast<Impl*>(data)->start(bus);
  }

  void start(GDBusConnection* bus) {
    m_bus = bus;
    // A bus that goes away must not take the program with it.
    g_dbus_connection_set_exit_on_close(m_bus, FALSE);

    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(kItemXML, nullptr);
    static const GDBusInterfaceVTable vtable = {&Impl::onMethod, &Impl::onGetProperty, nullptr, {}};
    GError* error = nullptr;
    m_objectID =
        g_dbus_connection_register_object(m_bus, kItemPath, node->interfaces[0], &vtable, this, nullptr, &error);
    g_dbus_node_info_unref(node);
    if (!m_objectID) {
      qv::debugLog("platform", std::string("tray: cannot publish the item: ") + error->message);
      g_error_free(error);
      return;
    }
    m_root = dbusmenu_menuitem_new();
    m_server = dbusmenu_server_new(kMenuPath);
    dbusmenu_server_set_root(m_server, m_root);
    update();

    static int instance = 0;
    m_busName = "org.kde.StatusNotifierItem-" + std::to_string(getpid()) + "-" + std::to_string(++instance);
    m_ownerID = g_bus_own_name_on_connection(m_bus, m_busName.c_str(), G_BUS_NAME_OWNER_FLAGS_NONE,
                                             &Impl::onNameAcquired, &Impl::onNameLost, this, nullptr);
  }

  static void onNameAcquired(GDBusConnection*, const gchar*, gpointer data) {
    auto* self = static_cast<Impl*>(data);
    if (self->m_watchID) return;
    // Registered each time a watcher appears: one that starts later or restarts forgets earlier items.
    // The item is registered under the connection's unique name, the sender of its signals, so that
    // every host matches the signals to the item.
    self->m_watchID = g_bus_watch_name_on_connection(self->m_bus, kWatcherName, G_BUS_NAME_WATCHER_FLAGS_NONE,
                                                     &Impl::onWatcherAppeared, &Impl::onWatcherVanished, self, nullptr);
  }

  static void onNameLost(GDBusConnection*, const gchar* name, gpointer) {
    qv::debugLog("platform", std::string("tray: the name ") + name + " is not ours");
  }

  static void onWatcherAppeared(GDBusConnection*, const gchar*, const gchar* owner, gpointer data) {
    auto* self = static_cast<Impl*>(data);
    self->m_registered = false;
    self->m_watcherOwner = owner;
    self->m_attempts = 0;
    self->registerWithWatcher();
  }

  static void onWatcherVanished(GDBusConnection*, const gchar*, gpointer data) {
    auto* self = static_cast<Impl*>(data);
    self->m_registered = false;
    self->m_watcherOwner.clear();
  }

  void registerWithWatcher() {
    if (m_retrySource) g_source_remove(m_retrySource), m_retrySource = 0;
    if (m_watcherOwner.empty()) return;
    ++m_attempts;
    g_dbus_connection_call(m_bus, m_watcherOwner.c_str(), kWatcherPath, kWatcherInterface, "RegisterStatusNotifierItem",
                           g_variant_new("(s)", g_dbus_connection_get_unique_name(m_bus)), nullptr,
                           G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, m_cancellable, &Impl::onRegistered, this);
  }

  static gboolean onRetryDue(gpointer data) {
    auto* self = static_cast<Impl*>(data);
    self->m_retrySource = 0;
    self->registerWithWatcher();
    return G_SOURCE_REMOVE;
  }

  static void onRegistered(GObject* source, GAsyncResult* result, gpointer data) {
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
    if (!reply) {
      const bool cancelled = g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED);
      if (!cancelled) qv::debugLog("platform", std::string("tray: the watcher refused the item: ") + error->message);
      g_error_free(error);
      if (cancelled) return;
      auto* self = static_cast<Impl*>(data);
      if (self->m_attempts < kRegisterAttempts && !self->m_retrySource)
        self->m_retrySource = g_timeout_add(kRegisterRetryMs, &Impl::onRetryDue, self);
      return;
    }
    g_variant_unref(reply);
    static_cast<Impl*>(data)->m_registered = true;
    qv::debugLog("platform", "tray: registered with the watcher");
  }

  // ---- The item's interface

  static void onMethod(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant*,
                       GDBusMethodInvocation* invocation, gpointer) {
    // Every click on the icon opens its menu (ItemIsMenu); the other methods have nothing to do.
    g_dbus_method_invocation_return_value(invocation, nullptr);
  }

  static GVariant* emptyPixmaps() { return g_variant_new_array(G_VARIANT_TYPE("(iiay)"), nullptr, 0); }

  static GVariant* onGetProperty(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* property,
                                 GError**, gpointer data) {
    auto* self = static_cast<Impl*>(data);
    const std::string name = property;
    const Options& o = self->m_options;
    if (name == "Category") return g_variant_new_string("ApplicationStatus");
    if (name == "Id") return g_variant_new_string(o.id.c_str());
    if (name == "Title") return g_variant_new_string(o.title.c_str());
    if (name == "Status") return g_variant_new_string(statusText(self->m_shown.status));
    if (name == "WindowId") return g_variant_new_int32(0);
    if (name == "IconThemePath") return g_variant_new_string(o.iconThemePath.c_str());
    if (name == "IconName") return g_variant_new_string(self->iconName().c_str());
    if (name == "AttentionIconName") return g_variant_new_string(o.attentionIconName.c_str());
    if (name == "OverlayIconName" || name == "AttentionMovieName") return g_variant_new_string("");
    if (name == "IconPixmap" || name == "OverlayIconPixmap" || name == "AttentionIconPixmap") return emptyPixmaps();
    if (name == "ToolTip")
      return g_variant_new("(s@a(iiay)ss)", self->iconName().c_str(), emptyPixmaps(),
                           self->m_shown.toolTipTitle.c_str(), self->m_shown.toolTipText.c_str());
    if (name == "ItemIsMenu") return g_variant_new_boolean(TRUE);
    if (name == "Menu") return g_variant_new_object_path(kMenuPath);
    return nullptr;
  }

  static const char* statusText(Status status) {
    return status == Status::needsAttention ? "NeedsAttention" : "Active";
  }

  const std::string& iconName() const {
    switch (m_shown.status) {
      case Status::running:
        return m_options.runningIconName;
      case Status::needsAttention:
        return m_options.attentionIconName;
      case Status::idle:
        break;
    }
    return m_options.idleIconName;
  }

  void emit(const char* signal, GVariant* parameters = nullptr) {
    g_dbus_connection_emit_signal(m_bus, nullptr, kItemPath, kItemInterface, signal, parameters, nullptr);
  }

  // ---- Keeping up with the models

  void scheduleUpdate() {
    if (m_updateSource || !m_bus) return;
    const gint64 interval = std::chrono::duration_cast<std::chrono::microseconds>(kUpdateInterval).count();
    const gint64 wait = std::max<gint64>(0, m_lastUpdate + interval - g_get_monotonic_time());
    m_updateSource = g_timeout_add(static_cast<guint>(wait / 1000), &Impl::onUpdateDue, this);
  }

  static gboolean onUpdateDue(gpointer data) {
    auto* self = static_cast<Impl*>(data);
    self->m_updateSource = 0;
    self->update();
    return G_SOURCE_REMOVE;
  }

  void update() {
    m_lastUpdate = g_get_monotonic_time();
    const Look look = m_look ? m_look() : Look{};
    const Look before = m_shown;
    m_shown = look;
    if (look.status != before.status) {
      emit("NewIcon");
      emit("NewAttentionIcon");
      emit("NewStatus", g_variant_new("(s)", statusText(look.status)));
    }
    if (look.toolTipTitle != before.toolTipTitle || look.toolTipText != before.toolTipText) emit("NewToolTip");

    const std::vector<std::shared_ptr<QVMenuItem>> items =
        m_menu ? m_menu() : std::vector<std::shared_ptr<QVMenuItem>>{};
    if (sameShape(m_nodes, items)) {
      refresh(m_nodes, items);
      return;
    }
    // A new shape: the old entries go, and a host that shows the menu reads it anew.
    disconnect(m_nodes);
    GList* old = dbusmenu_menuitem_take_children(m_root);
    g_list_free_full(old, g_object_unref);
    m_nodes.clear();
    m_clickable.clear();
    m_nodes = build(m_root, items);
  }

  static bool sameShape(const std::vector<Node>& nodes, const std::vector<std::shared_ptr<QVMenuItem>>& items) {
    if (nodes.size() != items.size()) return false;
    for (std::size_t i = 0; i < items.size(); ++i) {
      // An inert entry may be made anew for every menu; it is the same entry where it stands.
      const bool inert = !items[i]->hasAction() && !items[i]->submenu();
      const bool sameInert = inert && nodes[i].inert && nodes[i].separator == items[i]->isSeparatorItem();
      if (nodes[i].model.lock() != items[i] && !sameInert) return false;
      static const std::vector<std::shared_ptr<QVMenuItem>> none;
      const auto& children = items[i]->submenu() ? items[i]->submenu()->itemArray() : none;
      if (!sameShape(nodes[i].children, children)) return false;
    }
    return true;
  }

  std::vector<Node> build(DbusmenuMenuitem* parent, const std::vector<std::shared_ptr<QVMenuItem>>& items) {
    std::vector<Node> nodes;
    for (const auto& model : items) {
      Node node;
      node.item = dbusmenu_menuitem_new();
      node.model = model;
      node.inert = !model->hasAction() && !model->submenu();
      node.separator = model->isSeparatorItem();
      setProperties(node.item, *model);
      if (model->submenu()) node.children = build(node.item, model->submenu()->itemArray());
      dbusmenu_menuitem_child_append(parent, node.item);
      g_object_unref(node.item);  // the parent holds it
      g_signal_connect(node.item, DBUSMENU_MENUITEM_SIGNAL_ITEM_ACTIVATED, G_CALLBACK(&Impl::onActivated), this);
      m_clickable[dbusmenu_menuitem_get_id(node.item)] = model;
      nodes.push_back(std::move(node));
    }
    return nodes;
  }

  void refresh(std::vector<Node>& nodes, const std::vector<std::shared_ptr<QVMenuItem>>& items) {
    for (std::size_t i = 0; i < items.size(); ++i) {
      nodes[i].model = items[i];
      setProperties(nodes[i].item, *items[i]);
      if (items[i]->submenu()) refresh(nodes[i].children, items[i]->submenu()->itemArray());
    }
  }

  // Only changed values go out: the server sends a property again only when it differs.
  static void setProperties(DbusmenuMenuitem* item, const QVMenuItem& model) {
    if (model.isSeparatorItem()) {
      dbusmenu_menuitem_property_set(item, DBUSMENU_MENUITEM_PROP_TYPE, DBUSMENU_CLIENT_TYPES_SEPARATOR);
      return;
    }
    dbusmenu_menuitem_property_set(item, DBUSMENU_MENUITEM_PROP_LABEL, menuLabel(model.title()).c_str());
    dbusmenu_menuitem_property_set_bool(item, DBUSMENU_MENUITEM_PROP_VISIBLE, !model.isHidden());
    // An entry without an action is inert text, as a status line is.
    dbusmenu_menuitem_property_set_bool(item, DBUSMENU_MENUITEM_PROP_ENABLED, model.hasAction() || model.submenu());
    if (model.submenu())
      dbusmenu_menuitem_property_set(item, DBUSMENU_MENUITEM_PROP_CHILD_DISPLAY,
                                     DBUSMENU_MENUITEM_CHILD_DISPLAY_SUBMENU);
  }

  static void onActivated(DbusmenuMenuitem* item, guint, gpointer data) {
    auto* self = static_cast<Impl*>(data);
    auto it = self->m_clickable.find(dbusmenu_menuitem_get_id(item));
    if (it == self->m_clickable.end()) return;
    // Held while its action runs: the action may remove the entry from the model.
    std::shared_ptr<QVMenuItem> model = it->second.lock();
    if (!model || model->isHidden() || !model->hasAction()) return;
    if (self->m_onClick)
      self->m_onClick(*model);
    else
      model->performAction();
    self->scheduleUpdate();
  }
};

QVStatusNotifierItem::QVStatusNotifierItem() : m_impl(std::make_unique<Impl>()) {}

QVStatusNotifierItem::~QVStatusNotifierItem() = default;

std::unique_ptr<QVStatusNotifierItem> QVStatusNotifierItem::publish(const Options& options, MenuModel menu,
                                                                    LookModel look, ClickHandler onClick) {
  if (!sessionBusIsKnown()) {
    qv::debugLog("platform", "tray: no session bus is known");
    return nullptr;
  }
  std::unique_ptr<QVStatusNotifierItem> item(new QVStatusNotifierItem());
  Impl& impl = *item->m_impl;
  impl.m_options = options;
  impl.m_menu = std::move(menu);
  impl.m_look = std::move(look);
  impl.m_onClick = std::move(onClick);
  g_bus_get(G_BUS_TYPE_SESSION, impl.m_cancellable, &Impl::onBus, &impl);
  return item;
}

void QVStatusNotifierItem::menuDidChange() { m_impl->scheduleUpdate(); }

bool QVStatusNotifierItem::isRegistered() const { return m_impl->m_registered; }
