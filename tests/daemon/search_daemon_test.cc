// The real kestelasticd on real indices of real files in the sandbox: what
// each command answers, who may see what, damaged and missing indices,
// malformed requests and many clients at once.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <kest/json.h>
#include <kestdaemon/sock_connection.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <xapian.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "daemon/daemon_harness.h"
#include "index_schema.h"
#include "query_builder.h"
#include "support/sandbox.h"
#include "support/syslog_capture.h"

namespace kesttest {
namespace {

using Names = std::vector<std::string>;

const char kDocs[] = "fileindex_docs";
const char kPub[] = "fileindex_pub";
const char kBroken[] = "fileindex_broken";

const char kSharesConf[] =
    "[global]\nadmin group = administrators\n\n"
    "[docs]\npath = /volume1/docs\n\n"
    "[pub]\npath = /volume1/pub\n\n"
    "[broken]\npath = /volume1/broken\n\n"
    "[lang]\npath = /volume1/lang\n\n"
    "[far]\npath = /volume2/far\n";

std::string Loader() { return std::string(KEST_BINARY_DIR) + "/daemon/kest_index_loader"; }

void Shell(const std::string& command) { ASSERT_EQ(0, std::system(command.c_str())) << command; }

void Own(const std::string& path, const char* user, mode_t mode) {
  const TestUser& u = UserByName(user);
  ASSERT_EQ(0, chown(path.c_str(), u.uid, u.gid)) << path;
  ASSERT_EQ(0, chmod(path.c_str(), mode)) << path;
}

void MakeDir(const std::string& path, const char* user, mode_t mode) {
  mkdir(path.c_str(), mode);
  Own(path, user, mode);
}

// Writes the document of one file as the indexer would, from its lstat now,
// into the index at `db_path`.
void IndexFile(const std::string& db_path, const std::string& path, const std::string& text) {
  struct stat st;
  ASSERT_EQ(0, lstat(path.c_str(), &st)) << path;
  kestondri::index::FileRecord r;
  r.path = path;
  r.name = path.substr(path.rfind('/') + 1);
  r.extension = kestondri::index::ExtensionOfName(r.name, false);
  r.size = static_cast<uint64_t>(st.st_size);
  r.mtime = st.st_mtime;
  r.owner_uid = st.st_uid;
  r.identity = kestondri::index::FileIdentity(st);
  r.text = text;
  Xapian::WritableDatabase db(db_path);
  db.replace_document(kestondri::index::UniqueTerm(path), kestondri::index::MakeDocument(r));
  db.commit();
}

// Runs a shell command as `user`, with that user's groups.
void ShellAs(const char* user, const std::string& command) {
  Shell(std::string("setpriv --reuid=") + user + " --regid=" + user + " --init-groups sh -c '" +
        command + "'");
}

// A long text: the word "needle" near the start and at the very end, markup
// everywhere in between.
std::string BigText() {
  std::string text = "start of the needle file <tag> & more\n";
  std::string line = "filler <b>words</b> & \"quotes\" 'single' text padding lines\n";
  while (text.size() < (3u << 20)) text += line;
  return text + "last needle\n";
}

class SearchDaemonTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    WriteFile("/etc/kest/shares.conf", kSharesConf);
    MakeDir("/volume1/docs", "ann", 0777);
    WriteFile("/volume1/docs/report.txt",
              "Quarterly report about the mutex and the interrupt handler.\n");
    Own("/volume1/docs/report.txt", "ann", 0644);
    WriteFile("/volume1/docs/notes.md", "page fault handling notes; use after free\n");
    Own("/volume1/docs/notes.md", "bob", 0644);
    WriteFile("/volume1/docs/photo.JPG", std::string("\xff\xd8\0\0jpeg", 8));
    WriteFile("/volume1/docs/song.mp3", std::string("ID3\0\0", 5));
    WriteFile("/volume1/docs/movie.mkv", std::string("\x1a\x45\0\0", 4));
    WriteFile("/volume1/docs/data.bin", std::string("\0\1\2", 3));
    MakeDir("/volume1/docs/projects", "ann", 0755);
    WriteFile("/volume1/docs/projects/mutex-design.c", "spinlock only here\n");
    WriteFile("/volume1/docs/projects/locks.txt", "mutex mutex mutex held\n");
    WriteFile("/volume1/docs/old.log", "ancient entry\n");
    struct timeval times[2] = {{1000000000, 0}, {1000000000, 0}};
    utimes("/volume1/docs/old.log", times);
    WriteFile("/volume1/docs/markup.html",
              "<script>alert('x')</script> the needle & \"friends\" <em>here</em>\n");
    WriteFile("/volume1/docs/big.txt", BigText());
    // Ann's private corner: a file only she may read, and a folder only she
    // may enter holding a file anyone could read.
    WriteFile("/volume1/docs/ann-private.txt", "zebra private mutex\n");
    Own("/volume1/docs/ann-private.txt", "ann", 0600);
    MakeDir("/volume1/docs/annonly", "ann", 0700);
    WriteFile("/volume1/docs/annonly/secret.txt", "zebra secret mutex\n");
    Own("/volume1/docs/annonly/secret.txt", "ann", 0644);

    WriteFile("/volume1/pub/pub.txt", "mutex in the pub share\n");

    Shell(Loader() + " /volume1/docs /volume1/@kestondri/index/docs > /dev/null");
    Shell(Loader() + " /volume1/pub /volume1/@kestondri/index/pub > /dev/null");
    // Damaged: a database folder whose files are garbage.
    WriteFile("/volume1/@kestondri/index/broken/iamglass", "not a database at all");
    WriteFile("/volume1/@kestondri/index/broken/postlist.glass", "garbage");

    daemon_ = new DaemonProcess;
    ASSERT_TRUE(daemon_->Start());
  }

  static void TearDownTestSuite() {
    if (daemon_) {
      EXPECT_EQ(0, daemon_->Stop());
    }
    delete daemon_;
    daemon_ = nullptr;
  }

  static Json::Value Criterion(const std::string& field, const std::string& value) {
    Json::Value c(Json::objectValue);
    c["field"] = field;
    c["value"] = value;
    return c;
  }

  static Json::Value DocId(const std::string& name) {
    for (const auto& h : Hits(Exchange(SearchRequest({kDocs}, "")))) {
      if (h["KESTMDFSName"] == name) return h["doc_id"];
    }
    return Json::Value();
  }

  static DaemonProcess* daemon_;
};

DaemonProcess* SearchDaemonTest::daemon_ = nullptr;

TEST_F(SearchDaemonTest, FindsByContentNameExtensionTypePhraseAndWildcard) {
  struct Case {
    const char* keyword;
    const char* file_type;
    const char* op;
    Names expected;
  } cases[] = {
      {"quarterly", "", "AND", {"report.txt"}},
      {"QUARTERLY Report", "", "AND", {"report.txt"}},
      {"file:notes", "", "AND", {"notes.md"}},
      {"name:design", "", "AND", {"mutex-design.c"}},
      {"ext:md", "", "AND", {"notes.md"}},
      {"content:spinlock", "", "AND", {"mutex-design.c"}},
      {"content:design", "", "AND", {}},
      {"\"page fault\"", "", "AND", {"notes.md"}},
      {"\"fault page\"", "", "AND", {}},
      {"quarter*", "", "AND", {"report.txt"}},
      {"quarterly spinlock", "", "AND", {}},
      {"quarterly spinlock", "", "OR", {"mutex-design.c", "report.txt"}},
      {"mutex NOT held",
       "document",
       "AND",
       {"ann-private.txt", "mutex-design.c", "report.txt", "secret.txt"}},
      {"", "photo", "AND", {"photo.JPG"}},
      {"", "audio", "AND", {"song.mp3"}},
      {"", "video", "AND", {"movie.mkv"}},
      {"", "folder", "AND", {"annonly", "projects"}},
      {"zzzznothing", "", "AND", {}},
  };
  for (const auto& c : cases) {
    Json::Value req = SearchRequest({kDocs}, c.keyword);
    req["data"]["pre_query"]["file_type"] = c.file_type;
    req["data"]["default_search_op"] = c.op;
    EXPECT_EQ(c.expected, HitNames(Exchange(req))) << c.keyword << " / " << c.file_type;
  }
}

