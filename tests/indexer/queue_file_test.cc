// The indexer's queue file: entries finished leave, entries queued again
// while the indexer worked stay, the ".tmp" twin and cut lines are handled as
// every writer of the queue handles them.
#include "service/queue_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "kestondri/fileindex.h"
#include "support/sandbox.h"

namespace kestondri {
namespace indexer {
namespace {

using kesttest::ReadFile;
using kesttest::WriteFile;

constexpr char kQueue[] = "/volume1/@kestondri/queue/docs.queue";

class QueueFileTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(0, system("rm -rf /volume1/@kestondri")); }
};

TEST_F(QueueFileTest, FinishedEntriesLeaveAndTheFilesGoWhenEmpty) {
  QueueFile queue(kQueue);
  EXPECT_FALSE(queue.HasWork());
  queue.Append({{"reindex", "/volume1/docs/a"},
                {"remove", "/volume1/docs/b"},
                {"update", "/volume1/docs/c"}});
  EXPECT_TRUE(queue.HasWork());
  EXPECT_EQ(
      "# kestondri queue 2\nreindex\t/volume1/docs/a\nremove\t/volume1/docs/b\n"
      "update\t/volume1/docs/c\n",
      ReadFile(kQueue));
  struct stat st;
  ASSERT_EQ(0, stat(kQueue, &st));
  EXPECT_EQ(0600u, st.st_mode & 0777);

  auto items = queue.Take();
  ASSERT_EQ(3u, items.size());
  queue.Finish({items[1]});  // the unfinished stay in order
  EXPECT_EQ((std::vector<QueueItem>{items[0], items[2]}), queue.Take());
  queue.Finish({items[0], items[2]});
  EXPECT_FALSE(queue.HasWork());
  EXPECT_NE(0, access((std::string(kQueue) + ".tmp").c_str(), F_OK));
}

TEST_F(QueueFileTest, WhatIsQueuedAgainDuringTheWorkStays) {
  const QueueItem a{"reindex", "/volume1/docs/a"}, b{"reindex", "/volume1/docs/b"},
      c{"reindex", "/volume1/docs/c"};
  // Queued again by the indexer itself or by another writer: nothing, the
  // first or the last of what was taken, or a new entry.
  for (const bool own : {true, false}) {
    for (const std::vector<QueueItem>& again : {std::vector<QueueItem>{}, {a}, {b}, {c}}) {
      SCOPED_TRACE(std::string(own ? "own " : "other ") + (again.empty() ? "" : again[0].path));
      ASSERT_EQ(0, system("rm -rf /volume1/@kestondri"));
      QueueFile queue(kQueue);
      queue.Append({a, b});
      const auto taken = queue.Take();
      // Stamps compare modification times: make them differ from the take's.
      usleep(10000);
      if (own) {
        queue.Append(again);
      } else {
        QueueFile(kQueue).Append(again);
      }
      queue.Finish(taken);
      EXPECT_EQ(again, queue.Take());
    }
  }
}

TEST_F(QueueFileTest, ReadsTheTwinFirstAndIgnoresCutAndForeignLines) {
  WriteFile(std::string(kQueue) + ".tmp", "# kestondri queue 1\nreindex\t/volume1/docs/t\n", 0600);
  WriteFile(
      kQueue,
      "# kestondri queue 1\n\n# a comment\nreindex\t/volume1/docs/q\nupdate\t/volume1/docs/u\n"
      "bogus\t/x\n"
      "reindex\trelative\nnotab\nreindex\t/volume1/docs/t\nremove\t/volume1/docs/cut",
      0600);
  QueueFile queue(kQueue);
  EXPECT_EQ((std::vector<QueueItem>{{"reindex", "/volume1/docs/q"},
                                    {"update", "/volume1/docs/u"},
                                    {"reindex", "/volume1/docs/t"}}),
            queue.Take());
  queue.Finish(queue.Take());
  EXPECT_FALSE(queue.HasWork());
}

// Every byte a file name may hold travels through the file as itself, one
// entry per line; what no writer writes is refused, not guessed at.
TEST_F(QueueFileTest, NamesOfAnyBytesStayOneEntryAndLinesNoWriterWritesAreRefused) {
  const std::string names[] = {
      "x\nreindex\t/volume1/docs", "tab\there", "ctl\x01\x1b\x7f",     "bad\xff\xfeutf8",
      "back\\slash\\x0a\\\\",      "pct%0a",    std::string(255, 'n'),
  };
  std::vector<QueueItem> items;
  for (const auto& name : names) items.push_back({"update", "/volume1/docs/" + name});
  QueueFile(kQueue).Append(items);
  const std::string text = ReadFile(kQueue);
  EXPECT_EQ(1 + items.size(), static_cast<size_t>(std::count(text.begin(), text.end(), '\n')));
  EXPECT_EQ(items, QueueFile(kQueue).Take());

  std::vector<fileindex::QueueEntry> out;
  const std::string v2 = "# kestondri queue 2\n";
  for (const char* line :
       {"update\t/raw\ttab\n", "update\t/bad\\q\n", "update\t/cut\\x0\n", "update\t/nul\\x00\n",
        "update\trelative\n", "bogus\t/x\n", "update\t/\x01\n"})
    EXPECT_EQ(1u, fileindex::ParseQueueText(v2 + line, &out)) << line;
  EXPECT_EQ(2u, fileindex::ParseQueueText("# kestondri queue 9\nupdate\t/x\n", &out));
  EXPECT_EQ(0u, fileindex::ParseQueueText(v2 + "update\t/a\\x0ab\\\\\n", &out));
  EXPECT_EQ(0u, fileindex::ParseQueueText("update\t/a\\x0ab\\\\\n", &out)) << "no header: raw";
  ASSERT_EQ(2u, out.size());
  EXPECT_EQ("/a\nb\\", out[0].path);
  EXPECT_EQ("/a\\x0ab\\\\", out[1].path);
}

}  // namespace
}  // namespace indexer
}  // namespace kestondri
