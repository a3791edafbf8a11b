// Folding, name words and stems on the cases that break them: accents in
// three scripts, letters that fold to two, compatibility forms, marks that
// belong to their letter, CamelCase and acronyms, words stemmed as written.
#include "text_analysis.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kestondri {
namespace index {
namespace {

TEST(TextAnalysisTest, FoldingDropsAccentsAndCaseNotLetters) {
  const struct {
    const char* in;
    const char* out;
  } cases[] = {
      {"Crème BRÛLÉE", "creme brulee"},
      {"MÜLLER São naïve", "muller sao naive"},
      {"Straße Øre Łódź İstanbul", "strasse ore lodz istanbul"},
      {"ΑΘΉΝΑ ὁδός", "αθηνα οδοσ"},  // final sigma is sigma
      {"Ёлка Йод", "елка иод"},
      {"ﬁle ＡＢＣ１２", "file abc12"},
      {"がぎ 東京", "がぎ 東京"},  // the voicing mark is part of the letter
      {"Chen's l’été", "chen s l ete"},
      {"e\xCC\x81t\xC3\xA9", "ete"},  // a combining accent, then a composed one
      {"a\xff\xfe"
       "b",
       "a  b"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.out, FoldWord(c.in)) << c.in;
  EXPECT_EQ("plain ASCII Text", FoldText("plain ASCII Text"));
}

TEST(TextAnalysisTest, NamesAreCutIntoTheirWords) {
  using Words = std::vector<std::string>;
  const struct {
    const char* name;
    Words words;
  } cases[] = {
      {"QuarterlyReport_2024-Q3.final.pdf",
       {"Quarterly", "Report", "2024", "Q", "3", "final", "pdf"}},
      {"XMLParser iPhone12", {"XML", "Parser", "i", "Phone", "12"}},
      {"東京Tower.txt", {"東京", "Tower", "txt"}},
      {"Crème-Brûlée", {"Crème", "Brûlée"}},
      {"bad\xff"
       "byte",
       {"bad", "byte"}},
  };
  for (const auto& c : cases) EXPECT_EQ(c.words, NameWords(c.name)) << c.name;
}

TEST(TextAnalysisTest, WordsOfLettersAreStemmedInTheirLanguage) {
  Stemmer english, french, none;
  ASSERT_TRUE(Stemmer::Make("en", &english));
  ASSERT_TRUE(Stemmer::Make("french", &french));
  ASSERT_TRUE(Stemmer::Make("none", &none));
  EXPECT_FALSE(Stemmer::Make("klingon", &none));
  EXPECT_EQ("english", english.language());
  EXPECT_EQ(english("analysis"), english("analyses"));
  EXPECT_EQ(english("city"), english("cities"));
  EXPECT_EQ("", english("spin_lock"));
  EXPECT_EQ("", english("x86"));
  EXPECT_EQ("", none("reports"));
  // Accents matter to some stemmers: stemmed as written, then folded.
  EXPECT_EQ(french("acheter"), french.AsWritten("achetées"));
  EXPECT_NE(french("acheter"), french(FoldWord("achetées")));
}

}  // namespace
}  // namespace index
}  // namespace kestondri
