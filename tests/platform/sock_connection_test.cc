// Framed messages over a real Unix stream socket, served by a small server
// thread inside the test.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "kestdaemon/sock_connection.h"
#include "support/sandbox.h"

namespace kesttest {
namespace {

using kestdaemon::DomainSockConnection;
using kestdaemon::SockConnection;

constexpr char kPath[] = "/run/sock_connection_test.sock";

std::string Header(uint32_t length) {
  const uint32_t net = htonl(length);
  return std::string(reinterpret_cast<const char*>(&net), sizeof(net));
}

void WriteRaw(int fd, const std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n <= 0) return;
    done += static_cast<size_t>(n);
  }
}

// Listens on kPath and hands each accepted connection to `serve` on a thread.
class TestServer {
 public:
  explicit TestServer(std::function<void(int fd)> serve) {
    unlink(kPath);
    listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, kPath, sizeof(addr.sun_path) - 1);
    if (bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        listen(listen_fd_, 4) != 0) {
      ADD_FAILURE() << "cannot listen on " << kPath;
    }
    thread_ = std::thread([this, serve] {
      const int fd = accept(listen_fd_, nullptr, nullptr);
      if (fd < 0) return;
      serve(fd);
      close(fd);
    });
  }
  ~TestServer() {
    shutdown(listen_fd_, SHUT_RDWR);
    thread_.join();
    close(listen_fd_);
    unlink(kPath);
  }

 private:
  int listen_fd_ = -1;
  std::thread thread_;
};

class SockConnectionTest : public testing::Test {
 protected:
  void SetUp() override { fds_ = OpenFdCount(); }
  void TearDown() override { EXPECT_EQ(fds_, OpenFdCount()) << "descriptors leaked"; }
  int fds_ = 0;
};

TEST_F(SockConnectionTest, RoundTrips) {
  TestServer server([](int fd) {
    SockConnection conn(dup(fd));
    std::string message;
    while (conn.Recv(message) && conn.Send(message)) {
    }
  });
  DomainSockConnection conn(kPath);
  ASSERT_TRUE(conn.Connect(10));
  EXPECT_GE(conn.fd(), 0);
  const std::string big(3 * (1 << 20) + 17, 'b');
  for (const std::string& message :
       {std::string(R"({"command":"search"})"), std::string(), std::string("a\0b\xff", 4), big}) {
    ASSERT_TRUE(conn.Send(message));
    std::string back = "stale";
    ASSERT_TRUE(conn.Recv(back));
    EXPECT_EQ(message, back);
  }
  conn.Disconnect();
  EXPECT_EQ(-1, conn.fd());
  conn.Disconnect();
  std::string none;
  EXPECT_FALSE(conn.Recv(none));
  EXPECT_FALSE(conn.Send("x"));
}

TEST_F(SockConnectionTest, BadFramesFailRecv) {
  struct Case {
    const char* what;
    std::string bytes;  // sent by the server, which then closes
  };
  const Case cases[] = {
      {"declared length over 64 MiB", Header((64u << 20) + 1) + "xxxx"},
      {"declared length 4 GiB", Header(0xffffffffu) + "xxxx"},
      {"short body", Header(10) + "abc"},
      {"short header", std::string("\0\0", 2)},
      {"closed at once", ""},
  };
  for (const auto& c : cases) {
    {
      TestServer server([&c](int fd) { WriteRaw(fd, c.bytes); });
      DomainSockConnection conn(kPath);
      ASSERT_TRUE(conn.Connect(10)) << c.what;
      std::string message = "untouched";
      EXPECT_FALSE(conn.Recv(message)) << c.what;
      EXPECT_EQ("untouched", message) << c.what;
    }
  }
}

TEST_F(SockConnectionTest, SendToClosedPeerFailsWithoutSigpipe) {
  // SIGPIPE keeps its default action: were it raised, the test would die.
  signal(SIGPIPE, SIG_DFL);
  TestServer server([](int) {});
  DomainSockConnection conn(kPath);
  ASSERT_TRUE(conn.Connect(10));
  std::string message;
  EXPECT_FALSE(conn.Recv(message));  // the server closed
  bool failed = false;
  for (int i = 0; i < 10 && !failed; ++i) failed = !conn.Send(std::string(1 << 16, 'x'));
  EXPECT_TRUE(failed);
}

TEST_F(SockConnectionTest, ConnectFailures) {
  unlink(kPath);
  DomainSockConnection missing(kPath);
  EXPECT_FALSE(missing.Connect(1));
  EXPECT_EQ(-1, missing.fd());
  DomainSockConnection too_long("/run/" + std::string(200, 'x'));
  EXPECT_FALSE(too_long.Connect(1));
  // A socket file nobody listens on.
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  strncpy(addr.sun_path, kPath, sizeof(addr.sun_path) - 1);
  ASSERT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)));
  close(fd);
  DomainSockConnection stale(kPath);
  EXPECT_FALSE(stale.Connect(1));
  unlink(kPath);
}

TEST_F(SockConnectionTest, SilentPeerTimesOut) {
  int done[2];
  ASSERT_EQ(0, pipe(done));
  {
    TestServer server([&done](int) {
      char c;
      // Holds the connection open until the client gave up.
      (void)!read(done[0], &c, 1);
    });
    DomainSockConnection conn(kPath);
    ASSERT_TRUE(conn.Connect(1));
    std::string message;
    EXPECT_FALSE(conn.Recv(message));
    (void)!write(done[1], "x", 1);
  }
  close(done[0]);
  close(done[1]);
}

TEST_F(SockConnectionTest, ReconnectReplacesTheDescriptor) {
  TestServer server([](int fd) {
    SockConnection conn(dup(fd));
    std::string message;
    while (conn.Recv(message) && conn.Send(message)) {
    }
  });
  DomainSockConnection conn(kPath);
  ASSERT_TRUE(conn.Connect(10));
  ASSERT_TRUE(conn.Send("one"));
  std::string back;
  ASSERT_TRUE(conn.Recv(back));
  unlink(kPath);
  // Nothing listens any more: the failed reconnect leaves no descriptor.
  EXPECT_FALSE(conn.Connect(1));
  EXPECT_EQ(-1, conn.fd());
}

}  // namespace
}  // namespace kesttest
