// The search daemon: its text parts on the inputs that break them, then the
// real kestelasticd on real indices of real files in the sandbox.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <kest/json.h>
#include <kestdaemon/sock_connection.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <xapian.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "daemon/daemon_harness.h"
#include "highlighter.h"
#include "index_schema.h"
#include "reply_frame.h"
#include "support/syslog_capture.h"
#include "text_analysis.h"

namespace kesttest {
namespace {

using Names = std::vector<std::string>;
using kestondri::index::FoldWord;

TEST(DaemonPartsTest, FoldingNameWordsAndStems) {
  const char* folded[][2] = {
      {"Crème BRÛLÉE MÜLLER São naïve", "creme brulee muller sao naive"},
      {"Straße Øre Łódź İstanbul", "strasse ore lodz istanbul"},
      {"ΑΘΉΝΑ ὁδός Ёлка Йод", "αθηνα οδοσ елка иод"},  // final sigma is sigma
      {"がぎ 東京", "がぎ 東京"},                      // the voicing mark is part of the letter
      {"ﬁle ＡＢＣ１２ Chen's l’été", "file abc12 chen s l ete"},
      {"e\xCC\x81t\xC3\xA9", "ete"},  // a combining accent, then a composed one
      {"a\377\376b", "a  b"},
  };
  for (const auto& c : folded) EXPECT_EQ(c[1], FoldWord(c[0])) << c[0];
  EXPECT_EQ("plain ASCII Text", kestondri::index::FoldText("plain ASCII Text"));

  const std::pair<const char*, Names> words[] = {
      {"XMLParser iPhone12 東京Tower", {"XML", "Parser", "i", "Phone", "12", "東京", "Tower"}},
      {"Crème-Brûlée bad\377byte", {"Crème", "Brûlée", "bad", "byte"}},
  };
  for (const auto& c : words) EXPECT_EQ(c.second, kestondri::index::NameWords(c.first)) << c.first;

  kestondri::index::Stemmer english, french, none;
  ASSERT_TRUE(kestondri::index::Stemmer::Make("en", &english) &&
              kestondri::index::Stemmer::Make("french", &french) &&
              kestondri::index::Stemmer::Make("none", &none));
  EXPECT_FALSE(kestondri::index::Stemmer::Make("klingon", &none));
  EXPECT_EQ("english", english.language());
  EXPECT_EQ("", english("spin_lock") + english("x86") + none("reports"));
  // Stemmed as written, then folded: accents matter to some stemmers.
  EXPECT_EQ(french("acheter"), french.AsWritten("achetées"));
  EXPECT_NE(french("acheter"), french(FoldWord("achetées")));
}

// A message too long is refused and leaves the buffer alone.
TEST(DaemonPartsTest, ReplyFramesAreLengthPrefixedAndCapped) {
  const Json::Value value(std::string("Ünïcode ✓ \"q\" \\ \n\t\0\a\x1b", 22));
  const std::string text = Json::toString(value);
  const uint32_t length = htonl(text.size());
  std::string frames = "kept";
  ASSERT_TRUE(kestondri::daemon::AppendFrame(value, &frames));
  EXPECT_EQ("kept" + std::string(reinterpret_cast<const char*>(&length), 4) + text, frames);
  const size_t cap = kestdaemon::kMaxMessageSize;
  EXPECT_FALSE(kestondri::daemon::AppendFrame(Json::Value(std::string(cap - 1, 'x')), &frames));
  EXPECT_TRUE(kestondri::daemon::AppendFrame(Json::Value(std::string(cap - 2, 'x')), &frames));
  EXPECT_EQ(4 + 4 + text.size() + 4 + cap, frames.size());
}

const char kDocs[] = "fileindex_docs", kPub[] = "fileindex_pub", kLang[] = "fileindex_lang";
const char kHomes[] = "fileindex_homes", kBroken[] = "fileindex_broken";
const char kDocsDb[] = "/volume1/@kestondri/index/docs";
// Pub: ann and administrators (bob is listed, then refused); homes: each own.
const char kSharesConf[] =
    "[global]\nadmin group = administrators\nuser home = yes\n[homes]\npath = /volume1/homes\n"
    "read list = carol\n[docs]\npath = /volume1/docs\n[pub]\npath = /volume1/pub\n"
    "read list = ann, bob\ninvalid users = bob\n[broken]\npath = /volume1/broken\n"
    "[lang]\npath = /volume1/lang\n[far]\npath = /volume2/far\n";

void Shell(const std::string& command) { ASSERT_EQ(0, std::system(command.c_str())) << command; }

void Load(const std::string& from, const std::string& to) {
  Shell(std::string(KEST_BINARY_DIR) + "/daemon/kest_index_loader " + from + " " + to +
        " > /dev/null");
}

// A file holding `content`, or a folder without, owned by `user` with `mode`.
void Put(const std::string& path, const char* user, mode_t mode, const char* content = nullptr) {
  if (content) WriteFile(path, content);
  if (!content) mkdir(path.c_str(), mode);
  ASSERT_EQ(0, chown(path.c_str(), UserByName(user).uid, UserByName(user).gid)) << path;
  ASSERT_EQ(0, chmod(path.c_str(), mode)) << path;
}

void Unindex(const std::string& path) {
  Xapian::WritableDatabase(kDocsDb).delete_document(kestondri::index::UniqueTerm(path));
  unlink(path.c_str());
}

// `options`: "type=..." (the file type) and criteria, "field=value;...".
Json::Value Query(const std::string& keyword, const std::string& options = "",
                  const std::vector<std::string>& indice = {kDocs}) {
  Json::Value req = SearchRequest(indice, keyword);
  Json::Value& query = req["data"]["pre_query"];
  std::stringstream parts(options);
  for (std::string part; std::getline(parts, part, ';');) {
    const std::string name = part.substr(0, part.find('=')), value = part.substr(name.size() + 1);
    Json::Value c;
    c["field"] = name;
    c["value"] = value;
    if (name == "type") query["file_type"] = value;
    if (name != "type") query["criteria_list"].append(c);
  }
  return req;
}

Json::Value Indicate(const std::string& keyword, const Names& types,
                     const Names& indice = {kDocs}) {
  Json::Value data = ParseJson(R"({"criteria_list": [], "search_weight_list": []})");
  data["keyword"] = keyword;
  for (const auto& i : indice) data["indice"].append(i);
  for (const auto& t : types) {
    Json::Value q = ParseJson(R"({"query": {"default_search_op": "AND",
                                            "filters": [{"name": "file_type"}]}})");
    q["name"] = q["query"]["filters"][0]["data"] = t;
    data["queries"].append(q);
  }
  return Request("indicate", data);
}