// What a user types finds what they mean: any accents and case, any form
// of a word, Chinese, Japanese and Korean inside sentences, the words of
// names and of the folders above, beginnings; the word as typed (and as
// it stands, accents and all) first, a file's own name above its folders
// and its text.
TEST_F(SearchDaemonTest, FindsWordsWhateverTheirAccentsFormsScriptsAndPlaces) {
  const std::map<std::string, std::string> files = {
      {"recipe.txt", "Crème brûlée with saffron; the café serves it."},
      {"plain.txt", "creme brulee recipe, no accents"},
      {"mueller.txt", "Herr Müller aus München"},
      {"sao.txt", "São Paulo: a naïve plan"},
      {"greek.txt", "Η Αθήνα είναι όμορφη"},
      {"russian.txt", "Ёлка в Москве"},
      {"reports.txt", "Annual reports of the cities, with analyses"},
      {"report.txt", "one report"},
      {"telescope.txt", "Chen's telescope points at Jupiter"},
      {"ja.txt", "東京都に住んでいます。"},
      {"zh.txt", "我们在北京大学学习"},
      {"ko.txt", "서울특별시에 살아요"},
      {"QuarterlyReport_2024-Q3.final.pdf", ""},
      {"saffron.txt", "nothing else"},
      {"Projects/Saffron Trials/tasting.txt", "results"},
      {"bad\xff\xfe"
       "bytes.txt",
       "caf\xe9 \xc3 mixed \xe6\x9d\xb1 words"},
  };
  for (const auto& f : files) WriteFile("/volume1/lang/" + f.first, f.second);
  Shell(Loader() + " /volume1/lang /volume1/@kestondri/index/lang > /dev/null");
  struct Case {
    const char* keyword;
    Names expected;  // the first hits in rank order where `ranked`, else all sorted
    bool ranked;
  } cases[] = {
      {"creme", {"plain.txt", "recipe.txt"}, false},
      {"CRÈME", {"recipe.txt", "plain.txt"}, true},
      {"cafe", {"recipe.txt"}, false},
      {"muller munchen", {"mueller.txt"}, false},
      {"sao naive", {"sao.txt"}, false},
      {"ΑΘΗΝΑ", {"greek.txt"}, false},
      {"елка москве", {"russian.txt"}, false},
      {"city analysis", {"reports.txt"}, false},
      {"reports", {"reports.txt", "report.txt", "QuarterlyReport_2024-Q3.final.pdf"}, true},
      {"\"reports of\"", {"reports.txt"}, false},
      {"\"report of\"", {}, false},
      {"telescopes chen", {"telescope.txt"}, false},
      {"東京", {"ja.txt"}, false},
      {"住んで", {"ja.txt"}, false},
      {"北京", {"zh.txt"}, false},
      {"서울", {"ko.txt"}, false},
      {"quarterly 2024 q3 final", {"QuarterlyReport_2024-Q3.final.pdf"}, false},
      {"QuarterlyReport", {"QuarterlyReport_2024-Q3.final.pdf"}, false},
      {"saffron", {"saffron.txt", "Saffron Trials"}, true},
      {"trials", {"Saffron Trials", "tasting.txt"}, true},
      {"folder:saffron", {"tasting.txt"}, false},
      {"tele*", {"telescope.txt"}, false},
      {"telesc*", {"telescope.txt"}, false},
      {"te*", {}, false},
      {"sérv* caf*", {"recipe.txt"}, false},
      // Typing goes on: what is complete is searched.
      {"saffron OR", {"Saffron Trials", "recipe.txt", "saffron.txt", "tasting.txt"}, false},
      {"AND", {}, false},
      {"(saffron AND", {"Saffron Trials", "recipe.txt", "saffron.txt", "tasting.txt"}, false},
      {"\"crème brû", {"plain.txt", "recipe.txt"}, false},
      {"NOT", {}, false},
      // Bad input: an answer, never a failure.
      {"\xff\xfe bytes",
       {"bad\xff\xfe"
        "bytes.txt"},
       false},
      {"mixed words",
       {"bad\xff\xfe"
        "bytes.txt"},
       false},
      {"!?.,;: --- ///", {}, false},
      {"Москва 東京 cafe", {}, false},
  };
  for (const auto& c : cases) {
    auto reply = Exchange(SearchRequest({"fileindex_lang"}, c.keyword));
    ASSERT_FALSE(reply.empty()) << c.keyword;
    EXPECT_TRUE(reply.back()["success"].asBool()) << c.keyword << Json::toString(reply.back());
    Names got;
    for (const auto& h : Hits(reply)) got.push_back(h["KESTMDFSName"].asString());
    if (!c.ranked) std::sort(got.begin(), got.end());
    if (c.ranked && got.size() > c.expected.size()) got.resize(c.expected.size());
    EXPECT_EQ(c.expected, got) << c.keyword;
  }

  // Marks fall on the words as they stand in the text or the name.
  struct Mark {
    const char* keyword;
    const char* field;
    const char* fragment;
  } marks[] = {
      {"creme", "KESTMDTextContent", "<em>creme</em> brulee recipe"},
      {"cafe saffron", "KESTMDTextContent", "with <em>saffron</em>; the <em>café</em> serves"},
      {"telescopes chen", "KESTMDTextContent", "<em>Chen</em>&#39;s <em>telescope</em> points at"},
      {"tele*", "KESTMDTextContent", "Chen&#39;s <em>telescope</em> points at Jupiter"},
      {"東京", "KESTMDTextContent", "<em>東京</em>都に住んでいます。"},
      {"cities analysis", "KESTMDTextContent",
       "Annual reports of the <em>cities</em>, with <em>analyses</em>"},
      {"q3 report", "KESTMDFSName", "Quarterly<em>Report</em>_2024-<em>Q3</em>.final.pdf"},
  };
  for (const auto& m : marks) {
    Json::Value req = SearchRequest({"fileindex_lang"}, m.keyword);
    req["data"]["highlight"][0]["field"] = m.field;
    auto hits = Hits(Exchange(req));
    ASSERT_FALSE(hits.empty()) << m.keyword;
    const Json::Value& frags = hits[0]["highlight"][m.field];
    ASSERT_EQ(1u, frags.size()) << m.keyword << Json::toString(hits[0]);
    EXPECT_NE(std::string::npos, frags[0].asString().find(m.fragment))
        << m.keyword << ": " << frags[0].asString();
  }
}

