// QVSecretServiceKeychain keeps the keychain items in the Secret Service of the session (GNOME Keyring,
// KWallet, KeePassXC), in its default collection, under the schema "com.stellwin.Backup.Password" with
// the attributes "service" and "user"; the item's label is the item's label and its secret the password.
// Made by QVKeychain::makeSecretServiceKeychain, which never starts a bus or a Secret Service: it only
// takes one that already answers. Errors go to the "platform" debug log and read as "no item" or false.
// Any thread: m_impl's mutex serialises the blocking calls.
#pragma once

#include <memory>
#include <string>

#include "platform/QVKeychain.h"

class QVSecretServiceKeychain final : public QVKeychain {
 public:
  // nullptr when no session bus is configured or no Secret Service owns its name on it.
  static std::unique_ptr<QVSecretServiceKeychain> connect();
  ~QVSecretServiceKeychain() override;

  std::optional<QVKeychainItem> keychainItemWithService(const std::string& service) override;
  // Keeps the label of an item that exists; a new item is labelled with its service.
  bool addGenericKeychainItemForService(const std::string& service, const std::string& username,
                                        const std::string& password) override;
  // False when there was no such item or it could not be removed.
  bool deleteItem(const std::string& service) override;
  bool storeItem(const std::string& service, const std::string& username, const std::string& password,
                 const std::string& label) override;
  std::string backendName() const override { return "secret-service"; }

 private:
  struct Impl;
  explicit QVSecretServiceKeychain(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> m_impl;
};