Json::Value HighlightOf(const Json::Value& hit, const std::string& keyword,
                        const std::string& options = "{}") {
  Json::Value data = ParseJson(R"({"highlight": )" + options + "}");
  data["id"] = hit["_index"];
  data["doc_id"] = hit["doc_id"];
  data["keyword"] = keyword;
  return Request("highlight", data);
}

// The names of the hits joined by ", ": sorted, or as ranked.
std::string Joined(const std::vector<Json::Value>& reply, bool ranked = false) {
  Names names;
  for (const auto& h : Hits(reply)) names.push_back(h["KESTMDFSName"].asString());
  if (!ranked) std::sort(names.begin(), names.end());
  std::string out;
  for (const auto& name : names) out += (out.empty() ? "" : ", ") + name;
  return out;
}

std::string Found(const Json::Value& request, const std::string& user = "root") {
  return Joined(Exchange(request, user));
}

void Kill(pid_t pid) {
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

class SearchDaemonTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    WriteFile("/etc/kest/shares.conf", kSharesConf);
    Put("/volume1/docs", "ann", 0777);
    const std::string d = "/volume1/docs/";
    WriteFile(d + "report.txt", "Quarterly report about the mutex and the interrupt handler.\n");
    Put(d + "notes.md", "bob", 0644, "page fault handling notes; use after free\n");
    for (const auto& [name, size] :
         {std::pair{"photo.JPG", 8}, {"song.mp3", 5}, {"movie.mkv", 4}, {"data.bin", 3}}) {
      WriteFile(d + name, std::string(size, '\0'));
    }
    Put(d + "projects", "ann", 0755);
    WriteFile(d + "projects/mutex-design.c", "spinlock only here\n");
    WriteFile(d + "projects/locks.txt", "mutex mutex mutex held\n");
    WriteFile(d + "old.log", "ancient entry\n");
    struct timeval times[2] = {{1000000000, 0}, {1000000000, 0}};
    utimes((d + "old.log").c_str(), times);
    WriteFile(d + "markup.html",
              "<script>alert('x')</script> the needle & \"friends\" <em>here</em>\n");
    std::string big = "start of the needle file <tag> & more\n";
    while (big.size() < (3u << 20)) big += "filler <b>words</b> & \"quotes\" 'single' text\n";
    WriteFile(d + "big.txt", big + "last needle\n");
    // Ann's own: a file, and a folder holding a file anyone could read.
    Put(d + "diary.txt", "ann", 0600, "zebra private mutex\n");
    Put(d + "annonly", "ann", 0700);
    Put(d + "annonly/secret.txt", "ann", 0644, "zebra secret mutex\n");
    WriteFile("/volume1/pub/pub.txt", "mutex in the pub share\n");
    Put("/volume1/homes", "ann", 0755);
    for (const char* user : {"ann", "bob"}) {
      const std::string home = std::string("/volume1/homes/") + user;
      Put(home, user, 0755);
      Put(home + "/" + user + "-note.txt", user, 0644, "wombat\n");
    }
    const std::map<std::string, std::string> lang = {
        {"recipe.txt", "Crème brûlée with saffron; the café serves it."},
        {"plain.txt", "creme brulee recipe, no accents"},
        {"mueller.txt", "Herr Müller aus München"},
        {"reports.txt", "Annual reports of the cities, with analyses"},
        {"report.txt", "one report"},
        {"telescope.txt", "Chen's telescope points at Jupiter"},
        {"ja.txt", "東京都に住んでいます。"},
        {"zh.txt", "我们在北京大学学习"},
        {"ko.txt", "서울특별시에 살아요"},
        {"QuarterlyReport_2024-Q3.final.pdf", ""},
        {"saffron.txt", "nothing else"},
        {"Projects/Saffron Trials/tasting.txt", "results"},
        {"bad\377\376bytes.txt", "caf\xe9 \xc3 mixed \xe6\x9d\xb1 words"},
    };
    for (const auto& f : lang) WriteFile("/volume1/lang/" + f.first, f.second);
    for (const char* share : {"docs", "pub", "lang", "homes"}) {
      Load(std::string("/volume1/") + share, std::string("/volume1/@kestondri/index/") + share);
    }
    WriteFile("/volume1/@kestondri/index/broken/iamglass", "not a database at all");
    WriteFile("/volume1/@kestondri/index/broken/postlist.glass", "garbage");
    ASSERT_TRUE(daemon_.Start());
  }

  static void TearDownTestSuite() { EXPECT_EQ(0, daemon_.Stop()); }

  static inline DaemonProcess daemon_;
};

