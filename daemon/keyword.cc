#include "keyword.h"

#include <unicode/utf8.h>
#include <xapian.h>

#include <utility>

namespace kestondri {
namespace daemon {
namespace {

struct Token {
  enum Type { kWord, kPhrase, kStar, kOpen, kClose, kAnd, kOr, kXor, kNot } type;
  std::string text;
  KeywordField field = KeywordField::kAny;
  bool prefix = false;
  char sign = 0;  // '+', '-' or none
};

// Blanks for whatever separates words in the syntax: Unicode white space
// and bytes that are not UTF-8; typographic double quotes become '"'.
std::string Normalise(const std::string& keyword) {
  std::string out;
  out.reserve(keyword.size());
  const auto* s = reinterpret_cast<const uint8_t*>(keyword.data());
  const int32_t n = static_cast<int32_t>(keyword.size());
  for (int32_t i = 0; i < n;) {
    if (s[i] < 0x80) {
      out += static_cast<char>(s[i] < 0x20 ? ' ' : s[i]);
      ++i;
      continue;
    }
    const int32_t start = i;
    UChar32 ch;
    U8_NEXT(s, i, n, ch);
    if (ch < 0 || Xapian::Unicode::is_whitespace(static_cast<unsigned>(ch))) {
      out += ' ';
    } else if (ch == 0x201C || ch == 0x201D || ch == 0x201E) {
      out += '"';
    } else {
      out.append(keyword, static_cast<size_t>(start), static_cast<size_t>(i - start));
    }
  }
  return out;
}

bool Blank(char c) { return c == ' '; }

bool FieldNamed(const std::string& name, KeywordField* field) {
  if (name == "name" || name == "file") {
    *field = KeywordField::kName;
  } else if (name == "content") {
    *field = KeywordField::kContent;
  } else if (name == "folder") {
    *field = KeywordField::kFolder;
  } else if (name == "ext") {
    *field = KeywordField::kExtension;
  } else {
    return false;
  }
  return true;
}

std::vector<Token> Lex(const std::string& text) {
  std::vector<Token> tokens;
  const size_t n = text.size();
  size_t i = 0;
  while (i < n) {
    if (Blank(text[i])) {
      ++i;
      continue;
    }
    if (text[i] == ')') {
      tokens.push_back({Token::kClose, ""});
      ++i;
      continue;
    }
    Token t{Token::kWord, ""};
    if ((text[i] == '+' || text[i] == '-') && i + 1 < n && !Blank(text[i + 1]) &&
        text[i + 1] != ')') {
      t.sign = text[i++];
    }
    size_t j = i;
    while (j < n && ((text[j] >= 'a' && text[j] <= 'z') || (text[j] >= 'A' && text[j] <= 'Z'))) {
      ++j;
    }
    if (j > i && j + 1 < n && text[j] == ':' && !Blank(text[j + 1]) &&
        FieldNamed(text.substr(i, j - i), &t.field)) {
      i = j + 1;
    }
    if (text[i] == '(') {
      t.type = Token::kOpen;
      tokens.push_back(t);
      ++i;
      continue;
    }
    if (text[i] == '"') {
      const size_t close = text.find('"', i + 1);
      const size_t end = close == std::string::npos ? n : close;
      t.type = Token::kPhrase;
      t.text = text.substr(i + 1, end - i - 1);
      // Still being typed: its last word may be the beginning of one.
      t.prefix = close == std::string::npos;
      tokens.push_back(t);
      i = end == n ? n : end + 1;
      continue;
    }
    j = i;
    while (j < n && !Blank(text[j]) && text[j] != '(' && text[j] != ')' && text[j] != '"') ++j;
    t.text = text.substr(i, j - i);
    i = j;
    while (!t.text.empty() && t.text.back() == '*') {
      t.text.pop_back();
      t.prefix = true;
    }
    if (t.text.empty()) {
      if (t.prefix) tokens.push_back({Token::kStar, ""});
      continue;
    }
    if (!t.sign && t.field == KeywordField::kAny && !t.prefix) {
      if (t.text == "AND") t.type = Token::kAnd;
      if (t.text == "OR") t.type = Token::kOr;
      if (t.text == "XOR") t.type = Token::kXor;
      if (t.text == "NOT") t.type = Token::kNot;
    }
    tokens.push_back(t);
  }
  return tokens;
}

KeywordNode Node(KeywordNode::Kind kind, std::vector<KeywordNode> children = {}) {
  KeywordNode node;
  node.kind = kind;
  node.children = std::move(children);
  return node;
}

// Joins `children` with `kind`, leaving out those that match nothing
// because nothing of them was complete.
KeywordNode Join(KeywordNode::Kind kind, std::vector<KeywordNode> children) {
  std::vector<KeywordNode> kept;
  for (auto& c : children) {
    if (c.kind != KeywordNode::kNothing) kept.push_back(std::move(c));
  }
  if (kept.empty()) return Node(KeywordNode::kNothing);
  if (kept.size() == 1) return std::move(kept[0]);
  return Node(kind, std::move(kept));
}

class Parser {
 public:
  Parser(std::vector<Token> tokens, bool default_or)
      : tokens_(std::move(tokens)), default_or_(default_or) {}

