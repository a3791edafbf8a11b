#include "query_builder.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <map>
#include <memory>

#include "daemon_errors.h"
#include "index_schema.h"
#include "keyword.h"

namespace kestondri {
namespace daemon {
namespace {

using index::ExactTerm;

// How one field of a document is searched.
struct Field {
  const char* prefix;
  const char* accented;  // prefix of the words as they stand, or null
  bool positional;       // phrases work in it
  bool name_words;       // words are cut as names are (NameWords)
  double weight;         // its share of a bare word's score
};
// A file's own name says more about it than its text, and the folders it
// lies in say less than its name.
const Field kNameField{index::kPrefixName, index::kPrefixAccentedName, true, true, 3.0};
const Field kFolderField{index::kPrefixFolder, nullptr, false, true, 1.5};
const Field kContentField{index::kPrefixContent, index::kPrefixAccentedContent, true, false, 1.0};

// The terms a piece of text gives in a field, as the indexer makes them:
// words in order of position, and for Chinese, Japanese and Korean the
// n-grams (unigrams with positions, bigrams without).
struct Analysed {
  std::vector<std::string> words;  // positional terms, in order
  std::vector<std::string> all;    // every term (n-grams included)
  bool cjk = false;
};

Analysed Analyse(const std::string& text, bool name_words) {
  Analysed out;
  const std::string folded = name_words ? index::NameText(text) : index::FoldText(text);
  Xapian::Document scratch;
  Xapian::TermGenerator gen;
  gen.set_flags(Xapian::TermGenerator::FLAG_CJK_NGRAM);
  gen.set_document(scratch);
  gen.index_text(folded);
  std::vector<std::pair<Xapian::termpos, std::string>> placed;
  for (auto t = scratch.termlist_begin(); t != scratch.termlist_end(); ++t) {
    out.all.push_back(*t);
    for (auto p = t.positionlist_begin(); p != t.positionlist_end(); ++p) {
      placed.emplace_back(*p, *t);
    }
  }
  std::sort(placed.begin(), placed.end());
  for (auto& p : placed) out.words.push_back(std::move(p.second));
  out.cjk = index::HasCjk(folded);
  return out;
}

std::string LowerWord(const std::string& word) {
  std::string lower;
  for (Xapian::Utf8Iterator it(word); it != Xapian::Utf8Iterator(); ++it) {
    Xapian::Unicode::append_utf8(lower, Xapian::Unicode::tolower(*it));
  }
  return lower;
}

Xapian::Query AnyOf(const std::vector<Xapian::Query>& parts,
                    Xapian::Query::op op = Xapian::Query::OP_OR) {
  std::vector<Xapian::Query> kept;
  for (const auto& p : parts) {
    if (!p.empty()) kept.push_back(p);
  }
  if (kept.empty()) return Xapian::Query();
  if (kept.size() == 1) return kept[0];
  return Xapian::Query(op, kept.begin(), kept.end());
}

// The documents holding, in the field of `prefix`, a word that begins with
// `beginning`: the documents of the term `candidates` (the word's first
// characters, kPrefixBeginning), each confirmed in its term list. Exact,
// and its cost follows the candidates the rest of the query lets through,
// not the number of words in the index that begin so.
class WordBeginningSource : public Xapian::PostingSource {
 public:
  WordBeginningSource(std::string wanted, std::string candidates)
      : wanted_(std::move(wanted)), candidates_(std::move(candidates)) {
    set_maxweight(1.0);
  }

  void init(const Xapian::Database& db) override {
    db_ = db;
    it_ = db_.postlist_begin(candidates_);
    end_ = db_.postlist_end(candidates_);
    positioned_ = false;
  }
  Xapian::doccount get_termfreq_min() const override { return 0; }
  Xapian::doccount get_termfreq_est() const override { return db_.get_termfreq(candidates_) / 2; }
  Xapian::doccount get_termfreq_max() const override { return db_.get_termfreq(candidates_); }

