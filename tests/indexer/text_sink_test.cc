// The UTF-8 guarantees of the text collector and the extension table.
#include <gtest/gtest.h>

#include <cctype>
#include <fstream>
#include <map>
#include <string>

#include "extract/charset.h"
#include "extract/format_table.h"
#include "extract/text_sink.h"

namespace kestondri {
namespace indexer {
namespace {

struct SanitizeCase {
  const char* name;
  std::string input;
  std::string expected;
};

TEST(TextSinkTest, InvalidUtf8BecomesReplacementCharacters) {
  const std::string r = "\xEF\xBF\xBD";
  const SanitizeCase cases[] = {
      {"ascii", "plain", "plain"},
      {"two-byte", "caf\xC3\xA9", "caf\xC3\xA9"},
      {"four-byte", "\xF0\x9F\x98\x80!", "\xF0\x9F\x98\x80!"},
      {"lone continuation", "a\x80z", "a" + r + "z"},
      {"overlong slash", "\xC0\xAF", r + r},
      {"overlong three-byte", "\xE0\x80\xAF", r + r + r},
      {"surrogate", "\xED\xA0\x80", r + r + r},
      {"beyond U+10FFFF", "\xF4\x90\x80\x80", r + r + r + r},
      {"invalid lead F8", "\xF8\x88\x80\x80\x80", r + r + r + r + r},
      {"truncated at end", "ab\xE2\x82", "ab" + r + r},
      {"latin-1 byte", "na\xEFve", "na" + r + "ve"},
  };
  for (const SanitizeCase& c : cases) {
    TextSink sink(1024);
    sink.Append(c.input);
    EXPECT_EQ(sink.Take(), c.expected) << c.name;
    EXPECT_EQ(SanitizeUtf8(c.input), c.expected) << c.name;
    EXPECT_EQ(IsValidUtf8(c.input), c.input == c.expected) << c.name;
  }
}

TEST(TextSinkTest, CharacterSplitAcrossAppendsIsJoined) {
  const std::string text = "\xE2\x82\xAC \xF0\x9F\x98\x80 \xC3\xA9";  // euro, emoji, e-acute
  for (size_t cut = 0; cut <= text.size(); ++cut) {
    for (size_t cut2 = cut; cut2 <= text.size(); ++cut2) {
      TextSink sink(1024);
      sink.Append(text.substr(0, cut));
      sink.Append(text.substr(cut, cut2 - cut));
      sink.Append(text.substr(cut2));
      EXPECT_EQ(sink.Take(), text) << cut << "," << cut2;
    }
  }
}

TEST(TextSinkTest, CutsAtTheCapacityOnACharacterBoundary) {
  const std::string euro = "\xE2\x82\xAC";
  for (size_t capacity = 0; capacity < 12; ++capacity) {
    TextSink sink(capacity);
    for (int i = 0; i < 5; ++i) sink.Append(euro);
    EXPECT_TRUE(sink.full());
    const std::string out = sink.Take();
    EXPECT_EQ(out.size(), capacity / 3 * 3) << capacity;
    EXPECT_TRUE(IsValidUtf8(out));
  }
  TextSink exact(6);
  exact.Append(euro + euro);
  EXPECT_FALSE(exact.full());
  EXPECT_EQ(exact.Take(), euro + euro);
}

TEST(TextSinkTest, ControlCharactersAndLineEnds) {
  TextSink plain(1024);
  plain.Append(
      std::string("a\tb\r\nc\rd\x01"
                  "e\x7F"
                  "f\0g\xEF\xBB\xBFh",
                  18));
  EXPECT_EQ(plain.Take(), "a\tb\nc\nd e f gh");

  TextSink markup(1024, true);
  markup.Append("  \n lead ");
  markup.Space();
  markup.Append("two\t\twords");
  markup.Break();
  markup.Space();
  markup.Break();
  markup.Append("next  para \n");
  EXPECT_EQ(markup.Take(), "lead two words\nnext para");
}

TEST(TextSinkTest, DrainKeepsASplitCharacterPending) {
  TextSink sink(8);
  sink.Append("ab\xE2\x82");
  EXPECT_EQ(sink.Drain(), "ab");
  sink.Append(
      "\xAC"
      "cdefgh");
  EXPECT_EQ(sink.Drain(),
            "\xE2\x82\xAC"
            "cdefg");  // capacity counts anew
}

TEST(FormatTableTest, ExtensionsChooseTheExtractor) {
  const struct {
    const char* path;
    DocFormat format;
  } cases[] = {
      {"/volume1/docs/report.PDF", DocFormat::kPdf},
      {"notes.txt", DocFormat::kText},
      {"README.md", DocFormat::kText},
      {"/src/linux/kernel/sched/core.c", DocFormat::kText},
      {"/src/linux/Makefile", DocFormat::kText},
      {"/src/linux/Kconfig", DocFormat::kText},
      {"index.HTM", DocFormat::kHtml},
      {"letter.docx", DocFormat::kDocx},
      {"sheet.xlsx", DocFormat::kXlsx},
      {"deck.pptx", DocFormat::kPptx},
      {"letter.odt", DocFormat::kOdf},
      {"sheet.ods", DocFormat::kOdf},
      {"deck.odp", DocFormat::kOdf},
      {"photo.jpg", DocFormat::kNone},
      {"archive.tar.gz", DocFormat::kNone},
      {".bashrc", DocFormat::kNone},
      {"/dir.pdf/plain", DocFormat::kNone},
      {"trailing.", DocFormat::kNone},
      {"", DocFormat::kNone},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(FormatForPath(c.path), c.format) << c.path;
  }
  EXPECT_FALSE(RunsInWorker(DocFormat::kText));
  EXPECT_FALSE(RunsInWorker(DocFormat::kNone));
  EXPECT_TRUE(RunsInWorker(DocFormat::kHtml));
  EXPECT_TRUE(RunsInWorker(DocFormat::kPdf));
  EXPECT_TRUE(RunsInWorker(DocFormat::kOdf));
}

// The table in docs/extraction.md is what administrators read: every
// extension it lists must go where it says.
TEST(FormatTableTest, DocumentedTableMatches) {
  std::ifstream doc(KEST_SOURCE_DIR "/docs/extraction.md");
  ASSERT_TRUE(doc.good());
  const std::map<std::string, DocFormat> formats = {
      {"text", DocFormat::kText}, {"html", DocFormat::kHtml}, {"pdf", DocFormat::kPdf},
      {"docx", DocFormat::kDocx}, {"xlsx", DocFormat::kXlsx}, {"pptx", DocFormat::kPptx},
      {"odf", DocFormat::kOdf}};
  std::string line;
  int rows = 0, names = 0;
  while (std::getline(doc, line)) {
    if (line.rfind("| ", 0) != 0) continue;
    const std::string extractor = line.substr(2, line.find(' ', 2) - 2);
    const auto format = formats.find(extractor);
    if (format == formats.end()) continue;
    ++rows;
    const size_t last_bar = line.rfind('|', line.size() - 2);
    for (size_t pos = line.find('`', last_bar); pos != std::string::npos;
         pos = line.find('`', pos)) {
      const size_t end = line.find('`', pos + 1);
      const std::string word = line.substr(pos + 1, end - pos - 1);
      pos = end + 1;
      ++names;
      // Lower-case words are extensions; capitalised ones whole names.
      const bool extension = std::islower(static_cast<unsigned char>(word[0]));
      const std::string path = extension ? "/volume1/share/file." + word : "/volume1/share/" + word;
      EXPECT_EQ(FormatForPath(path), format->second) << word;
    }
  }
  EXPECT_EQ(rows, 7);
  EXPECT_GT(names, 70);
}

TEST(CharsetTest, ByteOrderMarksWinAndNulBytesMeanBinary) {
  EXPECT_EQ(DetectCharset("\xFF\xFE"
                          "a\0",
                          4),
            "UTF-16LE");
  EXPECT_EQ(DetectCharset("\xFE\xFF\0a", 4), "UTF-16BE");
  EXPECT_EQ(DetectCharset("\xFF\xFE\0\0a\0\0\0", 8), "UTF-32LE");
  EXPECT_EQ(DetectCharset("\xEF\xBB\xBFhi", 5), "UTF-8");
  EXPECT_EQ(DetectCharset("plain ascii", 11), "UTF-8");
  EXPECT_TRUE(LooksBinary("ELF\0\x01", 5, "UTF-8"));
  EXPECT_FALSE(LooksBinary("a\0b\0", 4, "UTF-16LE"));
  EXPECT_FALSE(LooksBinary("text", 4, "UTF-8"));
}

}  // namespace
}  // namespace indexer
}  // namespace kestondri
