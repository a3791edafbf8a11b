// Extraction: the UTF-8 guarantees of the text collector, the extension
// table, the sample documents of every format, charset and hostile kind
// through the real worker, the limits on text and input, and the worker
// process itself: confined, and replaced whenever it misbehaves.
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <string>

#include "extract/extractor.h"
#include "extract/format_table.h"
#include "extract/text_sink.h"
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

using kesttest::ReadFile;
using kesttest::SyslogCapture;
using kesttest::WriteFile;
constexpr ExtractStatus kOk = ExtractStatus::kOk;

// A file of tests/indexer/samples (its README.md says what each holds).
std::string Sample(const std::string& name) {
  return KEST_SOURCE_DIR "/tests/indexer/samples/" + name;
}

TEST(TextSinkTest, InvalidUtf8BecomesReplacementCharacters) {
  const std::string r = "\xEF\xBF\xBD";
  // Valid two- and four-byte characters; a lone continuation, overlong forms,
  // a surrogate, beyond U+10FFFF, an invalid lead, a truncated end, latin-1.
  const std::pair<std::string, std::string> cases[] = {
      {"plain caf\xC3\xA9", "plain caf\xC3\xA9"},
      {"\xF0\x9F\x98\x80!", "\xF0\x9F\x98\x80!"},
      {"a\x80z", "a" + r + "z"},
      {"\xC0\xAF", r + r},
      {"\xE0\x80\xAF", r + r + r},
      {"\xED\xA0\x80", r + r + r},
      {"\xF4\x90\x80\x80", r + r + r + r},
      {"\xF8\x88\x80\x80\x80", r + r + r + r + r},
      {"ab\xE2\x82", "ab" + r + r},
      {"na\xEFve", "na" + r + "ve"},
  };
  for (const auto& [input, expected] : cases) {
    TextSink sink(1024);
    sink.Append(input);
    EXPECT_EQ(sink.Take(), expected) << input;
    EXPECT_EQ(SanitizeUtf8(input), expected) << input;
    EXPECT_EQ(IsValidUtf8(input), input == expected) << input;
  }
}

// A character split across appends is joined; the capacity cuts on a character
// boundary, and counts anew after each drain.
TEST(TextSinkTest, SplitCharactersAndCapacity) {
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
  TextSink sink(8);
  sink.Append("ab\xE2\x82");
  EXPECT_EQ(sink.Drain(), "ab");
  sink.Append("\254cdefgh");
  EXPECT_EQ(sink.Drain(), "\342\202\254cdefg");  // capacity counts anew
}

