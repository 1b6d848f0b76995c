#include "platform/QVValue.h"

#include <cmath>
#include <cstdio>
#include <ctime>

#include <nlohmann/json.hpp>

using nlohmann::json;

std::optional<bool> QVValue::boolValue() const {
  if (auto b = std::get_if<bool>(&m_storage)) return *b;
  if (auto i = std::get_if<std::int64_t>(&m_storage)) return *i != 0;
  if (auto d = std::get_if<double>(&m_storage)) return *d != 0.0;
  return std::nullopt;
}

std::optional<std::int64_t> QVValue::integerValue() const {
  if (auto i = std::get_if<std::int64_t>(&m_storage)) return *i;
  if (auto b = std::get_if<bool>(&m_storage)) return *b ? 1 : 0;
  if (auto d = std::get_if<double>(&m_storage)) {
    if (!std::isfinite(*d) || std::fabs(*d) > 9.2e18) return std::nullopt;
    return static_cast<std::int64_t>(*d);
  }
  return std::nullopt;
}

std::optional<double> QVValue::doubleValue() const {
  if (auto d = std::get_if<double>(&m_storage)) return *d;
  if (auto i = std::get_if<std::int64_t>(&m_storage)) return static_cast<double>(*i);
  if (auto b = std::get_if<bool>(&m_storage)) return *b ? 1.0 : 0.0;
  return std::nullopt;
}

std::optional<QVDate> QVValue::date() const {
  if (auto d = std::get_if<QVDate>(&m_storage)) return *d;
  return std::nullopt;
}

namespace qv {

const QVValue* valueForKey(const QVDictionary& dictionary, const std::string& key) {
  auto it = dictionary.find(key);
  return it == dictionary.end() ? nullptr : &it->second;
}

QVDate distantPast() {
  // 1678-01-01T00:00:00Z: far enough back for any record, and inside the range of the clock, which
  // counts nanoseconds and so reaches only about 292 years either side of 1970.
  return QVDate(std::chrono::duration_cast<QVDate::duration>(std::chrono::seconds(-9183110400LL)));
}

std::string iso8601(QVDate date) {
  using namespace std::chrono;
  auto ms = duration_cast<milliseconds>(date.time_since_epoch()).count();
  std::int64_t seconds = ms / 1000;
  std::int64_t millis = ms % 1000;
  if (millis < 0) {
    millis += 1000;
    seconds -= 1;
  }
  std::time_t t = static_cast<std::time_t>(seconds);
  std::tm tm{};
  gmtime_r(&t, &tm);
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tm.tm_year + 1900, tm.tm_mon + 1,
                tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<int>(millis));
  return buffer;
}

std::optional<QVDate> dateFromISO8601(const std::string& text) {
  int year, month, day, hour, minute;
  double second = 0;
  char tail[16] = {0};
  int n = std::sscanf(text.c_str(), "%d-%d-%dT%d:%d:%lf%15s", &year, &month, &day, &hour, &minute, &second, tail);
  if (n < 6) return std::nullopt;
  std::string zone = n == 7 ? tail : "Z";
  long offsetSeconds = 0;
  if (zone != "Z") {
    int oh = 0, om = 0;
    char sign = 0;
    if (std::sscanf(zone.c_str(), "%c%d:%d", &sign, &oh, &om) < 2 || (sign != '+' && sign != '-')) return std::nullopt;
    offsetSeconds = (oh * 3600L + om * 60L) * (sign == '-' ? -1 : 1);
  }
  if (year < 1678 || year > 2261) return std::nullopt;  // outside what the clock can hold
  if (month < 1 || month > 12 || day < 1 || day > 31 || hour < 0 || hour > 23 || minute < 0 || minute > 59 ||
      second < 0 || second >= 61)
    return std::nullopt;
  std::tm tm{};
  tm.tm_year = year - 1900;
  tm.tm_mon = month - 1;
  tm.tm_mday = day;
  tm.tm_hour = hour;
  tm.tm_min = minute;
  tm.tm_sec = 0;
  std::time_t t = timegm(&tm);
  auto whole = std::chrono::seconds(static_cast<std::int64_t>(t) - offsetSeconds);
  auto fraction = std::chrono::milliseconds(static_cast<std::int64_t>(std::llround(second * 1000.0)));
  return QVDate(std::chrono::duration_cast<QVDate::duration>(whole + fraction));
}

namespace {

json toJson(const QVValue& value) {
  return std::visit(
      [](const auto& v) -> json {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, std::monostate>) {
          return nullptr;
        } else if constexpr (std::is_same_v<T, QVDate>) {
          return json{{"$date", iso8601(v)}};
        } else if constexpr (std::is_same_v<T, QVArray>) {
          json array = json::array();
          for (const auto& element : v) array.push_back(toJson(element));
          return array;
        } else if constexpr (std::is_same_v<T, QVDictionary>) {
          json object = json::object();
          for (const auto& [key, element] : v) object[key] = toJson(element);
          return object;
        } else {
          return json(v);
        }
      },
      value.storage());
}

QVValue fromJson(const json& j) {
  switch (j.type()) {
    case json::value_t::null:
      return QVValue();
    case json::value_t::boolean:
      return QVValue(j.get<bool>());
    case json::value_t::number_integer:
      return QVValue(j.get<std::int64_t>());
    case json::value_t::number_unsigned:
      return QVValue(static_cast<std::int64_t>(j.get<std::uint64_t>()));
    case json::value_t::number_float:
      return QVValue(j.get<double>());
    case json::value_t::string:
      return QVValue(j.get<std::string>());
    case json::value_t::array: {
      QVArray array;
      array.reserve(j.size());
      for (const auto& element : j) array.push_back(fromJson(element));
      return QVValue(std::move(array));
    }
    case json::value_t::object: {
      if (j.size() == 1 && j.contains("$date") && j["$date"].is_string()) {
        if (auto date = dateFromISO8601(j["$date"].get<std::string>())) return QVValue(*date);
      }
      QVDictionary dictionary;
      for (auto it = j.begin(); it != j.end(); ++it) dictionary.emplace(it.key(), fromJson(it.value()));
      return QVValue(std::move(dictionary));
    }
    default:
      return QVValue();
  }
}

}  // namespace

std::string toJSON(const QVValue& value, bool pretty) {
  // Invalid UTF-8 in a string is replaced rather than thrown on: a path from a foreign file system must
  // not stop the preferences from being written.
  return toJson(value).dump(pretty ? 2 : -1, ' ', false, json::error_handler_t::replace);
}

std::optional<QVValue> parseJSON(const std::string& text, std::string* error) {
  try {
    return fromJson(json::parse(text));
  } catch (const json::exception& e) {
    if (error) *error = e.what();
    return std::nullopt;
  }
}

}  // namespace qv
