#include "host/QVHostArguments.h"

#include <charconv>
#include <filesystem>
#include <system_error>

#include "agent/QVBackupAgent.h"

namespace qv {

std::string absolutePath(const std::string& path) {
  std::error_code ec;
  std::filesystem::path absolute = std::filesystem::absolute(path, ec);
  if (ec) absolute = std::filesystem::path(path);
  std::string normal = absolute.lexically_normal().string();
  while (normal.size() > 1 && normal.back() == '/') normal.pop_back();
  return normal;
}

std::optional<std::uint64_t> wholeNumber(const std::string& text) {
  if (text.empty()) return std::nullopt;
  for (char c : text)
    if (c < '0' || c > '9') return std::nullopt;
  std::uint64_t value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::optional<std::int64_t> portNumber(const std::string& text) {
  auto value = wholeNumber(text);
  if (!value || *value < 1 || *value > 65535) return std::nullopt;
  return static_cast<std::int64_t>(*value);
}

namespace {

template <typename Ref>
QVFoundRecord<Ref> findRecord(const std::vector<Ref>& records, const std::string& argument, const char* kind) {
  for (const auto& record : records)
    if (record->identifier == argument) return {record, ""};
  std::vector<Ref> titled;
  for (const auto& record : records)
    if (record->title == argument) titled.push_back(record);
  if (titled.size() == 1) return {titled.front(), ""};
  if (titled.empty()) return {nullptr, std::string("unknown ") + kind + " " + quoted(argument)};
  std::string identifiers;
  for (const auto& record : titled) identifiers += (identifiers.empty() ? "" : ", ") + record->identifier;
  return {nullptr, std::to_string(titled.size()) + " " + kind + "s are titled " + quoted(argument) + " (" + identifiers + "); name one by its identifier"};
}

}  // namespace

QVFoundRecord<QVGroupRef> findGroup(const QVBackupAgent& agent, const std::string& argument) {
  return findRecord(agent.groups(), argument, "group");
}

QVFoundRecord<QVTargetRef> findTarget(const QVBackupAgent& agent, const std::string& argument) {
  return findRecord(agent.targets(), argument, "destination");
}

std::string singleLine(const std::string& text) {
  std::string line = text;
  for (char& c : line)
    if (c == '\n' || c == '\r' || c == '\t') c = ' ';
  return line;
}

std::string quoted(const std::string& text) { return "\"" + singleLine(text) + "\""; }

}  // namespace qv
