// Latency of kestelasticd over its socket against the same work done
// in-process on the same Xapian database, for a fixed list of queries.
//
//   kest_daemon_bench --db DB_PATH --index-id ID --queries queries.tsv
//                     [--socket PATH] [--rounds N] [--filter-uid UID]
//                     [--search-only] [--quest] [--recoll-conf DIR]
//
// --quest and --recoll-conf add peers, each timed as a whole process per
// query (spawn to exit, output thrown away), 50 results: Xapian's quest on
// the same database with the daemon's prefixes and parser flags, and
// recollq on a recoll index of the same tree (the queries' fourth column).
//
// queries.tsv: id, class, Xapian query text, ... (tab-separated; lines
// starting with '#' are skipped). Prints one line per measurement with the
// median, p95 and p99 in milliseconds.
#include <fcntl.h>
#include <getopt.h>
#include <kest/json.h>
#include <kestdaemon/sock_connection.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <xapian.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "command_handler.h"
#include "highlighter.h"
#include "index_cache.h"
#include "index_resolver.h"
#include "index_schema.h"
#include "query_builder.h"
#include "reply_frame.h"

namespace {

using Clock = std::chrono::steady_clock;
using kestondri::daemon::QueryParts;

struct Options {
  std::string db;
  std::string index_id;
  std::string queries;
  std::string socket = "/var/run/kestelasticd.sock";
  int rounds = 10;
  long filter_uid = -1;
  // Only the plain search page, in-process and over the socket: the pair
  // that measures the socket's own cost, quick enough to profile.
  bool search_only = false;
  bool quest = false;
  std::string recoll_conf;
};

const char* const kTypes[] = {"document", "photo", "video", "audio", "folder", "other", "all"};

struct Query {
  std::string xapian;  // the daemon's and quest's form
  std::string recoll;  // recollq's form
};

std::vector<Query> LoadQueries(const std::string& path) {
  std::vector<Query> out;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::vector<std::string> cols;
    size_t start = 0;
    for (size_t tab; (tab = line.find('\t', start)) != std::string::npos; start = tab + 1) {
      cols.push_back(line.substr(start, tab - start));
    }
    cols.push_back(line.substr(start));
    if (cols.size() >= 3) out.push_back({cols[2], cols.size() >= 4 ? cols[3] : cols[2]});
  }
  return out;
}

// Runs `argv` with its output thrown away and waits for it to end; exits
// the benchmark when it cannot run or fails.
void RunPeer(const std::vector<std::string>& argv) {
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  int status = 0;
  const int rc = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status) ||
      WEXITSTATUS(status) != 0) {
    std::fprintf(stderr, "peer failed: %s\n", argv[0].c_str());
    std::exit(1);
  }
}

struct Stats {
  std::vector<double> ms;
  void Add(Clock::duration d) {
    ms.push_back(std::chrono::duration<double, std::milli>(d).count());
  }
  double Pct(double p) {
    if (ms.empty()) return 0;
    std::sort(ms.begin(), ms.end());
    size_t i = static_cast<size_t>(p * static_cast<double>(ms.size() - 1) + 0.5);
    return ms[std::min(i, ms.size() - 1)];
  }
};

std::map<std::string, Stats> g_stats;
std::vector<std::string> g_order;

void Time(const std::string& name, const std::function<void()>& fn) {
  if (!g_stats.count(name)) g_order.push_back(name);
  auto t0 = Clock::now();
  fn();
  g_stats[name].Add(Clock::now() - t0);
}

std::vector<Json::Value> Exchange(const std::string& socket, const Json::Value& req) {
  std::vector<Json::Value> out;
  kestdaemon::DomainSockConnection conn(socket);
  if (!conn.Connect(60) || !conn.Send(Json::toString(req))) {
    std::fprintf(stderr, "cannot reach the daemon\n");
    std::exit(1);
  }
  std::string text;
  while (conn.Recv(text)) {
    Json::Value v;
    Json::fromString(v, text);
    const bool last = v.isMember("success") && !v.isMember("total");
    out.push_back(std::move(v));
    if (last) break;
  }
  return out;
}

