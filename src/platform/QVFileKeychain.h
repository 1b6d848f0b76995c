// QVFileKeychain is the keychain of systems without a Secret Service: one JSON file,
// {service: {"user": …, "pass": …, "label": …}}, mode 0600 in a 0700 folder, replaced atomically on
// every change and read again on every look-up, since another process may have changed it.
// Made by QVKeychain::makeFileKeychain. Any thread: m_mutex serialises the callers of this process, and
// a lock on the folder serialises read-modify-write cycles with other processes.
#pragma once

#include <mutex>
#include <string>

#include "platform/QVKeychain.h"

class QVFileKeychain final : public QVKeychain {
 public:
  explicit QVFileKeychain(std::string filePath);

  std::optional<QVKeychainItem> keychainItemWithService(const std::string& service) override;
  // Keeps the label of an item that exists; a new item is labelled with its service.
  bool addGenericKeychainItemForService(const std::string& service, const std::string& username,
                                        const std::string& password) override;
  // False when there was no such item or the file could not be written.
  bool deleteItem(const std::string& service) override;
  bool storeItem(const std::string& service, const std::string& username, const std::string& password,
                 const std::string& label) override;
  std::string backendName() const override { return "file"; }

  const std::string& filePath() const { return m_filePath; }

 private:
  const std::string m_filePath;
  std::mutex m_mutex;  // held for each whole operation
};
