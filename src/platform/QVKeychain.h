// QVKeychain keeps the destinations' user names and passwords as generic items looked up by service
// name, each with a user name, a password and a label. The shared proxy uses the Secret Service
// (libsecret) when one answers on the session bus, else a file store, keychain.json beside the
// preferences, created with mode 0600. Passwords never reach a log line.
// Any thread; the backends serialise their own access.
#pragma once

#include <memory>
#include <optional>
#include <string>

class QVKeychain;

// One item, as it was when it was looked up. The setters write through to the keychain that found it.
class QVKeychainItem {
 public:
  QVKeychainItem(QVKeychain& keychain, std::string service, std::string username, std::string password,
                 std::string label);

  const std::string& service() const { return m_service; }
  const std::string& username() const { return m_username; }
  const std::string& password() const { return m_password; }
  const std::string& label() const { return m_label; }

  void setUsername(const std::string& username);
  void setPassword(const std::string& password);
  void setLabel(const std::string& label);

 private:
  QVKeychain* m_keychain;  // not owned; the keychain outlives its items
  std::string m_service;
  std::string m_username;
  std::string m_password;
  std::string m_label;
};

class QVKeychain {
 public:
  virtual ~QVKeychain() = default;

  // The process-wide keychain, chosen on first use.
  static QVKeychain& sharedProxy();
  // Tests: replaces the shared keychain (nullptr: choose again on next use).
  static void setSharedProxy(std::unique_ptr<QVKeychain> keychain);

  // The two backends.
  static std::unique_ptr<QVKeychain> makeFileKeychain(const std::string& filePath);
  // nullptr when no Secret Service answers on the session bus.
  static std::unique_ptr<QVKeychain> makeSecretServiceKeychain();

  virtual std::optional<QVKeychainItem> keychainItemWithService(const std::string& service) = 0;
  // Over an existing item of the service, replaces its user name and password and keeps its label; a new
  // item is labelled with its service until setLabel.
  virtual bool addGenericKeychainItemForService(const std::string& service, const std::string& username,
                                                const std::string& password) = 0;
  // False when there was no such item, or it could not be removed.
  virtual bool deleteItem(const std::string& service) = 0;
  // Writes all fields of the item with this service (creating it when it is gone).
  virtual bool storeItem(const std::string& service, const std::string& username, const std::string& password,
                         const std::string& label) = 0;
  // "secret-service" or "file", for diagnostics.
  virtual std::string backendName() const = 0;
};
