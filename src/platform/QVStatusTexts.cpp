#include "platform/QVStatusTexts.h"

#include <cerrno>
#include <cstring>

namespace {

struct StatusText {
  std::int32_t status;
  const char* text;
};

// The negative numbers the system raises itself or passes through from the copier and the
// destinations. These are the platform's descriptive texts, not messages for a person: the
// destinations put their own message first wherever they have one.
constexpr StatusText kStatusTexts[] = {
    {-27, "Input/output error"},
    {-36, "I/O error"},
    {-43, "File not found"},
    {-54, "Permission denied"},
    {-120, "Directory not found"},
    {-128, "User cancelled"},
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

}  // namespace qv