Json::Value SearchRequest(const Options& o, const std::string& keyword, bool highlight) {
  Json::Value d;
  d["fields"] = Json::Value(Json::arrayValue);
  if (o.filter_uid >= 0) {
    d["filters"][0u]["name"] = "permission";
    d["filters"][0u]["data"] = static_cast<Json::UInt>(o.filter_uid);
  }
  d["pre_query"]["keyword"] = keyword;
  d["pre_query"]["criteria_list"] = Json::Value(Json::arrayValue);
  d["pre_query"]["file_type"] = "";
  d["pre_query"]["search_weight_list"] = Json::Value();
  d["orig_keyword"] = keyword;
  d["indice"].append(o.index_id);
  d["from"] = 0;
  d["size"] = 50;
  d["default_search_op"] = "AND";
  d["accurate_sum"] = false;
  for (const char* f :
       {"KESTMDPath", "KESTMDFSName", "KESTMDExtension", "KESTMDIsDir", "KESTMDFSSize"}) {
    d["load_field"].append(f);
  }
  d["lazy_field"].append("KESTMDTextContent");
  d["collector"]["agent"] = "others";
  d["collector"]["uid"] = 0;
  d["collector"]["has_criteria"] = false;
  if (highlight) {
    d["highlight"][0u]["field"] = "KESTMDTextContent";
    d["highlight"][0u]["frag_length"] = 100;
    d["highlight"][0u]["num_fragments"] = 1;
  }
  Json::Value r;
  r["command"] = "search";
  r["data"] = d;
  return r;
}

// Frames each message as the daemon's socket sink does, and throws the
// bytes away: the handler's whole work, without the socket.
class NullSink : public kestondri::daemon::ReplySink {
 public:
  bool Send(const Json::Value& message) override {
    frames.clear();
    kestondri::daemon::AppendFrame(message, &frames);
    bytes += frames.size();
    return true;
  }
  std::string frames;
  size_t bytes = 0;
};

}  // namespace