// Ranked ("> "): the word as typed first, a file's own name above its
// folders and its text, unless the weights say otherwise.
TEST_F(SearchDaemonTest, FindsWhatIsMeant) {
  const char* cases[][4] = {
      {kDocs, "QUARTERLY Report", "", "report.txt"},
      {kDocs, "file:notes", "", "notes.md"},
      {kDocs, "content:spinlock", "", "mutex-design.c"},
      {kDocs, "content:design", "", ""},
      {kDocs, "\"page fault\"", "", "notes.md"},
      {kDocs, "\"fault page\"", "", ""},
      {kDocs, "quarter*", "", "report.txt"},
      {kDocs, "quarterly spinlock", "", ""},
      {kDocs, "mutex NOT held", "KESTMDInFolder=/volume1/docs/projects", "mutex-design.c"},
      {kDocs, "mutex AND NOT held", "KESTMDInFolder=/volume1/docs/projects", "mutex-design.c"},
      {kDocs, "", "type=photo", "photo.JPG"},
      {kDocs, "", "type=audio", "song.mp3"},
      {kDocs, "", "type=video", "movie.mkv"},
      {kDocs, "", "type=folder", "annonly, projects"},
      {kDocs, "", "KESTMDExtension=c;KESTMDExtension=.MD", "mutex-design.c, notes.md"},
      {kDocs, "", "KESTMDFSName=notes.md", "notes.md"},
      {kDocs, "", "KESTMDFSName=notes", ""},
      {kDocs, "", "KESTMDPath=/volume1/docs/projects/locks.txt", "locks.txt"},
      {kDocs, "", "KESTMDFSSize=>=1000000", "big.txt"},
      {kDocs, "", "KESTMDFSSize=1..5", "data.bin, movie.mkv, song.mp3"},
      {kDocs, "needle", "KESTMDFSSize=<=1000", "markup.html"},
      {kDocs, "last", "", "big.txt"},  // the far end of a 3 MiB text is indexed
      {kDocs, "", "KESTMDMTime=..1000000001", "old.log"},
      {kDocs, "", "KESTMDIsDir=true", "annonly, projects"},
      {kDocs, "", "KESTMDOwnerUserID=2002", "notes.md"},
      {kDocs, "", "KESTMDInFolder=/volume1/docs/projects", "locks.txt, mutex-design.c, projects"},
      {kDocs, "mutex", "KESTMDInFolder=/volume1/docs/projects/", "locks.txt, mutex-design.c"},
      {kDocs, "", "KESTMDInFolder=/volume1/docs/proj", ""},
      {kLang, "creme", "", "plain.txt, recipe.txt"},
      {kLang, "muller munchen", "", "mueller.txt"},
      {kLang, "\"reports of\"", "", "reports.txt"},
      {kLang, "\"report of\"", "", ""},
      {kLang, "住んで OR 北京 OR 서울", "", "ja.txt, ko.txt, zh.txt"},
      {kLang, "quarterly 2024 q3 final", "", "QuarterlyReport_2024-Q3.final.pdf"},
      {kLang, "QuarterlyReport", "", "QuarterlyReport_2024-Q3.final.pdf"},
      {kLang, "folder:saffron", "", "tasting.txt"},
      {kLang, "tele* telesc*", "", "telescope.txt"},
      {kLang, "te*", "", ""},
      {kLang, "sérv* caf*", "", "recipe.txt"},
      // Typing goes on: what is complete is searched.
      {kLang, "saffron OR", "", "Saffron Trials, recipe.txt, saffron.txt, tasting.txt"},
      {kLang, "AND", "", ""},
      {kLang, "(saffron AND", "", "Saffron Trials, recipe.txt, saffron.txt, tasting.txt"},
      {kLang, "\"crème brû", "", "plain.txt, recipe.txt"},
      {kLang, "NOT", "", ""},
      // Bad input: an answer, never a failure.
      {kLang, "\xff\xfe bytes mixed words", "", "bad\377\376bytes.txt"},
      {kLang, "!?.,;: --- ///", "", ""},
      {kLang, "Москва 東京 cafe", "", ""},
      {kLang, "CRÈME", "", "> recipe.txt, plain.txt"},
      {kLang, "reports", "", "> reports.txt, report.txt, QuarterlyReport_2024-Q3.final.pdf"},
      {kLang, "saffron", "", "> saffron.txt, Saffron Trials, tasting.txt, recipe.txt"},
      {kLang, "trials", "", "> Saffron Trials, tasting.txt"},
  };
  for (const auto& c : cases) {
    auto reply = Exchange(Query(c[1], c[2], {c[0]}));
    ASSERT_TRUE(!reply.empty() && reply.back()["success"].asBool()) << c[1];
    const bool ranked = c[3][0] == '>';
    EXPECT_EQ(ranked ? c[3] + 2 : c[3], Joined(reply, ranked)) << c[1] << " " << c[2];
  }
  for (const auto& [name, text, order] : {std::tuple{"10", "0.1", "mutex-design.c, locks.txt"},
                                          std::tuple{"0", "10", "locks.txt, mutex-design.c"}}) {
    Json::Value req = Query("mutex", "KESTMDInFolder=/volume1/docs/projects");
    req["data"]["pre_query"]["search_weight_list"] =
        ParseJson(std::string(R"([{"field": "KESTMDFSName", "weight": )") + name +
                  R"(}, {"field": "KESTMDTextContent", "weight": )" + text + "}]");
    EXPECT_EQ(order, Joined(Exchange(req), true)) << name;
  }
}

