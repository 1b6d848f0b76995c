#include "host/control/QVControlProtocol.h"

#include <algorithm>
#include <utility>

namespace {

// Command names on the wire; a name the daemon does not know is refused, never guessed.
constexpr std::pair<QVCommand, const char*> kCommandNames[] = {
    {QVCommand::summary, "summary"},
    {QVCommand::groupAdd, "group add"},
    {QVCommand::groupList, "group list"},
    {QVCommand::groupShow, "group show"},
    {QVCommand::groupSet, "group set"},
    {QVCommand::groupRemove, "group remove"},
    {QVCommand::groupRemoveItems, "group remove-items"},
    {QVCommand::targetAdd, "target add"},
    {QVCommand::targetList, "target list"},
    {QVCommand::targetSet, "target set"},
    {QVCommand::targetRemove, "target remove"},
    {QVCommand::versions, "versions"},
    {QVCommand::backup, "backup"},
    {QVCommand::daemon, "daemon"},
    {QVCommand::menu, "menu"},
    {QVCommand::restore, "restore"},
    {QVCommand::verify, "verify"},
    {QVCommand::log, "log"},
    {QVCommand::status, "status"},
    {QVCommand::cancel, "cancel"},
    {QVCommand::files, "files"},
};

// The string fields of the options, by key.
constexpr std::pair<const char*, std::string QVCommandOptions::*> kStrings[] = {
    {"name", &QVCommandOptions::name},           {"group", &QVCommandOptions::group},
    {"target", &QVCommandOptions::target},       {"restoreFolder", &QVCommandOptions::restoreFolder},
    {"menuEntry", &QVCommandOptions::menuEntry},
};
constexpr std::pair<const char*, std::optional<std::string> QVCommandOptions::*> kOptionalStrings[] = {
    {"title", &QVCommandOptions::title},
    {"groupTarget", &QVCommandOptions::groupTarget},
    {"versions", &QVCommandOptions::versions},
    {"schedule", &QVCommandOptions::schedule},
    {"type", &QVCommandOptions::type},
    {"path", &QVCommandOptions::path},
    {"server", &QVCommandOptions::server},
    {"port", &QVCommandOptions::port},
    {"user", &QVCommandOptions::user},
    {"version", &QVCommandOptions::version},
    {"password", &QVCommandOptions::suppliedPassword},
    {"groupsTo", &QVCommandOptions::groupsTo},
    {"url", &QVCommandOptions::url},
    {"caFile", &QVCommandOptions::caFile},
};
constexpr std::pair<const char*, std::vector<std::string> QVCommandOptions::*> kLists[] = {
    {"paths", &QVCommandOptions::paths}, {"groups", &QVCommandOptions::groups}};
constexpr std::pair<const char*, bool QVCommandOptions::*> kFlags[] = {
    {"json", &QVCommandOptions::json},
    {"ids", &QVCommandOptions::ids},
    {"colour", &QVCommandOptions::colour},
    {"yes", &QVCommandOptions::yes},
    {"passwordStdin", &QVCommandOptions::passwordStdin},
    {"makeDefault", &QVCommandOptions::makeDefault},
    {"force", &QVCommandOptions::force},
    {"allowPlainHTTP", &QVCommandOptions::allowPlainHTTP},
    {"verbose", &QVCommandOptions::verbose},
};

// How deep the body's arrays and objects nest, counted before it is parsed (outside strings).
bool nestsTooDeep(const std::string& body) {
  int depth = 0;
  bool inString = false, escaped = false;
  for (char c : body) {
    if (inString) {
      if (escaped)
        escaped = false;
      else if (c == '\\')
        escaped = true;
      else if (c == '"')
        inString = false;
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > kQVControlNestingLimit) return true;
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return false;
}

QVArray stringArray(const std::vector<std::string>& strings) { return QVArray(strings.begin(), strings.end()); }

}  // namespace

void QVControlMessageReader::append(const char* bytes, std::size_t count) {
  if (!m_refusal.empty()) return;
  // Messages taken are dropped from the front only now and then, never once per message.
  if (m_offset > 0 && m_offset >= m_buffer.size() / 2) {
    m_buffer.erase(0, m_offset);
    m_offset = 0;
  }
  m_buffer.append(bytes, count);
}

QVControlMessageReader::Status QVControlMessageReader::next(QVDictionary& message, std::string& error) {
  auto refuse = [&](const std::string& why) {
    m_refusal = why;
    m_buffer.clear();
    m_offset = 0;
    error = why;
    return Status::refused;
  };
  if (!m_refusal.empty()) return refuse(m_refusal);
  const std::size_t available = m_buffer.size() - m_offset;
  if (available < 4) return Status::incomplete;
  const auto* header = reinterpret_cast<const unsigned char*>(m_buffer.data() + m_offset);
  const std::size_t length = (std::size_t{header[0]} << 24) | (std::size_t{header[1]} << 16) |
                             (std::size_t{header[2]} << 8) | std::size_t{header[3]};
  if (length > m_limit)
    return refuse("message too large (" + std::to_string(length) + " bytes; at most " + std::to_string(m_limit) + ")");
  if (available < 4 + length) return Status::incomplete;
  std::string body = m_buffer.substr(m_offset + 4, length);
  m_offset += 4 + length;
  if (m_offset == m_buffer.size()) m_buffer.clear(), m_offset = 0;

  if (nestsTooDeep(body)) return refuse("malformed message: nested too deep");
  std::string parseError;
  std::optional<QVValue> parsed = qv::parseJSON(body, &parseError);
  if (!parsed || !parsed->dictionary()) return refuse("malformed message: not a JSON object");
  const QVValue* protocol = qv::valueForKey(*parsed->dictionary(), "protocol");
  if (!protocol || !protocol->isInteger() || *protocol->integerValue() != kQVControlProtocol)
    return refuse("unsupported protocol version (this side speaks " + std::to_string(kQVControlProtocol) + ")");
  const QVValue* type = qv::valueForKey(*parsed->dictionary(), "type");
  if (!type || !type->string() || type->string()->empty()) return refuse("malformed message: no \"type\"");
  message = std::move(*parsed->dictionary());
  return Status::message;
}

namespace qv {

std::string encodeControlMessage(const QVDictionary& message) {
  const std::string body = toJSON(QVValue(message));
  const std::size_t length = body.size();
  std::string frame;
  frame.reserve(4 + length);
  frame.push_back(static_cast<char>((length >> 24) & 0xFF));
  frame.push_back(static_cast<char>((length >> 16) & 0xFF));
  frame.push_back(static_cast<char>((length >> 8) & 0xFF));
  frame.push_back(static_cast<char>(length & 0xFF));
  return frame + body;
}

QVDictionary controlMessage(const std::string& type) {
  return QVDictionary{{"protocol", QVValue(kQVControlProtocol)}, {"type", QVValue(type)}};
}

std::string controlString(const QVDictionary& message, const std::string& key) {
  const QVValue* value = valueForKey(message, key);
  return value && value->string() ? *value->string() : std::string();
}

QVDictionary dictionaryFromOptions(const QVCommandOptions& options) {
  QVDictionary dictionary;
  for (const auto& [command, name] : kCommandNames)
    if (command == options.command) dictionary["command"] = name;
  for (const auto& [key, member] : kStrings) dictionary[key] = options.*member;
  for (const auto& [key, member] : kOptionalStrings)
    if (options.*member) dictionary[key] = *(options.*member);
  for (const auto& [key, member] : kLists) dictionary[key] = stringArray(options.*member);
  for (const auto& [key, member] : kFlags) dictionary[key] = options.*member;
  return dictionary;
}

std::optional<QVCommandOptions> optionsFromDictionary(const QVDictionary& dictionary, std::string& error) {
  QVCommandOptions options;
  const std::string command = controlString(dictionary, "command");
  auto known = std::find_if(std::begin(kCommandNames), std::end(kCommandNames),
                            [&](const auto& entry) { return command == entry.second; });
  if (known == std::end(kCommandNames)) {
    error = "unknown command " + (command.empty() ? std::string("(none)") : "\"" + command + "\"");
    return std::nullopt;
  }
  options.command = known->first;
  auto wrongType = [&](const char* key) {
    error = std::string("malformed request: \"") + key + "\" has the wrong type";
    return std::nullopt;
  };
  for (const auto& [key, member] : kStrings) {
    const QVValue* value = valueForKey(dictionary, key);
    if (!value) continue;
    if (!value->string()) return wrongType(key);
    options.*member = *value->string();
  }
  for (const auto& [key, member] : kOptionalStrings) {
    const QVValue* value = valueForKey(dictionary, key);
    if (!value) continue;
    if (!value->string()) return wrongType(key);
    options.*member = *value->string();
  }
  for (const auto& [key, member] : kLists) {
    const QVValue* value = valueForKey(dictionary, key);
    if (!value) continue;
    if (!value->array()) return wrongType(key);
    for (const auto& element : *value->array()) {
      if (!element.string()) return wrongType(key);
      (options.*member).push_back(*element.string());
    }
  }
  for (const auto& [key, member] : kFlags) {
    const QVValue* value = valueForKey(dictionary, key);
    if (!value) continue;
    if (!value->isBool()) return wrongType(key);
    options.*member = *value->boolValue();
  }
  return options;
}

}  // namespace qv