int main(int argc, char** argv) {
  Options o;
  static const option opts[] = {{"db", required_argument, nullptr, 'd'},
                                {"index-id", required_argument, nullptr, 'i'},
                                {"queries", required_argument, nullptr, 'q'},
                                {"socket", required_argument, nullptr, 's'},
                                {"rounds", required_argument, nullptr, 'r'},
                                {"filter-uid", required_argument, nullptr, 'u'},
                                {"search-only", no_argument, nullptr, 'o'},
                                {"quest", no_argument, nullptr, 'Q'},
                                {"recoll-conf", required_argument, nullptr, 'R'},
                                {nullptr, 0, nullptr, 0}};
  int c;
  while ((c = getopt_long(argc, argv, "", opts, nullptr)) != -1) {
    switch (c) {
      case 'd':
        o.db = optarg;
        break;
      case 'i':
        o.index_id = optarg;
        break;
      case 'q':
        o.queries = optarg;
        break;
      case 's':
        o.socket = optarg;
        break;
      case 'r':
        o.rounds = std::atoi(optarg);
        break;
      case 'u':
        o.filter_uid = std::atol(optarg);
        break;
      case 'o':
        o.search_only = true;
        break;
      case 'Q':
        o.quest = true;
        break;
      case 'R':
        o.recoll_conf = optarg;
        break;
      default:
        return 2;
    }
  }
  if (o.db.empty() || o.index_id.empty() || o.queries.empty()) {
    std::fprintf(stderr, "usage: kest_daemon_bench --db DB --index-id ID --queries TSV\n");
    return 2;
  }
  std::vector<Query> queries = LoadQueries(o.queries);
  Xapian::Database db(o.db);
  std::printf("index: %u documents; %zu queries x %d rounds\n", db.get_doccount(), queries.size(),
              o.rounds);

  kestondri::daemon::StaticIndexResolver resolver;
  resolver.Add(o.index_id, {o.db, ""});
  kestondri::daemon::MissingIndexLog missing;
  kestondri::daemon::CommandHandler handler(resolver, missing);
  kestondri::daemon::IndexCache cache(resolver, missing);
  kestondri::daemon::Peer root;
  std::map<std::string, Xapian::doccount> totals;
  kestondri::daemon::IndexTraits traits;
  kestondri::daemon::AddIndexTraits(db, true, &traits);
  for (int round = -1; round < o.rounds; ++round) {
    bool warm = round < 0;
    for (const auto& query : queries) {
      const std::string& q = query.xapian;
      auto time = [&](const std::string& name, const std::function<void()>& fn) {
        if (warm) {
          fn();
        } else {
          Time(name, fn);
        }
      };
      QueryParts parts;
      parts.keyword = q;
      Xapian::doccount total = 0;
      if (!o.search_only) {
        // In-process: parse and match a 50-hit page, estimated total.
        time("inproc match 50 (estimated total)", [&] {
          Xapian::Enquire e(db);
          e.set_query(kestondri::daemon::BuildQuery(parts, db, traits));
          Xapian::MSet m = e.get_mset(0, 50);
          (void)m.size();
        });
        // In-process: what the daemon does for a search: exact total, the
        // page's documents and their fields.
        time("inproc page 50 with data, exact total", [&] {
          Xapian::Enquire e(db);
          e.set_query(kestondri::daemon::BuildQuery(parts, db, traits));
          Xapian::MSet m = e.get_mset(0, 50, db.get_doccount());
          m.fetch();
          for (auto it = m.begin(); it != m.end(); ++it) {
            Xapian::Document d = it.get_document();
            (void)d.get_value(kestondri::index::kSlotPath);
            (void)d.get_value(kestondri::index::kSlotName);
            (void)d.get_value(kestondri::index::kSlotSize);
          }
          total = m.get_matches_estimated();
        });
        totals[q] = total;
        time("inproc page 50 with data, total exact to 1000", [&] {
          Xapian::Enquire e(db);
          e.set_query(kestondri::daemon::BuildQuery(parts, db, traits));
          Xapian::MSet m = e.get_mset(0, 50, 1000);
          m.fetch();
          for (auto it = m.begin(); it != m.end(); ++it) {
            Xapian::Document d = it.get_document();
            (void)d.get_value(kestondri::index::kSlotPath);
            (void)d.get_value(kestondri::index::kSlotName);
            (void)d.get_value(kestondri::index::kSlotSize);
          }
        });
        time("inproc page 50 + 10 bounded snippets", [&] {
          Xapian::Enquire e(db);
          e.set_query(kestondri::daemon::BuildQuery(parts, db, traits));
          Xapian::MSet m = e.get_mset(0, 50, db.get_doccount());
          m.fetch();
          auto marks = kestondri::daemon::KeywordMarkTerms(q, traits.stemmers);
          kestondri::daemon::FragmentOptions fo;
          fo.num_fragments = 1;
          fo.scan_limit = 64u << 10;
          int n = 0;
          for (auto it = m.begin(); it != m.end(); ++it, ++n) {
            Xapian::Document d = it.get_document();
            (void)d.get_value(kestondri::index::kSlotPath);
            if (n < 10) (void)kestondri::daemon::HighlightFragments(d.get_data(), marks, fo);
          }
        });
        for (int with : {10, 50}) {
          time("inproc page 50, data of " + std::to_string(with) + " hits only", [&] {
            Xapian::Enquire e(db);
            e.set_query(kestondri::daemon::BuildQuery(parts, db, traits));
            Xapian::MSet m = e.get_mset(0, 50, db.get_doccount());
            m.fetch();
            int n = 0;
            for (auto it = m.begin(); it != m.end() && n < with; ++it, ++n) {
              (void)it.get_document().get_data();
            }
          });
        }
        time("inproc page 50 + 50 bounded snippets", [&] {
          Xapian::Enquire e(db);
          e.set_query(kestondri::daemon::BuildQuery(parts, db, traits));
          Xapian::MSet m = e.get_mset(0, 50, db.get_doccount());
          m.fetch();
          auto marks = kestondri::daemon::KeywordMarkTerms(q, traits.stemmers);
          kestondri::daemon::FragmentOptions fo;
          fo.num_fragments = 1;
          fo.scan_limit = 64u << 10;
          for (auto it = m.begin(); it != m.end(); ++it) {
            (void)kestondri::daemon::HighlightFragments(it.get_document().get_data(), marks, fo);
          }
        });
        time("inproc exact counts, 7 types", [&] {
          for (const char* t : kTypes) {
            QueryParts s = parts;
            s.file_type = t;
            Xapian::Enquire e(db);
            e.set_query(kestondri::daemon::BuildQuery(s, db, traits));
            (void)e.get_mset(0, 0, db.get_doccount()).get_matches_estimated();
          }
        });
      }
      Json::Value search = SearchRequest(o, q, false);
      std::string search_text = Json::toString(search);
      time("inproc daemon handler, search page 50", [&] {
        NullSink sink;
        handler.Handle(search_text, root, cache, sink);
      });
      std::vector<Json::Value> reply;
      time("daemon search page 50", [&] { reply = Exchange(o.socket, search); });
      if (warm && !o.search_only && o.filter_uid < 0 && !reply.empty() && total <= 1000 &&
          reply[0]["total"].asUInt() != total) {
        std::fprintf(stderr, "total differs for %s: %u vs %u\n", q.c_str(),
                     reply[0]["total"].asUInt(), total);
      }
      if (o.search_only) continue;
      Json::Value with_hl = SearchRequest(o, q, true);
      std::string with_hl_text = Json::toString(with_hl);
      time("inproc daemon handler, page 50 + snippet per hit", [&] {
        NullSink sink;
        handler.Handle(with_hl_text, root, cache, sink);
      });
      time("daemon search page 50 + snippet per hit", [&] { Exchange(o.socket, with_hl); });
      Json::Value ind;
      ind["command"] = "indicate";
      ind["data"]["keyword"] = q;
      ind["data"]["indice"].append(o.index_id);
      for (const char* t : kTypes) {
        Json::Value one;
        one["name"] = t;
        if (o.filter_uid >= 0) {
          one["query"]["filters"][0u]["name"] = "permission";
          one["query"]["filters"][0u]["data"] = static_cast<Json::UInt>(o.filter_uid);
        }
        Json::Value f;
        f["name"] = "file_type";
        f["data"] = t;
        one["query"]["filters"].append(f);
        ind["data"]["queries"].append(one);
      }
      time("daemon indicate, 7 types", [&] { Exchange(o.socket, ind); });
      if (reply.size() > 2) {
        Json::Value hl;
        hl["command"] = "highlight";
        hl["data"]["id"] = o.index_id;
        hl["data"]["doc_id"] = reply[1]["doc_id"];
        hl["data"]["keyword"] = q;
        hl["data"]["highlight"]["num_fragments"] = 3;
        hl["data"]["highlight"]["frag_length"] = 100;
        time("daemon highlight, top hit", [&] { Exchange(o.socket, hl); });
      }
    }
  }
  // quest with the daemon's prefixes and parser flags; it stems by default,
  // which this index does not.
  const std::string xc = kestondri::index::kPrefixContent;
  const std::string xn = kestondri::index::kPrefixName;
  const std::string xe = kestondri::index::kPrefixExtension;
  std::vector<std::string> quest = {"quest", "-s", "none", "-d", o.db, "-m", "50", "-o", "and"};
  quest.insert(quest.end(), {"-f", "boolean,phrase,lovehate,wildcard,pure_not"});
  for (const std::string& prefix :
       {":" + xc, ":" + xn, "name:" + xn, "file:" + xn, "content:" + xc, "ext:" + xe}) {
    quest.insert(quest.end(), {"-p", prefix});
  }
  // Peers run after the daemon's rounds, not between its requests: a
  // process start and exit next to a request disturbs the two-process
  // exchange more than the in-process lines.
  for (int round = -1; round < o.rounds && (o.quest || !o.recoll_conf.empty()); ++round) {
    for (const auto& query : queries) {
      auto run = [&](const std::string& name, std::vector<std::string> argv,
                     const std::string& text) {
        argv.push_back(text);
        if (round < 0) {
          RunPeer(argv);
        } else {
          Time(name, [&] { RunPeer(argv); });
        }
      };
      if (o.quest) run("peer: quest -m 50, whole process", quest, query.xapian);
      if (!o.recoll_conf.empty()) {
        run("peer: recollq -n 50, whole process", {"recollq", "-c", o.recoll_conf, "-n", "50"},
            query.recoll);
      }
    }
  }
  std::printf("%-44s %9s %9s %9s %6s\n", "measurement (ms)", "p50", "p95", "p99", "n");
  for (const auto& name : g_order) {
    Stats& s = g_stats[name];
    std::printf("%-44s %9.3f %9.3f %9.3f %6zu\n", name.c_str(), s.Pct(0.5), s.Pct(0.95),
                s.Pct(0.99), s.ms.size());
  }
  std::printf("\nper-query totals:\n");
  for (const auto& q : queries) {
    std::printf("  %-36s %u\n", q.xapian.c_str(), totals[q.xapian]);
  }
  return 0;
}
