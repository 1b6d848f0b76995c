// How stellwin-backup writes numbers, sizes, durations and dates for a person to read: sizes in bytes,
// KiB, MiB, GiB or TiB (powers of 1024), durations in seconds, minutes and hours, dates in the user's
// locale where it has a date format of its own, else as ISO 8601 ("2026-11-25 12:12"), so that a date
// is never ambiguous. JSON output keeps exact numbers and ISO 8601 dates instead. Stateless; any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "platform/QVValue.h"

namespace qv {

// "0 bytes", "1 byte", "1023 bytes", "1.0 KiB", "9.9 KiB", "232 KiB", "1.5 MiB", "12 GiB".
std::string sizeText(std::uint64_t bytes);
// "0.4 s", "9.9 s", "42 s", "3 min 5 s", "2 h 5 min".
std::string durationText(std::chrono::duration<double> duration);
// "1 file", "17 files": count and the noun, with an "s" for any count but one.
std::string countText(std::uint64_t count, const std::string& noun);
// The local date and time to the minute: the locale's date and "HH:MM", or "2026-11-25 12:12" under
// the C or POSIX locale.
std::string tableDateText(QVDate date);

}  // namespace qv
