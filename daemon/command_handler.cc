#include "command_handler.h"

#include <kest/json.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <optional>
#include <set>

#include "daemon_errors.h"
#include "highlighter.h"
#include "index_schema.h"
#include "query_builder.h"
#include "user_access.h"

namespace kestondri {
namespace daemon {
namespace {

[[noreturn]] void Malformed(const std::string& what) {
  throw DaemonError(kErrMalformedRequest, what);
}

Json::Value ErrorReply(int code, const std::string& msg) {
  Json::Value reply(Json::objectValue);
  reply["success"] = false;
  reply["error"]["code"] = code;
  reply["error"]["msg"] = msg;
  return reply;
}

Json::Value Success() {
  Json::Value reply(Json::objectValue);
  reply["success"] = true;
  return reply;
}

std::string OptionalString(const Json::Value& obj, const char* key, const std::string& fallback) {
  if (!obj.isObject() || !obj.isMember(key) || obj[key].isNull()) return fallback;
  if (!obj[key].isString()) Malformed(std::string("\"") + key + "\" is not a string");
  return obj[key].asString();
}

int64_t OptionalInt(const Json::Value& obj, const char* key, int64_t fallback) {
  if (!obj.isObject() || !obj.isMember(key) || obj[key].isNull()) return fallback;
  if (!obj[key].isInt64()) Malformed(std::string("\"") + key + "\" is not an integer");
  return obj[key].asInt64();
}

// The uid whose view a request gets, if any. A peer that is not root is
// always filtered by its own uid: the socket is open to every local user,
// so what the request says about filtering cannot be trusted.
std::optional<uid_t> FilterUid(const Json::Value& filters, const Peer& peer) {
  if (peer.uid != 0) return peer.uid;
  if (!filters.isArray()) return std::nullopt;
  for (const auto& f : filters) {
    if (!f.isObject() || f["name"] != "permission") continue;
    const Json::Value& uid = f["data"];
    if (!uid.isUInt()) Malformed("the permission filter needs a uid");
    return static_cast<uid_t>(uid.asUInt());
  }
  return std::nullopt;
}

std::unique_ptr<UserAccess> MakeAccess(const std::optional<uid_t>& uid, const Peer& peer) {
  if (!uid) return nullptr;
  if (*uid == peer.uid && peer.uid != 0) return std::make_unique<UserAccess>(*uid, peer.gid);
  return std::make_unique<UserAccess>(*uid);
}

// The "file_type" filters of a query, joined to the pre-query's type.
std::vector<std::string> FilterTypes(const Json::Value& filters) {
  std::vector<std::string> types;
  if (!filters.isArray()) return types;
  for (const auto& f : filters) {
    if (!f.isObject() || f["name"] != "file_type") continue;
    if (!f["data"].isString()) Malformed("the file_type filter needs a string");
    types.push_back(f["data"].asString());
  }
  return types;
}

struct Shards {
  std::vector<std::string> ids;  // in the order of the combined database
  // Per shard, the folder its hits must lie within ("" for anywhere).
  std::vector<std::string> roots;
  Xapian::Database combined;
  IndexTraits traits;
};

// Adds what one index brings to the traits of a search. A database folder
// is local; a stub file names databases elsewhere.
void AddTraits(const Xapian::Database& db, const IndexLocation& location, IndexTraits* traits) {
  struct stat st;
  const bool local = stat(location.db_path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
  AddIndexTraits(db, local, traits);
}

// The traits of the index of one document (highlight).
IndexTraits TraitsOf(const Xapian::Database& db, const IndexLocation& location) {
  IndexTraits traits;
  AddTraits(db, location, &traits);
  return traits;
}

// Where a filtered user may look in each index, by its share's rules
// (anywhere for an unfiltered request). An index whose share leaves the
// user out is skipped as if it did not exist.
class ShareScopes {
 public:
  ShareScopes(const IndexResolver& resolver, const std::optional<uid_t>& uid)
      : resolver_(resolver), uid_(uid) {}
  // False when the user may see nothing of `id`; else `*root` as in Shards.
  bool Admit(const std::string& id, std::string* root) {
    root->clear();
    if (!uid_) return true;
    const std::string share = resolver_.ShareName(id);
    if (share.empty()) return true;
    auto it = scopes_.find(share);
    if (it == scopes_.end()) it = scopes_.emplace(share, ShareScope(share, *uid_)).first;
    if (!it->second) return false;
    *root = *it->second;
    return true;
  }

 private:
  const IndexResolver& resolver_;
  std::optional<uid_t> uid_;
  std::map<std::string, std::optional<std::string>> scopes_;
};

Shards OpenShards(const Json::Value& indice, IndexCache& cache, ShareScopes& scopes) {
  if (!indice.isArray()) Malformed("\"indice\" is not an array");
  Shards shards;
  std::set<std::string> seen;
  for (const auto& id : indice) {
    if (!id.isString()) Malformed("\"indice\" holds a non-string");
    std::string name = id.asString();
    if (!seen.insert(name).second) continue;
    std::string root;
    if (!scopes.Admit(name, &root)) continue;
    IndexState state;
    IndexLocation location;
    // Unavailable indices are left out here and named by list_db_status.
    Xapian::Database* db = cache.Acquire(name, &state, &location);
    if (!db) continue;
    shards.ids.push_back(name);
    shards.roots.push_back(root);
    shards.combined.add_database(*db);
    AddTraits(*db, location, &shards.traits);
  }
  return shards;
}

struct Match {
  Xapian::docid docid;
  double weight;
  Xapian::Document doc;
};

struct MatchPage {
  Xapian::doccount total = 0;
  std::vector<Match> hits;
};

// The values of `slot` of `ids`, read from the slot's value stream in docid
// order (far cheaper than a document each); one document each where the
// backend has no value streams (remote indices).
std::vector<std::string> ValuesOf(const Xapian::Database& db, const std::vector<Xapian::docid>& ids,
                                  Xapian::valueno slot) {
  std::vector<std::string> values(ids.size());
  std::vector<size_t> order(ids.size());
  for (size_t i = 0; i < order.size(); ++i) order[i] = i;
  std::sort(order.begin(), order.end(), [&](size_t a, size_t b) { return ids[a] < ids[b]; });
  try {
    Xapian::ValueIterator it = db.valuestream_begin(slot);
    Xapian::ValueIterator end = db.valuestream_end(slot);
    for (size_t i : order) {
      if (it == end) break;
      it.skip_to(ids[i]);
      if (it != end && it.get_docid() == ids[i]) values[i] = *it;
    }
    return values;
  } catch (const Xapian::UnimplementedError&) {
  } catch (const Xapian::NetworkError&) {
  }
  for (size_t i = 0; i < ids.size(); ++i) values[i] = db.get_document(ids[i]).get_value(slot);
  return values;
}

// Totals of unfiltered searches that may be estimates are exact up to here.
constexpr Xapian::doccount kExactUpTo = 1000;

// Runs `query` over `shards` and keeps the page [from, from + size) of what
// `access` lets through (everything when it is null): files the user may
// read, within the shard's root, still the very file that was indexed. The
// total counts only what passes; it is exact when filtered or when
// `exact_total`, else Xapian's estimate.
MatchPage RunQuery(const Shards& shards, const Xapian::Query& query, int64_t from, int64_t size,
                   UserAccess* access, bool exact_total = true) {
  MatchPage page;
  const Xapian::Database& db = shards.combined;
  Xapian::Enquire enquire(db);
  enquire.set_query(query);
  enquire.set_docid_order(Xapian::Enquire::ASCENDING);
  if (access) {
    // BM25's statistics count every document of the index, those the user
    // may not read too, and a score would tell how many of them hold a
    // word. A filtered score is the document's own: 1 + log(wdf) per
    // matching term, so files where the words occur more, and in both name
    // and text, still come first.
    enquire.set_weighting_scheme(Xapian::TfIdfWeight("lnn"));
  }
  Xapian::doccount all = db.get_doccount();
  if (!access) {
    // An estimate is exact up to kExactUpTo matches and close beyond.
    Xapian::doccount check =
        exact_total
            ? all
            : std::max<Xapian::doccount>(kExactUpTo, static_cast<Xapian::doccount>(from + size));
    Xapian::MSet mset = enquire.get_mset(static_cast<Xapian::doccount>(from),
                                         static_cast<Xapian::doccount>(size), check);
    page.total = mset.get_matches_estimated();
    // Prefetching lets a remote index send all the page's documents in one
    // go; Xapian 1.4 crashes prefetching a page that does not start at 0.
    if (from == 0) mset.fetch();
    for (auto it = mset.begin(); it != mset.end(); ++it) {
      page.hits.push_back({*it, it.get_weight(), it.get_document()});
    }
    return page;
  }
  // Every match is checked so that the total, too, counts only what the
  // user may see: a count of hidden files is itself a leak.
  Xapian::MSet mset = enquire.get_mset(0, all, all);
  std::vector<Xapian::docid> ids;
  std::vector<double> weights;
  ids.reserve(mset.size());
  weights.reserve(mset.size());
  for (auto it = mset.begin(); it != mset.end(); ++it) {
    ids.push_back(*it);
    weights.push_back(it.get_weight());
  }
  std::vector<std::string> paths = ValuesOf(db, ids, index::kSlotPath);
  const std::vector<std::string> identities = ValuesOf(db, ids, index::kSlotIdentity);
  const size_t n = shards.roots.size();
  for (size_t i = 0; i < ids.size(); ++i) {
    const std::string& root = shards.roots[(ids[i] - 1) % n];
    if (!root.empty() && !PathWithin(paths[i], root)) paths[i].clear();
  }
  std::vector<bool> visible = access->CheckAll(paths, &identities);
  for (size_t i = 0; i < ids.size(); ++i) {
    if (!visible[i]) continue;
    int64_t rank = page.total++;
    if (rank >= from && rank < from + size) {
      page.hits.push_back({ids[i], weights[i], db.get_document(ids[i])});
    }
  }
  return page;
}

struct HighlightSetting {
  std::string field = index::kFieldContent;
  FragmentOptions options;
};

HighlightSetting ReadHighlightSetting(const Json::Value& obj, size_t scan_limit) {
  HighlightSetting parts;
  parts.options.scan_limit = scan_limit;
  if (obj.isNull()) return parts;
  if (!obj.isObject()) Malformed("a highlight setting is not an object");
  parts.field = OptionalString(obj, "field", parts.field);
  parts.options.name_words = parts.field == index::kFieldName || parts.field == index::kFieldPath;
  int64_t len = OptionalInt(obj, "frag_length", 100);
  int64_t num = OptionalInt(obj, "num_fragments", 3);
  parts.options.frag_length = static_cast<size_t>(std::clamp<int64_t>(
      len, static_cast<int64_t>(kMinFragLength), static_cast<int64_t>(kMaxFragLength)));
  parts.options.num_fragments =
      static_cast<size_t>(std::clamp<int64_t>(num, 0, static_cast<int64_t>(kMaxNumFragments)));
  return parts;
}

// The text of `field` of a document, as far as the index holds it.
std::string FieldText(const Xapian::Document& doc, const std::string& field) {
  if (field == index::kFieldContent) return doc.get_data();
  if (field == index::kFieldName) return doc.get_value(index::kSlotName);
  if (field == index::kFieldPath) return doc.get_value(index::kSlotPath);
  return "";
}

bool IsKnownField(const std::string& field) {
  return field == index::kFieldContent || field == index::kFieldName || field == index::kFieldPath;
}

// The value slots a hit's fields come from.
constexpr size_t kHitSlots = index::kSlotOwner + 1;
using HitValues = std::array<std::string, kHitSlots>;

// The slot `field` loads from, or -1 for a field hits never carry (the text
// content: that is what highlight is for) or an unknown one.
int FieldSlot(const std::string& field) {
  using namespace index;
  if (field == kFieldPath) return kSlotPath;
  if (field == kFieldName) return kSlotName;
  if (field == kFieldExtension) return kSlotExtension;
  if (field == kFieldIsDir) return kSlotIsDir;
  if (field == kFieldSize) return kSlotSize;
  if (field == kFieldMTime) return kSlotMTime;
  if (field == kFieldOwner) return kSlotOwner;
  return -1;
}

// The values of `slots` for every hit of a page, read slot by slot along
// the value streams in docid order, which shares the index's blocks between
// neighbouring hits (a value read per document looks each one up afresh).
// One document at a time where the backend has no value streams (remote
// indices).
std::vector<HitValues> PageValues(const Xapian::Database& db, const std::vector<Match>& hits,
                                  const std::vector<int>& slots) {
  std::vector<HitValues> values(hits.size());
  std::vector<size_t> order(hits.size());
  for (size_t i = 0; i < order.size(); ++i) order[i] = i;
  std::sort(order.begin(), order.end(),
            [&](size_t a, size_t b) { return hits[a].docid < hits[b].docid; });
  try {
    for (int slot : slots) {
      Xapian::ValueIterator it = db.valuestream_begin(slot);
      Xapian::ValueIterator end = db.valuestream_end(slot);
      for (size_t i : order) {
        if (it == end) break;
        it.skip_to(hits[i].docid);
        if (it != end && it.get_docid() == hits[i].docid) values[i][slot] = *it;
      }
    }
    return values;
  } catch (const Xapian::UnimplementedError&) {
  } catch (const Xapian::NetworkError&) {
  }
  for (size_t i = 0; i < hits.size(); ++i) {
    for (int slot : slots) values[i][slot] = hits[i].doc.get_value(slot);
  }
  return values;
}

double SlotNumber(const std::string& value) {
  return value.empty() ? 0.0 : Xapian::sortable_unserialise(value);
}

void LoadField(const HitValues& values, const std::string& field, Json::Value& hit) {
  using namespace index;
  const int slot = FieldSlot(field);
  if (slot < 0) return;
  const std::string& value = values[slot];
  switch (slot) {
    case kSlotIsDir:
      hit[field] = value == "1";
      break;
    case kSlotSize:
      hit[field] = static_cast<Json::UInt64>(SlotNumber(value));
      break;
    case kSlotMTime:
      hit[field] = static_cast<Json::Int64>(SlotNumber(value));
      break;
    default:
      hit[field] = value;
  }
}

std::vector<std::string> StringList(const Json::Value& list, const char* key) {
  if (!list.isArray()) Malformed(std::string("\"") + key + "\" is not an array");
  std::vector<std::string> out;
  for (const auto& f : list) {
    if (!f.isString()) Malformed(std::string("\"") + key + "\" holds a non-string");
    out.push_back(f.asString());
  }
  return out;
}

// The fields a hit carries besides its path and owner (which every hit
// has): those of "fields" when it names any, since that is the client's
// own list; else those of "load_field" (the module's fixed list, or all
// but the date when absent) and the modification date, which a results
// page shows.
std::vector<std::string> HitFieldList(const Json::Value& data) {
  const Json::Value& asked = data["fields"];
  if (!asked.isNull()) {
    std::vector<std::string> fields = StringList(asked, "fields");
    if (!fields.empty()) return fields;
  }
  std::vector<std::string> fields;
  const Json::Value& list = data["load_field"];
  if (list.isNull()) {
    fields = {index::kFieldPath, index::kFieldName, index::kFieldExtension, index::kFieldIsDir,
              index::kFieldSize};
  } else {
    fields = StringList(list, "load_field");
  }
  fields.push_back(index::kFieldMTime);
  return fields;
}

QueryParts ReadQueryParts(const std::string& keyword, const Json::Value& criteria,
                          const Json::Value& weights, const std::string& op) {
  QueryParts parts;
  parts.keyword = keyword;
  parts.default_or = op == "OR";
  parts.criteria_list = criteria;
  parts.weights = weights;
  return parts;
}

// Joins the types of the filters to `query`: all must hold.
Xapian::Query WithTypes(Xapian::Query query, const std::vector<std::string>& types,
                        const Shards& shards) {
  for (const auto& type : types) {
    QueryParts only_type;
    only_type.file_type = type;
    query = Xapian::Query(Xapian::Query::OP_FILTER, query,
                          BuildQuery(only_type, shards.combined, shards.traits));
  }
  return query;
}

}  // namespace

void CommandHandler::Handle(const std::string& text, const Peer& peer, IndexCache& cache,
                            ReplySink& out) const {
  Json::Value request;
  try {
    if (!Json::fromString(request, text) || !request.isObject()) {
      Malformed("the request is not a JSON object");
    }
    const Json::Value& command = request["command"];
    if (!command.isString()) Malformed("the request has no \"command\" string");
    Json::Value data = request["data"];
    if (data.isNull()) data = Json::Value(Json::objectValue);
    if (!data.isObject()) Malformed("\"data\" is not an object");
    std::string name = command.asString();
    if (name == "search") {
      Search(data, peer, cache, out);
    } else if (name == "list_db_status") {
      ListDbStatus(cache, out);
    } else if (name == "highlight") {
      Highlight(data, peer, cache, out);
    } else if (name == "indicate") {
      Indicate(data, peer, cache, out);
    } else {
      throw DaemonError(kErrUnknownCommand, "unknown command: " + name);
    }
  } catch (const DaemonError& e) {
    // The module shows its own words for this code: the reason is here.
    if (e.code() == kErrMalformedQuery) syslog(LOG_INFO, "keyword refused: %s", e.what());
    out.Send(ErrorReply(e.code(), e.what()));
  } catch (const Xapian::Error& e) {
    syslog(LOG_ERR, "request failed: %s", e.get_description().c_str());
    out.Send(ErrorReply(kErrInternal, "index error: " + e.get_description()));
  } catch (const std::exception& e) {
    syslog(LOG_ERR, "request failed: %s", e.what());
    out.Send(ErrorReply(kErrInternal, e.what()));
  }
}

void CommandHandler::Search(const Json::Value& data, const Peer& peer, IndexCache& cache,
                            ReplySink& out) const {
  const Json::Value& pre = data["pre_query"];
  if (!pre.isNull() && !pre.isObject()) Malformed("\"pre_query\" is not an object");
  QueryParts parts =
      ReadQueryParts(OptionalString(pre, "keyword", ""), pre["criteria_list"],
                     pre["search_weight_list"], OptionalString(data, "default_search_op", "AND"));
  parts.file_type = OptionalString(pre, "file_type", "");
  int64_t from = OptionalInt(data, "from", 0);
  int64_t size = OptionalInt(data, "size", 50);
  if (from < 0 || size < 0) Malformed("\"from\" and \"size\" must not be negative");
  size = std::min<int64_t>(size, kMaxPageSize);
  std::vector<std::string> fields = HitFieldList(data);
  std::vector<HighlightSetting> highlights;
  const Json::Value& hl = data["highlight"];
  if (hl.isArray()) {
    for (const auto& h : hl) {
      if (highlights.size() == kMaxHitHighlights) break;
      highlights.push_back(ReadHighlightSetting(h, kHitScanLimit));
    }
  } else if (hl.isObject()) {
    highlights.push_back(ReadHighlightSetting(hl, kHitScanLimit));
  } else if (!hl.isNull()) {
    Malformed("\"highlight\" is neither an array nor an object");
  }
  // Keeps a whole page of hits well inside what a client will read.
  for (auto& h : highlights) {
    h.options.num_fragments = std::min(h.options.num_fragments, kMaxHitFragments);
  }
  std::optional<uid_t> filter_uid = FilterUid(data["filters"], peer);
  parts.per_user = filter_uid.has_value();
  std::vector<std::string> types = FilterTypes(data["filters"]);
  const Json::Value& accurate = data["accurate_sum"];
  if (!accurate.isNull() && !accurate.isBool()) Malformed("\"accurate_sum\" is not a boolean");
  bool exact_total = accurate.isNull() || accurate.asBool();
  ShareScopes scopes(resolver_, filter_uid);
  Shards shards = OpenShards(data["indice"], cache, scopes);

  if (shards.ids.empty()) {
    Json::Value count(Json::objectValue);
    count["total"] = 0;
    if (out.Send(count)) out.Send(Success());
    return;
  }
  if (out.Abandoned()) return;
  std::unique_ptr<UserAccess> access = MakeAccess(filter_uid, peer);
  MarkTerms marks = KeywordMarkTerms(parts.keyword, shards.traits.stemmers);
  MatchPage page;
  try {
    Xapian::Query query =
        WithTypes(BuildQuery(parts, shards.combined, shards.traits), types, shards);
    page = RunQuery(shards, query, from, size, access.get(), exact_total);
  } catch (const Xapian::WildcardError& e) {
    throw DaemonError(kErrMalformedQuery, "wildcard matches too many terms: " + e.get_msg());
  } catch (const Xapian::Error&) {
    // Damaged, replaced or (remote) gone under us: forget it so the next
    // request reopens or reports it.
    for (const auto& id : shards.ids) cache.Drop(id);
    throw;
  }

  Json::Value count(Json::objectValue);
  count["total"] = static_cast<Json::UInt64>(page.total);
  if (!out.Send(count)) return;
  const size_t n = shards.ids.size();
  // Every hit carries its path and owner besides the fields asked for.
  std::vector<int> slots = {index::kSlotPath, index::kSlotOwner};
  for (const auto& f : fields) {
    const int slot = FieldSlot(f);
    if (slot >= 0 && std::find(slots.begin(), slots.end(), slot) == slots.end()) {
      slots.push_back(slot);
    }
  }
  std::vector<HitValues> values = PageValues(shards.combined, page.hits, slots);
  for (size_t i = 0; i < page.hits.size(); ++i) {
    // A page with fragments is long to build: not for a client that left.
    if (i % 16 == 15 && out.Abandoned()) return;
    const Match& match = page.hits[i];
    Json::Value hit(Json::objectValue);
    size_t shard = (match.docid - 1) % n;
    Xapian::docid local = (match.docid - 1) / static_cast<Xapian::docid>(n) + 1;
    for (const auto& f : fields) LoadField(values[i], f, hit);
    LoadField(values[i], index::kFieldPath, hit);
    LoadField(values[i], index::kFieldOwner, hit);
    hit["doc_id"] = static_cast<Json::UInt>(local);
    hit["_index"] = shards.ids[shard];
    hit["_id"] = shards.ids[shard] + "/" + std::to_string(local);
    hit["_score"] = match.weight;
    if (!highlights.empty()) {
      Json::Value& hl_out = hit["highlight"];
      hl_out = Json::Value(Json::objectValue);
      for (const auto& h : highlights) {
        Json::Value frags(Json::arrayValue);
        for (auto& f : HighlightFragments(FieldText(match.doc, h.field), marks, h.options)) {
          frags.append(f);
        }
        hl_out[h.field] = frags;
      }
    }
    if (!out.Send(hit)) return;
  }
  out.Send(Success());
}

void CommandHandler::ListDbStatus(IndexCache& cache, ReplySink& out) const {
  std::set<std::string> ids;
  for (const auto& id : resolver_.KnownIds()) ids.insert(id);
  std::vector<std::string> asked_missing = missing_.Ids();
  std::set<std::string> missing(asked_missing.begin(), asked_missing.end());
  for (const auto& id : asked_missing) ids.insert(id);
  Json::Value reply(Json::objectValue);
  reply["success"] = true;
  Json::Value& lists = reply["data"];
  lists["unknown"] = Json::Value(Json::arrayValue);
  lists["checking"] = Json::Value(Json::arrayValue);
  lists["crashed"] = Json::Value(Json::arrayValue);
  for (const auto& id : ids) {
    switch (cache.Probe(id)) {
      case IndexState::kReady:
        break;
      case IndexState::kUnknown:
        // A share that was never indexed is not news; one that a search
        // asked for and did not find is.
        if (missing.count(id)) lists["unknown"].append(id);
        break;
      case IndexState::kChecking:
        lists["checking"].append(id);
        break;
      case IndexState::kCrashed:
        lists["crashed"].append(id);
        break;
    }
  }
  out.Send(reply);
}

void CommandHandler::Highlight(const Json::Value& data, const Peer& peer, IndexCache& cache,
                               ReplySink& out) const {
  std::string id = OptionalString(data, "id", "");
  int64_t doc_id = OptionalInt(data, "doc_id", 0);
  std::string keyword = OptionalString(data, "keyword", "");
  HighlightSetting parts = ReadHighlightSetting(data["highlight"], index::kMaxStoredText);
  if (!IsKnownField(parts.field)) Malformed("cannot highlight field " + parts.field);
  if (doc_id <= 0 || doc_id > static_cast<int64_t>(UINT32_MAX)) {
    throw DaemonError(kErrNoDocument, "no such document");
  }
  // A share the peer may not search holds no document for them.
  // The module names the user as in a search: the path it checked is the
  // client's word, the document's own path is what counts.
  std::optional<uid_t> uid = FilterUid(data["filters"], peer);
  ShareScopes scopes(resolver_, uid);
  std::string root;
  if (!scopes.Admit(id, &root)) throw DaemonError(kErrNoDocument, "no such document");
  IndexState state;
  IndexLocation location;
  Xapian::Database* db = cache.Acquire(id, &state, &location);
  if (!db) {
    if (state == IndexState::kUnknown) throw DaemonError(kErrNoDocument, "no such index: " + id);
    throw DaemonError(kErrIndexUnavailable, "index unavailable: " + id);
  }
  Xapian::Document doc;
  try {
    doc = db->get_document(static_cast<Xapian::docid>(doc_id));
  } catch (const Xapian::DocNotFoundError&) {
    throw DaemonError(kErrNoDocument, "no such document");
  }
  if (uid) {
    std::unique_ptr<UserAccess> access = MakeAccess(uid, peer);
    // The same answer as for a missing document: whether a hidden file
    // exists is not the peer's to learn. The text shown is that of the
    // indexed file, so the path must still name it.
    const std::string path = doc.get_value(index::kSlotPath);
    const std::vector<std::string> identity = {doc.get_value(index::kSlotIdentity)};
    if ((!root.empty() && !PathWithin(path, root)) || !access->CheckAll({path}, &identity)[0]) {
      throw DaemonError(kErrNoDocument, "no such document");
    }
  }
  Json::Value frags(Json::arrayValue);
  for (auto& f : HighlightFragments(FieldText(doc, parts.field),
                                    KeywordMarkTerms(keyword, TraitsOf(*db, location).stemmers),
                                    parts.options)) {
    frags.append(f);
  }
  Json::Value reply = Success();
  reply["data"][parts.field] = frags;
  out.Send(reply);
}

void CommandHandler::Indicate(const Json::Value& data, const Peer& peer, IndexCache& cache,
                              ReplySink& out) const {
  // Whatever happens, the reply's "data" holds a count for every query, so
  // that the client always has something to show.
  Json::Value counts(Json::objectValue);
  const Json::Value& queries = data["queries"];
  if (queries.isArray() && queries.size() > kMaxIndicateQueries) {
    Json::Value reply =
        ErrorReply(kErrTooManyQueries, "too many queries: " + std::to_string(queries.size()) +
                                           ", at most " + std::to_string(kMaxIndicateQueries));
    reply["data"] = Json::Value(Json::objectValue);
    out.Send(reply);
    return;
  }
  if (queries.isArray()) {
    for (const auto& q : queries) {
      if (q.isObject() && q["name"].isString()) counts[q["name"].asString()] = 0;
    }
  }
  try {
    if (!queries.isNull() && !queries.isArray()) Malformed("\"queries\" is not an array");
    std::string keyword = OptionalString(data, "keyword", "");
    // Share rules follow the user: root may ask for several at once.
    std::map<int64_t, Shards> shards_of;
    std::map<uid_t, std::unique_ptr<UserAccess>> accesses;
    // Queries that differ only in their names, in repeated types or in the
    // spelling of their operator count the same: each is matched once.
    std::map<std::string, Json::UInt64> done;
    for (const auto& q : queries) {
      if (!q.isObject() || !q["name"].isString() ||
          (!q["query"].isNull() && !q["query"].isObject())) {
        Malformed("a query needs a \"name\" string and a \"query\" object");
      }
      const Json::Value& query = q["query"];
      std::optional<uid_t> uid = FilterUid(query["filters"], peer);
      auto found = shards_of.find(uid ? static_cast<int64_t>(*uid) : -1);
      if (found == shards_of.end()) {
        ShareScopes scopes(resolver_, uid);
        found = shards_of
                    .emplace(uid ? static_cast<int64_t>(*uid) : -1,
                             OpenShards(data["indice"], cache, scopes))
                    .first;
      }
      const Shards& shards = found->second;
      if (shards.ids.empty()) continue;
      QueryParts parts = ReadQueryParts(keyword, data["criteria_list"], data["search_weight_list"],
                                        OptionalString(query, "default_search_op", "AND"));
      std::vector<std::string> types = FilterTypes(query["filters"]);
      std::sort(types.begin(), types.end());
      types.erase(std::unique(types.begin(), types.end()), types.end());
      bool unknown_type = false;
      for (const auto& t : types) unknown_type |= !t.empty() && !index::IsKnownType(t);
      // A type this index does not know matches nothing.
      if (unknown_type) continue;
      parts.per_user = uid.has_value();
      std::string key = (uid ? std::to_string(*uid) : "-") + (parts.default_or ? "|OR" : "|AND");
      for (const auto& t : types) key += "|" + t;
      auto known = done.find(key);
      if (known != done.end()) {
        counts[q["name"].asString()] = known->second;
        continue;
      }
      // Nobody reads the counts of a client that left.
      if (out.Abandoned()) return;
      UserAccess* access = nullptr;
      if (uid) {
        auto& slot = accesses[*uid];
        if (!slot) slot = MakeAccess(uid, peer);
        access = slot.get();
      }
      Xapian::Query xq =
          WithTypes(BuildQuery(parts, shards.combined, shards.traits), types, shards);
      MatchPage page = RunQuery(shards, xq, 0, 0, access);
      counts[q["name"].asString()] = done[key] = static_cast<Json::UInt64>(page.total);
    }
  } catch (const Xapian::WildcardError&) {
    Json::Value reply = ErrorReply(kErrMalformedQuery, "wildcard matches too many terms");
    reply["data"] = counts;
    out.Send(reply);
    return;
  } catch (const DaemonError& e) {
    Json::Value reply = ErrorReply(e.code(), e.what());
    reply["data"] = counts;
    out.Send(reply);
    return;
  } catch (const Xapian::Error& e) {
    Json::Value reply = ErrorReply(kErrInternal, "index error: " + e.get_description());
    reply["data"] = counts;
    out.Send(reply);
    return;
  }
  Json::Value reply = Success();
  reply["data"] = counts;
  out.Send(reply);
}

}  // namespace daemon
}  // namespace kestondri
