// Fragments and escaping on texts built to hit the edges: matches at both
// ends, adjacent matches, markup, broken UTF-8, wildcard stems.
#include "highlighter.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kestondri {
namespace daemon {
namespace {

using Frags = std::vector<std::string>;

TEST(HighlighterTest, CutsMarkedFragments) {
  struct Case {
    const char* text;
    const char* keyword;
    size_t frag_length;
    size_t num;
    Frags expected;
  } cases[] = {
      {"alpha beta gamma", "beta", 100, 3, {"alpha <em>beta</em> gamma"}},
      {"Beta at start", "beta", 100, 3, {"<em>Beta</em> at start"}},
      {"two beta beta close", "BETA", 100, 3, {"two <em>beta</em> <em>beta</em> close"}},
      {"x <beta> & y", "beta", 100, 1, {"x &lt;<em>beta</em>&gt; &amp; y"}},
      {"betamax betas", "beta*", 100, 3, {"<em>betamax</em> <em>betas</em>"}},
      {"alphabet", "beta", 100, 3, {}},
      {"nothing here", "", 100, 3, {}},
      {"a AND b", "a AND b", 100, 3, {"<em>a</em> AND <em>b</em>"}},
      {"name:beta skipped ext:txt",
       "name:beta ext:txt",
       100,
       3,
       {"name:<em>beta</em> skipped ext:txt"}},
  };
  for (const auto& c : cases) {
    FragmentOptions opt;
    opt.frag_length = c.frag_length;
    opt.num_fragments = c.num;
    EXPECT_EQ(c.expected, HighlightFragments(c.text, KeywordMarkTerms(c.keyword), opt))
        << c.text << " / " << c.keyword;
  }
}

TEST(HighlighterTest, FragmentsAreFewAndShortOnLongTexts) {
  std::string text;
  for (int i = 0; i < 10000; ++i) text += "padding words here and the target word again ";
  FragmentOptions opt;
  opt.frag_length = 60;
  opt.num_fragments = 3;
  Frags frags = HighlightFragments(text, KeywordMarkTerms("target"), opt);
  ASSERT_EQ(3u, frags.size());
  for (const auto& f : frags) {
    EXPECT_NE(std::string::npos, f.find("<em>target</em>"));
    EXPECT_LE(f.size(), 60u + 9u);
  }
  // A match beyond the scan limit is not looked for.
  std::string far(100000, 'x');
  far += " target";
  opt.scan_limit = 1000;
  EXPECT_EQ(Frags{}, HighlightFragments(far, KeywordMarkTerms("target"), opt));
}

TEST(HighlighterTest, EscapingKeepsTheOutputValidUtf8) {
  EXPECT_EQ("&amp;&lt;&gt;&quot;&#39;", EscapeHtml("&<>\"'"));
  EXPECT_EQ("caf\xc3\xa9", EscapeHtml("caf\xc3\xa9"));
  EXPECT_EQ(
      "a\xEF\xBF\xBD"
      "b",
      EscapeHtml("a\xff"
                 "b"));
  EXPECT_EQ("\xEF\xBF\xBD\xEF\xBF\xBD", EscapeHtml("\xc0\xaf"));  // overlong '/'
  EXPECT_EQ("a b", EscapeHtml(std::string("a\0b", 3)));
  // A fragment edge inside a multi-byte character never splits it.
  std::string text = std::string(40, '\xc3') + "x";
  for (size_t i = 0; i < 40; i += 2) text[i + 1] = '\xa9';
  FragmentOptions opt;
  opt.frag_length = 21;
  Frags frags = HighlightFragments(text + " target " + text, KeywordMarkTerms("target"), opt);
  ASSERT_EQ(1u, frags.size());
  EXPECT_EQ(std::string::npos, frags[0].find("\xEF\xBF\xBD"));
}

}  // namespace
}  // namespace daemon
}  // namespace kestondri