TEST_F(SearchDaemonTest, CriteriaFilterByExactFieldsAndRanges) {
  struct Case {
    const char* keyword;
    std::vector<std::pair<const char*, const char*>> criteria;
    Names expected;
  } cases[] = {
      {"mutex",
       {{"KESTMDExtension", "txt"}},
       {"ann-private.txt", "locks.txt", "report.txt", "secret.txt"}},
      {"mutex",
       {{"KESTMDExtension", "c"}, {"KESTMDExtension", ".TXT"}},
       {"ann-private.txt", "locks.txt", "mutex-design.c", "report.txt", "secret.txt"}},
      {"", {{"KESTMDFSName", "notes.md"}}, {"notes.md"}},
      {"", {{"KESTMDFSName", "notes"}}, {}},
      {"", {{"KESTMDPath", "/volume1/docs/projects/locks.txt"}}, {"locks.txt"}},
      {"", {{"KESTMDFSSize", ">=1000000"}}, {"big.txt"}},
      {"", {{"KESTMDFSSize", "1..5"}}, {"data.bin", "movie.mkv", "song.mp3"}},
      {"needle", {{"KESTMDFSSize", "<=1000"}}, {"markup.html"}},
      {"", {{"KESTMDMTime", "..1000000001"}}, {"old.log"}},
      {"", {{"KESTMDIsDir", "true"}}, {"annonly", "projects"}},
      {"", {{"KESTMDOwnerUserID", "2002"}}, {"notes.md"}},
      {"",
       {{"KESTMDInFolder", "/volume1/docs/projects"}},
       {"locks.txt", "mutex-design.c", "projects"}},
      {"mutex", {{"KESTMDInFolder", "/volume1/docs/projects/"}}, {"locks.txt", "mutex-design.c"}},
      {"", {{"KESTMDInFolder", "/volume1/docs/proj"}}, {}},
  };
  for (const auto& c : cases) {
    Json::Value req = SearchRequest({kDocs}, c.keyword);
    for (const auto& kv : c.criteria) {
      req["data"]["pre_query"]["criteria_list"].append(Criterion(kv.first, kv.second));
    }
    EXPECT_EQ(c.expected, HitNames(Exchange(req))) << Json::toString(req["data"]["pre_query"]);
  }
}

TEST_F(SearchDaemonTest, MalformedQueryPartsAreRefusedWithTheirCode) {
  std::string many;
  for (int i = 0; i < 10000; ++i) many += "word" + std::to_string(i) + " ";
  struct Case {
    std::string keyword;
    Json::Value criterion;
    const char* file_type;
    int code;
  } cases[] = {
      {many, Json::Value(), "", 1001},
      {"mutex", Criterion("KESTMDFSSize", "big"), "", 1002},
      {"mutex", Criterion("KESTMDInFolder", "relative/path"), "", 1002},
      {"mutex", Criterion("KESTMDFSSize", "3..x"), "", 1002},
      {"mutex", Criterion("NoSuchField", "1"), "", 1002},
      {"mutex", Json::Value(), "spreadsheets", 1002},
  };
  for (const auto& c : cases) {
    Json::Value req = SearchRequest({kDocs}, c.keyword);
    if (!c.criterion.isNull()) req["data"]["pre_query"]["criteria_list"].append(c.criterion);
    req["data"]["pre_query"]["file_type"] = c.file_type;
    auto reply = Exchange(req);
    ASSERT_EQ(1u, reply.size()) << c.keyword.substr(0, 50);
    EXPECT_FALSE(reply[0]["success"].asBool());
    EXPECT_EQ(c.code, reply[0]["error"]["code"].asInt()) << c.keyword.substr(0, 50);
    EXPECT_TRUE(reply[0]["error"]["msg"].isString());
  }
}

TEST_F(SearchDaemonTest, WeightsDecideWhichFieldRanksFirst) {
  auto first = [](double name_weight, double content_weight) {
    Json::Value req = SearchRequest({kDocs}, "mutex", 0, 1);
    req["data"]["pre_query"]["criteria_list"].append(
        Criterion("KESTMDPath", "/volume1/docs/projects/locks.txt"));
    req["data"]["pre_query"]["criteria_list"].append(
        Criterion("KESTMDPath", "/volume1/docs/projects/mutex-design.c"));
    Json::Value& weights = req["data"]["pre_query"]["search_weight_list"];
    weights = ParseJson(R"([{"field": "KESTMDFSName"}, {"field": "KESTMDTextContent"}])");
    weights[0]["weight"] = name_weight;
    weights[1]["weight"] = content_weight;
    auto hits = Hits(Exchange(req));
    return hits.empty() ? std::string() : hits[0]["KESTMDFSName"].asString();
  };
  EXPECT_EQ("mutex-design.c", first(10, 0.1));
  EXPECT_EQ("locks.txt", first(0, 10));
}

TEST_F(SearchDaemonTest, StreamHasCountThenHitsThenEnd) {
  auto reply = Exchange(SearchRequest({kDocs, kPub}, "mutex", 0, 3));
  ASSERT_GE(reply.size(), 5u);
  EXPECT_EQ(Json::Value::Members{"total"}, reply.front().getMemberNames());
  EXPECT_EQ(6, reply.front()["total"].asInt());
  EXPECT_EQ(Json::Value::Members{"success"}, reply.back().getMemberNames());
  EXPECT_TRUE(reply.back()["success"].asBool());
  auto hits = Hits(reply);
  ASSERT_EQ(3u, hits.size());
  for (const auto& h : hits) {
    EXPECT_FALSE(h.isMember("total"));
    EXPECT_FALSE(h.isMember("success"));
    EXPECT_TRUE(h["KESTMDPath"].isString());
    EXPECT_TRUE(h["KESTMDOwnerUserID"].isString());
    EXPECT_EQ(std::to_string(std::stoul(h["KESTMDOwnerUserID"].asString())),
              h["KESTMDOwnerUserID"].asString());
    EXPECT_TRUE(h["KESTMDIsDir"].isBool());
    EXPECT_TRUE(h["KESTMDFSSize"].isIntegral());
    EXPECT_TRUE(h["doc_id"].isIntegral());
    EXPECT_TRUE(h["_score"].isDouble());
    EXPECT_TRUE(h["_index"] == kDocs || h["_index"] == kPub);
    EXPECT_FALSE(h.isMember("KESTMDTextContent"));
  }
  // No match: an empty, successful stream.
  auto none = Exchange(SearchRequest({kDocs}, "zzzznothing"));
  ASSERT_EQ(2u, none.size());
  EXPECT_EQ(0, none[0]["total"].asInt());
  EXPECT_TRUE(none[1]["success"].asBool());
}

