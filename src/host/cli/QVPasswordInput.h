// Where a destination's password comes from on the command line: one line read from standard input
// (--password-stdin), or typed at the terminal without echo. Never from the arguments, never written
// anywhere. Main thread.
#pragma once

#include <cstdio>
#include <optional>
#include <string>

namespace qv {

// One line from the stream, without its line ending ("\n" or "\r\n"); "" for an empty stream.
// nullopt when the stream cannot be read.
std::optional<std::string> readPasswordLine(std::FILE* stream);

// Whether a prompt can be shown: standard input is a terminal.
bool canPromptForPassword();

// Writes prompt to the terminal and reads a line with echo off (restored afterwards, also on error).
// nullopt when there is no terminal or reading failed.
std::optional<std::string> promptForPassword(const std::string& prompt);

}  // namespace qv
