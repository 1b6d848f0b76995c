#include "platform/QVStatusTexts.h"

#include <curl/curl.h>

#include <cerrno>
#include <cstring>

#include "platform/QVLocalization.h"

namespace {

struct StatusText {
  std::int32_t status;
  const char* text;
};

// The negative numbers the system raises itself or passes through from the copier and the
// destinations. These are the platform's descriptive texts, not messages for a person: the
// destinations put their own message first wherever they have one.
constexpr StatusText kStatusTexts[] = {
    {-27, "Input/output error"},      {-36, "I/O error"},
    {-43, "File not found"},          {-54, "Permission denied"},
    {-120, "Directory not found"},    {-128, "User cancelled"},
    {-1429, "Not enough disk space"},
};

}  // namespace

namespace qv {

std::string statusCommentString(std::int32_t status) {
  for (const StatusText& entry : kStatusTexts) {
    if (entry.status == status) return entry.text;
  }
  // Positive numbers that the file system handed through unchanged are errno values. Only numbers the
  // C library knows by name count; it would describe any other as "Unknown error N".
  if (status > 0 && ::strerrorname_np(status) != nullptr) {
    char buffer[256];
    return ::strerror_r(status, buffer, sizeof buffer);
  }
  return "";
}

std::int32_t statusCodeForErrno(int error) {
  switch (error) {
    case ENOSPC:
    case EDQUOT:
      return -1429;
    case EACCES:
    case EPERM:
      return -54;
    case ENOENT:
      return -43;
    default:
      return error;
  }
}

std::string localizedStringForStatusCode(std::int64_t statusCode) {
  static constexpr struct {
    std::int64_t status;
    const char* phrase;
  } kPhrases[] = {
      {100, "Continue"},
      {101, "Switching Protocols"},
      {200, "OK"},
      {201, "Created"},
      {202, "Accepted"},
      {203, "Non-Authoritative Information"},
      {204, "No Content"},
      {205, "Reset Content"},
      {206, "Partial Content"},
      {207, "Multi-Status"},
      {300, "Multiple Choices"},
      {301, "Moved Permanently"},
      {302, "Found"},
      {303, "See Other"},
      {304, "Not Modified"},
      {307, "Temporary Redirect"},
      {308, "Permanent Redirect"},
      {400, "Bad Request"},
      {401, "Unauthorized"},
      {402, "Payment Required"},
      {403, "Forbidden"},
      {404, "Not Found"},
      {405, "Method Not Allowed"},
      {406, "Not Acceptable"},
      {407, "Proxy Authentication Required"},
      {408, "Request Timeout"},
      {409, "Conflict"},
      {410, "Gone"},
      {411, "Length Required"},
      {412, "Precondition Failed"},
      {413, "Content Too Large"},
      {414, "URI Too Long"},
      {415, "Unsupported Media Type"},
      {416, "Range Not Satisfiable"},
      {417, "Expectation Failed"},
      {422, "Unprocessable Content"},
      {423, "Locked"},
      {424, "Failed Dependency"},
      {429, "Too Many Requests"},
      {500, "Internal Server Error"},
      {501, "Not Implemented"},
      {502, "Bad Gateway"},
      {503, "Service Unavailable"},
      {504, "Gateway Timeout"},
      {505, "HTTP Version Not Supported"},
      {507, "Insufficient Storage"},
  };
  for (const auto& entry : kPhrases)
    if (entry.status == statusCode) return QVLocalizedString(entry.phrase);
  return "";
}

std::string statusCommentStringForDestination(const std::string& type, std::int64_t status) {
  const bool networked = type == "dav" || type == "ftp" || type == "ftps";
  if (networked && status > 0 && status < CURL_LAST) return curl_easy_strerror(static_cast<CURLcode>(status));
  return statusCommentString(static_cast<std::int32_t>(status));
}

}  // namespace qv
