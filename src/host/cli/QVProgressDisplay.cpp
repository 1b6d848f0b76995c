#include "host/cli/QVProgressDisplay.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>

#include "host/cli/QVRecordPrinter.h"
#include "host/run/QVReadableText.h"

namespace {

constexpr auto kRedrawInterval = std::chrono::milliseconds(100);
constexpr std::size_t kMaxTitleWidth = 24;
constexpr std::size_t kBarWidth = 30;
constexpr std::chrono::seconds kFirstEstimate{2};

// How wide the terminal is (80 when it does not say).
std::size_t terminalColumns(std::FILE* terminal) {
  struct winsize size {};
  if (ioctl(fileno(terminal), TIOCGWINSZ, &size) == 0 && size.ws_col > 10) return size.ws_col;
  return 80;
}

// The first width characters of a UTF-8 text.
std::string prefixOfWidth(const std::string& text, std::size_t width) {
  std::size_t count = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) {
      if (count == width) return text.substr(0, i);
      ++count;
    }
  }
  return text;
}

}  // namespace

QVProgressDisplay::QVProgressDisplay(std::FILE* terminal, bool live)
    : m_terminal(terminal), m_live(live && terminal && isatty(fileno(terminal)) == 1) {}

QVProgressDisplay::~QVProgressDisplay() { erase(); }

std::string QVProgressDisplay::barLine(const std::string& title, std::size_t titleWidth, std::int64_t percent,
                                       std::size_t barWidth) {
  const std::int64_t clamped = std::clamp<std::int64_t>(percent, 0, 100);
  const std::size_t filled = static_cast<std::size_t>(clamped) * barWidth / 100;
  std::string shown = prefixOfWidth(title, titleWidth);
  std::string line = shown + std::string(titleWidth - qv::displayWidth(shown), ' ');
  line += "  [" + std::string(filled, '#') + std::string(barWidth - filled, '.') + "] ";
  std::string number = std::to_string(clamped);
  line += std::string(3 - std::min<std::size_t>(3, number.size()), ' ') + number + "%";
  return line;
}

std::string QVProgressDisplay::detailText(std::int64_t percent, std::optional<std::uint64_t> done,
                                          std::optional<std::uint64_t> total, std::chrono::duration<double> elapsed,
                                          const std::string& item) {
  std::vector<std::string> parts;
  if (done && total) parts.push_back(qv::sizeText(*done) + " of " + qv::sizeText(*total));
  std::optional<double> secondsLeft;
  // Too early a guess misleads more than none.
  if (elapsed >= kFirstEstimate) {
    if (done && total && *done > 0) {
      const double speed = static_cast<double>(*done) / elapsed.count();
      parts.push_back(qv::sizeText(static_cast<std::uint64_t>(speed)) + "/s");
      secondsLeft = static_cast<double>(*total > *done ? *total - *done : 0) / speed;
    } else if (percent > 0 && percent < 100) {
      secondsLeft = elapsed.count() * static_cast<double>(100 - percent) / static_cast<double>(percent);
    }
  }
  if (secondsLeft) parts.push_back(qv::durationText(std::chrono::duration<double>(*secondsLeft)) + " left");
  if (!item.empty()) parts.push_back(item);
  std::string text;
  for (const auto& part : parts) text += (text.empty() ? "" : ", ") + part;
  return text;
}

void QVProgressDisplay::begin(const std::string& groupID, const std::string& title) {
  if (std::any_of(m_bars.begin(), m_bars.end(), [&](const Bar& bar) { return bar.groupID == groupID; })) return;
  Bar bar;
  bar.groupID = groupID;
  bar.title = title;
  m_bars.push_back(std::move(bar));
  if (!m_live) return;
  erase();
  draw();
}

void QVProgressDisplay::setBytes(const std::string& groupID, std::uint64_t done, std::uint64_t total) {
  for (auto& bar : m_bars)
    if (bar.groupID == groupID) bar.bytesDone = done, bar.bytesTotal = total;
}

void QVProgressDisplay::update(const std::string& groupID, std::int64_t percent, const std::string& item) {
  for (auto& bar : m_bars)
    if (bar.groupID == groupID) bar.percent = percent, bar.item = item.empty() ? bar.item : item;
  if (!m_live || std::chrono::steady_clock::now() - m_lastDraw < kRedrawInterval) return;
  erase();
  draw();
}

void QVProgressDisplay::end(const std::string& groupID) {
  m_bars.erase(std::remove_if(m_bars.begin(), m_bars.end(), [&](const Bar& bar) { return bar.groupID == groupID; }),
               m_bars.end());
  if (!m_live) return;
  erase();
  draw();
}

void QVProgressDisplay::setNote(const std::string& note) {
  m_note = note;
  if (!m_live) return;
  erase();
  draw();
}

void QVProgressDisplay::printLine(std::FILE* stream, const std::string& line) {
  erase();
  std::fprintf(stream, "%s\n", line.c_str());
  std::fflush(stream);
  if (m_live) draw();
}

void QVProgressDisplay::draw() {
  if (!m_live) return;
  std::size_t titleWidth = 0;
  for (const auto& bar : m_bars)
    titleWidth = std::max(titleWidth, std::min(kMaxTitleWidth, qv::displayWidth(bar.title)));
  static const char kSpinner[] = {'|', '/', '-', '\\'};
  const std::string spinner = m_busy && m_busy() ? std::string(1, kSpinner[m_frame++ % 4]) + " " : "  ";
  std::string text;
  const std::size_t columns = terminalColumns(m_terminal);
  const auto now = std::chrono::steady_clock::now();
  for (const auto& bar : m_bars) {
    std::string line = spinner + barLine(bar.title, titleWidth, bar.percent, kBarWidth);
    const std::string detail = detailText(bar.percent, bar.bytesDone, bar.bytesTotal, now - bar.started, bar.item);
    if (!detail.empty()) line += "  " + detail;
    text += prefixOfWidth(line, columns - 1) + "\n";
  }
  std::size_t lines = m_bars.size();
  if (!m_note.empty() && !m_bars.empty()) {
    text += m_note + "\n";
    ++lines;
  }
  std::fputs(text.c_str(), m_terminal);
  std::fflush(m_terminal);
  m_linesDrawn = lines;
  m_lastDraw = std::chrono::steady_clock::now();
}

void QVProgressDisplay::erase() {
  if (!m_live || m_linesDrawn == 0) return;
  // Up to the first bar, then clear to the end of the screen.
  std::fprintf(m_terminal, "\033[%zuA\r\033[J", m_linesDrawn);
  std::fflush(m_terminal);
  m_linesDrawn = 0;
}
