#include "platform/QVKeychain.h"

#include <mutex>

#include "platform/QVFileKeychain.h"
#include "platform/QVLog.h"
#include "platform/QVSecretServiceKeychain.h"
#include "platform/QVUserDefaults.h"

namespace {

std::mutex g_sharedMutex;
std::unique_ptr<QVKeychain> g_shared;  // guarded by g_sharedMutex

}  // namespace

QVKeychainItem::QVKeychainItem(QVKeychain& keychain, std::string service, std::string username, std::string password,
                               std::string label)
    : m_keychain(&keychain),
      m_service(std::move(service)),
      m_username(std::move(username)),
      m_password(std::move(password)),
      m_label(std::move(label)) {}

// Each setter writes the whole item, so that an item that vanished meanwhile comes back complete.
void QVKeychainItem::setUsername(const std::string& username) {
  m_username = username;
  (void)m_keychain->storeItem(m_service, m_username, m_password, m_label);
}

void QVKeychainItem::setPassword(const std::string& password) {
  m_password = password;
  (void)m_keychain->storeItem(m_service, m_username, m_password, m_label);
}

void QVKeychainItem::setLabel(const std::string& label) {
  m_label = label;
  (void)m_keychain->storeItem(m_service, m_username, m_password, m_label);
}

QVKeychain& QVKeychain::sharedProxy() {
  std::lock_guard<std::mutex> lock(g_sharedMutex);
  if (!g_shared) {
    g_shared = makeSecretServiceKeychain();
    if (!g_shared) g_shared = makeFileKeychain(QVUserDefaults::configDirectory() + "/keychain.json");
    qv::debugLog("platform", "keychain: using the " + g_shared->backendName() + " backend");
  }
  return *g_shared;
}

void QVKeychain::setSharedProxy(std::unique_ptr<QVKeychain> keychain) {
  std::lock_guard<std::mutex> lock(g_sharedMutex);
  g_shared = std::move(keychain);
}

std::unique_ptr<QVKeychain> QVKeychain::makeFileKeychain(const std::string& filePath) {
  return std::make_unique<QVFileKeychain>(filePath);
}

std::unique_ptr<QVKeychain> QVKeychain::makeSecretServiceKeychain() { return QVSecretServiceKeychain::connect(); }