// Every field a hit can carry, read back against the file itself, for
// files and folders of two indices searched together (so hits of both
// shards, in one page, take their values from the right document).
TEST_F(SearchDaemonTest, HitsCarryTheFieldsOfTheirFiles) {
  Json::Value req = SearchRequest({kDocs, kPub}, "");
  req["data"]["load_field"] = Json::Value(Json::arrayValue);
  for (const char* f : {"KESTMDFSName", "KESTMDExtension", "KESTMDIsDir", "KESTMDFSSize",
                        "KESTMDMTime", "KESTMDTextContent", "KESTMDNoSuchField"}) {
    req["data"]["load_field"].append(f);
  }
  std::map<std::string, Json::Value> by_path;
  for (const auto& h : Hits(Exchange(req))) by_path[h["KESTMDPath"].asString()] = h;
  struct Case {
    const char* path;
    const char* extension;
    bool is_dir;
  };
  const Case cases[] = {
      {"/volume1/docs/notes.md", "md", false},
      {"/volume1/docs/old.log", "log", false},
      {"/volume1/docs/big.txt", "txt", false},
      {"/volume1/docs/projects", "", true},
      {"/volume1/docs/projects/mutex-design.c", "c", false},
      {"/volume1/pub/pub.txt", "txt", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    ASSERT_EQ(1u, by_path.count(c.path));
    const Json::Value& h = by_path[c.path];
    struct stat st;
    ASSERT_EQ(0, lstat(c.path, &st));
    const std::string path = c.path;
    EXPECT_EQ(path.substr(path.rfind('/') + 1), h["KESTMDFSName"].asString());
    EXPECT_EQ(c.extension, h["KESTMDExtension"].asString());
    EXPECT_EQ(c.is_dir, h["KESTMDIsDir"].asBool());
    if (!c.is_dir) {
      EXPECT_EQ(static_cast<Json::UInt64>(st.st_size), h["KESTMDFSSize"].asUInt64());
    }
    EXPECT_EQ(static_cast<Json::Int64>(st.st_mtime), h["KESTMDMTime"].asInt64());
    EXPECT_EQ(std::to_string(st.st_uid), h["KESTMDOwnerUserID"].asString());
    EXPECT_EQ(path.rfind("/volume1/pub/", 0) == 0 ? kPub : kDocs, h["_index"].asString());
    EXPECT_FALSE(h.isMember("KESTMDTextContent"));
    EXPECT_FALSE(h.isMember("KESTMDNoSuchField"));
  }

  // The client's "fields" decide, besides what every hit has; without
  // them the module's "load_field" and the date.
  const Json::Value::Members always = {
      "KESTMDOwnerUserID", "KESTMDPath", "_id", "_index", "_score", "doc_id"};
  struct Asked {
    const char* fields;
    Json::Value::Members extra;
  } asked_fields[] = {
      {R"(["KESTMDMTime", "KESTMDFSName", "KESTMDBogus"])", {"KESTMDFSName", "KESTMDMTime"}},
      {"[]", {"KESTMDExtension", "KESTMDFSName", "KESTMDFSSize", "KESTMDIsDir", "KESTMDMTime"}},
  };
  for (const auto& c : asked_fields) {
    Json::Value asked = SearchRequest({kDocs}, "quarterly");
    asked["data"]["fields"] = ParseJson(c.fields);
    auto hits = Hits(Exchange(asked));
    ASSERT_EQ(1u, hits.size()) << c.fields;
    Json::Value::Members expected = always;
    expected.insert(expected.end(), c.extra.begin(), c.extra.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, hits[0].getMemberNames()) << c.fields;
  }
}

TEST_F(SearchDaemonTest, PagesTileTheWholeResult) {
  auto all = Hits(Exchange(SearchRequest({kDocs, kPub}, "")));
  ASSERT_GT(all.size(), 10u);
  std::vector<std::string> paged;
  for (int from = 0; from < static_cast<int>(all.size()) + 3; from += 3) {
    auto reply = Exchange(SearchRequest({kDocs, kPub}, "", from, 3));
    EXPECT_EQ(static_cast<int>(all.size()), reply.front()["total"].asInt());
    for (const auto& h : Hits(reply)) paged.push_back(h["_id"].asString());
  }
  std::vector<std::string> whole;
  for (const auto& h : all) whole.push_back(h["_id"].asString());
  EXPECT_EQ(whole, paged);
  EXPECT_EQ(whole.size(), std::set<std::string>(whole.begin(), whole.end()).size());
  auto negative = Exchange(SearchRequest({kDocs}, "", -1, 3));
  ASSERT_EQ(1u, negative.size());
  EXPECT_EQ(1002, negative[0]["error"]["code"].asInt());
}

TEST_F(SearchDaemonTest, HighlightMarksMatchesAndEscapesTheRest) {
  Json::Value data = ParseJson(R"({"id": "fileindex_docs", "keyword": "needle friends",
      "highlight": {"field": "KESTMDTextContent", "frag_length": 200, "num_fragments": 3},
      "search_weight_list": []})");
  data["doc_id"] = DocId("markup.html");
  auto reply = Exchange(Request("highlight", data));
  ASSERT_EQ(1u, reply.size());
  ASSERT_TRUE(reply[0]["success"].asBool()) << Json::toString(reply[0]);
  const Json::Value& frags = reply[0]["data"]["KESTMDTextContent"];
  ASSERT_EQ(1u, frags.size());
  EXPECT_EQ(
      "&lt;script&gt;alert(&#39;x&#39;)&lt;/script&gt; the <em>needle</em> &amp; "
      "&quot;<em>friends</em>&quot; &lt;em&gt;here&lt;/em&gt;\n",
      frags[0].asString());
}

TEST_F(SearchDaemonTest, HighlightOfAHugeDocumentIsBounded) {
  Json::Value data = ParseJson(R"({"id": "fileindex_docs", "keyword": "filler",
      "highlight": {"frag_length": 60, "num_fragments": 4}})");
  data["doc_id"] = DocId("big.txt");
  auto reply = Exchange(Request("highlight", data));
  ASSERT_EQ(1u, reply.size());
  const Json::Value& frags = reply[0]["data"]["KESTMDTextContent"];
  ASSERT_EQ(4u, frags.size());
  for (const auto& f : frags) {
    std::string s = f.asString();
    EXPECT_NE(std::string::npos, s.find("<em>filler</em>"));
    EXPECT_EQ(std::string::npos, s.find("<b>"));
    EXPECT_LT(s.size(), 200u);
  }
  // The word at the far end of a 3 MiB text is indexed, so the file is
  // found, even though its fragments come from the stored head only.
  auto found = Exchange(SearchRequest({kDocs}, "last"));
  EXPECT_EQ(Names{"big.txt"}, HitNames(found));
}

TEST_F(SearchDaemonTest, SearchHitsCarryTheirFragments) {
  Json::Value req = SearchRequest({kDocs}, "interrupt");
  req["data"]["highlight"] =
      ParseJson(R"([{"field": "KESTMDTextContent", "frag_length": 50, "num_fragments": 2}])");
  auto hits = Hits(Exchange(req));
  ASSERT_EQ(1u, hits.size());
  const Json::Value& frags = hits[0]["highlight"]["KESTMDTextContent"];
  ASSERT_EQ(1u, frags.size());
  EXPECT_NE(std::string::npos, frags[0].asString().find("the <em>interrupt</em> handler"));
}

TEST_F(SearchDaemonTest, IndicateCountsEqualTheHitsOfEachType) {
  Json::Value data;
  data["keyword"] = "";
  data["indice"].append(kDocs);
  data["indice"].append(kPub);
  data["criteria_list"] = Json::Value(Json::arrayValue);
  data["search_weight_list"] = Json::Value(Json::arrayValue);
  const char* types[] = {"document", "photo", "video", "audio", "folder", "other", "all"};
  for (const char* t : types) {
    Json::Value q;
    q["name"] = t;
    q["query"]["default_search_op"] = "AND";
    Json::Value f;
    f["name"] = "file_type";
    f["data"] = t;
    q["query"]["filters"].append(f);
    data["queries"].append(q);
  }
  auto reply = Exchange(Request("indicate", data));
  ASSERT_EQ(1u, reply.size());
  ASSERT_TRUE(reply[0]["success"].asBool());
  for (const char* t : types) {
    Json::Value req = SearchRequest({kDocs, kPub}, "", 0, 1000);
    req["data"]["pre_query"]["file_type"] = t;
    auto hits = Hits(Exchange(req));
    EXPECT_EQ(hits.size(), reply[0]["data"][t].asUInt()) << t;
    EXPECT_GT(hits.size(), 0u) << t;
  }
}

