// QVProgressDisplay shows one live progress bar per running group at the bottom of a terminal (on
// stderr), redrawn at most ten times a second, and writes other lines above the bars so that they do not
// tear. Beside a bar stand what the run reports of itself: the bytes done of how many, the speed, the
// time left (from the bytes, else from the share done), and the file or item being copied; each line
// is cut to the terminal's width, so that it never wraps. Where stderr is not a terminal it draws
// nothing and only writes the lines. Made by the command that waits for runs; main thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <optional>
#include <string>
#include <vector>

class QVProgressDisplay {
 public:
  // Bars are drawn on terminal only when it is a terminal and live is true.
  QVProgressDisplay(std::FILE* terminal, bool live);
  ~QVProgressDisplay();
  QVProgressDisplay(const QVProgressDisplay&) = delete;
  QVProgressDisplay& operator=(const QVProgressDisplay&) = delete;

  bool isLive() const { return m_live; }

  void begin(const std::string& groupID, const std::string& title);
  // percent 0-100; item: what is being copied now ("" when not known). Redraws when the last drawing is
  // at least 100 ms old.
  void update(const std::string& groupID, std::int64_t percent, const std::string& item = "");
  // The bytes done and the bytes in all, where the run counts them.
  void setBytes(const std::string& groupID, std::uint64_t done, std::uint64_t total);
  void end(const std::string& groupID);
  // Writes line and a newline to stream, above the bars.
  void printLine(std::FILE* stream, const std::string& line);
  // A line shown under the bars while any are drawn (e.g. "cancelling..."); "" for none.
  void setNote(const std::string& note);
  // While busy() answers true (the host's status icon is animating), the bars turn a spinner.
  void setBusyQuery(std::function<bool()> busy) { m_busy = std::move(busy); }

  // "Photos  [#######.............]  35%" for a bar width.
  static std::string barLine(const std::string& title, std::size_t titleWidth, std::int64_t percent,
                             std::size_t barWidth);
  // What follows the bar: "1.2 GiB of 4.0 GiB, 35 MiB/s, 1 min 5 s left, Photos/a.jpg"; each part only
  // when known (the speed and the time left once elapsed is long enough to tell them).
  static std::string detailText(std::int64_t percent, std::optional<std::uint64_t> done,
                                std::optional<std::uint64_t> total, std::chrono::duration<double> elapsed,
                                const std::string& item);

 private:
  struct Bar {
    std::string groupID;
    std::string title;
    std::int64_t percent = 0;
    std::string item;
    std::optional<std::uint64_t> bytesDone;
    std::optional<std::uint64_t> bytesTotal;
    std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
  };

  void draw();
  void erase();

  std::FILE* m_terminal;
  bool m_live;
  std::vector<Bar> m_bars;
  std::string m_note;
  std::function<bool()> m_busy;
  unsigned m_frame = 0;
  std::size_t m_linesDrawn = 0;
  std::chrono::steady_clock::time_point m_lastDraw{};
};
