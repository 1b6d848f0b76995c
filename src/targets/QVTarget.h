// QVTarget is the record of one destination (its target options): identity, title, kind ("type"),
// path, and for networked kinds the server and port. The user name and password ("user", "pass") live
// in memory only; the keychain keeps them. A destination object gets its own copy of the record, to
// which the agent adds "notifyHostApp" when it starts a run. Stored keys this version does not know
// are kept in otherKeys. Plain value; shared between owners as QVTargetRef.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/QVValue.h"

inline constexpr const char* kQVBackupTargetTypeKey = "type";
inline constexpr const char* kQVTargetIsDefaultKey = "isDefault";

struct QVTarget {
  std::string identifier;             // kQVIdentifierKey
  std::string title;                  // kQVTitleKey
  std::string type;                   // kQVBackupTargetTypeKey: "local", "ftp", "ftps" or "dav"
  std::string path;                   // kQVPathKey
  std::optional<bool> isDefault;      // kQVTargetIsDefaultKey: its presence alone marks a default seen
  std::optional<std::string> server;  // "server"
  std::optional<std::int64_t> port;   // "port" (stored as a number or its text)
  std::optional<std::string> user;    // "user": in memory only
  std::optional<std::string> pass;    // "pass": in memory only
  std::optional<bool> notifyHostApp;  // "notifyHostApp": a destination object's own options only
  QVDictionary otherKeys;

  // Reads a stored record; repairs and unreadable values are described in *problems.
  static QVTarget fromDictionary(const QVDictionary& dictionary, std::vector<std::string>* problems = nullptr);
  // Every key but "user", "pass" and "notifyHostApp".
  QVDictionary dictionary() const;
  // The port as the text that goes into a URL ("" when there is none).
  std::string portString() const;
};

using QVTargetRef = std::shared_ptr<QVTarget>;
