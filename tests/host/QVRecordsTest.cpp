// The texts a person reads (sizes, durations, counts), colours that only a terminal gets, and the JSON
// that a failed command leaves on standard output.
#include <pty.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "host/cli/QVJSONErrorReport.h"
#include "host/cli/QVRecordPrinter.h"
#include "host/run/QVReadableText.h"

namespace {

using namespace std::chrono_literals;

TEST(QVRecordsTest, WritesSizesAndDurationsAtTheirBoundaries) {
  const std::pair<std::uint64_t, const char*> sizes[] = {
      {0, "0 bytes"},       {1, "1 byte"},           {1023, "1023 bytes"},    {1024, "1.0 KiB"},
      {10188, "9.9 KiB"},   {10189, "10 KiB"},       {300000, "293 KiB"},     {1048575, "1024 KiB"},
      {1048576, "1.0 MiB"}, {5ull << 30, "5.0 GiB"}, {3ull << 50, "3072 TiB"}};
  for (const auto& [bytes, text] : sizes) EXPECT_EQ(qv::sizeText(bytes), text) << bytes;
  const std::pair<std::chrono::duration<double>, const char*> durations[] = {
      {-1s, "0.0 s"},       {0.4s, "0.4 s"},        {9.94s, "9.9 s"},     {9.96s, "10 s"},       {59.4s, "59 s"},
      {59.6s, "1 min 0 s"}, {3599s, "59 min 59 s"}, {3600s, "1 h 0 min"}, {90061s, "25 h 1 min"}};
  for (const auto& [duration, text] : durations) EXPECT_EQ(qv::durationText(duration), text) << duration.count();
  EXPECT_EQ(qv::countText(1, "file") + ", " + qv::countText(0, "file"), "1 file, 0 files");
}

// Colours go to a terminal only, never with NO_COLOR set or on a "dumb" one; they take no width in a table.
TEST(QVRecordsTest, ColoursOnlyATerminalThatWantsThem) {
  int master = -1, slave = -1;
  ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
  std::FILE* terminal = fdopen(slave, "w");
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  std::FILE* piped = fdopen(ends[1], "w");
  const struct {
    const char* noColour;
    const char* term;
    bool terminal;
    bool wanted;
  } cases[] = {{nullptr, "xterm", true, true}, {"", "xterm", true, true},      {"1", "xterm", true, false},
               {nullptr, "dumb", true, false}, {nullptr, nullptr, true, true}, {nullptr, "xterm", false, false}};
  for (const auto& c : cases) {
    c.noColour ? setenv("NO_COLOR", c.noColour, 1) : unsetenv("NO_COLOR");
    c.term ? setenv("TERM", c.term, 1) : unsetenv("TERM");
    EXPECT_EQ(qv::colourWanted(c.terminal ? terminal : piped), c.wanted) << (c.noColour ? c.noColour : "-") << c.term;
  }
  std::fclose(terminal), std::fclose(piped), close(master), close(ends[0]);

  QVTextTable table({"OUTCOME", "X"});
  table.addRow({qv::outcomeColoured("failed", "failed"), "1"});
  table.addRow({"complete", "2"});
  EXPECT_EQ(table.text(), "OUTCOME   X\n\033[31mfailed\033[0m    1\ncomplete  2\n");
}

TEST(QVRecordsTest, TakesTheLastErrorLineForTheJSONOfAFailure) {
  EXPECT_EQ(QVJSONErrorReport::lastError("stellwin-backup: warning: w\nstellwin-backup: unknown group \"a\"\n"),
            "unknown group \"a\"");
  EXPECT_EQ(QVJSONErrorReport::lastError("stellwin-backup: warning: only this\n"), "warning: only this");
  EXPECT_EQ(QVJSONErrorReport::errorJSON("bad \"x\"", 2), R"({"error":"bad \"x\"","exitStatus":2})");
}

}  // namespace
