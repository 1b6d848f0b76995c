#include "platform/QVDesktopNotifications.h"

#include <gio/gio.h>
#include <sys/stat.h>

#include <cstdlib>
#include <map>

#include "platform/QVLog.h"

namespace {

constexpr const char* kService = "org.freedesktop.Notifications";
constexpr const char* kPath = "/org/freedesktop/Notifications";
constexpr const char* kInterface = "org.freedesktop.Notifications";
constexpr int kCallTimeoutMs = 2500;

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

// The session bus only where one is known: GLib would otherwise try to launch one.
GDBusConnection* sessionBus() {
  GError* error = nullptr;
  GDBusConnection* bus = nullptr;
  if (!environment("DBUS_SESSION_BUS_ADDRESS").empty()) {
    bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &error);
  } else {
    const std::string runtime = environment("XDG_RUNTIME_DIR");
    struct stat st {};
    const std::string socket = runtime + "/bus";
    if (runtime.empty() || stat(socket.c_str(), &st) != 0 || !S_ISSOCK(st.st_mode)) {
      qv::debugLog("platform", "notifications: no session bus is known");
      return nullptr;
    }
    gchar* escaped = g_dbus_address_escape_value(socket.c_str());
    const std::string address = std::string("unix:path=") + escaped;
    g_free(escaped);
    bus = g_dbus_connection_new_for_address_sync(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
  }
  if (!bus) {
    qv::debugLog("platform", std::string("notifications: session bus: ") + (error ? error->message : "unknown error"));
    if (error) g_error_free(error);
    return nullptr;
  }
  // A bus that goes away must not take the program with it.
  g_dbus_connection_set_exit_on_close(bus, FALSE);
  return bus;
}

}  // namespace

struct QVDesktopNotifications::Impl {
  struct Handlers {
    ActionHandler onAction;
    ClosedHandler onClosed;
  };

  GDBusConnection* m_bus = nullptr;
  std::string m_applicationName;
  guint m_actionSubscription = 0;
  guint m_closedSubscription = 0;
  std::map<std::uint32_t, Handlers> m_handlers;

  ~Impl() {
    if (m_actionSubscription) g_dbus_connection_signal_unsubscribe(m_bus, m_actionSubscription);
    if (m_closedSubscription) g_dbus_connection_signal_unsubscribe(m_bus, m_closedSubscription);
    if (m_bus) g_object_unref(m_bus);
  }

  static void onSignal(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* signal,
                       GVariant* parameters, gpointer data) {
    auto* self = static_cast<Impl*>(data);
    if (g_strcmp0(signal, "ActionInvoked") == 0 && g_variant_is_of_type(parameters, G_VARIANT_TYPE("(us)"))) {
      guint32 id = 0;
      const gchar* key = nullptr;
      g_variant_get(parameters, "(u&s)", &id, &key);
      auto it = self->m_handlers.find(id);
      if (it == self->m_handlers.end() || !it->second.onAction) return;
      // A copy: the handler may forget this bubble or show another.
      ActionHandler handler = it->second.onAction;
      handler(key ? key : "");
    } else if (g_strcmp0(signal, "NotificationClosed") == 0 &&
               g_variant_is_of_type(parameters, G_VARIANT_TYPE("(uu)"))) {
      guint32 id = 0;
      guint32 reason = 0;
      g_variant_get(parameters, "(uu)", &id, &reason);
      auto it = self->m_handlers.find(id);
      if (it == self->m_handlers.end()) return;
      ClosedHandler handler = std::move(it->second.onClosed);
      self->m_handlers.erase(it);
      if (handler) handler(reason);
    }
  }
};

QVDesktopNotifications::QVDesktopNotifications() : m_impl(std::make_unique<Impl>()) {}

QVDesktopNotifications::~QVDesktopNotifications() = default;

std::unique_ptr<QVDesktopNotifications> QVDesktopNotifications::connect(const std::string& applicationName) {
  GDBusConnection* bus = sessionBus();
  if (!bus) return nullptr;
  std::unique_ptr<QVDesktopNotifications> notifications(new QVDesktopNotifications());
  Impl& impl = *notifications->m_impl;
  impl.m_bus = bus;
  impl.m_applicationName = applicationName;

  // Whether a service answers at all (a service that is started on demand is started here).
  GError* error = nullptr;
  GVariant* reply =
      g_dbus_connection_call_sync(bus, kService, kPath, kInterface, "GetServerInformation", nullptr,
                                  G_VARIANT_TYPE("(ssss)"), G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, nullptr, &error);
  if (!reply) {
    qv::debugLog("platform", std::string("notifications: no service: ") + (error ? error->message : "unknown error"));
    if (error) g_error_free(error);
    return nullptr;
  }
  g_variant_unref(reply);

  impl.m_actionSubscription =
      g_dbus_connection_signal_subscribe(bus, nullptr, kInterface, "ActionInvoked", kPath, nullptr,
                                         G_DBUS_SIGNAL_FLAGS_NONE, &Impl::onSignal, &impl, nullptr);
  impl.m_closedSubscription =
      g_dbus_connection_signal_subscribe(bus, nullptr, kInterface, "NotificationClosed", kPath, nullptr,
                                         G_DBUS_SIGNAL_FLAGS_NONE, &Impl::onSignal, &impl, nullptr);
  return notifications;
}

std::uint32_t QVDesktopNotifications::notify(std::uint32_t replacesId, const std::string& summary,
                                             const std::string& body, const std::vector<Action>& actions,
                                             const std::string& iconName, int timeoutMilliseconds,
                                             ActionHandler onAction, ClosedHandler onClosed) {
  GVariantBuilder actionList;
  g_variant_builder_init(&actionList, G_VARIANT_TYPE("as"));
  for (const auto& action : actions) {
    g_variant_builder_add(&actionList, "s", action.key.c_str());
    g_variant_builder_add(&actionList, "s", action.label.c_str());
  }
  GVariantBuilder hints;
  g_variant_builder_init(&hints, G_VARIANT_TYPE("a{sv}"));
  GVariant* parameters =
      g_variant_new("(susssasa{sv}i)", m_impl->m_applicationName.c_str(), replacesId, iconName.c_str(), summary.c_str(),
                    body.c_str(), &actionList, &hints, timeoutMilliseconds);

  GError* error = nullptr;
  GVariant* reply =
      g_dbus_connection_call_sync(m_impl->m_bus, kService, kPath, kInterface, "Notify", parameters,
                                  G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, nullptr, &error);
  if (!reply) {
    qv::debugLog("platform", std::string("notifications: Notify: ") + (error ? error->message : "unknown error"));
    if (error) g_error_free(error);
    return 0;
  }
  guint32 id = 0;
  g_variant_get(reply, "(u)", &id);
  g_variant_unref(reply);
  if (id != 0) m_impl->m_handlers[id] = {std::move(onAction), std::move(onClosed)};
  return id;
}

void QVDesktopNotifications::close(std::uint32_t id) {
  if (id == 0) return;
  GError* error = nullptr;
  GVariant* reply = g_dbus_connection_call_sync(m_impl->m_bus, kService, kPath, kInterface, "CloseNotification",
                                                g_variant_new("(u)", id), nullptr, G_DBUS_CALL_FLAGS_NONE,
                                                kCallTimeoutMs, nullptr, &error);
  if (!reply) {
    qv::debugLog("platform",
                 std::string("notifications: CloseNotification: ") + (error ? error->message : "unknown error"));
    if (error) g_error_free(error);
    return;
  }
  g_variant_unref(reply);
}

void QVDesktopNotifications::forget(std::uint32_t id) { m_impl->m_handlers.erase(id); }
