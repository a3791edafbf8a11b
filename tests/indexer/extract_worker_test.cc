// The worker process under hostile input: time-outs, crashes, CPU and memory
// limits, bombs. Every case must end with the indexer side unharmed: a
// status, no text, a log line, and a fresh worker for the next file.
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <sys/types.h>
#include <syslog.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "extract/extractor.h"
#include "extract/text_sink.h"
#include "indexer/extract_test_util.h"
#include "indexer/fixtures.h"
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

using kesttest::SyslogCapture;
using kesttest::WriteZip;

// The "Uid:" line of a process: real, effective, saved, filesystem.
std::string UidLine(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("Uid:", 0) == 0) return line;
  }
  return "";
}

class ExtractWorkerTest : public kesttest::ExtractTestBase {
 protected:
  void SetUp() override {
    ExtractTestBase::SetUp();
    // The log connection stays open once made: make it before counting.
    openlog("extract_worker_test", LOG_NDELAY, LOG_USER);
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
    if (!extractor_)
      extractor_.reset(new Extractor(kesttest::WorkerOptionsFor(KEST_EXTRACT_TEST_WORKER)));
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
