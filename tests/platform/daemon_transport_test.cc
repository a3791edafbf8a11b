// The daemon transport against a scripted peer on a real Unix socket.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <fcntl.h>

#include <atomic>
#include <string>
#include <thread>

#include "kestdaemon/sock_connection.h"
#include "support/fake_daemon.h"

namespace kesttest {
namespace {

using kestdaemon::DomainSockConnection;

constexpr char kPath[] = "/var/run/kestelasticd.sock";

// Sends one request and reads one reply message.
bool Exchange(DomainSockConnection& conn, std::string& reply) {
  return conn.Send("{\"command\":\"probe\",\"data\":{}}") && conn.Recv(reply);
}

TEST(DaemonTransportTest, ReplyScripts) {
  struct Case {
    const char* what;
    DaemonReply reply;
    bool ok;
    std::string text;
  };
  const std::string big(3u << 20, 'x');  // several reads' worth
  Case cases[] = {
      {"one message", DaemonReply().Text("{\"a\":1}"), true, "{\"a\":1}"},
      {"empty frame", DaemonReply().Text(""), true, ""},
      {"large message", DaemonReply().Text(big), true, big},
      {"slow reply", DaemonReply().Pause(200).Text("late"), true, "late"},
      {"header in pieces",
       DaemonReply().Raw(std::string("\0\0", 2)).Pause(50).Raw(std::string("\0\x02", 2) + "ok"),
       true, "ok"},
      {"closed before replying", DaemonReply().Close(), false, ""},
      {"short header", DaemonReply().Raw(std::string("\0\0", 2)).Close(), false, ""},
      {"length that lies", DaemonReply().Header(100).Raw("short").Close(), false, ""},
      {"length over the cap", DaemonReply().Header((64u << 20) + 1).Raw("x"), false, ""},
      {"length of 4 GiB - 1", DaemonReply().Header(0xffffffffu), false, ""},
  };
  for (auto& c : cases) {
    FakeDaemon daemon;
    daemon.On("probe", c.reply);
    DomainSockConnection conn(kPath);
    ASSERT_TRUE(conn.Connect(5)) << c.what;
    std::string reply = "untouched";
    EXPECT_EQ(c.ok, Exchange(conn, reply)) << c.what;
    EXPECT_EQ(c.ok ? c.text : "untouched", reply) << c.what;
    ASSERT_EQ(1u, daemon.RawRequests().size()) << c.what;
    EXPECT_EQ("{\"command\":\"probe\",\"data\":{}}", daemon.RawRequests()[0]) << c.what;
  }
}

TEST(DaemonTransportTest, ConnectFailsWithoutAListener) {
  DomainSockConnection missing(kPath);
  EXPECT_FALSE(missing.Connect(5));
  EXPECT_EQ(-1, missing.fd());
  {
    FakeDaemon daemon;  // leaves no socket file behind
  }
  DomainSockConnection stale("/var/run/none/x.sock");
  EXPECT_FALSE(stale.Connect(5));
  DomainSockConnection too_long(std::string(200, 'a'));
  EXPECT_FALSE(too_long.Connect(5));
}

TEST(DaemonTransportTest, DisconnectClosesOnceAndSendFailsAfterwards) {
  FakeDaemon daemon;
  DomainSockConnection conn(kPath);
  ASSERT_TRUE(conn.Connect(5));
  const int fd = conn.fd();
  conn.Disconnect();
  EXPECT_EQ(-1, conn.fd());
  EXPECT_EQ(-1, fcntl(fd, F_GETFD));
  conn.Disconnect();
  EXPECT_FALSE(conn.Send("x"));
  std::string reply;
  EXPECT_FALSE(conn.Recv(reply));
}

TEST(DaemonTransportTest, OversizedSendIsRefused) {
  FakeDaemon daemon;
  DomainSockConnection conn(kPath);
  ASSERT_TRUE(conn.Connect(5));
  EXPECT_FALSE(conn.Send(std::string((64u << 20) + 1, 'x')));
}

TEST(DaemonTransportTest, SendToAPeerThatWentAwayFailsWithoutSigpipe) {
  signal(SIGPIPE, SIG_DFL);  // a raised SIGPIPE would end this test binary
  FakeDaemon daemon;
  daemon.On("probe", DaemonReply().Close());
  DomainSockConnection conn(kPath);
  ASSERT_TRUE(conn.Connect(5));
  ASSERT_TRUE(conn.Send("{\"command\":\"probe\"}"));
  ASSERT_TRUE(daemon.WaitIdle());
  bool sent = true;
  for (int i = 0; i < 8 && sent; ++i) sent = conn.Send(std::string(1 << 20, 'y'));
  EXPECT_FALSE(sent);
}

TEST(DaemonTransportTest, ReceiveTimesOutOnASilentPeer) {
  FakeDaemon daemon;
  daemon.On("probe", DaemonReply().HoldUntilClientGoes());
  DomainSockConnection conn(kPath);
  ASSERT_TRUE(conn.Connect(1));
  std::string reply;
  EXPECT_FALSE(Exchange(conn, reply));
}

void OnSignal(int) {}

TEST(DaemonTransportTest, InterruptedReceiveIsResumed) {
  struct sigaction action {};
  action.sa_handler = OnSignal;  // no SA_RESTART: calls really see EINTR
  sigemptyset(&action.sa_mask);
  struct sigaction old {};
  ASSERT_EQ(0, sigaction(SIGUSR1, &action, &old));
  FakeDaemon daemon;
  daemon.On("probe", DaemonReply().Pause(300).Text("after the storm"));
  DomainSockConnection conn(kPath);
  ASSERT_TRUE(conn.Connect(5));
  std::atomic<bool> done{false};
  const pthread_t self = pthread_self();
  std::thread storm([&] {
    while (!done) {
      pthread_kill(self, SIGUSR1);
      usleep(10000);
    }
  });
  std::string reply;
  const bool ok = Exchange(conn, reply);
  done = true;
  storm.join();
  sigaction(SIGUSR1, &old, nullptr);
  EXPECT_TRUE(ok);
  EXPECT_EQ("after the storm", reply);
}

}  // namespace
}  // namespace kesttest
