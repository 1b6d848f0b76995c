#include "host/cli/QVHostArguments.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <filesystem>
#include <system_error>

#include "agent/QVBackupAgent.h"

namespace qv {

std::string absolutePath(const std::string& path, const std::string& folder) {
  std::error_code ec;
  std::filesystem::path absolute;
  if (!folder.empty() && !path.empty() && path.front() != '/')
    absolute = std::filesystem::path(folder) / path;
  else
    absolute = std::filesystem::absolute(path, ec);
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

// The length of the UTF-8 sequence that starts at text[at] and is well formed (no overlong forms, no
// surrogates, nothing past U+10FFFF); 0 when it is not.
std::size_t utf8SequenceLength(const std::string& text, std::size_t at) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(at);
  std::size_t length = 0;
  unsigned char low = 0x80, high = 0xBF;
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF)
    length = 2;
  else if (lead >= 0xE0 && lead <= 0xEF)
    length = 3, low = lead == 0xE0 ? 0xA0 : 0x80, high = lead == 0xED ? 0x9F : 0xBF;
  else if (lead >= 0xF0 && lead <= 0xF4)
    length = 4, low = lead == 0xF0 ? 0x90 : 0x80, high = lead == 0xF4 ? 0x8F : 0xBF;
  else
    return 0;
  if (at + length > text.size()) return 0;
  if (byte(at + 1) < low || byte(at + 1) > high) return 0;
  for (std::size_t i = 2; i < length; ++i)
    if (byte(at + i) < 0x80 || byte(at + i) > 0xBF) return 0;
  return length;
}

}  // namespace

bool isValidUTF8(const std::string& text) {
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t length = utf8SequenceLength(text, at);
    if (length == 0) return false;
    at += length;
  }
  return true;
}

namespace {

template <typename Ref>
Ref otherTitled(const std::vector<Ref>& records, const std::string& title, const std::string& exceptID) {
  for (const auto& record : records)
    if (record->identifier != exceptID && record->title == title) return record;
  return nullptr;
}

std::string lowercase(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// Whether a becomes b by one letter added, dropped, changed, or two neighbours swapped; case aside.
bool oneTypoApart(const std::string& given, const std::string& candidate) {
  const std::string a = lowercase(given), b = lowercase(candidate);
  if (a == b) return true;
  const std::size_t sizeA = a.size(), sizeB = b.size();
  if (sizeA > sizeB + 1 || sizeB > sizeA + 1) return false;
  std::size_t head = 0;
  while (head < sizeA && head < sizeB && a[head] == b[head]) ++head;
  auto sameTail = [&](std::size_t fromA, std::size_t fromB) {
    return a.compare(fromA, std::string::npos, b, fromB) == 0;
  };
  if (sizeA == sizeB)
    return sameTail(head + 1, head + 1) ||
           (head + 1 < sizeA && a[head] == b[head + 1] && a[head + 1] == b[head] && sameTail(head + 2, head + 2));
  return sizeA > sizeB ? sameTail(head + 1, head) : sameTail(head, head + 1);
}

template <typename Ref>
QVFoundRecord<Ref> findRecord(const std::vector<Ref>& records, const std::string& argument, const char* kind) {
  for (const auto& record : records)
    if (record->identifier == argument) return {record, ""};
  std::vector<Ref> titled;
  for (const auto& record : records)
    if (record->title == argument) titled.push_back(record);
  if (titled.size() == 1) return {titled.front(), ""};
  if (titled.empty()) {
    // A title typed in another case names the one record it can name.
    std::vector<Ref> alike;
    for (const auto& record : records)
      if (lowercase(record->title) == lowercase(argument)) alike.push_back(record);
    if (alike.size() == 1) return {alike.front(), ""};
    std::vector<std::string> titles;
    for (const auto& record : records) titles.push_back(record->title);
    return {nullptr, std::string("unknown ") + kind + " " + quoted(argument) + didYouMean(argument, titles)};
  }
  std::string identifiers;
  for (const auto& record : titled) identifiers += (identifiers.empty() ? "" : ", ") + record->identifier;
  return {nullptr, std::to_string(titled.size()) + " " + kind + "s are titled " + quoted(argument) + " (" +
                       identifiers + "); name one by its identifier"};
}

}  // namespace

std::string didYouMean(const std::string& given, const std::vector<std::string>& candidates) {
  std::vector<std::string> near;
  for (const auto& candidate : candidates)
    if (oneTypoApart(given, candidate) && std::find(near.begin(), near.end(), candidate) == near.end())
      near.push_back(candidate);
  if (near.empty()) return "";
  std::string text = " (did you mean ";
  for (std::size_t i = 0; i < near.size(); ++i)
    text += std::string(i == 0 ? "" : i + 1 == near.size() ? " or " : ", ") + qv::quoted(near[i]);
  return text + "?)";
}

QVFoundRecord<QVGroupRef> findGroup(const QVBackupAgent& agent, const std::string& argument) {
  return findRecord(agent.groups(), argument, "group");
}

QVFoundRecord<QVTargetRef> findTarget(const QVBackupAgent& agent, const std::string& argument) {
  return findRecord(agent.targets(), argument, "destination");
}

QVGroupRef otherGroupTitled(const QVBackupAgent& agent, const std::string& title, const std::string& exceptID) {
  return otherTitled(agent.groups(), title, exceptID);
}

QVTargetRef otherTargetTitled(const QVBackupAgent& agent, const std::string& title, const std::string& exceptID) {
  return otherTitled(agent.targets(), title, exceptID);
}

std::string groupTitleProblem(const std::string& title) {
  if (title.empty()) return "a group's title must not be empty";
  if (title == "." || title == "..")
    return "a group's title cannot be \".\" or \"..\": it names the group's folder at the destination";
  if (title.size() > 255)
    return "a group's title can have at most 255 bytes in UTF-8, as it names a folder; this one has " +
           std::to_string(title.size());
  for (std::size_t at = 0; at < title.size();) {
    const std::size_t length = utf8SequenceLength(title, at);
    if (length == 0) return "a group's title must be valid UTF-8";
    const auto c = static_cast<unsigned char>(title[at]);
    const bool c1 = length == 2 && c == 0xC2 && static_cast<unsigned char>(title[at + 1]) < 0xA0;
    if (c < 0x20 || c == 0x7F || c1) return "a group's title cannot hold NUL or control characters";
    if (c == '/') return "a group's title cannot hold \"/\": it names one folder at the destination";
    at += length;
  }
  return "";
}

QVVersionsArgument versionsArgument(const std::string& text, bool confirmed) {
  auto value = wholeNumber(text);
  if (!value || *value > kMaxVersions)
    return {std::nullopt,
            "--versions takes a whole number from 1 to " + std::to_string(kMaxVersions) + ", not " + quoted(text)};
  if (*value == 0 && !confirmed)
    return {std::nullopt,
            "--versions 0 removes every backup of the group right after it is made; give --yes as well to mean it"};
  return {*value, ""};
}

std::string singleLine(const std::string& text) {
  std::string line = text;
  for (char& c : line)
    if (c == '\n' || c == '\r' || c == '\t') c = ' ';
  return line;
}

std::string quoted(const std::string& text) { return "\"" + singleLine(text) + "\""; }

}  // namespace qv
