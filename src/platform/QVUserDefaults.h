// QVUserDefaults is the user-defaults store: one dictionary of typed values (QVValue) kept in
// $XDG_CONFIG_HOME/stellwin/preferences.json (else ~/.config/stellwin/). It is read once when the store
// is made; setObject changes memory only; synchronize writes the whole file atomically (a temporary file
// in the same folder, fsync, rename, fsync of the folder) when anything changed since the last write.
// A file that cannot be read as a JSON object is moved aside to preferences.json.damaged-<time> with
// one log line, and the store starts empty: nothing is silently overwritten.
// Storing a value equal to the one held changes nothing, so a save that changes nothing leaves the file
// byte for byte as it was. Destroying a store (the standard one at exit, too) never writes it: changes
// reach the disk only through synchronize, which the host calls.
// Main thread. The standard store lives for the whole process.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/QVValue.h"

class QVUserDefaults {
 public:
  // The process-wide store, made on first use from the environment of that moment.
  static QVUserDefaults& standardUserDefaults();
  // Tests: drops the standard store (without writing it) so that the next use reads the environment again.
  static void resetStandardUserDefaults();

  explicit QVUserDefaults(std::string filePath);
  ~QVUserDefaults();

  // The folder of the program's own files: $XDG_CONFIG_HOME/stellwin, else ~/.config/stellwin.
  static std::string configDirectory();

  std::optional<QVDictionary> dictionaryForKey(const std::string& key) const;
  const QVValue* objectForKey(const std::string& key) const;
  void setObject(const QVValue& value, const std::string& key);
  void removeObjectForKey(const std::string& key);

  // Writes the store to disk when it changed. False, with a log line, when the file could not be written.
  bool synchronize();

  const std::string& filePath() const { return m_filePath; }

 private:
  std::string m_filePath;
  QVDictionary m_values;
  bool m_dirty = false;
};
