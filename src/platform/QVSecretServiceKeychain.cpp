#include "platform/QVSecretServiceKeychain.h"

#include <cstdlib>
#include <mutex>

#include <sys/stat.h>

#include <gio/gio.h>
#include <libsecret/secret.h>

#include "platform/QVLog.h"

namespace {

constexpr const char* kSchemaName = "com.stellwin.Backup.Password";
constexpr int kProbeTimeoutMilliseconds = 1000;

void logError(const std::string& operation, GError* error) {
  qv::debugLog("platform", "keychain: " + operation + " failed: " + (error ? error->message : "unknown error"));
  if (error) g_error_free(error);
}

// Only a bus that the session already has: GLib would otherwise autolaunch one through dbus-launch.
bool sessionBusConfigured() {
  // An autolaunch entry, even as a fallback after other addresses, could start a bus.
  if (const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS"); address && *address)
    return std::string(address).find("autolaunch:") == std::string::npos;
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (!runtime || !*runtime) return false;
  struct stat st;
  return ::stat((std::string(runtime) + "/bus").c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
}

// Asks the bus whether the Secret Service's name is owned now. A service that is merely activatable is
// not started: on a machine without a desktop it would come up locked and wait for a prompt nobody sees.
bool secretServiceRunning() {
  GError* error = nullptr;
  GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &error);
  if (!bus) {
    logError("connecting to the session bus", error);
    return false;
  }
  GVariant* reply = g_dbus_connection_call_sync(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                "org.freedesktop.DBus", "NameHasOwner",
                                                g_variant_new("(s)", "org.freedesktop.secrets"), G_VARIANT_TYPE("(b)"),
                                                G_DBUS_CALL_FLAGS_NONE, kProbeTimeoutMilliseconds, nullptr, &error);
  g_object_unref(bus);
  if (!reply) {
    logError("asking the session bus for org.freedesktop.secrets", error);
    return false;
  }
  gboolean owned = FALSE;
  g_variant_get(reply, "(b)", &owned);
  g_variant_unref(reply);
  return owned;
}

}  // namespace

struct QVSecretServiceKeychain::Impl {
  Impl(SecretService* service, SecretSchema* schema) : m_service(service), m_schema(schema) {}
  ~Impl() {
    secret_schema_unref(m_schema);
    g_object_unref(m_service);
  }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  // The first item of this service, with its secret loaded (caller unrefs), or nullptr.
  SecretItem* findItem(const std::string& service);
  bool createItem(const std::string& service, const std::string& username, const std::string& password,
                  const std::string& label);
  bool updateItem(SecretItem* item, const std::string& service, const std::string& username,
                  const std::string& password, const std::string& label);

