// QVJSONErrorReport makes a command run with --json end in JSON also when it fails: while it lives it
// watches what the program writes to std::cout and std::cerr (both still reach their streams), and
// finish writes {"error": message, "exitStatus": status} to standard output when the command failed
// (status other than 0) without printing any JSON of its own. The message is the last error line the
// command wrote to standard error, without the program's name (a warning only when nothing else was
// said). Made by main around one command; main thread.
#pragma once

#include <iosfwd>
#include <memory>
#include <streambuf>
#include <string>

class QVJSONErrorReport {
 public:
  QVJSONErrorReport();
  ~QVJSONErrorReport();
  QVJSONErrorReport(const QVJSONErrorReport&) = delete;
  QVJSONErrorReport& operator=(const QVJSONErrorReport&) = delete;

  // Puts the streams back, writes the error object when one is due, and returns status.
  int finish(int status);

  // The object for a message and an exit status, as one line.
  static std::string errorJSON(const std::string& message, int status);
  // The message in what a command wrote to standard error: its last line that is not a warning, else its
  // last line; "stellwin-backup: " taken off.
  static std::string lastError(const std::string& written);

 private:
  class Watch;
  std::unique_ptr<Watch> m_out;
  std::unique_ptr<Watch> m_err;
  bool m_finished = false;
};