TEST_F(SearchDaemonTest, FragmentsMarkTheWordsAndEscapeTheRest) {
  const std::string r = "\xEF\xBF\xBD";
  std::string e;
  for (int i = 0; i < 60; ++i) e += "é";
  const std::tuple<std::string, const char*, Names> cases[] = {
      {"Alpha0 Zeta9 az by", "alpha0 zeta9 az", {"<em>Alpha0</em> <em>Zeta9</em> <em>az</em> by"}},
      {"two beta beta close", "BETA", {"two <em>beta</em> <em>beta</em> close"}},
      {"betamax betas", "beta*", {"<em>betamax</em> <em>betas</em>"}},
      {"alphabet", "beta", {}},
      {"nothing here", "", {}},
      {"a AND b", "a AND b", {"<em>a</em> AND <em>b</em>"}},
      {"name:beta skipped ext:txt", "name:beta ext:txt", {"name:<em>beta</em> skipped ext:txt"}},
      {"大阪の東京", "東京", {"大阪の<em>東京</em>"}},
      {std::string("x\xff <beta> & \xc0\xaf y\0z", 18),
       "beta",
       {"x" + r + " &lt;<em>beta</em>&gt; &amp; " + r + r + " y z"}},  // an overlong '/'
      // Beyond the scan limit; a fragment's edge in the middle of a character.
      {std::string(1 << 20, 'x') + " target", "target", {}},
      {e + "x target " + e, "target", {e.substr(0, 32) + "x <em>target</em> " + e.substr(0, 58)}},
  };
  for (const auto& [text, keyword, expected] : cases) {
    const auto terms = kestondri::daemon::KeywordMarkTerms(keyword);
    EXPECT_EQ(expected, kestondri::daemon::HighlightFragments(text, terms, {})) << text;
  }

  const char kText[] = R"({"field": "KESTMDTextContent"})";
  const char* marks[][4] = {
      {kLang, "cafe saffron", kText, "with <em>saffron</em>; the <em>café</em> serves"},
      {kLang, "telescopes chen", kText, "<em>Chen</em>&#39;s <em>telescope</em> points at"},
      {kLang, "東京", kText, "<em>東京</em>都に住んでいます。"},
      {kLang, "city analysis", kText,
       "Annual reports of the <em>cities</em>, with <em>analyses</em>"},
      {kLang, "q3 report", R"({"field": "KESTMDFSName"})",
       "Quarterly<em>Report</em>_2024-<em>Q3</em>.final.pdf"},
      {kDocs, "interrupt",
       R"({"field": "KESTMDTextContent", "frag_length": 50, "num_fragments": 2})",
       "the <em>interrupt</em> handler"},
      {kDocs, "needle friends", R"({"field": "KESTMDTextContent", "frag_length": 200})",
       "&lt;script&gt;alert(&#39;x&#39;)&lt;/script&gt; the <em>needle</em> &amp; "
       "&quot;<em>friends</em>&quot; &lt;em&gt;here&lt;/em&gt;\n"},
  };
  for (const auto& [index, keyword, highlight, fragment] : marks) {
    Json::Value req = Query(keyword, "", {index});
    req["data"]["highlight"].append(ParseJson(highlight));
    const Json::Value hit = Hits(Exchange(req)).at(0);
    const Json::Value& got = hit["highlight"][req["data"]["highlight"][0]["field"].asString()];
    ASSERT_EQ(1u, got.size()) << keyword << Json::toString(hit);
    EXPECT_NE(std::string::npos, got[0].asString().find(fragment)) << keyword << ": " << got[0];
  }

  const auto reply = Exchange(HighlightOf(Hits(Exchange(Query("filler"))).at(0), "filler",
                                          R"({"frag_length": 60, "num_fragments": 4})"));
  EXPECT_EQ(4u, reply.at(0)["data"]["KESTMDTextContent"].size());
  for (const auto& f : reply.at(0)["data"]["KESTMDTextContent"]) {
    EXPECT_NE(std::string::npos, f.asString().find("<em>filler</em>"));
    EXPECT_EQ(std::string::npos, f.asString().find("<b>"));
    EXPECT_LT(f.asString().size(), 200u);
  }
}

