// QVError is the system's error object: a domain, a signed status code and the details (a description,
// a recovery suggestion that holds the message shown to the user, and the path of the item concerned).
// A fallible operation returns bool and writes a QVError through a nullable out-pointer, only on
// failure and only when given one. Plain value type.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

struct QVError {
  std::string domain;
  std::int64_t code = 0;
  std::optional<std::string> localizedDescription;  // the fixed description of the failure
  std::optional<std::string> recoverySuggestion;    // the message the user reads
  std::optional<std::string> filePath;              // the item the failure concerns

  // The message for a person: the suggestion, else the description, else "".
  std::string message() const;
};