  std::mutex m_mutex;  // held for each whole operation
  SecretService* m_service;
  SecretSchema* m_schema;
};

SecretItem* QVSecretServiceKeychain::Impl::findItem(const std::string& service) {
  GHashTable* attributes = secret_attributes_build(m_schema, "service", service.c_str(), nullptr);
  GError* error = nullptr;
  GList* items = secret_service_search_sync(
      m_service, m_schema, attributes,
      static_cast<SecretSearchFlags>(SECRET_SEARCH_LOAD_SECRETS | SECRET_SEARCH_UNLOCK), nullptr, &error);
  g_hash_table_unref(attributes);
  if (error) {
    logError("searching the item of " + service, error);
    g_list_free_full(items, g_object_unref);
    return nullptr;
  }
  SecretItem* found = items ? SECRET_ITEM(g_object_ref(items->data)) : nullptr;
  g_list_free_full(items, g_object_unref);
  return found;
}

bool QVSecretServiceKeychain::Impl::createItem(const std::string& service, const std::string& username,
                                               const std::string& password, const std::string& label) {
  GHashTable* attributes =
      secret_attributes_build(m_schema, "service", service.c_str(), "user", username.c_str(), nullptr);
  SecretValue* value = secret_value_new(password.data(), static_cast<gssize>(password.size()), "text/plain");
  GError* error = nullptr;
  gboolean stored = secret_service_store_sync(m_service, m_schema, attributes, SECRET_COLLECTION_DEFAULT, label.c_str(),
                                              value, nullptr, &error);
  secret_value_unref(value);
  g_hash_table_unref(attributes);
  if (!stored) logError("storing the item of " + service, error);
  return stored;
}

bool QVSecretServiceKeychain::Impl::updateItem(SecretItem* item, const std::string& service,
                                               const std::string& username, const std::string& password,
                                               const std::string& label) {
  // Changed in place rather than replaced, so the item keeps its collection and its access rules.
  GError* error = nullptr;
  GHashTable* attributes =
      secret_attributes_build(m_schema, "service", service.c_str(), "user", username.c_str(), nullptr);
  gboolean ok = secret_item_set_attributes_sync(item, m_schema, attributes, nullptr, &error);
  g_hash_table_unref(attributes);
  if (!ok) {
    logError("changing the user of " + service, error);
    return false;
  }
  gchar* oldLabel = secret_item_get_label(item);
  bool sameLabel = oldLabel && label == oldLabel;
  g_free(oldLabel);
  if (!sameLabel && !secret_item_set_label_sync(item, label.c_str(), nullptr, &error)) {
    logError("changing the label of " + service, error);
    return false;
  }
  SecretValue* value = secret_value_new(password.data(), static_cast<gssize>(password.size()), "text/plain");
  ok = secret_item_set_secret_sync(item, value, nullptr, &error);
  secret_value_unref(value);
  if (!ok) {
    logError("changing the password of " + service, error);
    return false;
  }
  return true;
}

std::unique_ptr<QVSecretServiceKeychain> QVSecretServiceKeychain::connect() {
  if (!sessionBusConfigured() || !secretServiceRunning()) return nullptr;
  GError* error = nullptr;
  SecretService* service = secret_service_get_sync(SECRET_SERVICE_OPEN_SESSION, nullptr, &error);
  if (!service) {
    logError("opening the Secret Service", error);
    return nullptr;
  }
  SecretSchema* schema = secret_schema_new(kSchemaName, SECRET_SCHEMA_NONE, "service", SECRET_SCHEMA_ATTRIBUTE_STRING,
                                           "user", SECRET_SCHEMA_ATTRIBUTE_STRING, nullptr);
  return std::unique_ptr<QVSecretServiceKeychain>(new QVSecretServiceKeychain(std::make_unique<Impl>(service, schema)));
}

QVSecretServiceKeychain::QVSecretServiceKeychain(std::unique_ptr<Impl> impl) : m_impl(std::move(impl)) {}

QVSecretServiceKeychain::~QVSecretServiceKeychain() = default;

std::optional<QVKeychainItem> QVSecretServiceKeychain::keychainItemWithService(const std::string& service) {
  std::lock_guard<std::mutex> lock(m_impl->m_mutex);
  SecretItem* item = m_impl->findItem(service);
  if (!item) return std::nullopt;

  std::string username;
  GHashTable* attributes = secret_item_get_attributes(item);
  if (auto user = static_cast<const gchar*>(g_hash_table_lookup(attributes, "user"))) username = user;
  g_hash_table_unref(attributes);

  std::string label;
  if (gchar* text = secret_item_get_label(item)) {
    label = text;
    g_free(text);
  }

  std::string password;
  SecretValue* value = secret_item_get_secret(item);
  if (value) {
    gsize length = 0;
    const gchar* bytes = secret_value_get(value, &length);
    password.assign(bytes, length);
    secret_value_unref(value);
  }
  bool locked = secret_item_get_locked(item);
  g_object_unref(item);
  if (!value) {
    // A locked item that could not be unlocked: its password is out of reach, so it is as good as absent.
    qv::debugLog("platform", std::string("keychain: no secret for ") + service + (locked ? " (locked)" : ""));
    return std::nullopt;
  }
  return QVKeychainItem(*this, service, username, password, label);
}

bool QVSecretServiceKeychain::addGenericKeychainItemForService(const std::string& service, const std::string& username,
                                                               const std::string& password) {
  std::lock_guard<std::mutex> lock(m_impl->m_mutex);
  SecretItem* item = m_impl->findItem(service);
  if (!item) return m_impl->createItem(service, username, password, service);
  gchar* label = secret_item_get_label(item);
  std::string keptLabel = label ? label : service;
  g_free(label);
  bool ok = m_impl->updateItem(item, service, username, password, keptLabel);
  g_object_unref(item);
  return ok;
}

bool QVSecretServiceKeychain::deleteItem(const std::string& service) {
  std::lock_guard<std::mutex> lock(m_impl->m_mutex);
  GHashTable* attributes = secret_attributes_build(m_impl->m_schema, "service", service.c_str(), nullptr);
  GError* error = nullptr;
  gboolean removed = secret_service_clear_sync(m_impl->m_service, m_impl->m_schema, attributes, nullptr, &error);
  g_hash_table_unref(attributes);
  if (error) {
    logError("removing the item of " + service, error);
    return false;
  }
  return removed;
}

bool QVSecretServiceKeychain::storeItem(const std::string& service, const std::string& username,
                                        const std::string& password, const std::string& label) {
  std::lock_guard<std::mutex> lock(m_impl->m_mutex);
  SecretItem* item = m_impl->findItem(service);
  if (!item) return m_impl->createItem(service, username, password, label);
  bool ok = m_impl->updateItem(item, service, username, password, label);
  g_object_unref(item);
  return ok;
}
