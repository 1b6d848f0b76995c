// Localised texts and the formatting of the system's message templates. The English text is the message
// id of the gettext domain "stellwin"; a translation is looked up in <program dir>/locale, then in the
// installed share/locale. Templates use the system's placeholders: %@ (any argument), %d %ld %lu,
// positional forms (%1$@, %2$d) and %% for a percent sign; %?N$d marks the number that selects the
// plural form. Any thread.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <variant>

using QVFormatArgument = std::variant<std::string, const char*, std::int64_t, std::uint64_t, int, double>;

// The localised form of text. The owner selects the string tables; every owner here shares the one
// domain, so it only documents who asks.
std::string QVLocalizedString(const std::string& text, const void* owner = nullptr);

// Localises a template holding a %?N$d placeholder through the plural forms of the N-th argument, then
// fills it in.
std::string QVLocalizedNumberStringWithFormat(const void* context, const std::string& format,
                                              std::initializer_list<QVFormatArgument> arguments);

namespace qv {

// Fills a template's placeholders with arguments in order (or by position). A missing argument
// leaves "(null)", like a missing value on the platform the templates come from.
std::string stringWithFormat(const std::string& format, std::initializer_list<QVFormatArgument> arguments);

// Binds the text domain to a folder of translations; called once at start by the host and the tests.
// Without a call, the folder beside the program and the installed one are tried.
void bindLocaleDirectory(const std::string& directory);

}  // namespace qv
