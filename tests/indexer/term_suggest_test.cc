// The term-suggestion updater on a real Xapian index: the spelling data
// follows the words of names and contents, also when one run stops early and
// the next goes on, and words that left the index leave the suggestions.
#include "service/term_suggest.h"

#include <gtest/gtest.h>
#include <xapian.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "index_schema.h"
#include "support/sandbox.h"

namespace kestondri {
namespace indexer {
namespace {

constexpr char kDb[] = "/tmp/suggest-db";

std::string Word(int i) {
  std::string w = "w";
  for (int n = i; n > 0; n /= 26) w += static_cast<char>('a' + n % 26);
  return w + "zz";
}

// Two files per word: a word of one file is no suggestion; digits,
// identifiers and short words are none either. Or the files removed.
void IndexWords(int from, int to, bool add = true) {
  Xapian::WritableDatabase db(kDb, Xapian::DB_CREATE_OR_OPEN);
  for (int i = from; i < to; ++i) {
    for (int copy = 0; copy < 2; ++copy) {
      index::FileRecord r;
      r.path = "/volume1/docs/" + std::to_string(i) + "_" + std::to_string(copy);
      r.name = r.path.substr(r.path.rfind('/') + 1);
      r.text = Word(i) + " 12345 snake_case ab" + (i + copy == 0 ? " lonelyword" : "");
      if (add) {
        db.replace_document(index::UniqueTerm(r.path), index::MakeDocument(r));
      } else {
        db.delete_document(index::UniqueTerm(r.path));
      }
    }
  }
  db.commit();
}

std::vector<std::string> Spellings() {
  Xapian::Database db(kDb);
  std::vector<std::string> out;
  for (auto s = db.spellings_begin(); s != db.spellings_end(); ++s) out.push_back(*s);
  return out;
}

// Runs the updater with no time to spare until it says it is done.
int RunsUntilDone() {
  for (int runs = 1; runs < 100; ++runs) {
    int unfinished = 0;
    EXPECT_EQ(0, UpdateTermSuggestions({kDb}, std::chrono::seconds(0), &unfinished));
    if (!unfinished) return runs;
  }
  return -1;
}

TEST(TermSuggestTest, FollowsTheIndexAcrossInterruptedRuns) {
  ASSERT_EQ(0, system("rm -rf /tmp/suggest-db"));
  IndexWords(0, 3000);
  EXPECT_GT(RunsUntilDone(), 1) << "a run with no time left stops and goes on later";
  // One word per pair of files, and nothing else.
  EXPECT_EQ(3000u, Spellings().size());
  EXPECT_EQ(Word(1234), Xapian::Database(kDb).get_spelling_suggestion(Word(1234) + "q"));

  IndexWords(0, 2000, false);
  EXPECT_GT(RunsUntilDone(), 0);
  const auto words = Spellings();
  EXPECT_EQ(1000u, words.size());
  EXPECT_EQ(words.end(), std::find(words.begin(), words.end(), Word(5)));
  EXPECT_NE(words.end(), std::find(words.begin(), words.end(), Word(2500)));

  // Nothing changed: nothing changes.
  EXPECT_GT(RunsUntilDone(), 0);
  EXPECT_EQ(words, Spellings());
}

TEST(TermSuggestTest, AMissingDatabaseFails) {
  int unfinished = 0;
  EXPECT_EQ(1, UpdateTermSuggestions({"/tmp/no-such-db"}, std::chrono::seconds(5), &unfinished));
}

}  // namespace
}  // namespace indexer
}  // namespace kestondri