  KeywordNode Parse() {
    std::vector<KeywordNode> parts = {Or()};
    // A closing bracket without its opening one is left out.
    while (pos_ < tokens_.size()) {
      ++pos_;
      parts.push_back(Or());
    }
    return Join(default_or_ ? KeywordNode::kOr : KeywordNode::kAnd, std::move(parts));
  }

 private:
  bool Next(Token::Type type) const { return pos_ < tokens_.size() && tokens_[pos_].type == type; }

  KeywordNode Or() {
    std::vector<KeywordNode> parts = {Xor()};
    while (Next(Token::kOr)) {
      ++pos_;
      parts.push_back(Xor());
    }
    return Join(KeywordNode::kOr, std::move(parts));
  }

  KeywordNode Xor() {
    std::vector<KeywordNode> parts = {And()};
    while (Next(Token::kXor)) {
      ++pos_;
      parts.push_back(And());
    }
    return Join(KeywordNode::kXor, std::move(parts));
  }

  KeywordNode And() {
    KeywordNode left = Sequence();
    while (Next(Token::kAnd) || Next(Token::kNot)) {
      bool without = tokens_[pos_++].type == Token::kNot;
      if (!without && Next(Token::kNot)) {
        without = true;
        ++pos_;
      }
      KeywordNode right = Sequence();
      if (right.kind == KeywordNode::kNothing) continue;
      if (without) {
        if (left.kind == KeywordNode::kNothing) left = Node(KeywordNode::kAll);
        left = Node(KeywordNode::kAndNot, {std::move(left), std::move(right)});
      } else {
        left = Join(KeywordNode::kAnd, {std::move(left), std::move(right)});
      }
    }
    return left;
  }

  // Words, phrases and groups side by side, joined by the default
  // operator, with their + and - signs.
  KeywordNode Sequence() {
    std::vector<KeywordNode> plain, required, excluded;
    while (pos_ < tokens_.size()) {
      const Token& t = tokens_[pos_];
      KeywordNode item;
      if (t.type == Token::kWord || t.type == Token::kPhrase) {
        item.kind = t.type == Token::kWord ? KeywordNode::kWord : KeywordNode::kPhrase;
        item.text = t.text;
        item.field = t.field;
        item.prefix = t.prefix;
        ++pos_;
      } else if (t.type == Token::kStar) {
        item.kind = KeywordNode::kAll;
        ++pos_;
      } else if (t.type == Token::kOpen) {
        ++pos_;
        item = Or();
        if (Next(Token::kClose)) ++pos_;
      } else {
        break;
      }
      if (item.kind == KeywordNode::kNothing) continue;
      (t.sign == '+' ? required : t.sign == '-' ? excluded : plain).push_back(std::move(item));
    }
    KeywordNode base;
    if (default_or_) {
      KeywordNode must = Join(KeywordNode::kAnd, std::move(required));
      KeywordNode may = Join(KeywordNode::kOr, std::move(plain));
      base = must.kind == KeywordNode::kNothing
                 ? std::move(may)
                 : Join(KeywordNode::kAndMaybe, {std::move(must), std::move(may)});
    } else {
      for (auto& p : plain) required.push_back(std::move(p));
      base = Join(KeywordNode::kAnd, std::move(required));
    }
    if (excluded.empty()) return base;
    if (base.kind == KeywordNode::kNothing) base = Node(KeywordNode::kAll);
    std::vector<KeywordNode> parts = {std::move(base)};
    for (auto& e : excluded) parts.push_back(std::move(e));
    return Node(KeywordNode::kAndNot, std::move(parts));
  }

  std::vector<Token> tokens_;
  bool default_or_;
  size_t pos_ = 0;
};

}  // namespace

KeywordNode ParseKeywordTree(const std::string& keyword, bool default_or) {
  return Parser(Lex(Normalise(keyword)), default_or).Parse();
}

size_t KeywordLeaves(const KeywordNode& node) {
  if (node.kind == KeywordNode::kWord || node.kind == KeywordNode::kPhrase) return 1;
  size_t n = 0;
  for (const auto& c : node.children) n += KeywordLeaves(c);
  return n;
}

}  // namespace daemon
}  // namespace kestondri
