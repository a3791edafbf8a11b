#include "query_builder.h"

#include <cmath>
#include <cstdlib>
#include <map>

#include "daemon_errors.h"
#include "index_schema.h"

namespace kestondri {
namespace daemon {
namespace {

using index::ExactTerm;

constexpr unsigned kParseFlags =
    Xapian::QueryParser::FLAG_PHRASE | Xapian::QueryParser::FLAG_BOOLEAN |
    Xapian::QueryParser::FLAG_LOVEHATE | Xapian::QueryParser::FLAG_WILDCARD |
    Xapian::QueryParser::FLAG_PURE_NOT;

void AddFieldPrefixes(Xapian::QueryParser& qp) {
  qp.add_prefix("name", index::kPrefixName);
  qp.add_prefix("file", index::kPrefixName);
  qp.add_prefix("content", index::kPrefixContent);
  qp.add_prefix("ext", index::kPrefixExtension);
}

Xapian::Query Parse(const std::string& keyword, bool default_or, const Xapian::Database& db,
                    const std::vector<const char*>& default_prefixes, bool per_user) {
  Xapian::QueryParser qp;
  qp.set_database(db);
  qp.set_default_op(default_or ? Xapian::Query::OP_OR : Xapian::Query::OP_AND);
  if (per_user) {
    for (const auto& stem : KeywordMarkTerms(keyword).prefixes) {
      size_t chars = 0;
      for (Xapian::Utf8Iterator it(stem); it != Xapian::Utf8Iterator(); ++it) ++chars;
      if (chars < kMinUserWildcardStem) {
        throw DaemonError(kErrMalformedQuery, "a wildcard needs at least " +
                                                  std::to_string(kMinUserWildcardStem) +
                                                  " characters before the *");
      }
    }
    qp.set_max_expansion(0, Xapian::Query::WILDCARD_LIMIT_ERROR,
                         Xapian::QueryParser::FLAG_WILDCARD);
  } else {
    qp.set_max_expansion(kMaxWildcardTerms, Xapian::Query::WILDCARD_LIMIT_ERROR,
                         Xapian::QueryParser::FLAG_WILDCARD);
  }
  for (const char* prefix : default_prefixes) qp.add_prefix("", prefix);
  AddFieldPrefixes(qp);
  try {
    return qp.parse_query(keyword, kParseFlags);
  } catch (const Xapian::QueryParserError& e) {
    throw DaemonError(kErrMalformedQuery, "cannot parse the keyword: " + e.get_msg());
  }
}

[[noreturn]] void Malformed(const std::string& what) {
  throw DaemonError(kErrMalformedRequest, what);
}

bool ParseNumber(const std::string& text, double* out) {
  if (text.empty()) return false;
  char* end = nullptr;
  errno = 0;
  double v = std::strtod(text.c_str(), &end);
  if (errno != 0 || end == text.c_str() || *end != '\0' || !std::isfinite(v)) {
    errno = 0;
    return false;
  }
  *out = v;
  return true;
}

// "lo..hi" (either end may be left open), ">=N", "<=N", ">N", "<N" or "N".
Xapian::Query NumericCriterion(Xapian::valueno slot, const std::string& field,
                               const std::string& raw) {
  std::string value;
  for (char c : raw) {
    if (c != ' ' && c != '\t') value += c;
  }
  double lo = 0, hi = 0;
  auto bad = [&]() -> Xapian::Query { Malformed("bad range for " + field + ": " + raw); };
  auto dots = value.find("..");
  if (dots != std::string::npos) {
    std::string a = value.substr(0, dots), b = value.substr(dots + 2);
    bool has_a = !a.empty(), has_b = !b.empty();
    if ((has_a && !ParseNumber(a, &lo)) || (has_b && !ParseNumber(b, &hi)) || (!has_a && !has_b)) {
      return bad();
    }
    if (!has_b)
      return Xapian::Query(Xapian::Query::OP_VALUE_GE, slot, Xapian::sortable_serialise(lo));
    if (!has_a)
      return Xapian::Query(Xapian::Query::OP_VALUE_LE, slot, Xapian::sortable_serialise(hi));
    return Xapian::Query(Xapian::Query::OP_VALUE_RANGE, slot, Xapian::sortable_serialise(lo),
                         Xapian::sortable_serialise(hi));
  }
  if (value.compare(0, 2, ">=") == 0 && ParseNumber(value.substr(2), &lo)) {
    return Xapian::Query(Xapian::Query::OP_VALUE_GE, slot, Xapian::sortable_serialise(lo));
  }
  if (value.compare(0, 2, "<=") == 0 && ParseNumber(value.substr(2), &hi)) {
    return Xapian::Query(Xapian::Query::OP_VALUE_LE, slot, Xapian::sortable_serialise(hi));
  }
  if (value.compare(0, 1, ">") == 0 && ParseNumber(value.substr(1), &lo)) {
    // Sizes and times are whole numbers: "> N" is ">= N + 1".
    return Xapian::Query(Xapian::Query::OP_VALUE_GE, slot,
                         Xapian::sortable_serialise(std::floor(lo) + 1));
  }
  if (value.compare(0, 1, "<") == 0 && ParseNumber(value.substr(1), &hi)) {
    return Xapian::Query(Xapian::Query::OP_VALUE_LE, slot,
                         Xapian::sortable_serialise(std::ceil(hi) - 1));
  }
  if (ParseNumber(value, &lo)) {
    return Xapian::Query(Xapian::Query::OP_VALUE_RANGE, slot, Xapian::sortable_serialise(lo),
                         Xapian::sortable_serialise(lo));
  }
  return bad();
}

std::string Lower(std::string s) {
  for (auto& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

Xapian::Query Criterion(const std::string& field, const std::string& value,
                        const Xapian::Database& db, bool per_user) {
  if (field == index::kFieldName) return Xapian::Query(ExactTerm(index::kPrefixExactName, value));
  if (field == index::kFieldPath) return Xapian::Query(ExactTerm(index::kPrefixExactPath, value));
  if (field == index::kFieldExtension) {
    std::string ext = value;
    if (!ext.empty() && ext[0] == '.') ext.erase(0, 1);
    return Xapian::Query(ExactTerm(index::kPrefixExtension, Lower(ext)));
  }
  if (field == index::kFieldIsDir) {
    std::string v = Lower(value);
    if (v == "1" || v == "true") return Xapian::Query(std::string(index::kPrefixIsDir) + "1");
    if (v == "0" || v == "false") return Xapian::Query(std::string(index::kPrefixIsDir) + "0");
    Malformed("bad value for " + field + ": " + value);
  }
  if (field == index::kFieldOwner) {
    double uid;
    if (!ParseNumber(value, &uid) || uid < 0 || uid != std::floor(uid)) {
      Malformed("bad value for " + field + ": " + value);
    }
    return Xapian::Query(index::kPrefixOwner + std::to_string(static_cast<uint64_t>(uid)));
  }
  if (field == index::kFieldSize) return NumericCriterion(index::kSlotSize, field, value);
  if (field == index::kFieldMTime) return NumericCriterion(index::kSlotMTime, field, value);
  if (field == index::kFieldContent) {
    // Words that must all occur in the text, in any order.
    return Parse(value, false, db, {index::kPrefixContent}, per_user);
  }
  Malformed("unknown criteria field: " + field);
}

Xapian::Query CriteriaQuery(const Json::Value& list, const Xapian::Database& db, bool per_user) {
  if (list.isNull()) return Xapian::Query();
  if (!list.isArray()) Malformed("\"criteria_list\" is not an array");
  // Criteria on one field are alternatives; different fields must all hold.
  std::map<std::string, std::vector<Xapian::Query>> by_field;
  for (const auto& item : list) {
    if (!item.isObject() || !item["field"].isString() || !item["value"].isString()) {
      Malformed("a criterion needs string \"field\" and \"value\"");
    }
    std::string field = item["field"].asString();
    by_field[field].push_back(Criterion(field, item["value"].asString(), db, per_user));
  }
  std::vector<Xapian::Query> all;
  for (auto& entry : by_field) {
    all.emplace_back(Xapian::Query::OP_OR, entry.second.begin(), entry.second.end());
  }
  if (all.empty()) return Xapian::Query();
  return Xapian::Query(Xapian::Query::OP_AND, all.begin(), all.end());
}

Xapian::Query TypeQuery(const std::string& type) {
  if (type.empty() || type == index::kTypeAll) return Xapian::Query();
  if (!index::IsKnownType(type)) Malformed("unknown file type: " + type);
  if (type == index::kTypeFolder) return Xapian::Query(std::string(index::kPrefixIsDir) + "1");
  return Xapian::Query(std::string(index::kPrefixType) + type);
}

// Ranking by field: the keyword must match as the default field says, and
// each weighted field adds its own score times its weight.
Xapian::Query WeightedKeyword(const QueryParts& request, const Xapian::Database& db,
                              const Xapian::Query& base) {
  if (request.weights.isNull()) return base;
  if (!request.weights.isArray()) Malformed("\"search_weight_list\" is not an array");
  std::vector<Xapian::Query> scored;
  for (const auto& item : request.weights) {
    if (!item.isObject() || !item["field"].isString() || !item["weight"].isNumeric()) {
      Malformed("a weight needs a string \"field\" and a number \"weight\"");
    }
    std::string field = item["field"].asString();
    double weight = item["weight"].asDouble();
    if (!std::isfinite(weight) || weight < 0) Malformed("bad weight for " + field);
    weight = std::min(weight, 1000.0);
    const char* prefix = nullptr;
    if (field == index::kFieldName) prefix = index::kPrefixName;
    if (field == index::kFieldContent) prefix = index::kPrefixContent;
    // Other fields carry no scored terms: nothing to weigh.
    if (!prefix || weight == 0) continue;
    scored.emplace_back(Xapian::Query::OP_SCALE_WEIGHT,
                        Parse(request.keyword, true, db, {prefix}, request.per_user), weight);
  }
  if (scored.empty()) return base;
  return Xapian::Query(Xapian::Query::OP_AND_MAYBE,
                       Xapian::Query(Xapian::Query::OP_SCALE_WEIGHT, base, 0.0),
                       Xapian::Query(Xapian::Query::OP_OR, scored.begin(), scored.end()));
}

bool IsBlank(const std::string& s) {
  for (char c : s) {
    if (!std::isspace(static_cast<unsigned char>(c))) return false;
  }
  return true;
}

}  // namespace

Xapian::Query ParseKeyword(const std::string& keyword, bool default_or, const Xapian::Database& db,
                           bool per_user) {
  return Parse(keyword, default_or, db, {index::kPrefixName, index::kPrefixContent}, per_user);
}

Xapian::Query BuildQuery(const QueryParts& parts, const Xapian::Database& db) {
  Xapian::Query query = Xapian::Query::MatchAll;
  if (!IsBlank(parts.keyword)) {
    Xapian::Query parsed = ParseKeyword(parts.keyword, parts.default_or, db, parts.per_user);
    // A keyword of punctuation alone parses to nothing: it finds nothing.
    if (parsed.empty()) return Xapian::Query::MatchNothing;
    query = WeightedKeyword(parts, db, parsed);
  }
  for (const Xapian::Query& filter :
       {CriteriaQuery(parts.criteria_list, db, parts.per_user), TypeQuery(parts.file_type)}) {
    if (!filter.empty()) query = Xapian::Query(Xapian::Query::OP_FILTER, query, filter);
  }
  return query;
}

MarkTerms KeywordMarkTerms(const std::string& keyword) {
  static const std::set<std::string> kOperators = {"AND", "OR", "NOT", "XOR", "NEAR", "ADJ"};
  MarkTerms terms;
  Xapian::Utf8Iterator it(keyword), end;
  while (it != end) {
    if (!Xapian::Unicode::is_wordchar(*it)) {
      ++it;
      continue;
    }
    std::string raw, word;
    while (it != end && Xapian::Unicode::is_wordchar(*it)) {
      Xapian::Unicode::append_utf8(raw, *it);
      Xapian::Unicode::append_utf8(word, Xapian::Unicode::tolower(*it));
      ++it;
    }
    if (it != end && *it == ':') {
      // A field prefix: the word after ext: names an extension, not text.
      ++it;
      if (word == "ext") {
        while (it != end && Xapian::Unicode::is_wordchar(*it)) ++it;
      }
      continue;
    }
    if (it != end && *it == '*') {
      terms.prefixes.push_back(word);
      continue;
    }
    if (kOperators.count(raw)) continue;
    terms.words.insert(word);
  }
  return terms;
}

}  // namespace daemon
}  // namespace kestondri