TEST_F(SearchDaemonTest, PrivateFilesStayInvisibleToOtherUsers) {
  Json::Value zebra = SearchRequest({kDocs}, "zebra");
  // The request carries no permission filter: the peer's uid decides.
  auto bob = ExchangeAs("bob", zebra);
  ASSERT_EQ(2u, bob.size());
  EXPECT_EQ(0, bob[0]["total"].asInt());
  auto ann = ExchangeAs("ann", zebra);
  EXPECT_EQ((Names{"ann-private.txt", "secret.txt"}), HitNames(ann));
  EXPECT_EQ(2, ann[0]["total"].asInt());
  // A forged filter for root does not help a user who is not root.
  Json::Value forged = zebra;
  forged["data"]["filters"][0]["name"] = "permission";
  forged["data"]["filters"][0]["data"] = 0;
  EXPECT_EQ(Names{}, HitNames(ExchangeAs("dave", forged)));
  // Root asking on bob's behalf gets bob's view.
  Json::Value for_bob = zebra;
  for_bob["data"]["filters"][0]["name"] = "permission";
  for_bob["data"]["filters"][0]["data"] = kBobUid;
  EXPECT_EQ(Names{}, HitNames(Exchange(for_bob)));
  EXPECT_EQ((Names{"ann-private.txt", "secret.txt"}), HitNames(Exchange(zebra)));

  // No snippet either, and the same answer as for a document that is not there.
  Json::Value hl = ParseJson(R"({"id": "fileindex_docs", "keyword": "zebra", "highlight": {}})");
  hl["doc_id"] = DocId("ann-private.txt");
  auto denied = ExchangeAs("bob", Request("highlight", hl));
  ASSERT_EQ(1u, denied.size());
  EXPECT_EQ(1003, denied[0]["error"]["code"].asInt());
  EXPECT_EQ(std::string::npos, Json::toString(denied[0]).find("zebra"));
  // Root asking on bob's behalf (the web API does) gets bob's answer.
  Json::Value hl_for_bob = hl;
  hl_for_bob["filters"][0]["name"] = "permission";
  hl_for_bob["filters"][0]["data"] = kBobUid;
  EXPECT_EQ(Json::toString(denied[0]),
            Json::toString(Exchange(Request("highlight", hl_for_bob))[0]));
  hl["doc_id"] = 99999;
  EXPECT_EQ(Json::toString(denied[0]),
            Json::toString(ExchangeAs("bob", Request("highlight", hl))[0]));

  // Nor a count.
  const Json::Value ind = ParseJson(R"({"keyword": "zebra", "indice": ["fileindex_docs"],
      "queries": [{"name": "document",
                   "query": {"filters": [{"name": "file_type", "data": "document"}]}}]})");
  EXPECT_EQ(0, ExchangeAs("bob", Request("indicate", ind))[0]["data"]["document"].asInt());
  EXPECT_EQ(2, ExchangeAs("ann", Request("indicate", ind))[0]["data"]["document"].asInt());
}

TEST_F(SearchDaemonTest, ModeAndAclChangesAreSeenAtOnce) {
  Json::Value zebra = SearchRequest({kDocs}, "zebra");
  ASSERT_EQ(Names{}, HitNames(ExchangeAs("bob", zebra)));
  // A chmod moves the file's change time: granted once the indexer (told
  // by inotify) rewrote its document, taken back at once.
  ASSERT_EQ(0, chmod("/volume1/docs/ann-private.txt", 0644));
  IndexFile("/volume1/@kestondri/index/docs", "/volume1/docs/ann-private.txt",
            "zebra private mutex\n");
  EXPECT_EQ(Names{"ann-private.txt"}, HitNames(ExchangeAs("bob", zebra)));
  ASSERT_EQ(0, chmod("/volume1/docs/ann-private.txt", 0600));
  EXPECT_EQ(Names{}, HitNames(ExchangeAs("bob", zebra)));
  IndexFile("/volume1/@kestondri/index/docs", "/volume1/docs/ann-private.txt",
            "zebra private mutex\n");

  // An ACL entry for the staff group opens the folder to bob, not to dave.
  Shell("setfacl -m g:staff:rx /volume1/docs/annonly");
  EXPECT_EQ(Names{"secret.txt"}, HitNames(ExchangeAs("bob", zebra)));
  EXPECT_EQ(Names{}, HitNames(ExchangeAs("dave", zebra)));
  Shell("setfacl -b /volume1/docs/annonly");
  EXPECT_EQ(Names{}, HitNames(ExchangeAs("bob", zebra)));
}

// Bob may rename and remove in a group folder (2770, no sticky bit): what
// he puts under the name of Ann's private file never shows him the text
// indexed from hers, not even before the indexer catches up.
TEST_F(SearchDaemonTest, IndexedTextStaysWithTheFileItCameFrom) {
  const std::string dir = "/volume1/docs/team", plan = dir + "/plan.txt";
  const std::string db = "/volume1/@kestondri/index/docs";
  mkdir(dir.c_str(), 0);
  ASSERT_EQ(0, chown(dir.c_str(), 0, kStaffGid));
  ASSERT_EQ(0, chmod(dir.c_str(), 02770));
  const Json::Value walrus = SearchRequest({kDocs}, "walrus");
  const Json::Value ind = ParseJson(R"({"keyword": "walrus", "indice": ["fileindex_docs"],
      "queries": [{"name": "all", "query": {}}]})");
  Json::Value hl = ParseJson(R"({"id": "fileindex_docs", "keyword": "walrus", "highlight": {}})");
  const char* attacks[] = {
      "echo mine > own && mv own plan.txt",
      "rm plan.txt && echo mine > plan.txt",
      "rm plan.txt && echo mine > own && ln -s own plan.txt",
  };
  for (const char* attack : attacks) {
    SCOPED_TRACE(attack);
    Shell("rm -f " + dir + "/*");
    WriteFile(plan, "walrus migration plan\n");
    Own(plan, "ann", 0600);
    IndexFile(db, plan, "walrus migration plan\n");
    ASSERT_EQ(Names{"plan.txt"}, HitNames(ExchangeAs("ann", walrus)));
    hl["doc_id"] = DocId("plan.txt");

    ShellAs("bob", "cd " + dir + " && " + attack);
    auto reply = ExchangeAs("bob", walrus);
    ASSERT_FALSE(reply.empty());
    EXPECT_EQ(0, reply[0]["total"].asInt());
    EXPECT_EQ(Names{}, HitNames(reply));
    EXPECT_EQ(0, ExchangeAs("bob", Request("indicate", ind))[0]["data"]["all"].asInt());
    EXPECT_EQ(1003, ExchangeAs("bob", Request("highlight", hl))[0]["error"]["code"].asInt());
  }
  Shell("rm -rf " + dir);
  Xapian::WritableDatabase(db).delete_document(kestondri::index::UniqueTerm(plan));
}