// Hits of both shards in one page take their values from the right document.
TEST_F(SearchDaemonTest, HitsCarryTheFieldsOfTheirFilesInCountedPages) {
  Json::Value req = Query("", "", {kDocs, kPub});
  req["data"]["load_field"] = ParseJson(R"(["KESTMDFSName", "KESTMDExtension", "KESTMDIsDir",
      "KESTMDFSSize", "KESTMDMTime", "KESTMDTextContent", "KESTMDNoSuchField"])");
  const auto reply = Exchange(req);
  ASSERT_GT(reply.size(), 12u);
  EXPECT_EQ("{\"total\":" + std::to_string(reply.size() - 2) + "}", Json::toString(reply[0]));
  // Without "fields", the module's "load_field" that exist and the date.
  const Json::Value::Members members = {"KESTMDExtension", "KESTMDFSName", "KESTMDFSSize",
                                        "KESTMDIsDir",     "KESTMDMTime",  "KESTMDOwnerUserID",
                                        "KESTMDPath",      "_id",          "_index",
                                        "_score",          "doc_id"};
  Names ids;
  for (const auto& h : Hits(reply)) {
    const std::string path = h["KESTMDPath"].asString(), name = path.substr(path.rfind('/') + 1);
    struct stat st;
    ASSERT_EQ(0, lstat(path.c_str(), &st)) << path;
    Json::Value want = h;
    want["KESTMDFSName"] = name;
    std::string extension = name.substr(std::min(name.find('.'), name.size() - 1) + 1);
    for (char& c : extension) c = static_cast<char>(std::tolower(c));
    want["KESTMDExtension"] = extension;
    want["KESTMDIsDir"] = static_cast<bool>(S_ISDIR(st.st_mode));
    if (!S_ISDIR(st.st_mode)) want["KESTMDFSSize"] = static_cast<Json::UInt64>(st.st_size);
    want["KESTMDMTime"] = static_cast<Json::Int64>(st.st_mtime);
    want["KESTMDOwnerUserID"] = std::to_string(st.st_uid);
    want["_index"] = path.rfind("/volume1/pub/", 0) == 0 ? kPub : kDocs;
    EXPECT_EQ(Json::toString(want), Json::toString(h));
    EXPECT_EQ(members, h.getMemberNames());
    EXPECT_TRUE(h["_score"].isDouble() && h["doc_id"].isIntegral()) << h;
    ids.push_back(h["_id"].asString());
  }
  req = Query("quarterly");
  req["data"]["fields"] = ParseJson(R"(["KESTMDMTime", "KESTMDFSName", "KESTMDBogus"])");
  EXPECT_EQ((Json::Value::Members{"KESTMDFSName", "KESTMDMTime", "KESTMDOwnerUserID", "KESTMDPath",
                                  "_id", "_index", "_score", "doc_id"}),
            Hits(Exchange(req)).at(0).getMemberNames());

  Names paged;
  for (size_t from = 0; from < ids.size() + 3; from += 3) {
    auto page = Exchange(SearchRequest({kDocs, kPub}, "", from, 3));
    EXPECT_EQ(ids.size(), page.front()["total"].asUInt());
    for (const auto& h : Hits(page)) paged.push_back(h["_id"].asString());
  }
  EXPECT_EQ(ids, paged);
  const auto none = Exchange(Query("zzzznothing"));
  EXPECT_EQ(R"({"total":0}{"success":true})",
            Json::toString(none.at(0)) + Json::toString(none.at(1)));
}

// One indicate may not buy minutes of the daemon's time.
TEST_F(SearchDaemonTest, IndicateMatchesRepeatsOnceAndRefusesHugeLists) {
  const Names types = {"document", "folder", "all", "photo"};
  // As many as may be: the four, then repeats with more filters and the
  // operator spelled another way, each counting as its first.
  Json::Value repeats = Indicate("mutex", types);
  Json::Value& queries = repeats["data"]["queries"];
  for (int i = 4; i < 64; ++i) {
    Json::Value q = queries[i % 4];
    for (int k = 0; k <= i % 2; ++k) q["query"]["filters"].append(q["query"]["filters"][0]);
    q["query"]["default_search_op"] = "and";
    q["name"] = "q" + std::to_string(i);
    queries.append(q);
  }
  auto reply = Exchange(repeats, "bob");
  ASSERT_TRUE(reply.at(0)["success"].asBool()) << reply[0];
  const Json::Value& counts = reply[0]["data"];
  EXPECT_GT(counts["document"].asInt(), 0) << counts;
  for (int i = 4; i < 64; ++i)
    EXPECT_EQ(counts[types[i % 4]], counts["q" + std::to_string(i)]) << i;
  for (int i = 64; i < 4000; ++i) queries.append(queries[i % 64]);
  reply = Exchange(repeats, "bob");
  ASSERT_EQ(1u, reply.size());
  EXPECT_EQ(R"({"data":{},"error":{"code":1006,"msg":"too many queries: 4000, at most 64"},)"
            R"("success":false})",
            Json::toString(reply[0]));
}

