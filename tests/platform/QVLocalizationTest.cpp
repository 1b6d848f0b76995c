#include "platform/QVLocalization.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <cstdint>

namespace {

// ---- Filling templates ------------------------------------------------------------------------------

TEST(QVStringWithFormatTest, FillsSequentialPlaceholdersOfEveryKindInOrder) {
  EXPECT_EQ(qv::stringWithFormat("%@ has %d items, %ld bytes, %lu files, %llu blocks", {"Photos", 3,
                                                                                   std::int64_t{-7}, std::uint64_t{12},
                                                                                   std::uint64_t{18446744073709551615ULL}}),
            "Photos has 3 items, -7 bytes, 12 files, 18446744073709551615 blocks");
  EXPECT_EQ(qv::stringWithFormat("%s/%i/%u", {std::string("a b"), 42, 5}), "a b/42/5");
  EXPECT_EQ(qv::stringWithFormat("%.2f%%", {0.375}), "0.38%");
}

TEST(QVStringWithFormatTest, PrintsAnyArgumentNaturallyWhateverThePlaceholder) {
  EXPECT_EQ(qv::stringWithFormat("%@ %@ %@", {7, std::uint64_t{8}, 2.5}), "7 8 2.5");
  EXPECT_EQ(qv::stringWithFormat("(%d)", {"text"}), "(text)");
  EXPECT_EQ(qv::stringWithFormat("%@", {static_cast<const char*>(nullptr)}), "(null)");
  EXPECT_EQ(qv::stringWithFormat("Grüße %@", {"Jürgen – ✓"}), "Grüße Jürgen – ✓");
}

TEST(QVStringWithFormatTest, TakesPositionalArgumentsInAnyOrderAndMoreThanOnce) {
  EXPECT_EQ(qv::stringWithFormat("%2$@ before %1$@", {"one", "two"}), "two before one");
  EXPECT_EQ(qv::stringWithFormat("%1$@ and %2$d others; %1$@ again", {"Docs", 4}), "Docs and 4 others; Docs again");
  EXPECT_EQ(qv::stringWithFormat("%?2$d of %1$@", {"x", 9}), "9 of x");
  EXPECT_EQ(qv::stringWithFormat("(%2$ld) %1$@", {"Not Found", std::int64_t{404}}), "(404) Not Found");
}

TEST(QVStringWithFormatTest, KeepsPercentSignsAndTextThatIsNoPlaceholder) {
  EXPECT_EQ(qv::stringWithFormat("Backup progress: %ld%%", {std::int64_t{42}}), "Backup progress: 42%");
  EXPECT_EQ(qv::stringWithFormat("100%% done", {}), "100% done");
  EXPECT_EQ(qv::stringWithFormat("50%", {}), "50%");
  EXPECT_EQ(qv::stringWithFormat("%%@ is literal", {"unused"}), "%@ is literal");
  EXPECT_EQ(qv::stringWithFormat("a %y b", {"unused"}), "a %y b");
  EXPECT_EQ(qv::stringWithFormat("", {"unused"}), "");
}

TEST(QVStringWithFormatTest, LeavesNullForMissingArguments) {
  EXPECT_EQ(qv::stringWithFormat("%@ - %@", {"Photos"}), "Photos - (null)");
  EXPECT_EQ(qv::stringWithFormat("%3$@|%d", {}), "(null)|(null)");
  EXPECT_EQ(qv::stringWithFormat("%@", {"a", "b"}), "a");
}

// ---- Translations -----------------------------------------------------------------------------------

const char* const kFailureFormat =
    "Backup for groups failed: %1$@ There are %?2$d other errors. For more information, click View Details.";

class QVLocalizationTest : public ::testing::Test {
 protected:
  // gettext reads the language on each look-up, but set it before the first one all the same.
  static void SetUpTestSuite() {
    setenv("LANGUAGE", "de", 1);
    setenv("LC_ALL", "C.UTF-8", 1);
    std::setlocale(LC_ALL, "");
    qv::bindLocaleDirectory(QV_TEST_LOCALE_DIR);
  }
};

TEST_F(QVLocalizationTest, TranslatesTheSystemsTexts) {
  EXPECT_EQ(QVLocalizedString("My Mac"), "Mein Mac");
  EXPECT_EQ(QVLocalizedString("Cancel", nullptr), "Abbrechen");
  // A translation with a placeholder still fills as the English one does.
  EXPECT_EQ(qv::stringWithFormat(QVLocalizedString("Backup progress: %ld%%"), {std::int64_t{42}}),
            "Fortschritt der Sicherung: 42 %");
  EXPECT_EQ(qv::stringWithFormat(QVLocalizedString("Stellwin Backup password for %@"), {"NAS"}),
            "Stellwin-Backup-Passwort für NAS");
}

TEST_F(QVLocalizationTest, GivesTheEnglishTextBackWithoutATranslation) {
  EXPECT_EQ(QVLocalizedString("No such message in any catalog"), "No such message in any catalog");
  // The empty text is the catalog's header id: it must not leak out.
  EXPECT_EQ(QVLocalizedString(""), "");
  EXPECT_EQ(QVLocalizedNumberStringWithFormat(nullptr, "%?1$d untranslated things", {1}), "1 untranslated things");
  EXPECT_EQ(QVLocalizedNumberStringWithFormat(nullptr, "%?1$d untranslated things", {5}), "5 untranslated things");
}

TEST_F(QVLocalizationTest, ChoosesThePluralFormByTheMarkedNumber) {
  EXPECT_EQ(QVLocalizedNumberStringWithFormat(nullptr, kFailureFormat, {"Photos - Disk full", 1}),
            "Sicherung der Gruppen fehlgeschlagen: Photos - Disk full Es gibt 1 weiteren Fehler. "
            "Weitere Informationen erhalten Sie mit „Details anzeigen“.");
  EXPECT_EQ(QVLocalizedNumberStringWithFormat(nullptr, kFailureFormat, {"Photos - Disk full", std::int64_t{2}}),
            "Sicherung der Gruppen fehlgeschlagen: Photos - Disk full Es gibt 2 weitere Fehler. "
            "Weitere Informationen erhalten Sie mit „Details anzeigen“.");
  EXPECT_NE(QVLocalizedNumberStringWithFormat(nullptr, kFailureFormat, {"x", 0}).find("Es gibt 0 weitere Fehler."),
            std::string::npos);
}

TEST_F(QVLocalizationTest, LocalisesATemplateWithoutANumberLikeAPlainText) {
  EXPECT_EQ(QVLocalizedNumberStringWithFormat(nullptr, "Last backup: %@", {"heute"}), "Letzte Sicherung: heute");
}

// A program that never binds a folder finds the build tree's translations by itself. Runs in a fresh
// process, since the folder is chosen once, at the first look-up.
TEST(QVLocalizationDefaultFolderTest, FindsTheTranslationsWithoutBinding) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        setenv("LANGUAGE", "de", 1);
        setenv("LC_ALL", "C.UTF-8", 1);
        std::setlocale(LC_ALL, "");
        std::exit(QVLocalizedString("Never") == "Nie" ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