TEST(TextSinkTest, ControlCharactersAndLineEnds) {
  TextSink plain(1024);
  plain.Append(std::string("a\tb\r\nc\rd\001e\177f\0g\xEF\xBB\xBFh", 18));
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

// The table in docs/extraction.md is what administrators read: every
// extension it lists must go where it says.
TEST(FormatTableTest, DocumentedTableMatches) {
  std::ifstream doc(KEST_SOURCE_DIR "/docs/extraction.md");
  ASSERT_TRUE(doc.good());
  const std::set<std::string> extractors = {"text", "html", "pdf", "docx", "xlsx", "pptx", "odf"};
  std::string line;
  int rows = 0, names = 0;
  while (std::getline(doc, line)) {
    if (line.rfind("| ", 0) != 0) continue;
    const std::string extractor = line.substr(2, line.find(' ', 2) - 2);
    if (extractors.count(extractor) == 0) continue;
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
      EXPECT_EQ(DocFormatName(FormatForPath(path)), extractor) << word;
    }
  }
  EXPECT_EQ(rows, 7);
  EXPECT_GT(names, 70);
  // The edges: case, names without an extension, folders named like files.
  EXPECT_EQ(FormatForPath("/volume1/docs/report.PDF"), DocFormat::kPdf);
  EXPECT_EQ(FormatForPath("index.HTM"), DocFormat::kHtml);
  for (const char* path :
       {"photo.jpg", "archive.tar.gz", ".bashrc", "/dir.pdf/plain", "trailing.", ""})
    EXPECT_EQ(FormatForPath(path), DocFormat::kNone) << path;
  // Parsers of untrusted markup run in the confined worker; plain text needs none.
  EXPECT_FALSE(RunsInWorker(DocFormat::kText));
  for (DocFormat f : {DocFormat::kHtml, DocFormat::kPdf, DocFormat::kDocx, DocFormat::kOdf})
    EXPECT_TRUE(RunsInWorker(f));
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

// Every sample document: its text and title, or what went wrong. The limits
// stop the bombs early; no well-formed sample comes near them.
TEST_F(ExtractFormatsTest, SampleDocuments) {
  WriteFile("/tmp/kest-secret.txt", "TOPSECRET");  // the external entity of the entity samples
  ExtractLimits limits;
  limits.max_input_bytes = 1 << 20;
  limits.max_archive_entries = 10;
  const struct {
    const char* file;
    ExtractStatus status;
    std::string text;
    const char* title;
    const char* detail;  // its beginning
  } cases[] = {
      {"documents/annual-report.pdf", kOk,
       "Annual report: the okapi migration grew in every region.\n"
       "Outlook: the observatory project starts next spring.",
       "Annual report", ""},
      {"documents/meeting-minutes.docx", kOk,
       "Minutes of the planning meeting: the ibis count.\n"
       "Decision: the archive moves to the new volume, café included.",
       "Meeting minutes", ""},
      {"documents/budget.xlsx", kOk, "Hardware\nTravel\nTelescope\nforecast 4200", "", ""},
      {"documents/roadmap.pptx", kOk, "Roadmap 2027\nMilestone: search everywhere", "", ""},
      {"documents/letter.odt", kOk, "Dear customer, your parcel is on its way.\nGrüße aus Zürich",
       "Letter", ""},
      {"documents/inventory.ods", kOk, "Inventory\nlenses and mirrors", "", ""},
      {"documents/training.odp", kOk, "Training: safe handling of lasers", "", ""},
      {"documents/page.html", kOk, "Menu\nCrème <br> €5 ☺\nfirst\nsecond\ncell1 cell2\nlast",
       "Café & Bar", ""},
      {"hostile/locked.docx", ExtractStatus::kEncrypted, "", "", "encrypted member"},
      {"hostile/locked.pdf", ExtractStatus::kEncrypted, "", "", "password-protected"},
      {"hostile/empty.pdf", ExtractStatus::kMalformed, "", "", "empty file"},
      {"hostile/garbage.pdf", ExtractStatus::kMalformed, "", "", "not a readable PDF"},
      {"hostile/truncated.pdf", ExtractStatus::kMalformed, "", "", "not a readable PDF"},
      {"hostile/not-a-zip.docx", ExtractStatus::kMalformed, "", "", "not a zip archive: "},
      {"hostile/broken.docx", ExtractStatus::kMalformed, "", "", "malformed XML in "},
      {"hostile/binary.txt", ExtractStatus::kBinary, "", "", "binary content"},
      // An external entity would read another file into this one's text,
      // seen by whoever may read this file; nested ones would blow up memory.
      {"hostile/entities.docx", kOk, "a b c", "", ""},
      {"hostile/laughs.docx", kOk, "a b c", "", ""},
      {"hostile/bomb.docx", kOk, "before the padding", "", "input limit reached"},
      {"hostile/many.pptx", kOk, "", "", "too many archive members"},
      {"hostile/deep.docx", ExtractStatus::kMalformed, "shallow", "", "malformed XML in "},
  };
  for (const auto& c : cases) {
    const ExtractResult r = extractor_.Extract(Sample(c.file), limits);
    EXPECT_EQ(r.status, c.status) << c.file << ": " << ExtractStatusName(r.status);
    EXPECT_EQ(r.text, c.text) << c.file;
    EXPECT_EQ(r.title, c.title) << c.file;
    EXPECT_EQ(r.detail.substr(0, strlen(c.detail)), c.detail) << c.file << ": " << r.detail;
    EXPECT_EQ(r.truncated, Contains(c.detail, "limit") || Contains(c.detail, "many")) << c.file;
  }
  // Nesting deeper than any parser's stack: the page is read, the worker lives.
  std::string html = "<html><body><p>top</p>";
  for (int i = 0; i < 200000; ++i) html += "<div><span>";
  const ExtractResult deep = extractor_.Extract(Write("deep.html", html + "bottom"));
  EXPECT_EQ(deep.status, kOk) << deep.detail;
  EXPECT_EQ(deep.text.substr(0, 3), "top");
}

TEST_F(ExtractFormatsTest, TextInEachCharsetComesOutAsUtf8) {
  const struct {
    const char* file;      // <language>.<charset>.txt or .html, the text of <language>.txt
    const char* charsets;  // acceptable names for what is detected
  } cases[] = {
      {"fr.txt", "UTF-8"},
      {"fr.utf-8-bom.txt", "UTF-8"},
      {"fr.latin-1.txt", "ISO-8859-1 WINDOWS-1252"},
      {"ru.utf-16le.txt", "UTF-16LE"},
      {"ru.utf-32le.txt", "UTF-32LE"},
      {"ru.windows-1251.txt", "WINDOWS-1251"},
      {"ru.koi8-r.txt", "KOI8-R"},
      {"ja.utf-16be.txt", "UTF-16BE"},
      {"ja.shift_jis.txt", "SHIFT_JIS"},
      {"ja.euc-jp.txt", "EUC-JP"},
      {"zh.gb18030.txt", "GB18030"},
      {"el.iso-8859-7.txt", "ISO-8859-7 WINDOWS-1253"},
      {"fr.latin-9.html", "ISO-8859-15"},        // declared: no guess says it
      {"fr.utf-8-bom.html", "UTF-8"},            // the byte-order mark outranks the declaration
      {"ru.windows-1251.html", "WINDOWS-1251"},  // guessed
  };
  for (const auto& c : cases) {
    const std::string file = c.file;
    const ExtractResult r = extractor_.Extract(Sample("charsets/" + file));
    ASSERT_EQ(r.status, kOk) << file << ": " << r.detail;
    // The byte-order mark is no text; a page's last paragraph ends no line.
    EXPECT_EQ(r.text + (r.format == "html" ? "\n" : ""),
              ReadFile(Sample("charsets/" + file.substr(0, 2) + ".txt")))
        << file;
    EXPECT_TRUE(Contains(std::string(" ") + c.charsets + " ", " " + r.charset + " "))
        << file << " detected as " << r.charset;
    EXPECT_FALSE(r.truncated) << file;
  }
  EXPECT_EQ(extractor_.worker().starts(), 1u) << "text in-process, the pages by one worker";
}

// Whatever the bytes, the text is valid UTF-8 and stays within the limits.
TEST_F(ExtractFormatsTest, TextIsValidUtf8WithinTheLimits) {
  std::string noise;
  unsigned seed = 12345;
  for (int i = 0; i < 200000; ++i) {
    seed = seed * 1103515245 + 12345;
    noise.push_back(static_cast<char>(1 + (seed >> 16) % 255));  // no NUL: not "binary"
  }
  const std::string broken = std::string(500, 'a') + "\xC3\xA9 \xE2\x82 \xF0\x9F \xED\xA0\x80 z";
  std::string accents;
  while (accents.size() < 5000) accents += "\xC3\xA9t\xC3\xA9 ";  // 2-byte characters
  const std::string pdf = ReadFile(Sample("documents/annual-report.pdf"));
  const struct {
    const char* name;
    std::string content;
    size_t max_text, max_input;  // 0: the default
    ExtractStatus status;
    bool truncated;
  } cases[] = {
      {"noise.txt", noise, 0, 0, kOk, false},
      {"noise.html", "<p>" + noise + "</p>", 0, 0, kOk, false},
      {"broken.txt", broken, 0, 0, kOk, false},
      {"broken.html", "<meta charset=\"utf-8\"><p>" + broken + "</p>", 0, 0, kOk, false},
      {"surrogate.md", std::string("\377\376a\0\0\330b\0", 8), 0, 0, kOk, false},  // UTF-16LE
      {"exact.txt", std::string(1000, 'x'), 1000, 0, kOk, false},
      {"over.txt", std::string(1001, 'x'), 1000, 0, kOk, true},
      {"accents.txt", accents, 1000, 0, kOk, true},
      {"long.html", "<p>" + accents + "</p>", 1000, 0, kOk, true},
      {"short.html", "<p>short</p>", 1000, 0, kOk, false},
      {"long.pdf", pdf, 60, 0, kOk, true},  // over a page's end
      {"long.docx", ReadFile(Sample("documents/meeting-minutes.docx")), 60, 0, kOk, true},
      {"big.log", std::string(1 << 20, 'y'), 0, 64 * 1024, kOk, true},
      {"big.pdf", pdf, 0, 100, ExtractStatus::kTooLarge, false},  // not read at all
  };
  for (const auto& c : cases) {
    ExtractLimits limits;
    if (c.max_text > 0) limits.max_text_bytes = c.max_text;
    if (c.max_input > 0) limits.max_input_bytes = c.max_input;
    const ExtractResult r = extractor_.Extract(Write(c.name, c.content), limits);
    ASSERT_EQ(r.status, c.status) << c.name << ": " << r.detail;
    EXPECT_EQ(r.truncated, c.truncated) << c.name;
    // Cut at most one character short of the limit that applies.
    const size_t limit = std::min<size_t>(limits.max_text_bytes, limits.max_input_bytes);
    EXPECT_LE(r.text.size(), limit) << c.name;
    EXPECT_GE(r.text.size(), c.truncated ? limit - 3 : c.status == kOk) << c.name;
    EXPECT_TRUE(IsValidUtf8(r.text)) << c.name;
  }
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

// The worker in one life: one process serves file after file, unprivileged,
// with only its socket open; each misbehaviour costs its file alone (a
// status, no text, a log line) and the next file gets a fresh worker; when
// the extractor is gone nothing is left behind.
TEST_F(ExtractTest, TheWorkerIsConfinedAndEachFailureCostsOneFile) {
  openlog("extract_test", LOG_NDELAY, LOG_USER);  // stays open: made before counting
  const int fds_before = kesttest::OpenFdCount();
  auto extractor = std::make_unique<Extractor>(WorkerOptionsFor(KEST_EXTRACT_TEST_WORKER));
  const std::string good = Sample("documents/memo.docx");
  const auto expect_served = [&](const ExtractLimits& limits = ExtractLimits()) {
    const ExtractResult r = extractor->Extract(good, limits);
    EXPECT_EQ(r.status, kOk) << r.detail;
    EXPECT_EQ(r.text, "Memo: the aardvark count.");
    return extractor->worker().pid();
  };
  const pid_t pid = expect_served();
  ASSERT_GT(pid, 0);
  for (int i = 0; i < 10; ++i) {
    const std::string n = std::to_string(i);  // each answer is its own file's
    EXPECT_EQ(extractor->Extract(Write("page" + n + ".html", "<p>page " + n + "</p>")).text,
              "page " + n);
  }
  EXPECT_EQ(extractor->worker().pid(), pid);
  EXPECT_EQ(extractor->worker().starts(), 1u);
  const std::string uid = std::to_string(getpwnam("nobody")->pw_uid);
  const std::string proc = "/proc/" + std::to_string(pid);
  EXPECT_TRUE(Contains(ReadFile(proc + "/status"),
                       "\nUid:\t" + uid + "\t" + uid + "\t" + uid + "\t" + uid + "\n"));
  // Only the standard streams and its socket are open in it.
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(proc + "/fd"), {}), 4);
  // A private file of a user is still extracted: it arrives open.
  const std::string secret = Write("private.html", "<p>for ann only</p>");
  ASSERT_EQ(chmod(secret.c_str(), 0600), 0);
  ASSERT_EQ(chown(secret.c_str(), kesttest::kAnnUid, kesttest::kAnnUid), 0);
  EXPECT_EQ(extractor->Extract(secret).text, "for ann only");

  const struct {
    const char* hook;
    unsigned wall_ms, cpu_seconds;
    ExtractStatus status;
    const char* log;  // after "extract <path>: "
  } cases[] = {
      {"HANG", 500, 30, ExtractStatus::kTimeout, "timeout: no result within 500 ms"},
      // SIGSEGV, or SIGABRT from AddressSanitizer's handler.
      {"CRASH", 60000, 30, ExtractStatus::kCrashed, "crashed: worker killed by signal "},
      {"EXIT", 60000, 30, ExtractStatus::kCrashed, "crashed: worker exited with status 3"},
      // The CPU allowance is per file, not per worker: files before used some.
      {"SPIN", 120000, 1, ExtractStatus::kCpuLimit,
       "cpu-limit: worker killed by signal 24 (CPU time limit exceeded)"},
      {"GARBAGE", 60000, 30, ExtractStatus::kCrashed, "crashed: malformed answer from the worker"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.hook);
    const pid_t before = expect_served();
    ExtractLimits limits;
    limits.wall_ms = c.wall_ms;
    limits.cpu_seconds = c.cpu_seconds;
    const std::string path =
        Write(std::string(c.hook) + ".pdf", std::string("KEST-TEST-") + c.hook);
    const ExtractResult r = extractor->Extract(path, limits);
    EXPECT_EQ(r.status, c.status) << ExtractStatusName(r.status) << ": " << r.detail;
    EXPECT_TRUE(r.text.empty());
    EXPECT_EQ(extractor->worker().pid(), 0) << "the dead worker is forgotten";
    EXPECT_TRUE(SyslogCapture::Instance().WaitFor("extract " + path + ": " + c.log));
    EXPECT_NE(expect_served(), before);
  }
  // A worker taken over by a hostile file gets no invalid UTF-8 into the index.
  const ExtractResult lie = extractor->Extract(Write("lie.pdf", "KEST-TEST-LIE"));
  EXPECT_EQ(lie.status, kOk);
  EXPECT_EQ(lie.text.substr(0, 4), "bad ");
  for (const std::string& s : {lie.text, lie.title, lie.charset}) EXPECT_TRUE(IsValidUtf8(s));
#ifndef KEST_TEST_UNDER_ASAN  // where the address-space limit is off
  // Out of memory: the worker survives its bad_alloc and serves on.
  ExtractLimits small;
  small.max_memory_bytes = 256u << 20;
  const ExtractResult hog = extractor->Extract(Write("hog.pdf", "KEST-TEST-ALLOC"), small);
  EXPECT_EQ(hog.status, ExtractStatus::kMemoryLimit) << ExtractStatusName(hog.status);
  const pid_t survivor = extractor->worker().pid();
  EXPECT_EQ(expect_served(small), survivor);
#endif

  // Killed between two files: the next file is served by a fresh start.
  const pid_t killed = expect_served();
  const unsigned starts = extractor->worker().starts();
  ASSERT_EQ(kill(killed, SIGKILL), 0);
  // Dead, not yet reaped: its state turns to "Z".
  for (int i = 0;
       i < 500 && !Contains(ReadFile("/proc/" + std::to_string(killed) + "/stat"), ") Z "); ++i)
    usleep(10000);
  EXPECT_NE(expect_served(), killed);
  EXPECT_EQ(extractor->worker().starts(), starts + 1);

  // Started by a daemon without stdin and stdout: the socket pair gets
  // descriptors 0 and 1.
  const int saved_in = dup(0), saved_out = dup(1);
  close(0);
  close(1);
  extractor = std::make_unique<Extractor>(WorkerOptionsFor(KEST_EXTRACT_TEST_WORKER));
  const ExtractResult streamless = extractor->Extract(good);
  extractor.reset();  // its end of the pair may be 0 or 1
  dup2(saved_in, 0);
  dup2(saved_out, 1);
  close(saved_in);
  close(saved_out);
  EXPECT_EQ(streamless.status, kOk) << streamless.detail;
  EXPECT_EQ(streamless.text, "Memo: the aardvark count.");

  // No worker at all: the files it would read fail, plain text does not.
  ExtractorOptions missing;
  missing.worker.worker_path = "/nonexistent/kest-extract-worker";
  extractor = std::make_unique<Extractor>(missing);
  const ExtractResult r = extractor->Extract(good);
  EXPECT_EQ(r.status, ExtractStatus::kWorkerFailed);
  EXPECT_TRUE(r.text.empty());
  EXPECT_EQ(extractor->Extract(Write("plain.txt", "fine")).text, "fine");

  extractor.reset();
  EXPECT_EQ(kesttest::ReapChildren(2000), 0);
  EXPECT_TRUE(kesttest::LiveChildren().empty());
  EXPECT_EQ(kesttest::OpenFdCount(), fds_before);
}

}  // namespace
}  // namespace indexer
}  // namespace kestondri