// What `user` finds of `keyword`, once every way of asking agreed: the count, the word's
// beginning, indicate, a forged filter, root asking on the user's behalf; a highlight of
// what root finds and the user does not is refused as for a document that is not there.
const char kRefused[] = R"({"error":{"code":1003,"msg":"no such document"},"success":false})";

std::string Sees(const std::string& user, const std::string& keyword) {
  SCOPED_TRACE(user + " " + keyword);
  const Names indice = {kDocs, kPub, kHomes};
  const Json::Value search = Query(keyword, "", indice), count = Indicate(keyword, {"all"}, indice);
  const auto reply = Exchange(search, user);
  const Names names = HitNames(reply);
  EXPECT_EQ(names.size(), reply.at(0)["total"].asUInt());
  EXPECT_EQ(Joined(reply), Found(Query(keyword.substr(0, 4) + "*", "", indice), user));
  const std::pair<std::string, std::string> forms[] = {
      {user, "0"}, {"root", std::to_string(UserByName(user).uid)}};
  for (const auto& [asker, uid] : forms) {
    const Json::Value filters = ParseJson(R"([{"name": "permission", "data": )" + uid + "}]");
    Json::Value s = search, c = count;
    s["data"]["filters"] = filters;
    c["data"]["queries"][0]["query"]["filters"].append(filters[0]);
    EXPECT_EQ(Joined(reply), Found(s, asker)) << asker;
    EXPECT_EQ(names.size(), Exchange(c, asker).at(0)["data"]["all"].asUInt()) << asker;
    for (const auto& hit : Hits(Exchange(search))) {
      Json::Value hl = HighlightOf(hit, keyword);
      hl["data"]["filters"] = filters;
      const bool seen = std::count(names.begin(), names.end(), hit["KESTMDFSName"].asString());
      EXPECT_EQ(seen, Json::toString(Exchange(hl, asker).at(0)) != kRefused) << asker << hit;
    }
  }
  return Joined(reply);
}

TEST_F(SearchDaemonTest, EachUserGetsOnlyWhatTheyMayRead) {
  // Dave's private file repeats Ann's word and holds more of its beginnings
  // than the expansion limit: her scores and wildcards stay the same.
  const auto scores = [] {
    std::string all;
    for (const auto& h : Hits(Exchange(Query("zebra"), "ann"))) all += Json::toString(h["_score"]);
    return all;
  };
  const std::string alone = scores(), dq = "/volume1/docs/dq.txt";
  std::string text = "zebra zebra zebra\n";
  for (size_t i = 0; i <= kestondri::daemon::kMaxBeginningWords; ++i) {
    text += "zebr" + std::to_string(i) + " ";
  }
  Put(dq, "dave", 0600, text.c_str());
  Load("/volume1/docs", kDocsDb);
  EXPECT_EQ(alone, scores());
  EXPECT_EQ("diary.txt, secret.txt", Sees("ann", "zebra"));
  EXPECT_EQ("", Found(Query("ze*"), "ann"));  // too short a beginning is the word itself
  Unindex(dq);

  // In a group folder without the sticky bit, what bob puts under the name
  // of ann's file never shows him her indexed text.
  WriteFile("/volume1/plan.sh",
            "mkdir -p team && chgrp staff team && chmod 2770 team && rm -f team/* && echo walrus "
            "plan > team/plan.txt && chown ann: team/plan.txt && chmod 600 team/plan.txt");
  // A command in /volume1/docs (in team as bob after "bob:"; then reindexed
  // after "+"), a word, and what ann, bob, carol and dave find of it.
  const char* rows[][3] = {
      {"", "zebra", "diary.txt, secret.txt|||"},
      // A chmod moves the change time: granted once reindexed, taken back at once.
      {"+chmod 644 diary.txt", "zebra", "diary.txt, secret.txt|diary.txt|diary.txt|diary.txt"},
      {"chmod 600 diary.txt", "zebra", "secret.txt|||"},
      {"+setfacl -m g:staff:rx annonly", "zebra", "diary.txt, secret.txt|secret.txt||"},
      {"setfacl -b annonly", "zebra", "diary.txt, secret.txt|||"},
      {"", "pub", "pub.txt||pub.txt|"},
      {"", "wombat", "ann-note.txt|bob-note.txt|ann-note.txt, bob-note.txt|"},
      {"+sh ../plan.sh", "walrus", "plan.txt|||"},
      {"bob: echo mine > own && mv own plan.txt", "walrus", "|||"},
      {"+sh ../plan.sh", "walrus", "plan.txt|||"},
      {"bob: rm plan.txt && echo mine > plan.txt", "walrus", "|||"},
      {"+sh ../plan.sh", "walrus", "plan.txt|||"},
      {"bob: rm plan.txt && echo mine > own && ln -s own plan.txt", "walrus", "|||"},
  };
  for (const auto& [change, keyword, names] : rows) {
    if (std::string(change).rfind("bob: ", 0) == 0) {
      Shell("cd /volume1/docs/team && setpriv --reuid=bob --regid=bob --init-groups sh -c '" +
            std::string(change + 5) + "'");
    } else if (*change) {
      Shell(std::string("cd /volume1/docs && ") + (change + (*change == '+')));
      if (*change == '+') Load("/volume1/docs", kDocsDb);
    }
    std::string seen;
    for (const char* user : {"ann", "bob", "carol", "dave"}) {
      seen += (*user == 'a' ? "" : "|") + Sees(user, keyword);
    }
    EXPECT_EQ(names, seen) << change;
  }
  Unindex("/volume1/docs/team/plan.txt");
  Unindex("/volume1/docs/team");
  Shell("rm -rf /volume1/docs/team");
}

