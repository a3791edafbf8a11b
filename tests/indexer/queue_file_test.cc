// The indexer's queue file: entries finished leave, entries queued again
// while the indexer worked stay, the ".tmp" twin and cut lines are handled as
// every writer of the queue handles them.
#include "service/queue_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "support/sandbox.h"

namespace kestondri {
namespace indexer {
namespace {

using kesttest::ReadFile;
using kesttest::WriteFile;

constexpr char kQueue[] = "/volume1/@kestondri/queue/docs.queue";

std::vector<std::string> Paths(const std::vector<QueueItem>& items) {
  std::vector<std::string> out;
  for (const auto& i : items) out.push_back(i.op + " " + i.path);
  return out;
}

bool Exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

class QueueFileTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(0, system("rm -rf /volume1/@kestondri")); }
};

TEST_F(QueueFileTest, FinishedEntriesLeaveAndTheFilesGoWhenEmpty) {
  QueueFile queue(kQueue);
  EXPECT_FALSE(queue.HasWork());
  queue.Append({{"reindex", "/volume1/docs/a"}, {"remove", "/volume1/docs/b"}});
  EXPECT_TRUE(queue.HasWork());
  EXPECT_EQ("# kestondri queue 1\nreindex\t/volume1/docs/a\nremove\t/volume1/docs/b\n",
            ReadFile(kQueue));
  struct stat st;
  ASSERT_EQ(0, stat(kQueue, &st));
  EXPECT_EQ(0600u, st.st_mode & 0777);

  auto items = queue.Take();
  ASSERT_EQ(2u, items.size());
  queue.Finish({items[0]});
  EXPECT_EQ(std::vector<std::string>{"remove /volume1/docs/b"}, Paths(queue.Take()));
  queue.Finish({{"remove", "/volume1/docs/b"}});
  EXPECT_FALSE(queue.HasWork());
  EXPECT_FALSE(Exists(std::string(kQueue) + ".tmp"));
}

TEST_F(QueueFileTest, WhatIsQueuedAgainDuringTheWorkStays) {
  struct Case {
    const char* name;
    bool same_object;  // queued again by the indexer itself, or by another writer
    std::vector<QueueItem> again;
    std::vector<std::string> left;
  };
  const QueueItem a{"reindex", "/volume1/docs/a"}, b{"reindex", "/volume1/docs/b"},
      c{"reindex", "/volume1/docs/c"};
  const std::vector<Case> cases = {
      {"nothing new", true, {}, {}},
      {"own re-add of the first", true, {a}, {"reindex /volume1/docs/a"}},
      {"own re-add of the last", true, {b}, {"reindex /volume1/docs/b"}},
      {"own new entry", true, {c}, {"reindex /volume1/docs/c"}},
      {"other writer adds a new entry", false, {c}, {"reindex /volume1/docs/c"}},
      {"other writer re-adds the first", false, {a}, {"reindex /volume1/docs/a"}},
      {"other writer re-adds the last", false, {b}, {"reindex /volume1/docs/b"}},
  };
  for (const auto& t : cases) {
    SCOPED_TRACE(t.name);
    ASSERT_EQ(0, system("rm -rf /volume1/@kestondri"));
    QueueFile queue(kQueue);
    queue.Append({a, b});
    const auto taken = queue.Take();
    // Stamps compare modification times: make them differ from the take's.
    usleep(10000);
    if (t.same_object) {
      queue.Append(t.again);
    } else {
      QueueFile other(kQueue);
      other.Append(t.again);
    }
    queue.Finish(taken);
    EXPECT_EQ(t.left, Paths(queue.Take()));
  }
}

TEST_F(QueueFileTest, UnfinishedEntriesStayInOrder) {
  QueueFile queue(kQueue);
  queue.Append({{"reindex", "/volume1/docs/a"},
                {"reindex", "/volume1/docs/b"},
                {"remove", "/volume1/docs/c"}});
  auto items = queue.Take();
  queue.Finish({items[1]});
  EXPECT_EQ((std::vector<std::string>{"reindex /volume1/docs/a", "remove /volume1/docs/c"}),
            Paths(queue.Take()));
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
  EXPECT_EQ((std::vector<std::string>{"reindex /volume1/docs/q", "update /volume1/docs/u",
                                      "reindex /volume1/docs/t"}),
            Paths(queue.Take()));
  queue.Finish(queue.Take());
  EXPECT_FALSE(queue.HasWork());
}

}  // namespace
}  // namespace indexer
}  // namespace kestondri
