// Turns the query members of a request (keyword, default operator,
// criteria, file type, field weights) into one Xapian query over the layout
// of index_schema.h.
//
// Keyword syntax: Xapian's query parser with phrases ("page fault"),
// trailing wildcards (inod*), AND/OR/NOT and +/-, and the field prefixes
// name: (also file:), ext: and content:. Bare words match the file name or
// the text content.
//
// Stateless; safe from any thread given a database owned by that thread.
#ifndef KESTONDRI_DAEMON_QUERY_BUILDER_H_
#define KESTONDRI_DAEMON_QUERY_BUILDER_H_

#include <json/json.h>
#include <xapian.h>

#include <set>
#include <string>
#include <vector>

namespace kestondri {
namespace daemon {

// A wildcard that would expand to more terms than this fails the search
// (code 1001) rather than run away with time and memory.
constexpr Xapian::termcount kMaxWildcardTerms = 10000;
// For a search filtered by a user's permissions the index's terms include
// those of files the user may not read: a limit on how many a wildcard
// expands to, whether it fails or cuts, would tell them whether such words
// exist. Those wildcards are expanded whole instead, and need this many
// characters before the "*" (a rule on the keyword alone) to keep the
// expansion to the words that really share a stem.
constexpr size_t kMinUserWildcardStem = 3;

struct QueryParts {
  std::string keyword;
  bool default_or = false;  // "default_search_op" "OR"; anything else is AND
  Json::Value criteria_list = Json::Value(Json::arrayValue);
  std::string file_type;  // "" and "all" select everything
  Json::Value weights;    // "search_weight_list": null or an array
  bool per_user = false;  // filtered by a user's permissions: see kMinUserWildcardStem
};

// Throws DaemonError: 1001 when the keyword does not parse, 1002 when a
// criterion, the file type or a weight is malformed.
Xapian::Query BuildQuery(const QueryParts& parts, const Xapian::Database& db);

// Only the keyword part, parsed over `prefixes` (the default field when
// empty). Throws DaemonError 1001.
Xapian::Query ParseKeyword(const std::string& keyword, bool default_or, const Xapian::Database& db,
                           bool per_user = false);

// The words of a keyword, lower-cased, for marking matches in text:
// whole words, and the stems of trailing wildcards. Operators, field
// prefixes other than content: and name:, and punctuation are left out.
struct MarkTerms {
  std::set<std::string> words;
  std::vector<std::string> prefixes;
  bool empty() const { return words.empty() && prefixes.empty(); }
};
MarkTerms KeywordMarkTerms(const std::string& keyword);

}  // namespace daemon
}  // namespace kestondri

#endif  // KESTONDRI_DAEMON_QUERY_BUILDER_H_