TEST_F(SearchDaemonTest, MalformedRequestsGetErrorsAndServiceGoesOn) {
  std::string many;
  for (int i = 0; i < 10000; ++i) many += "word" + std::to_string(i) + " ";
  std::vector<std::pair<std::string, int>> cases = {
      {Json::toString(Query(many)), 1001}, {R"({"command": "drop_everything", "data": {}})", 1000}};
  for (const char* bad : {"KESTMDFSSize=big", "KESTMDInFolder=relative/path", "KESTMDFSSize=3..x",
                          "NoSuchField=1", "type=spreadsheets"}) {
    cases.emplace_back(Json::toString(Query("mutex", bad)), 1002);
  }
  for (const char* bad :
       {"not json", "[1,2]", "{}", "", R"({"command": 7})", R"({"command": "search", "data": []})",
        R"({"command": "search", "data": {"indice": "fileindex_docs"}})",
        R"({"command": "search", "data": {"indice": [], "from": "x"}})",
        R"({"command": "search", "data": {"indice": [], "from": -1}})",
        R"({"command": "highlight", "data": {"id": "fileindex_docs",
            "doc_id": 1, "highlight": 5}})"}) {
    cases.emplace_back(bad, 1002);
  }
  for (const auto& c : cases) {
    auto reply = ExchangeRaw(Frame(c.first));
    ASSERT_EQ(1u, reply.size()) << c.first.substr(0, 80);
    EXPECT_EQ(c.second, reply[0]["error"]["code"].asInt()) << c.first.substr(0, 80);
  }
  // A lying length and a frame cut short cost their own connection only.
  EXPECT_TRUE(ExchangeRaw(std::string("\x7f\xff\xff\xff", 4)).empty());
  EXPECT_TRUE(ExchangeRaw(Frame("{\"command\":\"search\"}").substr(0, 10)).empty());
  EXPECT_EQ("report.txt", Found(Query("quarterly")));
}

// What one user leaves half done on the socket, 160 times over, holds no
// worker; he is served again once his connections are gone.
TEST_F(SearchDaemonTest, ManyAndStalledClientsHoldNobodyUp) {
  const std::string expected = Found(Query("mutex", "", {kDocs, kPub}));
  ASSERT_EQ(6, std::count(expected.begin(), expected.end(), ',') + 1) << expected;
  const pid_t idle = HoldConnectionsAs("root", 20, "");
  std::atomic<int> good{0};
  std::vector<std::thread> clients;
  for (int i = 0; i < 50; ++i) {
    clients.emplace_back([&] { good += Found(Query("MUTEX", "", {kDocs, kPub})) == expected; });
  }
  for (auto& t : clients) t.join();
  EXPECT_EQ(50, good.load());
  Kill(idle);

  const std::string search = Frame(Json::toString(Query("zebra")));
  SyslogCapture::Instance().Clear();
  for (const auto& bytes : {std::string(1, '\0'), search.substr(0, search.size() / 2),
                            std::string("\x04\0\0\0", 4) /* 64 MiB announced, none sent */}) {
    const pid_t bob = HoldConnectionsAs("bob", 160, bytes);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    EXPECT_EQ("diary.txt, secret.txt", Found(Query("zebra"), "ann"));
    EXPECT_LT(std::chrono::steady_clock::now(), deadline);
    Kill(bob);
  }
  EXPECT_TRUE(SyslogCapture::Instance().WaitFor("refused a connection of uid 2002"));
  std::string again;
  for (int i = 0; i < 250 && (again = Found(Query("quarterly"), "bob")).empty(); ++i) usleep(20000);
  EXPECT_EQ("report.txt", again);
}

