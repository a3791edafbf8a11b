// Extraction of each supported format through the real worker, charsets,
// and the limits on text and input.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "extract/extractor.h"
#include "extract/text_sink.h"
#include "indexer/extract_test_util.h"
#include "indexer/fixtures.h"

namespace kestondri {
namespace indexer {
namespace {

using kesttest::Encode;
using kesttest::MakePdf;
using kesttest::WriteFile;
using kesttest::WriteZip;

bool Contains(const std::string& haystack, const std::string& needle) {
  return haystack.find(needle) != std::string::npos;
}

class ExtractFormatsTest : public kesttest::ExtractTestBase {
 protected:
  ExtractFormatsTest() : extractor_(kesttest::WorkerOptionsFor(KEST_EXTRACT_WORKER)) {}
  Extractor extractor_;
};

struct CharsetCase {
  const char* name;
  std::string utf8;
  const char* charset;
  std::vector<std::string> detected;  // acceptable names for what was detected
};

TEST_F(ExtractFormatsTest, TextInEachCharsetComesOutAsUtf8) {
  const std::string french =
      "Le garçon a mangé une crêpe à la crème brûlée près de la fenêtre. Où est la "
      "bibliothèque? Il était une fois une princesse qui vivait dans un château très élevé.\n";
  const std::string russian =
      "Съешь же ещё этих мягких французских булок, да выпей чаю. В чащах юга жил бы цитрус? "
      "Да, но фальшивый экземпляр! Москва является столицей Российской Федерации.\n";
  const std::string japanese =
      "いろはにほへと ちりぬるを わかよたれそ つねならむ うゐのおくやま けふこえて "
      "あさきゆめみし "
      "ゑひもせす。日本語の文章を検出するためのテキストです。東京は日本の首都です。\n";
  const std::string chinese =
      "我能吞下玻璃而不伤身体。北京是中华人民共和国的首都，也是全国的政治中心和文化中心。"
      "中文文本的字符集检测需要足够长的样本才能准确。上海是中国最大的城市之一。\n";
  const std::string greek =
      "Ξεσκεπάζω την ψυχοφθόρα βδελυγμία. Η Αθήνα είναι η πρωτεύουσα της Ελλάδας και μία "
      "από τις αρχαιότερες πόλεις του κόσμου. Η ελληνική γλώσσα έχει μακρά ιστορία.\n";
  const std::string mixed = "UTF-8 everywhere: \xE2\x82\xAC, \xF0\x9F\x98\x80, " + french;
  const CharsetCase cases[] = {
      {"utf-8", mixed, "UTF-8", {"UTF-8"}},
      {"utf-8 bom", "\xEF\xBB\xBF" + french, "UTF-8", {"UTF-8"}},
      {"utf-16le bom", "\xEF\xBB\xBF" + russian, "UTF-16LE", {"UTF-16LE"}},
      {"utf-16be bom", "\xEF\xBB\xBF" + japanese, "UTF-16BE", {"UTF-16BE"}},
      {"latin-1", french + french, "ISO-8859-1", {"ISO-8859-1", "WINDOWS-1252"}},
      {"windows-1251", russian + russian, "WINDOWS-1251", {"WINDOWS-1251"}},
      {"koi8-r", russian + russian, "KOI8-R", {"KOI8-R"}},
      {"shift_jis", japanese + japanese, "SHIFT_JIS", {"SHIFT_JIS"}},
      {"euc-jp", japanese + japanese, "EUC-JP", {"EUC-JP"}},
      {"gb18030", chinese + chinese, "GB18030", {"GB18030"}},
      {"iso-8859-7", greek + greek, "ISO-8859-7", {"ISO-8859-7", "WINDOWS-1253"}},
  };
  for (const CharsetCase& c : cases) {
    const std::string path = Write(std::string(c.name) + ".txt", Encode(c.utf8, c.charset));
    const ExtractResult r = extractor_.Extract(path);
    ASSERT_EQ(r.status, ExtractStatus::kOk) << c.name << ": " << r.detail;
    // The byte-order mark is no text.
    const std::string expected =
        c.utf8.compare(0, 3, "\xEF\xBB\xBF") == 0 ? c.utf8.substr(3) : c.utf8;
    EXPECT_EQ(r.text, expected) << c.name;
    EXPECT_NE(std::find(c.detected.begin(), c.detected.end(), r.charset), c.detected.end())
        << c.name << " detected as " << r.charset;
    EXPECT_FALSE(r.truncated) << c.name;
  }
  EXPECT_EQ(extractor_.worker().starts(), 0u) << "plain text is read in-process";
}

TEST_F(ExtractFormatsTest, InvalidBytesNeverLeaveTheExtractor) {
  std::string noise;
  unsigned seed = 12345;
  for (int i = 0; i < 200000; ++i) {
    seed = seed * 1103515245 + 12345;
    noise.push_back(static_cast<char>(1 + (seed >> 16) % 255));  // no NUL: not "binary"
  }
  const std::string broken_utf8 =
      std::string(500, 'a') + "\xC3\xA9 \xE2\x82 \xF0\x9F \xED\xA0\x80 z";
  const std::vector<std::pair<std::string, std::string>> files = {
      {"noise.txt", noise},
      {"noise.html", "<p>" + noise + "</p>"},
      {"broken.txt", broken_utf8},
      {"broken.html", "<html><head><meta charset=\"utf-8\"></head><p>" + broken_utf8 + "</p>"},
      {"broken.md", "\xFF\xFE" + std::string("a\0\0\xD8"
                                             "b\0",
                                             6)},  // a lone surrogate
  };
  for (const auto& f : files) {
    const ExtractResult r = extractor_.Extract(Write(f.first, f.second));
    EXPECT_EQ(r.status, ExtractStatus::kOk) << f.first << ": " << r.detail;
    EXPECT_TRUE(IsValidUtf8(r.text)) << f.first;
    EXPECT_TRUE(IsValidUtf8(r.title)) << f.first;
  }
  // Broken XML in an office document: the parser gives up, the text stays valid.
  WriteZip(Path("broken.docx"),
           {{"word/document.xml", "<w:document><w:body><w:p><w:t>good " + noise.substr(0, 5000)}});
  const ExtractResult r = extractor_.Extract(Path("broken.docx"));
  EXPECT_EQ(r.status, ExtractStatus::kMalformed);
  EXPECT_TRUE(IsValidUtf8(r.text));
}

TEST_F(ExtractFormatsTest, TextIsCutAtTheLimit) {
  ExtractLimits limits;
  limits.max_text_bytes = 1000;
  std::string accents;
  while (accents.size() < 5000) accents += "\xC3\xA9t\xC3\xA9 ";  // 2-byte characters
  const struct {
    const char* name;
    std::string content;
    bool truncated;
  } cases[] = {
      {"exact.txt", std::string(1000, 'x'), false},
      {"over.txt", std::string(1001, 'x'), true},
      {"accents.txt", accents, true},
      {"long.html", "<p>" + accents + "</p>", true},
      {"short.html", "<p>short</p>", false},
  };
  for (const auto& c : cases) {
    const ExtractResult r = extractor_.Extract(Write(c.name, c.content), limits);
    ASSERT_EQ(r.status, ExtractStatus::kOk) << c.name;
    EXPECT_EQ(r.truncated, c.truncated) << c.name;
    EXPECT_LE(r.text.size(), limits.max_text_bytes) << c.name;
    EXPECT_GE(r.text.size(), c.truncated ? limits.max_text_bytes - 3 : 1) << c.name;
    EXPECT_TRUE(IsValidUtf8(r.text)) << c.name;
  }
  // Office and PDF text obey the same limit.
  std::vector<std::string> paragraphs(60, std::string(40, 'w'));
  WriteZip(Path("long.docx"), kesttest::DocxMembers(paragraphs));
  WriteFile(Path("long.pdf"), MakePdf(paragraphs));
  for (const char* name : {"long.docx", "long.pdf"}) {
    const ExtractResult r = extractor_.Extract(Path(name), limits);
    ASSERT_EQ(r.status, ExtractStatus::kOk) << name << ": " << r.detail;
    EXPECT_TRUE(r.truncated) << name;
    EXPECT_LE(r.text.size(), limits.max_text_bytes) << name;
    EXPECT_GE(r.text.size(), limits.max_text_bytes - 41) << name;
  }
}

TEST_F(ExtractFormatsTest, InputBeyondTheReadLimitIsNotRead) {
  ExtractLimits limits;
  limits.max_input_bytes = 64 * 1024;
  const ExtractResult r = extractor_.Extract(Write("big.log", std::string(1 << 20, 'y')), limits);
  ASSERT_EQ(r.status, ExtractStatus::kOk);
  EXPECT_TRUE(r.truncated);
  EXPECT_EQ(r.text.size(), limits.max_input_bytes);

  WriteFile(Path("big.pdf"), MakePdf({std::string(100 * 1024, 'p')}));
  const ExtractResult pdf = extractor_.Extract(Path("big.pdf"), limits);
  EXPECT_EQ(pdf.status, ExtractStatus::kTooLarge);
  EXPECT_TRUE(pdf.text.empty());
}

TEST_F(ExtractFormatsTest, BinaryContentUnderATextNameHasNoText) {
  const ExtractResult r = extractor_.Extract(Write("a.out.txt", std::string("\x7F"
                                                                            "ELF\x02\x01\0\0\0",
                                                                            9)));
  EXPECT_EQ(r.status, ExtractStatus::kBinary);
  EXPECT_TRUE(r.text.empty());
}

TEST_F(ExtractFormatsTest, Html) {
  const std::string page =
      "<!DOCTYPE html><html><head><title>Caf&eacute; &amp; Bar</title>"
      "<style>body { color: red }</style><script>var secret = 'scripted';</script></head>"
      "<body><h1>Menu</h1><p>Cr&egrave;me &lt;br&gt; &#8364;5 &#x263A;</p>"
      "<div>first<br>second</div><table><tr><td>cell1</td><td>cell2</td></tr></table>"
      "<noscript>enable scripts</noscript><p>last</p></body></html>";
  const ExtractResult r = extractor_.Extract(Write("page.html", page));
  ASSERT_EQ(r.status, ExtractStatus::kOk) << r.detail;
  EXPECT_EQ(r.format, "html");
  EXPECT_EQ(r.title, "Café & Bar");
  EXPECT_EQ(r.text, "Menu\nCrème <br> €5 ☺\nfirst\nsecond\ncell1 cell2\nlast");

  // A declared charset; a guessed one when nothing is declared.
  const std::string latin1 = Encode(
      "<html><head><meta http-equiv=\"Content-Type\" content=\"text/html; charset=iso-8859-1\">"
      "</head><body><p>Déjà vu à Noël</p></body></html>",
      "ISO-8859-1");
  const ExtractResult declared = extractor_.Extract(Write("latin1.htm", latin1));
  EXPECT_EQ(declared.text, "Déjà vu à Noël");
  EXPECT_EQ(declared.charset, "ISO-8859-1");
  const ExtractResult bom = extractor_.Extract(
      Write("bom.html", "\xEF\xBB\xBF<meta charset=\"iso-8859-1\"><p>D\xC3\xA9j\xC3\xA0 vu</p>"));
  EXPECT_EQ(bom.text, "Déjà vu") << "the byte-order mark outranks the declaration";
  const std::string cyrillic = Encode(
      "<html><body><p>Съешь же ещё этих мягких французских булок, да выпей чаю. Москва является "
      "столицей Российской Федерации.</p></body></html>",
      "WINDOWS-1251");
  const ExtractResult guessed = extractor_.Extract(Write("ru.html", cyrillic));
  EXPECT_EQ(guessed.charset, "WINDOWS-1251");
  EXPECT_TRUE(Contains(guessed.text, "Москва является столицей")) << guessed.text;
}

TEST_F(ExtractFormatsTest, Pdf) {
  WriteFile(Path("two.pdf"),
            MakePdf({"First page (with parens)", "Second page text"}, "Annual Report"));
  const ExtractResult r = extractor_.Extract(Path("two.pdf"));
  ASSERT_EQ(r.status, ExtractStatus::kOk) << r.detail;
  EXPECT_EQ(r.format, "pdf");
  EXPECT_EQ(r.title, "Annual Report");
  EXPECT_EQ(r.text, "First page (with parens)\nSecond page text");

  WriteFile(Path("locked.pdf"), MakePdf({"sealed"}, "", true));
  const ExtractResult locked = extractor_.Extract(Path("locked.pdf"));
  EXPECT_EQ(locked.status, ExtractStatus::kEncrypted) << ExtractStatusName(locked.status);
  EXPECT_TRUE(locked.text.empty());

  const struct {
    const char* name;
    std::string content;
  } broken[] = {
      {"empty.pdf", ""},
      {"garbage.pdf", "%PDF-1.4\nthis is not really a pdf\n"},
      {"truncated.pdf", MakePdf({"cut short"}).substr(0, 60)},
  };
  for (const auto& b : broken) {
    const ExtractResult bad = extractor_.Extract(Write(b.name, b.content));
    EXPECT_EQ(bad.status, ExtractStatus::kMalformed)
        << b.name << ": " << ExtractStatusName(bad.status);
    EXPECT_TRUE(bad.text.empty()) << b.name;
  }
}

TEST_F(ExtractFormatsTest, OfficeDocuments) {
  WriteZip(
      Path("letter.docx"),
      kesttest::DocxMembers({"Dear customer,", "your invoice № 42 is überfällig."}, "Reminder"));
  WriteZip(Path("numbers.xlsx"),
           kesttest::XlsxMembers({"Revenue", "Costs"}, "inline note", 1234.5));
  WriteZip(Path("deck.pptx"), kesttest::PptxMembers({"Slide one", "Slide two", "Slide three"}));
  WriteZip(Path("letter.odt"),
           kesttest::OdfMembers("text", {"Hello ODF", "Zweiter Absatz"}, "Brief"));
  WriteZip(Path("table.ods"), kesttest::OdfMembers("spreadsheet", {"alpha", "beta"}));
  WriteZip(Path("show.odp"), kesttest::OdfMembers("presentation", {"Dia één"}), true);
  const struct {
    const char* name;
    const char* format;
    std::string text;
    std::string title;
  } cases[] = {
      {"letter.docx", "docx", "Dear customer,\nyour invoice № 42 is überfällig.", "Reminder"},
      {"numbers.xlsx", "xlsx", "Revenue\nCosts\ninline note 1234.5", ""},
      {"deck.pptx", "pptx", "Slide one\nSlide two\nSlide three", ""},
      {"letter.odt", "odf", "Hello ODF\nZweiter Absatz", "Brief"},
      {"table.ods", "odf", "alpha\nbeta", ""},
      {"show.odp", "odf", "Dia één", ""},
  };
  for (const auto& c : cases) {
    const ExtractResult r = extractor_.Extract(Path(c.name));
    ASSERT_EQ(r.status, ExtractStatus::kOk) << c.name << ": " << r.detail;
    EXPECT_EQ(r.format, c.format) << c.name;
    EXPECT_EQ(r.text, c.text) << c.name;
    EXPECT_EQ(r.title, c.title) << c.name;
  }
  // Members only a password opens.
  WriteZip(Path("locked.docx"), kesttest::DocxMembers({"sealed text"}), false, "secret");
  const ExtractResult locked = extractor_.Extract(Path("locked.docx"));
  EXPECT_EQ(locked.status, ExtractStatus::kEncrypted) << ExtractStatusName(locked.status);
  EXPECT_TRUE(locked.text.empty());
  // Not a zip archive at all.
  const ExtractResult fake = extractor_.Extract(Write("fake.docx", "PK but not really"));
  EXPECT_EQ(fake.status, ExtractStatus::kMalformed);
}

TEST_F(ExtractFormatsTest, EntitiesInDocumentsAreNotExpanded) {
  // An external entity would read another file into this one's text, seen
  // by whoever may read this file; nested entities would blow up memory.
  const std::string secret = Write("secret.txt", "TOPSECRET");
  const auto docx = [&](const std::string& name, const std::string& entities) {
    WriteZip(Path(name), {{"word/document.xml",
                           "<?xml version=\"1.0\"?><!DOCTYPE w:document [<!ENTITY xxe SYSTEM "
                           "\"file://" +
                               secret + "\">" + entities +
                               "]><w:document xmlns:w=\"w\"><w:body><w:p><w:t>a &xxe; b &l1; "
                               "c</w:t></w:p></w:body></w:document>"}});
    return extractor_.Extract(Path(name));
  };
  const ExtractResult shallow =
      docx("shallow.docx", "<!ENTITY l0 \"ha\"><!ENTITY l1 \"&l0;&l0;\">");
  EXPECT_EQ(shallow.status, ExtractStatus::kOk);
  EXPECT_EQ(shallow.text, "a b c");

  std::string laughs = "<!ENTITY l0 \"ha\">";
  for (int i = 1; i < 12; ++i) {
    laughs += "<!ENTITY l" + std::to_string(i) + " \"";
    for (int k = 0; k < 10; ++k) laughs += "&l" + std::to_string(i - 1) + ";";
    laughs += "\">";
  }
  const ExtractResult deep = docx("laughs.docx", laughs);
  EXPECT_TRUE(deep.status == ExtractStatus::kOk || deep.status == ExtractStatus::kMalformed)
      << ExtractStatusName(deep.status);
  EXPECT_FALSE(Contains(deep.text, "TOPSECRET"));
  EXPECT_LT(deep.text.size(), 100u);
}

TEST_F(ExtractFormatsTest, OnlyRegularFilesAreRead) {
  const std::string target = Write("target.txt", "secret text");
  ASSERT_EQ(symlink(target.c_str(), Path("link.txt").c_str()), 0);
  ASSERT_EQ(mkfifo(Path("fifo.txt").c_str(), 0644), 0);
  ASSERT_EQ(mkdir(Path("folder.pdf").c_str(), 0755), 0);
  for (const char* name : {"link.txt", "fifo.txt", "folder.pdf"}) {
    const ExtractResult r = extractor_.Extract(Path(name));
    EXPECT_EQ(r.status, ExtractStatus::kUnsupported) << name;
    EXPECT_TRUE(r.text.empty()) << name;
  }
  EXPECT_EQ(extractor_.Extract(Path("missing.txt")).status, ExtractStatus::kUnreadable);
  const ExtractResult photo = extractor_.Extract(Write("photo.jpg", "\xFF\xD8\xFF"));
  EXPECT_EQ(photo.status, ExtractStatus::kUnsupported);
  EXPECT_EQ(extractor_.worker().starts(), 0u);
}

}  // namespace
}  // namespace indexer
}  // namespace kestondri
