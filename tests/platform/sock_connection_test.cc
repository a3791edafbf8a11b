// Framed messages over a real Unix stream socket, against the scripted
// daemon of tests/support.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "kestdaemon/sock_connection.h"
#include "support/fake_daemon.h"
#include "support/sandbox.h"

namespace kesttest {
namespace {

using kestdaemon::DomainSockConnection;

constexpr char kPath[] = "/var/run/kestelasticd.sock";
constexpr char kProbe[] = R"({"command":"probe","data":{}})";

class SockConnectionTest : public testing::Test {
 protected:
  void SetUp() override { fds_ = OpenFdCount(); }
  void TearDown() override { EXPECT_EQ(fds_, OpenFdCount()) << "descriptors leaked"; }
  int fds_ = 0;
};

// Replies in pieces that need not follow the frames, then closed: each message
// whole, in order, then a failure that leaves the buffer as it was. A signal
// every 10 ms interrupts every wait; the calls resume.
TEST_F(SockConnectionTest, ReplyScripts) {
  struct Case {
    const char* what;
    DaemonReply reply;
    std::vector<std::string> messages;
  };
  // A big message is several reads' worth; a header may come in halves.
  const std::string big(3u << 20, 'x'), zero2("\0\0", 2);
  Case cases[] = {
      {"empty frame", DaemonReply().Text(""), {""}},
      {"bytes kept", DaemonReply().Text(std::string("a\0b\xff", 4)), {{"a\0b\xff", 4}}},
      {"slow reply", DaemonReply().Pause(200).Text("late"), {"late"}},
      {"header in pieces",
       DaemonReply().Raw(zero2).Pause(50).Raw(zero2.substr(1) + "\x02ok"),
       {"ok"}},
      {"body split after a whole message",
       DaemonReply().Raw(Frame("first") + Frame("second").substr(0, 6)).Pause(50).Raw("cond"),
       {"first", "second"}},
      {"header split after a whole message",
       DaemonReply().Raw(Frame("one") + zero2).Pause(50).Raw(zero2.substr(1) + "\3two"),
       {"one", "two"}},
      {"large after small",
       DaemonReply().Raw(Frame("x") + Frame(big) + Frame("y")),
       {"x", big, "y"}},
      {"cut short after whole messages",
       DaemonReply().Raw(Frame("one") + Frame("two") + Frame("three").substr(0, 6)),
       {"one", "two"}},
      {"short header", DaemonReply().Raw(zero2), {}},
      {"length that lies", DaemonReply().Header(100).Raw("short"), {}},
      {"length over the cap", DaemonReply().Header((64u << 20) + 1).Raw("x"), {}},
      {"length of 4 GiB - 1", DaemonReply().Header(0xffffffffu), {}},
      {"silent peer times out", DaemonReply().HoldUntilClientGoes(), {}},
  };
  struct sigaction action {};
  action.sa_handler = [](int) {};  // no SA_RESTART: calls really see EINTR
  sigemptyset(&action.sa_mask);
  struct sigaction old {};
  ASSERT_EQ(0, sigaction(SIGUSR1, &action, &old));
  std::atomic<bool> done{false};
  const pthread_t self = pthread_self();
  std::thread storm([&] {
    for (; !done; usleep(10000)) pthread_kill(self, SIGUSR1);
  });
  for (auto& c : cases) {
    SCOPED_TRACE(c.what);
    FakeDaemon daemon;
    daemon.On("probe", c.reply);
    DomainSockConnection conn(kPath);
    ASSERT_TRUE(conn.Connect(1));
    ASSERT_TRUE(conn.Send(kProbe));
    std::vector<std::string> got;
    std::string message = "untouched";
    while (got.size() <= c.messages.size() && conn.Recv(message)) {
      got.push_back(message);
      message = "untouched";
    }
    EXPECT_EQ(c.messages, got);
    EXPECT_EQ("untouched", message);
    ASSERT_EQ(1u, daemon.RawRequests().size());
    EXPECT_EQ(kProbe, daemon.RawRequests()[0]);
  }
  done = true;
  storm.join();
  sigaction(SIGUSR1, &old, nullptr);
}

// What was read ahead never surfaces after a reconnect; messages past the
// cap are not sent, big ones arrive whole; a send to a peer that went away
// fails without SIGPIPE; a failed reconnect drops the earlier descriptor.
TEST_F(SockConnectionTest, OneConnectionsLife) {
  signal(SIGPIPE, SIG_DFL);  // a raised SIGPIPE would end this test binary
  {
    FakeDaemon daemon;
    DomainSockConnection conn(kPath);
    std::string message;
    for (int round = 0; round < 2; ++round) {
      daemon.On("probe", DaemonReply().Raw(Frame("a") + Frame("b")));
      ASSERT_TRUE(conn.Connect(5));
      ASSERT_TRUE(conn.Send(kProbe));
      ASSERT_TRUE(conn.Recv(message));
      EXPECT_EQ("a", message) << round;
    }
    ASSERT_TRUE(conn.Connect(5));
    EXPECT_FALSE(conn.Send(std::string((64u << 20) + 1, 'x'))) << "over the cap";
    const std::string big(3 * (1 << 20) + 17, 'b');
    ASSERT_TRUE(conn.Send(big));
    ASSERT_TRUE(daemon.WaitForRequests(3));
    EXPECT_EQ(big, daemon.RawRequests()[2]);
    ASSERT_TRUE(daemon.WaitIdle());  // nothing scripted: the daemon closed
    bool sent = true;
    for (int i = 0; i < 8 && sent; ++i) sent = conn.Send(std::string(1 << 20, 'y'));
    EXPECT_FALSE(sent);
    conn.Disconnect();
    conn.Disconnect();
    EXPECT_FALSE(conn.Send("x"));
    EXPECT_FALSE(conn.Recv(message));
    ASSERT_TRUE(conn.Connect(1));
    unlink(kPath);
    EXPECT_FALSE(conn.Connect(1));
    EXPECT_EQ(-1, conn.fd());
  }
  EXPECT_FALSE(DomainSockConnection(kPath).Connect(1));
  EXPECT_FALSE(DomainSockConnection("/run/" + std::string(200, 'x')).Connect(1));
  BindDeadSocket(kPath);
  EXPECT_FALSE(DomainSockConnection(kPath).Connect(1));
  unlink(kPath);
}

}  // namespace
}  // namespace kesttest
