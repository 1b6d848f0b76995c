#include "platform/QVLocalization.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cstdint>
#include <cstdlib>

namespace {

TEST(QVStringWithFormatTest, FillsSequentialAndPositionalPlaceholdersAndKeepsPercentSigns) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {qv::stringWithFormat("%@ has %d, %ld, %llu", {"Photos", 3, std::int64_t{-7}, std::uint64_t{UINT64_MAX}}),
       "Photos has 3, -7, 18446744073709551615"},
      {qv::stringWithFormat("%s/%i/%u %.2f%%", {"a b", 42, 5, 0.375}), "a b/42/5 0.38%"},
      {qv::stringWithFormat("%@ %@ (%d)", {7, 2.5, "text"}), "7 2.5 (text)"},  // any argument prints naturally
      {qv::stringWithFormat("%1$@ and %2$d others; %1$@ again", {"Docs", 4}), "Docs and 4 others; Docs again"},
      {qv::stringWithFormat("100%% done, %%@ and %y stay, 50%", {"unused"}), "100% done, %@ and %y stay, 50%"},
      {qv::stringWithFormat("%@ - %3$@", {"Photos"}), "Photos - (null)"},  // a missing argument
  };
  for (const auto& [actual, expected] : cases) EXPECT_EQ(actual, expected);
}

// German through the build tree's catalogs.
class QVLocalizationTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    setenv("LANGUAGE", "de", 1);
    setenv("LC_ALL", "C.UTF-8", 1);
    std::setlocale(LC_ALL, "");
    qv::bindLocaleDirectory(QV_TEST_LOCALE_DIR);
  }
};

TEST_F(QVLocalizationTest, TranslatesTextsAndPluralsAndFallsBackToEnglish) {
  EXPECT_EQ(QVLocalizedString("Cancel", nullptr), "Abbrechen");
  EXPECT_EQ(qv::stringWithFormat(QVLocalizedString("Backup progress: %ld%%"), {std::int64_t{42}}),
            "Fortschritt der Sicherung: 42 %");
  const char* failure =
      "Backup for groups failed: %1$@ There are %?2$d other errors. For more information, click View Details.";
  const std::string more = " Weitere Informationen erhalten Sie mit „Details anzeigen“.";
  EXPECT_EQ(QVLocalizedNumberStringWithFormat(nullptr, failure, {"P", 1}),
            "Sicherung der Gruppen fehlgeschlagen: P Es gibt 1 weiteren Fehler." + more);
  EXPECT_EQ(QVLocalizedNumberStringWithFormat(nullptr, failure, {"P", std::int64_t{2}}),
            "Sicherung der Gruppen fehlgeschlagen: P Es gibt 2 weitere Fehler." + more);
  // Without a translation: the English text; the empty text (the catalog's header id) stays empty.
  EXPECT_EQ(QVLocalizedString("No such message in any catalog"), "No such message in any catalog");
  EXPECT_EQ(QVLocalizedString(""), "");
  EXPECT_EQ(QVLocalizedNumberStringWithFormat(nullptr, "%?1$d untranslated things", {5}), "5 untranslated things");
}

}  // namespace