// A user's scores and wildcards come out the same whatever the files they
// cannot read hold: Dave's private file repeats Ann's word and holds more
// words of her stem than the administrators' expansion limit.
TEST_F(SearchDaemonTest, ScoresAndWildcardsIgnoreFilesTheUserCannotRead) {
  const std::string db = "/volume1/@kestondri/index/docs";
  const std::string mine = "/volume1/docs/quokka-notes.txt", theirs = "/volume1/docs/dq.txt";
  WriteFile(mine, "quokka sightings\n");
  Own(mine, "ann", 0600);
  IndexFile(db, mine, "quokka sightings\n");
  auto score = [] {
    auto hits = Hits(ExchangeAs("ann", SearchRequest({kDocs}, "quokka")));
    return hits.size() == 1 ? hits[0]["_score"].asDouble() : -1.0;
  };
  const double alone = score();
  EXPECT_GT(alone, 0);
  std::string text = "quokka quokka quokka\n";
  for (int i = 0; i <= static_cast<int>(kestondri::daemon::kMaxBeginningWords); ++i) {
    text += "quokk" + std::to_string(i) + " ";
  }
  WriteFile(theirs, text);
  Own(theirs, "dave", 0600);
  IndexFile(db, theirs, text);
  EXPECT_EQ(alone, score());
  struct Case {
    const char* keyword;
    int code;  // 0: success
    Names expected;
  } cases[] = {
      {"quokk*", 0, {"quokka-notes.txt"}},
      {"sightings quokk*", 0, {"quokka-notes.txt"}},
      {"quokk* OR pub", 0, {"pub.txt", "quokka-notes.txt"}},
      {"content:quok* sightings", 0, {"quokka-notes.txt"}},
      // Too short a beginning is the word itself, whatever the index holds.
      {"qu*", 0, {}},
  };
  for (const auto& c : cases) {
    // Two indices: each runs the exact beginning search on its own.
    auto reply = ExchangeAs("ann", SearchRequest({kPub, kDocs}, c.keyword));
    ASSERT_FALSE(reply.empty()) << c.keyword;
    EXPECT_EQ(c.code, reply.back()["error"]["code"].asInt()) << c.keyword;
    EXPECT_EQ(c.expected, HitNames(reply)) << c.keyword;
  }
  const Json::Value ind = ParseJson(R"({"keyword": "quokk*", "indice": ["fileindex_docs"],
      "queries": [{"name": "all", "query": {}}]})");
  EXPECT_EQ(1, ExchangeAs("ann", Request("indicate", ind))[0]["data"]["all"].asInt());
  Xapian::WritableDatabase w(db);
  for (const auto& p : {mine, theirs}) {
    w.delete_document(kestondri::index::UniqueTerm(p));
    unlink(p.c_str());
  }
}

// Over the socket a user gets no more of a share than the web API would
// give them: nothing of one that refuses them, only their own home in
// "homes", whatever the files' modes.
TEST_F(SearchDaemonTest, ShareRulesHoldOverTheSocket) {
  for (const char* user : {"ann", "bob"}) {
    const std::string home = std::string("/volume1/homes/") + user;
    MakeDir("/volume1/homes", "ann", 0755);
    MakeDir(home, user, 0755);
    WriteFile(home + "/" + user + "-note.txt", "wombat\n");
    Own(home + "/" + user + "-note.txt", user, 0644);
  }
  Shell(Loader() + " /volume1/homes /volume1/@kestondri/index/homes > /dev/null");
  std::string conf = kSharesConf;
  conf.replace(conf.find("[docs]"), 0,
               "user home = yes\n\n[homes]\npath = /volume1/homes\nread list = carol\n\n");
  conf.replace(conf.find("\n", conf.find("[pub]") + 6), 0,
               "\nread list = ann, bob\ninvalid users = bob");
  WriteFile("/etc/kest/shares.conf", conf);
  struct Case {
    const char* user;
    const char* index;
    const char* keyword;
    Names expected;
  } cases[] = {
      {"ann", kPub, "mutex", {"pub.txt"}},
      {"bob", kPub, "mutex", {}},  // invalid users wins over the read list
      {"dave", kPub, "mutex", {}},
      {"carol", kPub, "mutex", {"pub.txt"}},  // administrators see every share
      {"ann", "fileindex_homes", "wombat", {"ann-note.txt"}},
      {"bob", "fileindex_homes", "wombat", {"bob-note.txt"}},
      {"dave", "fileindex_homes", "wombat", {}},
      {"carol", "fileindex_homes", "wombat", {"ann-note.txt", "bob-note.txt"}},
  };
  for (const auto& c : cases) {
    auto reply = ExchangeAs(c.user, SearchRequest({c.index}, c.keyword));
    EXPECT_EQ(c.expected, HitNames(reply)) << c.user << " " << c.index;
    ASSERT_FALSE(reply.empty());
    EXPECT_EQ(static_cast<int>(c.expected.size()), reply[0]["total"].asInt());
  }
  Json::Value hl = ParseJson(R"({"id": "fileindex_pub", "keyword": "mutex", "highlight": {}})");
  hl["doc_id"] = Hits(Exchange(SearchRequest({kPub}, "mutex")))[0]["doc_id"];
  EXPECT_EQ(1003, ExchangeAs("dave", Request("highlight", hl))[0]["error"]["code"].asInt());
  EXPECT_TRUE(ExchangeAs("ann", Request("highlight", hl))[0]["success"].asBool());
  WriteFile("/etc/kest/shares.conf", kSharesConf);
}

TEST_F(SearchDaemonTest, DamagedAndMissingIndicesAreReportedAndSkipped) {
  auto reply = Exchange(SearchRequest({kBroken, "fileindex_nosuch", kDocs}, "quarterly"));
  EXPECT_EQ(Names{"report.txt"}, HitNames(reply));
  EXPECT_TRUE(reply.back()["success"].asBool());

  WriteFile("/volume1/@kestondri/index/pub.checking", "");
  auto status = Exchange(Request("list_db_status", Json::Value(Json::objectValue)));
  unlink("/volume1/@kestondri/index/pub.checking");
  ASSERT_EQ(1u, status.size());
  EXPECT_TRUE(status[0]["success"].asBool());
  EXPECT_EQ(Json::toString(Json::Value(kBroken)), Json::toString(status[0]["data"]["crashed"][0]));
  EXPECT_EQ(1u, status[0]["data"]["crashed"].size()) << Json::toString(status[0]);
  EXPECT_EQ(kPub, status[0]["data"]["checking"][0].asString());
  // A share that was never indexed ("far" here, until the scale-out test)
  // is not reported; an index a search asked for and did not find is.
  Names unknown;
  for (const auto& u : status[0]["data"]["unknown"]) unknown.push_back(u.asString());
  EXPECT_NE(unknown.end(), std::find(unknown.begin(), unknown.end(), "fileindex_nosuch"));
  EXPECT_EQ(unknown.end(), std::find(unknown.begin(), unknown.end(), kDocs));

  // Searching a damaged index alone is an empty answer, not a failure.
  auto only_broken = Exchange(SearchRequest({kBroken}, "quarterly"));
  ASSERT_EQ(2u, only_broken.size());
  EXPECT_EQ(0, only_broken[0]["total"].asInt());
}

TEST_F(SearchDaemonTest, MalformedRequestsGetErrorsAndServiceGoesOn) {
  struct Case {
    std::string body;
    int code;
  } cases[] = {
      {"not json", 1002},
      {"[1,2]", 1002},
      {"{}", 1002},
      {"{\"command\": 7}", 1002},
      {"{\"command\": \"search\", \"data\": []}", 1002},
      {"{\"command\": \"search\", \"data\": {\"indice\": \"fileindex_docs\"}}", 1002},
      {"{\"command\": \"search\", \"data\": {\"indice\": [], \"from\": \"x\"}}", 1002},
      {"{\"command\": \"highlight\", \"data\": {\"id\": \"fileindex_docs\", \"doc_id\": 1, "
       "\"highlight\": 5}}",
       1002},
      {"{\"command\": \"drop_everything\", \"data\": {}}", 1000},
      {"", 1002},
  };
  for (const auto& c : cases) {
    auto reply = ExchangeRaw(Frame(c.body));
    ASSERT_EQ(1u, reply.size()) << c.body;
    EXPECT_FALSE(reply[0]["success"].asBool()) << c.body;
    EXPECT_EQ(c.code, reply[0]["error"]["code"].asInt()) << c.body;
  }
  // A lying length prefix and a frame cut short only cost their own
  // connection.
  EXPECT_TRUE(ExchangeRaw(std::string("\x7f\xff\xff\xff", 4)).empty());
  EXPECT_TRUE(ExchangeRaw(Frame("{\"command\":\"search\"}").substr(0, 10)).empty());
  // Two requests on one connection are answered in turn.
  kestdaemon::DomainSockConnection conn(kDaemonSocket);
  ASSERT_TRUE(conn.Connect(10));
  std::string text;
  ASSERT_TRUE(conn.Send("nonsense"));
  ASSERT_TRUE(conn.Recv(text));
  ASSERT_TRUE(conn.Send(Json::toString(Request("list_db_status", Json::Value()))));
  ASSERT_TRUE(conn.Recv(text));
  EXPECT_NE(std::string::npos, text.find("\"crashed\""));
  EXPECT_EQ(Names{"report.txt"}, HitNames(Exchange(SearchRequest({kDocs}, "quarterly"))));
}