  void next(double) override {
    if (positioned_ && it_ != end_) ++it_;
    Settle();
  }
  void skip_to(Xapian::docid did, double) override {
    if (it_ != end_ && *it_ < did) it_.skip_to(did);
    Settle();
  }
  // At `did` when it holds such a word; else somewhere short of the next
  // match (`positioned_` false: next() looks from there on).
  bool check(Xapian::docid did, double) override {
    if (it_ != end_ && *it_ < did) it_.skip_to(did);
    if (it_ != end_ && *it_ == did && Holds(did)) {
      positioned_ = true;
      return true;
    }
    if (it_ == end_) {
      positioned_ = true;
      return true;
    }
    if (*it_ == did) ++it_;
    positioned_ = false;
    return false;
  }
  bool at_end() const override { return it_ == end_; }
  Xapian::docid get_docid() const override { return *it_; }
  double get_weight() const override { return 1.0; }
  WordBeginningSource* clone() const override {
    return new WordBeginningSource(wanted_, candidates_);
  }
  std::string name() const override { return "kestondri::WordBeginningSource"; }

 private:
  bool Holds(Xapian::docid did) const {
    Xapian::TermIterator t = db_.termlist_begin(did);
    t.skip_to(wanted_);
    return t != db_.termlist_end(did) && (*t).compare(0, wanted_.size(), wanted_) == 0;
  }
  void Settle() {
    while (it_ != end_ && !Holds(*it_)) ++it_;
    positioned_ = true;
  }

