// Extraction: the UTF-8 guarantees of the text collector, the extension
// table, each supported format through the real worker, charsets, the limits
// on text and input, and the worker process under hostile input (time-outs,
// crashes, CPU and memory limits, bombs): every case ends with the indexer
// side unharmed, a status, no text, a log line, and a fresh worker for the
// next file.
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "extract/charset.h"
#include "extract/extractor.h"
#include "extract/format_table.h"
#include "extract/text_sink.h"
#include "indexer/fixtures.h"
#include "support/sandbox.h"
#include "support/syslog_capture.h"

#if defined(__SANITIZE_ADDRESS__)
#define KEST_TEST_UNDER_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KEST_TEST_UNDER_ASAN 1
#endif
#endif

namespace kestondri {
namespace indexer {
namespace {

using kesttest::Encode;
using kesttest::MakePdf;
using kesttest::SyslogCapture;
using kesttest::WriteFile;
using kesttest::WriteZip;

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

// Every listed extension is checked against docs/extraction.md below; here
// the edges: case, names without an extension, folders named like files.
TEST(FormatTableTest, ExtensionsChooseTheExtractor) {
  const struct {
    const char* path;
    DocFormat format;
  } cases[] = {
      {"/volume1/docs/report.PDF", DocFormat::kPdf},
      {"index.HTM", DocFormat::kHtml},
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

// The worker as installed, and a build of it that misbehaves on request
// (a file starting "KEST-TEST-HANG", "-SPIN", "-CRASH", "-EXIT", "-ALLOC").
ExtractorOptions WorkerOptionsFor(const char* worker_path) {
  ExtractorOptions options;
  options.worker.worker_path = worker_path;
  return options;
}

// A scratch folder of the test's own.
class ExtractTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = "/tmp/extract-" +
           std::string(::testing::UnitTest::GetInstance()->current_test_info()->name());
    mkdir(dir_.c_str(), 0755);
  }
  std::string Path(const std::string& name) const { return dir_ + "/" + name; }
  std::string Write(const std::string& name, const std::string& content) {
    WriteFile(Path(name), content);
    return Path(name);
  }

  std::string dir_;
};

bool Contains(const std::string& haystack, const std::string& needle) {
  return haystack.find(needle) != std::string::npos;
}

class ExtractFormatsTest : public ExtractTest {
 protected:
  ExtractFormatsTest() : extractor_(WorkerOptionsFor(KEST_EXTRACT_WORKER)) {}
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

// The "Uid:" line of a process: real, effective, saved, filesystem.
std::string UidLine(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("Uid:", 0) == 0) return line;
  }
  return "";
}

class ExtractWorkerTest : public ExtractTest {
 protected:
  void SetUp() override {
    ExtractTest::SetUp();
    // The log connection stays open once made: make it before counting.
    openlog("extract_test", LOG_NDELAY, LOG_USER);
    fds_before_ = kesttest::OpenFdCount();
    SyslogCapture::Instance().Clear();
    good_pdf_ = Path("good.pdf");
    kesttest::WriteFile(good_pdf_, kesttest::MakePdf({"still working"}));
  }
  void TearDown() override {
    // Whatever happened, nothing is left behind once the extractor is gone.
    extractor_.reset();
    EXPECT_EQ(kesttest::ReapChildren(2000), 0);
    EXPECT_TRUE(kesttest::LiveChildren().empty());
    EXPECT_EQ(kesttest::OpenFdCount(), fds_before_);
  }
  Extractor& extractor() {
    if (!extractor_) extractor_.reset(new Extractor(WorkerOptionsFor(KEST_EXTRACT_TEST_WORKER)));
    return *extractor_;
  }
  // The next file after a failure is served, by a fresh worker.
  void ExpectRecovered(pid_t old_pid) {
    const ExtractResult r = extractor().Extract(good_pdf_);
    EXPECT_EQ(r.status, ExtractStatus::kOk) << r.detail;
    EXPECT_EQ(r.text, "still working");
    EXPECT_NE(extractor().worker().pid(), 0);
    EXPECT_NE(extractor().worker().pid(), old_pid);
  }