TEST_F(SearchDaemonTest, ServesFiftyClientsAtOnce) {
  const Names expected = HitNames(Exchange(SearchRequest({kDocs, kPub}, "mutex")));
  ASSERT_EQ(6u, expected.size());
  std::atomic<int> good{0};
  std::vector<std::thread> clients;
  // Some clients connect and stay silent for a while: the others must not
  // wait for them.
  std::vector<std::unique_ptr<kestdaemon::DomainSockConnection>> idle;
  for (int i = 0; i < 20; ++i) {
    idle.push_back(std::make_unique<kestdaemon::DomainSockConnection>(kDaemonSocket));
    ASSERT_TRUE(idle.back()->Connect(10));
  }
  for (int i = 0; i < 50; ++i) {
    clients.emplace_back([&, i] {
      auto reply = Exchange(SearchRequest({kDocs, kPub}, i % 2 ? "mutex" : "MUTEX"));
      if (HitNames(reply) == expected && reply.back()["success"].asBool()) ++good;
    });
  }
  for (auto& t : clients) t.join();
  EXPECT_EQ(50, good.load());
}

double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// What one local user can leave half done on the socket, 160 times over,
// holds no worker: another user's search answers at once, the refusals
// are logged, and the user is served again once his connections are gone.
TEST_F(SearchDaemonTest, OneUsersStalledConnectionsDoNotHoldUpAnother) {
  const std::string search = Frame(Json::toString(SearchRequest({kDocs}, "zebra")));
  const std::string cases[] = {
      std::string(1, '\0'), search.substr(0, search.size() / 2),
      std::string("\x04\0\0\0", 4),  // 64 MiB announced, nothing sent
  };
  SyslogCapture::Instance().Clear();
  for (const auto& bytes : cases) {
    pid_t bob = HoldConnectionsAs("bob", 160, bytes);
    ASSERT_GT(bob, 0);
    const auto start = std::chrono::steady_clock::now();
    auto ann = ExchangeAs("ann", SearchRequest({kDocs}, "zebra"));
    EXPECT_LT(SecondsSince(start), 5.0);
    EXPECT_EQ((Names{"ann-private.txt", "secret.txt"}), HitNames(ann));
    kill(bob, SIGKILL);
    waitpid(bob, nullptr, 0);
  }
  EXPECT_TRUE(SyslogCapture::Instance().WaitFor("refused a connection of uid 2002"));
  Names again;
  for (int i = 0; i < 250 && again.empty(); ++i) {
    again = HitNames(ExchangeAs("bob", SearchRequest({kDocs}, "quarterly")));
    if (again.empty()) usleep(20000);
  }
  EXPECT_EQ(Names{"report.txt"}, again);
}

Json::Value IndicateQuery(const std::string& name, const std::vector<std::string>& types,
                          const char* op = "AND") {
  Json::Value q;
  q["name"] = name;
  q["query"]["default_search_op"] = op;
  for (const auto& t : types) {
    Json::Value f;
    f["name"] = "file_type";
    f["data"] = t;
    q["query"]["filters"].append(f);
  }
  return q;
}

// One indicate may not buy minutes of the daemon's time: repeats of a query
// are matched once and count the same, and a list longer than any client
// asks for is refused with its own code.
TEST_F(SearchDaemonTest, IndicateMatchesRepeatsOnceAndRefusesHugeLists) {
  const Json::Value base = ParseJson(R"({"keyword": "mutex", "indice": ["fileindex_docs"]})");
  const char* types[] = {"document", "folder", "all", "photo"};
  Json::Value single = base;
  for (const char* t : types) single["queries"].append(IndicateQuery(t, {t}));
  const Json::Value counts = ExchangeAs("bob", Request("indicate", single))[0]["data"];
  ASSERT_GT(counts["document"].asInt(), 0) << Json::toString(counts);
  // The most a request may hold: the same few queries under many names,
  // with repeated filters and their operator spelled in two ways.
  Json::Value repeats = base;
  for (int i = 0; i < 64; ++i) {
    const std::string t = types[i % 4];
    repeats["queries"].append(IndicateQuery(
        "q" + std::to_string(i), std::vector<std::string>(i % 3 + 1, t), i % 2 ? "AND" : "and"));
  }
  auto reply = ExchangeAs("bob", Request("indicate", repeats));
  ASSERT_EQ(1u, reply.size());
  EXPECT_TRUE(reply[0]["success"].asBool()) << Json::toString(reply[0]);
  for (int i = 0; i < 64; ++i) {
    EXPECT_EQ(counts[types[i % 4]], reply[0]["data"]["q" + std::to_string(i)]) << i;
  }
  Json::Value huge = base;
  for (int i = 0; i < 4000; ++i) huge["queries"].append(repeats["queries"][i % 64]);
  reply = ExchangeAs("bob", Request("indicate", huge));
  ASSERT_EQ(1u, reply.size());
  EXPECT_FALSE(reply[0]["success"].asBool());
  EXPECT_EQ(1006, reply[0]["error"]["code"].asInt());
  EXPECT_NE(std::string::npos, reply[0]["error"]["msg"].asString().find("4000"));
  EXPECT_EQ(Json::Value(Json::objectValue), reply[0]["data"]);
}

// Clients that leave requests and replies half done, some of them killed
// and some still there: SIGTERM ends the daemon at once, and in order.
TEST_F(SearchDaemonTest, NeverTakesOverAnotherDaemonsSocket) {
  const std::string sock = "/run/taken.sock";
  const std::vector<std::string> args = {"--socket", sock, "--index",
                                         std::string(kDocs) + "=/volume1/@kestondri/index/docs"};
  // A socket file that nobody listens on any more is replaced.
  BindDeadSocket(sock);
  DaemonProcess first;
  ASSERT_TRUE(first.Start(args, sock));

  // A second daemon on the same path says why and leaves; the first answers.
  std::string command = std::string(KEST_BINARY_DIR) + "/daemon/kestelasticd";
  for (const auto& a : args) command += " " + a;
  FILE* second = popen((command + " 2>&1").c_str(), "r");
  ASSERT_NE(nullptr, second);
  std::string said;
  char buffer[256];
  while (fgets(buffer, sizeof(buffer), second)) said += buffer;
  const int status = pclose(second);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
  EXPECT_NE(std::string::npos, said.find("another daemon answers on /run/taken.sock")) << said;
  kestdaemon::DomainSockConnection conn(sock);
  EXPECT_TRUE(conn.Connect(5));

  // Once the path names another socket file, the first leaves it be.
  BindDeadSocket(sock);
  EXPECT_EQ(0, first.Stop());
  EXPECT_EQ(0, access(sock.c_str(), F_OK));
  unlink(sock.c_str());
}

