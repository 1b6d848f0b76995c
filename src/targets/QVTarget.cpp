#include "targets/QVTarget.h"

#include <charconv>

#include "platform/QVConstants.h"
#include "platform/QVFoundation.h"

QVTarget QVTarget::fromDictionary(const QVDictionary& dictionary, std::vector<std::string>* problems) {
  QVTarget target;
  if (auto v = qv::valueForKey(dictionary, kQVTitleKey); v && v->string()) target.title = *v->string();
  auto unreadable = [&](const std::string& key, const QVValue& value) {
    target.otherKeys[key] = value;
    if (problems)
      problems->push_back("destination \"" + target.title + "\": unreadable value under \"" + key +
                          "\" kept as stored");
  };
  for (const auto& [key, value] : dictionary) {
    const std::string* s = value.string();
    if (key == kQVTitleKey && s) continue;
    if (key == kQVIdentifierKey && s && !s->empty()) {
      target.identifier = *s;
    } else if (key == kQVBackupTargetTypeKey && s) {
      target.type = *s;
    } else if (key == kQVPathKey && s) {
      target.path = *s;
    } else if (key == kQVTargetIsDefaultKey && value.isNumber()) {
      target.isDefault = value.boolValue();
    } else if (key == "server" && s) {
      target.server = *s;
    } else if (key == "port" && value.isNumber() && value.integerValue()) {
      target.port = *value.integerValue();
    } else if (key == "port" && s) {
      std::int64_t port = 0;
      auto [end, ec] = std::from_chars(s->data(), s->data() + s->size(), port);
      if (ec == std::errc() && end == s->data() + s->size())
        target.port = port;
      else
        unreadable(key, value);
    } else if (key == "user" || key == "pass" || key == "notifyHostApp") {
      // Never taken from the preferences: credentials come from the keychain, the flag from a run.
    } else if (key == kQVIdentifierKey || key == kQVTitleKey || key == kQVBackupTargetTypeKey || key == kQVPathKey ||
               key == kQVTargetIsDefaultKey || key == "server" || key == "port") {
      unreadable(key, value);
    } else {
      target.otherKeys[key] = value;
    }
  }
  if (target.identifier.empty()) {
    target.identifier = qv::stringWithUUID();
    if (problems)
      problems->push_back("destination \"" + target.title + "\" had no identifier; it was given " + target.identifier);
  }
  return target;
}

QVDictionary QVTarget::dictionary() const {
  QVDictionary d = otherKeys;
  d[kQVIdentifierKey] = identifier;
  d[kQVTitleKey] = title;
  d[kQVBackupTargetTypeKey] = type;
  d[kQVPathKey] = path;
  if (isDefault) d[kQVTargetIsDefaultKey] = *isDefault;
  if (server) d["server"] = *server;
  if (port) d["port"] = *port;
  return d;
}

std::string QVTarget::portString() const { return port ? std::to_string(*port) : ""; }
