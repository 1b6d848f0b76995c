// QVValue is the typed value of the preferences: null, boolean, integer, real, string, date, array or
// dictionary. The user-defaults store keeps these and writes them as JSON; a date stays a date across a
// save and a load. Plain value type: copy it freely; it is not shared between threads.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

using QVDate = std::chrono::system_clock::time_point;

class QVValue;
using QVArray = std::vector<QVValue>;
using QVDictionary = std::map<std::string, QVValue>;

class QVValue {
 public:
  using Storage = std::variant<std::monostate, bool, std::int64_t, double, std::string, QVDate, QVArray, QVDictionary>;

  QVValue() = default;
  QVValue(bool b) : m_storage(b) {}
  QVValue(int i) : m_storage(static_cast<std::int64_t>(i)) {}
  QVValue(std::int64_t i) : m_storage(i) {}
  QVValue(std::uint64_t i) : m_storage(static_cast<std::int64_t>(i)) {}
  QVValue(double d) : m_storage(d) {}
  QVValue(const char* s) : m_storage(std::string(s)) {}
  QVValue(std::string s) : m_storage(std::move(s)) {}
  QVValue(QVDate d) : m_storage(d) {}
  QVValue(QVArray a) : m_storage(std::move(a)) {}
  QVValue(QVDictionary d) : m_storage(std::move(d)) {}

  bool isNull() const { return std::holds_alternative<std::monostate>(m_storage); }
  bool isBool() const { return std::holds_alternative<bool>(m_storage); }
  bool isInteger() const { return std::holds_alternative<std::int64_t>(m_storage); }
  bool isReal() const { return std::holds_alternative<double>(m_storage); }
  bool isNumber() const { return isInteger() || isReal() || isBool(); }
  bool isString() const { return std::holds_alternative<std::string>(m_storage); }
  bool isDate() const { return std::holds_alternative<QVDate>(m_storage); }
  bool isArray() const { return std::holds_alternative<QVArray>(m_storage); }
  bool isDictionary() const { return std::holds_alternative<QVDictionary>(m_storage); }

  // Typed reads: nullopt (or nullptr) when the value holds another type. Numbers convert among
  // themselves as stored preferences expect: a boolean reads as 0 or 1, a real is cut to an integer.
  std::optional<bool> boolValue() const;
  std::optional<std::int64_t> integerValue() const;
  std::optional<double> doubleValue() const;
  const std::string* string() const { return std::get_if<std::string>(&m_storage); }
  std::optional<QVDate> date() const;
  const QVArray* array() const { return std::get_if<QVArray>(&m_storage); }
  QVArray* array() { return std::get_if<QVArray>(&m_storage); }
  const QVDictionary* dictionary() const { return std::get_if<QVDictionary>(&m_storage); }
  QVDictionary* dictionary() { return std::get_if<QVDictionary>(&m_storage); }

  const Storage& storage() const { return m_storage; }
  bool operator==(const QVValue& other) const { return m_storage == other.m_storage; }

 private:
  Storage m_storage;
};

namespace qv {

// Looks a key up in a dictionary; nullptr when it is absent.
const QVValue* valueForKey(const QVDictionary& dictionary, const std::string& key);

// JSON text of a value, and back. Dates are written as {"$date": "<ISO 8601 UTC with milliseconds>"}.
// parseJSON returns nullopt and sets *error (when given) for text that is not JSON.
std::string toJSON(const QVValue& value, bool pretty = false);
std::optional<QVValue> parseJSON(const std::string& text, std::string* error = nullptr);

// ISO 8601 in UTC with milliseconds ("2024-01-05T14:30:07.000Z"), and back.
std::string iso8601(QVDate date);
std::optional<QVDate> dateFromISO8601(const std::string& text);

// The earliest date that any record may hold; stands for "never".
QVDate distantPast();

}  // namespace qv
