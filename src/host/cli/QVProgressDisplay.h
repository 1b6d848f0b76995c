// QVProgressDisplay shows one live progress bar per running group at the bottom of a terminal (on
// stderr), redrawn at most ten times a second, and writes other lines above the bars so that they do not
// tear. Where stderr is not a terminal it draws nothing and only writes the lines. Made by the command
// that waits for runs; main thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
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
  // percent 0-100; redraws when the last drawing is at least 100 ms old.
  void update(const std::string& groupID, std::int64_t percent);
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

 private:
  struct Bar {
    std::string groupID;
    std::string title;
    std::int64_t percent = 0;
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