  std::unique_ptr<Extractor> extractor_;
  int fds_before_ = 0;
  std::string good_pdf_;
};

TEST_F(ExtractWorkerTest, OneWorkerServesManyFiles) {
  const ExtractResult first = extractor().Extract(good_pdf_);
  ASSERT_EQ(first.status, ExtractStatus::kOk) << first.detail;
  const pid_t pid = extractor().worker().pid();
  ASSERT_GT(pid, 0);
  for (int i = 0; i < 20; ++i) {
    const std::string path = Path("page" + std::to_string(i) + ".html");
    kesttest::WriteFile(path, "<p>page " + std::to_string(i) + "</p>");
    EXPECT_EQ(extractor().Extract(path).text, "page " + std::to_string(i));
  }
  EXPECT_EQ(extractor().worker().pid(), pid);
  EXPECT_EQ(extractor().worker().starts(), 1u);
}

TEST_F(ExtractWorkerTest, WorkerRunsUnprivilegedAndConfined) {
  ASSERT_EQ(extractor().Extract(good_pdf_).status, ExtractStatus::kOk);
  const pid_t pid = extractor().worker().pid();
  const std::string uid = std::to_string(getpwnam("nobody")->pw_uid);
  EXPECT_EQ(UidLine(pid), "Uid:\t" + uid + "\t" + uid + "\t" + uid + "\t" + uid);
  // Only the standard streams and its socket are open in the worker.
  std::vector<std::string> fds;
  for (int fd = 0; fd < 64; ++fd) {
    if (access(("/proc/" + std::to_string(pid) + "/fd/" + std::to_string(fd)).c_str(), F_OK) == 0) {
      fds.push_back(std::to_string(fd));
    }
  }
  EXPECT_EQ(fds, (std::vector<std::string>{"0", "1", "2", "3"}));
  // A private file of a user is still extracted: it arrives open.
  const std::string secret = Path("private.html");
  kesttest::WriteFile(secret, "<p>for ann only</p>", 0600);
  ASSERT_EQ(chown(secret.c_str(), kesttest::kAnnUid, kesttest::kAnnUid), 0);
  EXPECT_EQ(extractor().Extract(secret).text, "for ann only");
}

struct MisbehaviourCase {
  const char* name;
  const char* content;
  ExtractStatus status;
  const char* log;  // what the log line says
};

TEST_F(ExtractWorkerTest, MisbehavingWorkerIsReplaced) {
  const MisbehaviourCase cases[] = {
      {"hang", "KEST-TEST-HANG", ExtractStatus::kTimeout, "timeout: no result within 500 ms"},
      {"crash", "KEST-TEST-CRASH", ExtractStatus::kCrashed, "crashed: worker "},
      {"exit", "KEST-TEST-EXIT", ExtractStatus::kCrashed, "crashed: worker exited with status 3"},
  };
  ExtractLimits limits;
  limits.wall_ms = 500;
  for (const MisbehaviourCase& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_EQ(extractor().Extract(good_pdf_).status, ExtractStatus::kOk);
    const pid_t pid = extractor().worker().pid();
    const std::string path = Path(std::string(c.name) + ".pdf");
    kesttest::WriteFile(path, c.content);
    const ExtractResult r = extractor().Extract(path, limits);
    EXPECT_EQ(r.status, c.status) << ExtractStatusName(r.status) << ": " << r.detail;
    EXPECT_TRUE(r.text.empty());
    EXPECT_EQ(extractor().worker().pid(), 0) << "the dead worker is forgotten";
    EXPECT_TRUE(SyslogCapture::Instance().WaitFor("extract " + path + ": " + c.log));
    ExpectRecovered(pid);
  }
}

TEST_F(ExtractWorkerTest, CpuTimeIsLimitedPerFile) {
  ExtractLimits limits;
  limits.cpu_seconds = 1;
  limits.wall_ms = 120000;  // far beyond: the CPU limit must end it first
  // Files before the spinning one have used CPU time too: the allowance is
  // per file, not per worker.
  for (int i = 0; i < 3; ++i)
    ASSERT_EQ(extractor().Extract(good_pdf_, limits).status, ExtractStatus::kOk);
  const pid_t pid = extractor().worker().pid();
  kesttest::WriteFile(Path("spin.pdf"), "KEST-TEST-SPIN");
  const ExtractResult r = extractor().Extract(Path("spin.pdf"), limits);
  EXPECT_EQ(r.status, ExtractStatus::kCpuLimit) << r.detail;
  ExpectRecovered(pid);
}

TEST_F(ExtractWorkerTest, MemoryIsLimited) {
#ifdef KEST_TEST_UNDER_ASAN
  GTEST_SKIP() << "the address-space limit is off under AddressSanitizer";
#endif
  ExtractLimits limits;
  limits.max_memory_bytes = 256u << 20;
  ASSERT_EQ(extractor().Extract(good_pdf_, limits).status, ExtractStatus::kOk);
  const pid_t pid = extractor().worker().pid();
  kesttest::WriteFile(Path("hog.pdf"), "KEST-TEST-ALLOC");
  const ExtractResult r = extractor().Extract(Path("hog.pdf"), limits);
  EXPECT_EQ(r.status, ExtractStatus::kMemoryLimit)
      << ExtractStatusName(r.status) << ": " << r.detail;
  // The worker survived its bad_alloc and serves on.
  const ExtractResult next = extractor().Extract(good_pdf_, limits);
  EXPECT_EQ(next.status, ExtractStatus::kOk);
  EXPECT_EQ(extractor().worker().pid(), pid);
}

TEST_F(ExtractWorkerTest, WorkerKilledBetweenFilesIsRestarted) {
  ASSERT_EQ(extractor().Extract(good_pdf_).status, ExtractStatus::kOk);
  const pid_t pid = extractor().worker().pid();
  ASSERT_EQ(kill(pid, SIGKILL), 0);
  // Dead, not yet reaped: the state in /proc/<pid>/stat turns to "Z".
  for (int i = 0; i < 500; ++i) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string all((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    const size_t paren = all.rfind(')');
    if (paren != std::string::npos && all.compare(paren, 4, ") Z ") == 0) break;
    usleep(10000);
  }
  ExpectRecovered(pid);
  EXPECT_EQ(extractor().worker().starts(), 2u);
}

TEST_F(ExtractWorkerTest, StartsFromADaemonWithoutStandardStreams) {
  // With stdin and stdout closed the socket pair gets descriptors 0 and 1.
  const int saved_in = dup(0), saved_out = dup(1);
  close(0);
  close(1);
  const ExtractResult r = extractor().Extract(good_pdf_);
  extractor_.reset();  // its end of the pair may be 0 or 1
  dup2(saved_in, 0);
  dup2(saved_out, 1);
  close(saved_in);
  close(saved_out);
  EXPECT_EQ(r.status, ExtractStatus::kOk) << r.detail;
  EXPECT_EQ(r.text, "still working");
}

TEST_F(ExtractWorkerTest, MissingWorkerExecutableFailsCleanly) {
  ExtractorOptions options;
  options.worker.worker_path = "/nonexistent/kest-extract-worker";
  extractor_.reset(new Extractor(options));
  const ExtractResult r = extractor().Extract(good_pdf_);
  EXPECT_EQ(r.status, ExtractStatus::kWorkerFailed);
  EXPECT_TRUE(r.text.empty());
  // Plain text does not need the worker.
  EXPECT_EQ(extractor().Extract(Write("plain.txt", "fine")).text, "fine");
}

TEST_F(ExtractWorkerTest, ZipBombStopsAtTheInputLimit) {
  ExtractLimits limits;
  limits.max_input_bytes = 4u << 20;
  // 64 MiB of white space between paragraphs deflates to about 64 KiB.
  std::string xml = "<w:document xmlns:w=\"w\"><w:body><w:p><w:t>before the padding</w:t></w:p>";
  xml.append(64u << 20, ' ');
  xml += "<w:p><w:t>after the padding</w:t></w:p></w:body></w:document>";
  WriteZip(Path("bomb.docx"), {{"word/document.xml", xml}});
  xml.clear();
  xml.shrink_to_fit();
  const ExtractResult r = extractor().Extract(Path("bomb.docx"), limits);
  EXPECT_EQ(r.status, ExtractStatus::kOk) << r.detail;
  EXPECT_TRUE(r.truncated);
  EXPECT_EQ(r.text, "before the padding");
  EXPECT_EQ(r.detail, "input limit reached");

  // Many small members: bounded by the member count.
  kesttest::ZipMembers many;
  for (int i = 0; i < 300; ++i)
    many.push_back({"ppt/slides/slide" + std::to_string(i) + ".xml", "<a:t>x</a:t>"});
  WriteZip(Path("many.pptx"), many);
  limits.max_archive_entries = 100;
  const ExtractResult m = extractor().Extract(Path("many.pptx"), limits);
  EXPECT_EQ(m.status, ExtractStatus::kOk);
  EXPECT_TRUE(m.truncated);
  EXPECT_EQ(m.detail, "too many archive members");
}

TEST_F(ExtractWorkerTest, DeepNestingDoesNotCrashTheWorker) {
  const int depth = 200000;
  std::string xml = "<w:document xmlns:w=\"w\"><w:body><w:p><w:t>shallow</w:t></w:p>";
  for (int i = 0; i < depth; ++i) xml += "<w:p>";
  xml += "<w:t>deep</w:t>";
  for (int i = 0; i < depth; ++i) xml += "</w:p>";
  xml += "</w:body></w:document>";
  WriteZip(Path("deep.docx"), {{"word/document.xml", xml}});
  std::string html = "<html><body><p>top</p>";
  for (int i = 0; i < depth; ++i) html += "<div><span>";
  html += "bottom";
  kesttest::WriteFile(Path("deep.html"), html);

  const ExtractResult docx = extractor().Extract(Path("deep.docx"));
  EXPECT_EQ(docx.status, ExtractStatus::kMalformed) << ExtractStatusName(docx.status);
  EXPECT_EQ(docx.text, "shallow");
  const pid_t pid = extractor().worker().pid();
  const ExtractResult page = extractor().Extract(Path("deep.html"));
  EXPECT_EQ(page.status, ExtractStatus::kOk) << page.detail;
  EXPECT_EQ(page.text.substr(0, 3), "top");
  EXPECT_EQ(extractor().worker().pid(), pid);
}

TEST_F(ExtractWorkerTest, AnswersOfAWorkerAreCheckedNotTrusted) {
  // A worker taken over by a hostile file must not get invalid UTF-8 into
  // the index, nor make the indexer read an endless answer.
  kesttest::WriteFile(Path("lie.pdf"), "KEST-TEST-LIE");
  const ExtractResult lie = extractor().Extract(Path("lie.pdf"));
  EXPECT_EQ(lie.status, ExtractStatus::kOk);
  EXPECT_TRUE(IsValidUtf8(lie.text));
  EXPECT_TRUE(IsValidUtf8(lie.title));
  EXPECT_TRUE(IsValidUtf8(lie.charset));
  EXPECT_EQ(lie.text.substr(0, 4), "bad ");

  const pid_t pid = extractor().worker().pid();
  kesttest::WriteFile(Path("garbage.pdf"), "KEST-TEST-GARBAGE");
  const ExtractResult garbage = extractor().Extract(Path("garbage.pdf"));
  EXPECT_EQ(garbage.status, ExtractStatus::kCrashed);
  EXPECT_EQ(garbage.detail, "malformed answer from the worker");
  ExpectRecovered(pid);
}

}  // namespace
}  // namespace indexer
}  // namespace kestondri
