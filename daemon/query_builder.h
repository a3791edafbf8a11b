// Turns the query members of a request (keyword, default operator,
// criteria, file type, field weights) into one Xapian query over the layout
// of index_schema.h, and the keyword into the words the highlighter marks.
//
// The keyword's syntax is keyword.h's. A bare word matches the words of
// the file's name (weighted most), of the names of the folders above it,
// and of its text, whatever their accents and case, in any form of the
// word (its stem, in each language of the indices searched); the word as
// typed, and with its accents, ranks first. A phrase matches its words in
// order (accents folded, forms as typed). word* matches words beginning
// with it: see Beginning in query_builder.cc for how that stays fast and
// shows a filtered user nothing of what they may not read.
//
// Stateless; safe from any thread given a database and stemmers owned by
// that thread.
#ifndef KESTONDRI_DAEMON_QUERY_BUILDER_H_
#define KESTONDRI_DAEMON_QUERY_BUILDER_H_

#include <json/json.h>
#include <xapian.h>

#include <set>
#include <string>
#include <vector>

#include "text_analysis.h"

namespace kestondri {
namespace daemon {

// A keyword of more words than this is refused (1001): nobody types it, and
// each word costs a dozen terms.
constexpr size_t kMaxKeywordWords = 100;
// Words a beginning (word*) expands to before it changes method: all of
// them up to this many; beyond, for an unfiltered search the most frequent
// this many, for a filtered one the files holding a word that begins so,
// found exactly (the index's words include those of files the user may not
// read, and a cut would let those decide what the user sees).
constexpr Xapian::termcount kMaxBeginningWords = 1000;

// What the indices of one search have in common.
struct IndexTraits {
  std::vector<index::Stemmer> stemmers;  // one per language among them
  bool beginnings = true;                // all have the current layout's beginning terms
  bool remote = false;                   // one of them is served by another machine
};

// Adds one index of a search to `traits`: its language (an index of the
// first layout has no stems, and stemming the keyword for it would find
// nothing more), its layout, whether it lies on this machine (`local`).
void AddIndexTraits(const Xapian::Database& db, bool local, IndexTraits* traits);

struct QueryParts {
  std::string keyword;
  bool default_or = false;  // "default_search_op" "OR"; anything else is AND
  Json::Value criteria_list = Json::Value(Json::arrayValue);
  std::string file_type;  // "" and "all" select everything
  Json::Value weights;    // "search_weight_list": null or an array
  bool per_user = false;  // filtered by a user's permissions: see kMaxBeginningWords
};

// Throws DaemonError: 1001 when the keyword has too many words, 1002 when a
// criterion, the file type or a weight is malformed.
Xapian::Query BuildQuery(const QueryParts& parts, const Xapian::Database& db,
                         const IndexTraits& traits);

// The words of a keyword to mark in text: folded words, the stems of
// words in each language, beginnings (word*), and Chinese, Japanese or
// Korean strings (found inside runs of text without spaces). Words after
// NOT or - and ext: values are left out.
struct MarkTerms {
  std::set<std::string> words;
  std::vector<std::string> prefixes;
  std::vector<index::Stemmer> stemmers;
  std::vector<std::set<std::string>> stems;  // per stemmer
  std::vector<std::string> cjk;
  bool empty() const { return words.empty() && prefixes.empty() && cjk.empty(); }
};
MarkTerms KeywordMarkTerms(const std::string& keyword,
                           const std::vector<index::Stemmer>& stemmers = {});

}  // namespace daemon
}  // namespace kestondri

#endif  // KESTONDRI_DAEMON_QUERY_BUILDER_H_