  const std::string wanted_;
  const std::string candidates_;
  Xapian::Database db_;
  Xapian::PostingIterator it_, end_;
  bool positioned_ = false;  // it_ is at the current match (or the end)
};

struct Build {
  const Xapian::Database& db;
  const IndexTraits& traits;
  bool per_user;
};

// Words beginning with `beginning` (folded) in one field.
//
// - Under kMinBeginning characters: the word itself only. Such a beginning
//   says too little to be worth its cost.
// - Up to MaxBeginning(field) characters: the beginning terms the indexer
//   made, one term whatever the number of words.
// - Longer: the index's words that begin so, all of them when they are at
//   most kMaxBeginningWords. Beyond, an unfiltered search takes the most
//   frequent of them. A filtered search never takes a share of the index's
//   words (which ones would depend on files the user may not read): it
//   takes them all, or, when that is dearer, the exact WordBeginningSource
//   over the documents of the longest beginning term. Either way what it
//   finds depends on the user's files alone.
Xapian::Query Beginning(const Field& field, const std::string& beginning, const Build& b) {
  const std::string prefix = field.prefix;
  const Xapian::Query itself(prefix + beginning);
  const size_t chars = index::CharCount(beginning);
  if (chars < index::kMinBeginning) return itself;
  const std::string beginnings = index::BeginningPrefix(prefix);
  const size_t longest = index::MaxBeginning(prefix);
  if (chars <= longest && b.traits.beginnings) {
    return Xapian::Query(Xapian::Query::OP_OR, itself, Xapian::Query(beginnings + beginning));
  }
  const std::string pattern = prefix + beginning;
  std::vector<std::pair<Xapian::doccount, std::string>> words;
  for (auto t = b.db.allterms_begin(pattern); t != b.db.allterms_end(pattern); ++t) {
    words.emplace_back(t.get_termfreq(), *t);
  }
  if (words.size() > kMaxBeginningWords) {
    if (!b.per_user) {
      std::nth_element(words.begin(), words.begin() + kMaxBeginningWords, words.end(),
                       [](const auto& x, const auto& y) { return x.first > y.first; });
      words.resize(kMaxBeginningWords);
    } else if (b.traits.beginnings && !b.traits.remote) {
      // Reading a document's term list costs about 1.7 times as much as
      // opening a word's posting list (glass, warm cache).
      const std::string candidates = beginnings + index::FirstChars(beginning, longest);
      if (b.db.get_termfreq(candidates) * 5 < words.size() * 3) {
        // Xapian owns the source from here (release()).
        return Xapian::Query((new WordBeginningSource(pattern, candidates))->release());
      }
    }
  }
  std::vector<Xapian::Query> terms;
  terms.reserve(words.size() + 1);
  terms.push_back(itself);
  for (const auto& w : words) terms.emplace_back(w.second);
  return Xapian::Query(Xapian::Query::OP_SYNONYM, terms.begin(), terms.end());
}

// One word in one field: the word, or any word with its stem; the word as
// typed, and as it stands with its accents, rank above the others.
Xapian::Query Word(const Field& field, const std::string& word, const std::string& typed,
                   const Build& b) {
  const std::string prefix = field.prefix;
  std::vector<std::string> forms = {prefix + word};
  const std::string lower = LowerWord(typed);
  for (const auto& stemmer : b.traits.stemmers) {
    for (const std::string& stem : {stemmer(word), stemmer.AsWritten(lower)}) {
      if (stem.empty()) continue;
      for (const std::string& t : {prefix + stem, index::kStemMark + prefix + stem}) {
        if (std::find(forms.begin(), forms.end(), t) == forms.end()) forms.push_back(t);
      }
    }
  }
  std::vector<Xapian::Query> boosts;
  if (forms.size() > 1) boosts.emplace_back(forms[0]);
  if (field.accented && lower != word) boosts.emplace_back(field.accented + lower);
  Xapian::Query match(forms.size() == 1
                          ? Xapian::Query(forms[0])
                          : Xapian::Query(Xapian::Query::OP_OR, forms.begin(), forms.end()));
  if (boosts.empty()) return match;
  return Xapian::Query(Xapian::Query::OP_AND_MAYBE, match, AnyOf(boosts));
}

// A word or phrase of the keyword in one field.
Xapian::Query Leaf(const Field& field, const KeywordNode& leaf, const Build& b) {
  const Analysed a = Analyse(leaf.text, field.name_words);
  const std::string prefix = field.prefix;
  if (a.words.empty()) return Xapian::Query();
  if (a.cjk) {
    // Text without spaces: every n-gram of it, as Xapian's query parser
    // does; in a phrase, its characters in order.
    std::vector<Xapian::Query> parts;
    for (const auto& t :
         (leaf.kind == KeywordNode::kPhrase && field.positional ? a.words : a.all)) {
      parts.emplace_back(prefix + t);
    }
    if (leaf.kind == KeywordNode::kPhrase && field.positional && parts.size() > 1) {
      return Xapian::Query(Xapian::Query::OP_PHRASE, parts.begin(), parts.end(), parts.size());
    }
    return AnyOf(parts, Xapian::Query::OP_AND);
  }
  if (a.words.size() == 1) {
    if (leaf.prefix) return Beginning(field, a.words[0], b);
    if (leaf.kind == KeywordNode::kPhrase) return Xapian::Query(prefix + a.words[0]);
    return Word(field, a.words[0], leaf.text, b);
  }
  // Several words ("e-mail", a CamelCase name, a phrase): in order where
  // the field has positions, else all of them.
  std::vector<Xapian::Query> exact;
  for (size_t i = 0; i + (leaf.prefix ? 1 : 0) < a.words.size(); ++i) {
    exact.emplace_back(prefix + a.words[i]);
  }
  Xapian::Query words =
      field.positional && exact.size() > 1
          ? Xapian::Query(Xapian::Query::OP_PHRASE, exact.begin(), exact.end(), exact.size())
          : AnyOf(exact, Xapian::Query::OP_AND);
  if (!leaf.prefix) return words;
  return AnyOf({words, Beginning(field, a.words.back(), b)}, Xapian::Query::OP_AND);
}

// The fields a leaf is looked for in, with their weights.
std::vector<std::pair<const Field*, double>> FieldsOf(
    const KeywordNode& leaf, const std::map<std::string, double>* weights) {
  std::vector<std::pair<const Field*, double>> fields;
  switch (leaf.field) {
    case KeywordField::kName:
      return {{&kNameField, 1.0}};
    case KeywordField::kContent:
      return {{&kContentField, 1.0}};
    case KeywordField::kFolder:
      return {{&kFolderField, 1.0}};
    default:
      break;
  }
  for (const Field* f : {&kNameField, &kFolderField, &kContentField}) {
    if (!weights) {
      fields.emplace_back(f, f->weight);
      continue;
    }
    auto it = weights->find(f->prefix);
    fields.emplace_back(f, it == weights->end() ? 0.0 : it->second);
  }
  return fields;
}

// The query of a keyword tree. With `weights` (field prefix to weight), a
// leaf's score in each field is that field's score times its weight.
Xapian::Query Tree(const KeywordNode& node, const Build& b,
                   const std::map<std::string, double>* weights) {
  using K = KeywordNode;
  switch (node.kind) {
    case K::kNothing:
      return Xapian::Query::MatchNothing;
    case K::kAll:
      return Xapian::Query::MatchAll;
    case K::kWord:
    case K::kPhrase: {
      if (node.field == KeywordField::kExtension) {
        const std::string ext = LowerWord(node.text[0] == '.' ? node.text.substr(1) : node.text);
        if (!node.prefix) return Xapian::Query(ExactTerm(index::kPrefixExtension, ext));
        return Xapian::Query(Xapian::Query::OP_WILDCARD, index::kPrefixExtension + ext);
      }
      std::vector<Xapian::Query> parts;
      for (const auto& f : FieldsOf(node, weights)) {
        Xapian::Query q = Leaf(*f.first, node, b);
        if (q.empty()) continue;
        // A field weighted 0 still finds, it only adds nothing to the score.
        parts.emplace_back(Xapian::Query::OP_SCALE_WEIGHT, q, f.second);
      }
      return AnyOf(parts);
    }
    default:
      break;
  }
  std::vector<Xapian::Query> parts;
  for (const auto& c : node.children) parts.push_back(Tree(c, b, weights));
  if (node.kind == K::kAndNot || node.kind == K::kAndMaybe) {
    // A word of punctuation alone stands for nothing: left out, as are
    // exclusions of nothing; a first part of nothing leaves nothing to rank
    // or to take from.
    const Xapian::Query first = parts.front();
    parts.erase(parts.begin());
    const Xapian::Query rest = AnyOf(parts);
    if (first.empty()) return node.kind == K::kAndMaybe ? rest : Xapian::Query();
    if (rest.empty()) return first;
    return Xapian::Query(
        node.kind == K::kAndNot ? Xapian::Query::OP_AND_NOT : Xapian::Query::OP_AND_MAYBE, first,
        rest);
  }
  return AnyOf(parts, node.kind == K::kAnd   ? Xapian::Query::OP_AND
                      : node.kind == K::kXor ? Xapian::Query::OP_XOR
                                             : Xapian::Query::OP_OR);
}

// Makes every word of `node` without a field one of `field`.
void SetField(KeywordNode& node, KeywordField field) {
  if (node.field == KeywordField::kAny) node.field = field;
  for (auto& c : node.children) SetField(c, field);
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

// The folder `value` and everything below it, by the path value: no terms
// needed, and only the candidates of the rest of the query are looked at.
Xapian::Query InFolder(std::string folder) {
  while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
  if (folder.empty() || folder[0] != '/')
    Malformed("bad folder for " + std::string(index::kFieldInFolder));
  if (folder == "/") return Xapian::Query::MatchAll;
  // Paths below it begin with "folder/" and sort before "folder0".
  std::string after = folder + "0";
  return Xapian::Query(
      Xapian::Query::OP_OR, Xapian::Query(index::UniqueTerm(folder)),
      Xapian::Query(Xapian::Query::OP_AND_NOT,
                    Xapian::Query(Xapian::Query::OP_VALUE_GE, index::kSlotPath, folder + "/"),
                    Xapian::Query(Xapian::Query::OP_VALUE_GE, index::kSlotPath, after)));
}

Xapian::Query Criterion(const std::string& field, const std::string& value, const Build& b) {
  if (field == index::kFieldName) return Xapian::Query(ExactTerm(index::kPrefixExactName, value));
  if (field == index::kFieldPath) return Xapian::Query(index::UniqueTerm(value));
  if (field == index::kFieldInFolder) return InFolder(value);
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
    KeywordNode tree = ParseKeywordTree(value, false);
    SetField(tree, KeywordField::kContent);
    return Tree(tree, b, nullptr);
  }
  Malformed("unknown criteria field: " + field);
}

Xapian::Query CriteriaQuery(const Json::Value& list, const Build& b) {
  if (list.isNull()) return Xapian::Query();
  if (!list.isArray()) Malformed("\"criteria_list\" is not an array");
  // Criteria on one field are alternatives; different fields must all hold.
  std::map<std::string, std::vector<Xapian::Query>> by_field;
  for (const auto& item : list) {
    if (!item.isObject() || !item["field"].isString() || !item["value"].isString()) {
      Malformed("a criterion needs string \"field\" and \"value\"");
    }
    std::string field = item["field"].asString();
    by_field[field].push_back(Criterion(field, item["value"].asString(), b));
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

// The field weights of "search_weight_list" by field prefix: the file name
// weighs its name's words, the path the words of its folders, the text
// content its words. Null when the request gives none.
std::unique_ptr<std::map<std::string, double>> Weights(const Json::Value& list) {
  if (list.isNull()) return nullptr;
  if (!list.isArray()) Malformed("\"search_weight_list\" is not an array");
  auto weights = std::make_unique<std::map<std::string, double>>();
  for (const auto& item : list) {
    if (!item.isObject() || !item["field"].isString() || !item["weight"].isNumeric()) {
      Malformed("a weight needs a string \"field\" and a number \"weight\"");
    }
    const std::string field = item["field"].asString();
    const double weight = item["weight"].asDouble();
    if (!std::isfinite(weight) || weight < 0) Malformed("bad weight for " + field);
    const char* prefix = field == index::kFieldName      ? index::kPrefixName
                         : field == index::kFieldPath    ? index::kPrefixFolder
                         : field == index::kFieldContent ? index::kPrefixContent
                                                         : nullptr;
    // Other fields carry no scored terms: nothing to weigh.
    if (prefix) (*weights)[prefix] = std::min(weight, 1000.0);
  }
  // An empty list weighs nothing: ranked as without one.
  if (weights->empty()) return nullptr;
  return weights;
}

bool IsBlank(const std::string& s) {
  for (char c : s) {
    if (!std::isspace(static_cast<unsigned char>(c))) return false;
  }
  return true;
}

// Collects what KeywordMarkTerms returns from one tree.
void Collect(const KeywordNode& node, MarkTerms& marks) {
  using K = KeywordNode;
  if (node.kind == K::kAndNot) {
    // What must not be there is not marked.
    if (!node.children.empty()) Collect(node.children.front(), marks);
    return;
  }
  if (node.kind != K::kWord && node.kind != K::kPhrase) {
    for (const auto& c : node.children) Collect(c, marks);
    return;
  }
  if (node.field == KeywordField::kExtension) return;
  for (bool name_words : {false, true}) {
    const Analysed a = Analyse(node.text, name_words);
    if (a.cjk) {
      std::string joined;
      for (const auto& w : a.words) joined += w;
      if (!joined.empty()) marks.cjk.push_back(joined);
      continue;
    }
    for (size_t i = 0; i < a.words.size(); ++i) {
      const std::string& w = a.words[i];
      const bool last = i + 1 == a.words.size();
      if (node.prefix && last && index::CharCount(w) >= index::kMinBeginning) {
        marks.prefixes.push_back(w);
        continue;
      }
      marks.words.insert(w);
      if (node.kind == K::kPhrase) continue;
      const std::string lower = a.words.size() == 1 ? LowerWord(node.text) : w;
      for (size_t s = 0; s < marks.stemmers.size(); ++s) {
        for (const std::string& stem : {marks.stemmers[s](w), marks.stemmers[s].AsWritten(lower)}) {
          if (!stem.empty()) marks.stems[s].insert(stem);
        }
      }
    }
  }
}

}  // namespace

void AddIndexTraits(const Xapian::Database& db, bool local, IndexTraits* traits) {
  const bool current = db.get_metadata(index::kFormatKey) == index::kFormatVersion;
  traits->beginnings = traits->beginnings && current;
  traits->remote = traits->remote || !local;
  const std::string language = current ? db.get_metadata(index::kLanguageKey) : "none";
  for (const auto& s : traits->stemmers) {
    if (s.language() == language) return;
  }
  index::Stemmer stemmer;
  if (language != "none" && index::Stemmer::Make(language, &stemmer)) {
    traits->stemmers.push_back(stemmer);
  }
}

Xapian::Query BuildQuery(const QueryParts& parts, const Xapian::Database& db,
                         const IndexTraits& traits) {
  const Build b{db, traits, parts.per_user};
  Xapian::Query query = Xapian::Query::MatchAll;
  if (!IsBlank(parts.keyword)) {
    const KeywordNode tree = ParseKeywordTree(parts.keyword, parts.default_or);
    const size_t words = KeywordLeaves(tree);
    if (words > kMaxKeywordWords) {
      throw DaemonError(kErrMalformedQuery, "the keyword has " + std::to_string(words) +
                                                " words, at most " +
                                                std::to_string(kMaxKeywordWords));
    }
    const auto weights = Weights(parts.weights);
    query = Tree(tree, b, weights.get());
    // A keyword of punctuation alone, or of nothing complete, finds nothing.
    if (query.empty()) return Xapian::Query::MatchNothing;
  }
  for (const Xapian::Query& filter :
       {CriteriaQuery(parts.criteria_list, b), TypeQuery(parts.file_type)}) {
    if (!filter.empty()) query = Xapian::Query(Xapian::Query::OP_FILTER, query, filter);
  }
  return query;
}

MarkTerms KeywordMarkTerms(const std::string& keyword,
                           const std::vector<index::Stemmer>& stemmers) {
  MarkTerms marks;
  marks.stemmers = stemmers;
  marks.stems.resize(stemmers.size());
  Collect(ParseKeywordTree(keyword, false), marks);
  return marks;
}

}  // namespace daemon
}  // namespace kestondri
