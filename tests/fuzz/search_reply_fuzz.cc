// What a daemon answers to the module: the bytes of a reply stream read
// through the module's framed connection, as a search and as a
// list_db_status reply.
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "common/error.h"
#include "kestdaemon/sock_connection.h"
#include "webapi/search.h"

namespace {

// A connection whose peer sent `bytes` and closed.
int Feed(const uint8_t* data, size_t size) {
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) abort();
  const int buffer = 1 << 20;
  setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &buffer, sizeof buffer);
  if (write(fds[0], data, size) != static_cast<ssize_t>(size)) abort();
  close(fds[0]);
  return fds[1];
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  try {
    kestdaemon::SockConnection conn(Feed(data, size));
    kestondri::webapi::ReadSearchReply(conn, "{}");
  } catch (const kestondri::Error&) {
  }
  try {
    kestdaemon::SockConnection conn(Feed(data, size));
    std::string message;
    if (conn.Recv(message)) kestondri::webapi::UnavailOfReply(message);
  } catch (const kestondri::Error&) {
  }
  return 0;
}
