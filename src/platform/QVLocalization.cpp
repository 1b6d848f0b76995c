#include "platform/QVLocalization.h"

#include <libintl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <vector>

#ifndef QV_BUILD_LOCALE_DIR
#define QV_BUILD_LOCALE_DIR ""
#endif
#ifndef QV_INSTALL_LOCALE_DIR
#define QV_INSTALL_LOCALE_DIR "/usr/local/share/locale"
#endif

// The library never calls setlocale(): it is process-wide, not thread-safe, and would change number
// formatting under the host's feet. The host calls setlocale(LC_ALL, "") once at start; until it does,
// gettext stays in the "C" locale and every text comes back in English.

namespace {

constexpr const char* kDomain = "stellwin";

std::mutex g_bindMutex;
std::atomic<bool> g_bound{false};

bool isDirectory(const std::string& path) {
  struct stat info {};
  return !path.empty() && ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

std::string programDirectory() {
  std::vector<char> buffer(4096);
  ssize_t length = ::readlink("/proc/self/exe", buffer.data(), buffer.size() - 1);
  if (length <= 0) return "";
  std::string path(buffer.data(), static_cast<std::size_t>(length));
  std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return "";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// Beside the program first (a build tree or a relocated bundle), then the build tree's translations,
// then the installed ones.
std::string defaultLocaleDirectory() {
  std::string besideProgram = programDirectory();
  if (!besideProgram.empty()) {
    besideProgram += "/locale";
    if (isDirectory(besideProgram)) return besideProgram;
  }
  if (isDirectory(QV_BUILD_LOCALE_DIR)) return QV_BUILD_LOCALE_DIR;
  return QV_INSTALL_LOCALE_DIR;
}

// Requires: g_bindMutex held.
void bindLocked(const std::string& directory) {
  ::bindtextdomain(kDomain, directory.c_str());
  ::bind_textdomain_codeset(kDomain, "UTF-8");
  g_bound.store(true, std::memory_order_release);
}

void ensureBound() {
  if (g_bound.load(std::memory_order_acquire)) return;
  std::lock_guard<std::mutex> lock(g_bindMutex);
  if (!g_bound.load(std::memory_order_relaxed)) bindLocked(defaultLocaleDirectory());
}

// ---- Templates ------------------------------------------------------------------------------------

// One piece of a parsed template: literal text, or a placeholder with the argument it takes.
struct Piece {
  bool placeholder = false;
  std::string text;          // literal text; for a placeholder, its source text
  bool plural = false;       // %?…: the number that selects the plural form
  std::size_t argument = 0;  // 0-based index of the argument
  std::string flags;
  std::string width;
  std::string precision;  // with its leading "."
  std::string length;     // h, hh, l, ll, q, L, z, j, t
  char conversion = 0;
};

bool isDigit(char c) { return c >= '0' && c <= '9'; }

const std::string kConversions = "@sdiuxXofFeEgGc";

// Splits a template into literal text and placeholders. Sequential placeholders count on their own,
// from the first argument; positional ones (%2$d) take the argument they name. Anything after a "%"
// that is not a placeholder stays as written.
std::vector<Piece> parseTemplate(const std::string& format) {
  std::vector<Piece> pieces;
  std::string literal;
  std::size_t nextSequential = 0;
  auto flushLiteral = [&] {
    if (literal.empty()) return;
    Piece piece;
    piece.text = std::move(literal);
    pieces.push_back(std::move(piece));
    literal.clear();
  };

  std::size_t i = 0;
  while (i < format.size()) {
    char c = format[i];
    if (c != '%') {
      literal += c;
      ++i;
      continue;
    }
    if (i + 1 < format.size() && format[i + 1] == '%') {
      literal += '%';
      i += 2;
      continue;
    }

    Piece piece;
    piece.placeholder = true;
    std::size_t j = i + 1;
    if (j < format.size() && format[j] == '?') {
      piece.plural = true;
      ++j;
    }
    std::size_t position = 0;
    {
      std::size_t k = j;
      while (k < format.size() && isDigit(format[k])) ++k;
      if (k > j && k < format.size() && format[k] == '$') {
        std::from_chars(format.data() + j, format.data() + k, position);
        j = k + 1;
      }
    }
    while (j < format.size() && std::string("-+ #0'").find(format[j]) != std::string::npos) piece.flags += format[j++];
    while (j < format.size() && isDigit(format[j])) piece.width += format[j++];
    if (j < format.size() && format[j] == '.') {
      piece.precision += format[j++];
      while (j < format.size() && isDigit(format[j])) piece.precision += format[j++];
    }
    while (j < format.size() && std::string("hlqLzjt").find(format[j]) != std::string::npos)
      piece.length += format[j++];

    if (j >= format.size() || kConversions.find(format[j]) == std::string::npos) {
      // Not a placeholder: keep the text up to and including the character that ended it.
      std::size_t end = j < format.size() ? j + 1 : format.size();
      literal += format.substr(i, end - i);
      i = end;
      continue;
    }
    piece.conversion = format[j];
    piece.text = format.substr(i, j + 1 - i);
    piece.argument = position > 0 ? position - 1 : nextSequential++;
    flushLiteral();
    pieces.push_back(std::move(piece));
    i = j + 1;
  }
  flushLiteral();
  return pieces;
}

std::string naturalText(const QVFormatArgument& argument) {
  struct Visitor {
    std::string operator()(const std::string& s) const { return s; }
    std::string operator()(const char* s) const { return s ? s : "(null)"; }
    std::string operator()(std::int64_t v) const { return std::to_string(v); }
    std::string operator()(std::uint64_t v) const { return std::to_string(v); }
    std::string operator()(int v) const { return std::to_string(v); }
    std::string operator()(double v) const {
      char buffer[64];
      auto result = std::to_chars(buffer, buffer + sizeof buffer, v);
      return std::string(buffer, result.ptr);
    }
  };
  return std::visit(Visitor{}, argument);
}

bool isText(const QVFormatArgument& argument) {
  return std::holds_alternative<std::string>(argument) || std::holds_alternative<const char*>(argument);
}

std::string pad(std::string text, const Piece& piece) {
  if (piece.precision.size() > 1 || piece.precision == ".") {
    std::size_t limit = static_cast<std::size_t>(std::atoi(piece.precision.c_str() + 1));
    if (text.size() > limit) text.resize(limit);
  }
  std::size_t width = piece.width.empty() ? 0 : static_cast<std::size_t>(std::atoi(piece.width.c_str()));
  if (text.size() < width) {
    std::string fill(width - text.size(), ' ');
    text = piece.flags.find('-') != std::string::npos ? text + fill : fill + text;
  }
  return text;
}

std::string printfText(const Piece& piece, const char* suffix, auto value) {
  std::string conversion = "%" + piece.flags + piece.width + piece.precision + suffix;
  int needed = std::snprintf(nullptr, 0, conversion.c_str(), value);
  if (needed < 0) return "";
  std::string out(static_cast<std::size_t>(needed) + 1, '\0');
  std::snprintf(out.data(), out.size(), conversion.c_str(), value);
  out.resize(static_cast<std::size_t>(needed));
  return out;
}

bool holdsUnsigned(const QVFormatArgument& argument) { return std::holds_alternative<std::uint64_t>(argument); }

long long signedValue(const QVFormatArgument& argument) {
  if (auto v = std::get_if<std::int64_t>(&argument)) return *v;
  if (auto v = std::get_if<int>(&argument)) return *v;
  if (auto v = std::get_if<std::uint64_t>(&argument)) return static_cast<long long>(*v);
  if (auto v = std::get_if<double>(&argument)) return static_cast<long long>(*v);
  return 0;
}

double doubleValue(const QVFormatArgument& argument) {
  if (auto v = std::get_if<double>(&argument)) return *v;
  if (auto v = std::get_if<std::uint64_t>(&argument)) return static_cast<double>(*v);
  return static_cast<double>(signedValue(argument));
}

std::string render(const Piece& piece, const QVFormatArgument* argument) {
  if (!argument) return "(null)";
  // Text given for any placeholder prints as it is; so does a number given for %@ or %s.
  if (piece.conversion == '@' || piece.conversion == 's' || isText(*argument))
    return pad(naturalText(*argument), piece);

  switch (piece.conversion) {
    case 'd':
    case 'i':
      if (holdsUnsigned(*argument)) {
        return printfText(piece, "llu", static_cast<unsigned long long>(std::get<std::uint64_t>(*argument)));
      }
      return printfText(piece, "lld", signedValue(*argument));
    case 'u':
    case 'x':
    case 'X':
    case 'o': {
      const char suffix[] = {'l', 'l', piece.conversion, '\0'};
      unsigned long long value = holdsUnsigned(*argument) ? std::get<std::uint64_t>(*argument)
                                                          : static_cast<unsigned long long>(signedValue(*argument));
      // Without a long modifier the number is a 32-bit one, as the C library would print it.
      if (piece.length.empty() || piece.length[0] == 'h') value = static_cast<std::uint32_t>(value);
      return printfText(piece, suffix, value);
    }
    case 'c': {
      long long code = signedValue(*argument);
      std::string out;
      if (code < 0x80) {
        out += static_cast<char>(code);
      } else if (code < 0x800) {
        out += static_cast<char>(0xC0 | (code >> 6));
        out += static_cast<char>(0x80 | (code & 0x3F));
      } else if (code < 0x10000) {
        out += static_cast<char>(0xE0 | (code >> 12));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
      } else {
        out += static_cast<char>(0xF0 | ((code >> 18) & 0x07));
        out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
      }
      return pad(out, piece);
    }
    default: {
      const char suffix[] = {piece.conversion, '\0'};
      return printfText(piece, suffix, doubleValue(*argument));
    }
  }
}

std::string fill(const std::vector<Piece>& pieces, const std::vector<QVFormatArgument>& arguments) {
  std::string out;
  for (const Piece& piece : pieces) {
    if (!piece.placeholder) {
      out += piece.text;
      continue;
    }
    out += render(piece, piece.argument < arguments.size() ? &arguments[piece.argument] : nullptr);
  }
  return out;
}

unsigned long pluralNumber(const QVFormatArgument& argument) {
  long long value = 0;
  if (auto s = std::get_if<std::string>(&argument)) {
    value = std::strtoll(s->c_str(), nullptr, 10);
  } else if (auto p = std::get_if<const char*>(&argument)) {
    value = *p ? std::strtoll(*p, nullptr, 10) : 0;
  } else if (holdsUnsigned(argument)) {
    return static_cast<unsigned long>(std::get<std::uint64_t>(argument));
  } else {
    value = signedValue(argument);
  }
  return static_cast<unsigned long>(value < 0 ? -value : value);
}

}  // namespace

std::string QVLocalizedString(const std::string& text, const void* /*owner*/) {
  // The empty message id would return the catalog's header.
  if (text.empty()) return text;
  ensureBound();
  return ::dgettext(kDomain, text.c_str());
}

std::string QVLocalizedNumberStringWithFormat(const void* /*context*/, const std::string& format,
                                              std::initializer_list<QVFormatArgument> arguments) {
  if (format.empty()) return format;
  std::vector<QVFormatArgument> values(arguments);
  const Piece* number = nullptr;
  std::vector<Piece> pieces = parseTemplate(format);
  for (const Piece& piece : pieces) {
    if (piece.placeholder && piece.plural) {
      number = &piece;
      break;
    }
  }

  std::string localized;
  if (number) {
    unsigned long n = number->argument < values.size() ? pluralNumber(values[number->argument]) : 0;
    ensureBound();
    localized = ::dngettext(kDomain, format.c_str(), format.c_str(), n);
  } else {
    localized = QVLocalizedString(format);
  }
  // The translation may order or drop placeholders differently: parse it afresh.
  return fill(parseTemplate(localized), values);
}

namespace qv {

std::string stringWithFormat(const std::string& format, std::initializer_list<QVFormatArgument> arguments) {
  return fill(parseTemplate(format), std::vector<QVFormatArgument>(arguments));
}

void bindLocaleDirectory(const std::string& directory) {
  std::lock_guard<std::mutex> lock(g_bindMutex);
  bindLocked(directory);
}

}  // namespace qv