// A dead socket file is replaced, a live one or a plain file never taken;
// SIGTERM ends it at once whatever clients left half done.
TEST_F(SearchDaemonTest, OwnsItsSocketFileAndStopsAtOnce) {
  const std::string sock = "/run/taken.sock";
  const std::vector<std::string> args = {"--socket", sock,      "--workers",
                                         "4",        "--index", std::string(kDocs) + "=" + kDocsDb};
  BindDeadSocket(sock);
  DaemonProcess first, second, third;
  ASSERT_TRUE(first.Start(args, sock));
  SyslogCapture::Instance().Clear();
  second.Start(args, sock);
  EXPECT_EQ(1, WEXITSTATUS(second.Stop(true)));
  EXPECT_TRUE(SyslogCapture::Instance().WaitFor(
      "cannot start: another daemon answers on /run/taken.sock; not taking it over"));

  // A reply far larger than the socket's buffers: long query names.
  const Json::Value big = Indicate("mutex", {std::string(1 << 19, 'a'), std::string(1 << 19, 'b')});
  std::vector<pid_t> killed, alive;
  for (const auto& bytes :
       {std::string(1, '\0'), Frame(Json::toString(Query("mutex"))).substr(0, 20),
        Frame(Json::toString(big))}) {
    killed.push_back(HoldConnectionsAs("root", 8, bytes, sock));
    alive.push_back(HoldConnectionsAs("root", 8, bytes, sock));
  }
  for (pid_t p : killed) Kill(p);
  usleep(200000);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
  EXPECT_EQ(0, first.Stop());
  EXPECT_LT(std::chrono::steady_clock::now(), deadline);
  EXPECT_NE(0, access(sock.c_str(), F_OK)) << "its own socket file goes with it";
  for (pid_t p : alive) Kill(p);

  ASSERT_TRUE(second.Start(args, sock));
  BindDeadSocket(sock);
  EXPECT_EQ(0, second.Stop());
  EXPECT_EQ(0, access(sock.c_str(), F_OK));
  unlink(sock.c_str());
  WriteFile(sock, "precious");
  EXPECT_FALSE(third.Start(args, sock));
  EXPECT_EQ(1, WEXITSTATUS(third.Stop()));
  EXPECT_EQ("precious", ReadFile(sock));
}

TEST_F(SearchDaemonTest, IndicesChangeBreakOrLiveElsewhere) {
  const Json::Value req = Query("freshword", "", {kPub});
  const std::string db = "/volume1/@kestondri/index/pub", other = db + ".other";
  WriteFile("/volume1/pub/fresh.txt", "a freshword appears\n");
  Load("/volume1/pub", db);
  for (int i = 0; i < 20; ++i) EXPECT_EQ("fresh.txt", Found(req, i % 2 ? "root" : "ann"));
  // A document that does not say which file it is shows to nobody filtered.
  Xapian::WritableDatabase w(db);
  const std::string unique = kestondri::index::UniqueTerm("/volume1/pub/fresh.txt");
  Xapian::Document doc = w.get_document(*w.postlist_begin(unique));
  doc.remove_value(kestondri::index::kSlotIdentity);
  w.replace_document(unique, doc);
  w.close();
  EXPECT_EQ("", Found(req, "ann"));

  // Rebuilds and compactions exchange the folders.
  WriteFile("/volume1/pub/exchanged.txt", "a swapword\n");
  Load("/volume1/pub", other);
  ASSERT_EQ(0, renameat2(AT_FDCWD, other.c_str(), AT_FDCWD, db.c_str(), RENAME_EXCHANGE));
  for (int i = 0; i < 20; ++i) EXPECT_EQ("exchanged.txt", Found(Query("swapword", "", {kPub})));
  Shell("rm -rf " + other);

  // Damaged, missing and remote indices.
  auto reply = Exchange(Query("quarterly", "", {kBroken, "fileindex_nosuch", kDocs}));
  EXPECT_EQ("report.txt", Joined(reply));
  EXPECT_TRUE(reply.back()["success"].asBool());
  EXPECT_EQ(2u, Exchange(Query("quarterly", "", {kBroken})).size()) << "empty, not a failure";

  Put("/volume2/far/remote.txt", "ann", 0600, "faraway mutex lives here\n");
  Load("/volume2/far", "/volume2/remote-db");
  // Its own process group: xapian-tcpsrv signals its whole group.
  ChildProcess server;
  server.Run({"xapian-tcpsrv", "--quiet", "--interface", "127.0.0.1", "--port", "39411",
              "/volume2/remote-db"},
             false, true);
  // Listening before the daemon first tries it, which would back off.
  Shell(
      "bash -c 'for i in $(seq 500); do (: </dev/tcp/127.0.0.1/39411) 2>/dev/null && exit; "
      "sleep 0.01; done; exit 1'");
  WriteFile("/volume2/@kestondri/index/far", "remote 127.0.0.1:39411\n");
  const Json::Value both = Query("faraway OR quarterly", "", {kDocs, "fileindex_far"});
  EXPECT_EQ("remote.txt, report.txt", Found(both));
  EXPECT_EQ("", Found(Query("faraway", "", {"fileindex_far"}), "bob"));
  EXPECT_EQ("remote.txt", Found(Query("faraway", "", {"fileindex_far"}), "ann"));
  server.Stop();
  EXPECT_EQ("report.txt", Found(both));

  WriteFile("/volume1/@kestondri/index/pub.checking", "");
  auto status = Exchange(Request("list_db_status", Json::Value(Json::objectValue)));
  unlink("/volume1/@kestondri/index/pub.checking");
  unlink("/volume2/@kestondri/index/far");
  EXPECT_EQ(R"({"data":{"checking":["fileindex_pub"],"crashed":["fileindex_broken"],)"
            R"("unknown":["fileindex_far","fileindex_nosuch"]},"success":true})",
            Json::toString(status.at(0)));
}

}  // namespace
}  // namespace kesttest