TEST_F(SearchDaemonTest, StopsAtOnceWhateverClientsLeftHalfDone) {
  const std::string sock = "/run/stopping.sock";
  DaemonProcess daemon;
  ASSERT_TRUE(daemon.Start({"--socket", sock, "--workers", "4", "--index",
                            std::string(kDocs) + "=/volume1/@kestondri/index/docs"},
                           sock));
  // A reply far larger than the socket's buffers: long query names.
  Json::Value big = ParseJson(R"({"keyword": "mutex", "indice": ["fileindex_docs"]})");
  for (char c = 'a'; c < 'e'; ++c)
    big["queries"].append(IndicateQuery(std::string(1 << 18, c), {}));
  const std::string search = Frame(Json::toString(SearchRequest({kDocs}, "mutex")));
  const std::string cases[] = {std::string(1, '\0'), search.substr(0, 20),
                               Frame(Json::toString(Request("indicate", big)))};
  std::vector<pid_t> killed, alive;
  for (const auto& bytes : cases) {
    killed.push_back(HoldConnectionsAs("root", 8, bytes, sock));
    alive.push_back(HoldConnectionsAs("root", 8, bytes, sock));
  }
  for (pid_t p : killed) kill(p, SIGKILL);
  for (pid_t p : killed) waitpid(p, nullptr, 0);
  usleep(200000);
  const auto start = std::chrono::steady_clock::now();
  const int status = daemon.Stop();
  EXPECT_LT(SecondsSince(start), 3.0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_NE(0, access(sock.c_str(), F_OK));
  for (pid_t p : alive) kill(p, SIGKILL);
  for (pid_t p : alive) waitpid(p, nullptr, 0);
}

TEST_F(SearchDaemonTest, ReadersSeeWhatTheIndexerCommits) {
  Json::Value req = SearchRequest({kPub}, "freshword");
  EXPECT_EQ(Names{}, HitNames(Exchange(req)));
  WriteFile("/volume1/pub/fresh.txt", "a freshword appears\n");
  {
    kestondri::index::FileRecord r;
    r.path = "/volume1/pub/fresh.txt";
    r.name = "fresh.txt";
    r.extension = "txt";
    r.text = "a freshword appears\n";
    Xapian::WritableDatabase db("/volume1/@kestondri/index/pub");
    db.replace_document(kestondri::index::UniqueTerm(r.path), kestondri::index::MakeDocument(r));
    db.commit();
  }
  // Every worker must notice, whichever serves the request.
  for (int i = 0; i < 20; ++i) EXPECT_EQ(Names{"fresh.txt"}, HitNames(Exchange(req)));
  // A document that does not say which file it came from is shown to
  // nobody filtered, though anyone may read the file.
  EXPECT_EQ(Names{}, HitNames(ExchangeAs("bob", req)));

  // A database put in place of another (the indexer's rebuilds and
  // compactions exchange the folders) is read anew by every worker.
  const std::string db = "/volume1/@kestondri/index/pub", other = db + ".other";
  WriteFile("/volume1/pub/exchanged.txt", "a swapword\n");
  Shell(Loader() + " /volume1/pub " + other + " > /dev/null");
  ASSERT_EQ(0, renameat2(AT_FDCWD, other.c_str(), AT_FDCWD, db.c_str(), RENAME_EXCHANGE));
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(Names{"exchanged.txt"}, HitNames(Exchange(SearchRequest({kPub}, "swapword"))));
  }
  Shell("rm -rf " + other);
}

TEST_F(SearchDaemonTest, SearchesARemoteIndexTogetherWithLocalOnes) {
  WriteFile("/volume2/far/remote.txt", "faraway mutex lives here\n");
  Own("/volume2/far/remote.txt", "ann", 0600);
  Shell(Loader() + " /volume2/far /volume2/remote-db > /dev/null");
  pid_t server = fork();
  if (server == 0) {
    // Its own process group: xapian-tcpsrv signals its whole group when
    // told to stop.
    setpgid(0, 0);
    execlp("xapian-tcpsrv", "xapian-tcpsrv", "--quiet", "--interface", "127.0.0.1", "--port",
           "39411", "/volume2/remote-db", static_cast<char*>(nullptr));
    _exit(127);
  }
  ASSERT_GT(server, 0);
  // Wait until the server listens, so the daemon's first attempt succeeds.
  bool listening = false;
  for (int i = 0; i < 500 && !listening; ++i) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(39411);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    listening = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    close(fd);
    if (!listening) usleep(10000);
  }
  ASSERT_TRUE(listening);
  // The share's index path holds a stub naming the remote server.
  WriteFile("/volume2/@kestondri/index/far", "remote 127.0.0.1:39411\n");
  Names got;
  for (int i = 0; i < 200 && got.empty(); ++i) {
    got = HitNames(Exchange(SearchRequest({kDocs, "fileindex_far"}, "faraway OR quarterly")));
    if (got.size() < 2) {
      got.clear();
      usleep(20000);
    }
  }
  EXPECT_EQ((Names{"remote.txt", "report.txt"}), got);
  auto hits = Hits(Exchange(SearchRequest({kDocs, "fileindex_far"}, "faraway")));
  ASSERT_EQ(1u, hits.size());
  EXPECT_EQ("fileindex_far", hits[0]["_index"].asString());
  // Permission filtering holds for remote hits too: the file is ann's alone.
  EXPECT_EQ(Names{}, HitNames(ExchangeAs("bob", SearchRequest({"fileindex_far"}, "faraway"))));
  EXPECT_EQ(Names{"remote.txt"},
            HitNames(ExchangeAs("ann", SearchRequest({"fileindex_far"}, "faraway"))));
  kill(server, SIGTERM);
  int status;
  waitpid(server, &status, 0);

  // With its server gone the remote index is unknown; the local ones answer.
  EXPECT_EQ(Names{"report.txt"},
            HitNames(Exchange(SearchRequest({"fileindex_far", kDocs}, "faraway OR quarterly"))));
  auto status_reply = Exchange(Request("list_db_status", Json::Value(Json::objectValue)));
  ASSERT_EQ(1u, status_reply.size());
  Names unknown;
  for (const auto& u : status_reply[0]["data"]["unknown"]) unknown.push_back(u.asString());
  EXPECT_NE(unknown.end(), std::find(unknown.begin(), unknown.end(), "fileindex_far"));
  unlink("/volume2/@kestondri/index/far");
}

TEST(SearchDaemonLifecycleTest, ReplacesAStaleSocketAndRemovesItsOwnOnExit) {
  const std::string sock = "/run/lifecycle.sock";
  BindDeadSocket(sock);
  pid_t pid = fork();
  if (pid == 0) {
    std::string program = std::string(KEST_BINARY_DIR) + "/daemon/kestelasticd";
    execl(program.c_str(), program.c_str(), "--socket", sock.c_str(), "--index",
          "fileindex_x=/nonexistent", static_cast<char*>(nullptr));
    _exit(127);
  }
  bool up = false;
  for (int i = 0; i < 500 && !up; ++i) {
    kestdaemon::DomainSockConnection conn(sock);
    up = conn.Connect(5);
    if (!up) usleep(10000);
  }
  EXPECT_TRUE(up);
  struct stat st;
  ASSERT_EQ(0, stat(sock.c_str(), &st));
  EXPECT_EQ(0666u, st.st_mode & 0777);
  kill(pid, SIGTERM);
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_NE(0, access(sock.c_str(), F_OK));

  // Something that is not a socket is never removed to make room.
  WriteFile(sock, "precious");
  pid = fork();
  if (pid == 0) {
    std::string program = std::string(KEST_BINARY_DIR) + "/daemon/kestelasticd";
    int devnull = open("/dev/null", O_WRONLY);
    dup2(devnull, 2);
    execl(program.c_str(), program.c_str(), "--socket", sock.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1);
  EXPECT_EQ("precious", ReadFile(sock));
}

}  // namespace
}  // namespace kesttest
