#include "extract/worker_protocol.h"

#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "extract/text_sink.h"

namespace kestondri {
namespace indexer {

namespace {

constexpr uint32_t kRequestMagic = 0x4b585231;  // "KXR1"
constexpr uint32_t kResultMagic = 0x4b585331;   // "KXS1"
constexpr size_t kRequestBody = 4 + 1 + 8 + 8 + 8 + 4 + 4 + 4;

class Writer {
 public:
  void U8(uint8_t v) { out_.push_back(static_cast<char>(v)); }
  void U32(uint32_t v) {
    for (int i = 0; i < 4; ++i) out_.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
  }
  void U64(uint64_t v) {
    for (int i = 0; i < 8; ++i) out_.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
  }
  void Str(const std::string& s) {
    U32(static_cast<uint32_t>(s.size()));
    out_ += s;
  }
  // The body with its length in front.
  std::string Framed() const {
    Writer frame;
    frame.U32(static_cast<uint32_t>(out_.size()));
    return frame.out_ + out_;
  }

 private:
  std::string out_;
};

class Reader {
 public:
  explicit Reader(const std::string& in) : in_(in) {}
  bool U8(uint8_t* v) {
    if (!Has(1)) return false;
    *v = static_cast<uint8_t>(in_[pos_++]);
    return true;
  }
  bool U32(uint32_t* v) {
    if (!Has(4)) return false;
    *v = 0;
    for (int i = 0; i < 4; ++i)
      *v |= static_cast<uint32_t>(static_cast<uint8_t>(in_[pos_++])) << (8 * i);
    return true;
  }
  bool U64(uint64_t* v) {
    if (!Has(8)) return false;
    *v = 0;
    for (int i = 0; i < 8; ++i)
      *v |= static_cast<uint64_t>(static_cast<uint8_t>(in_[pos_++])) << (8 * i);
    return true;
  }
  bool Str(std::string* s) {
    uint32_t n;
    if (!U32(&n) || !Has(n)) return false;
    s->assign(in_, pos_, n);
    pos_ += n;
    return true;
  }
  bool AtEnd() const { return pos_ == in_.size(); }

 private:
  bool Has(size_t n) const { return in_.size() - pos_ >= n; }
  const std::string& in_;
  size_t pos_ = 0;
};

bool WriteAll(int sock, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = send(sock, data, size, MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// Reads exactly `size` bytes, blocking. 1 done, 0 end of stream at the
// first byte, -1 error or end of stream in the middle.
int ReadExactly(int sock, char* data, size_t size) {
  size_t got = 0;
  while (got < size) {
    const ssize_t n = recv(sock, data + got, size - got, 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (n == 0) return got == 0 ? 0 : -1;
    got += static_cast<size_t>(n);
  }
  return 1;
}

uint32_t LengthOf(const char* head) {
  uint32_t v = 0;
  for (int i = 0; i < 4; ++i) v |= static_cast<uint32_t>(static_cast<uint8_t>(head[i])) << (8 * i);
  return v;
}

}  // namespace

long long MonotonicMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

bool SendRequest(int sock, const WorkerRequest& request, int file_fd) {
  Writer w;
  w.U32(kRequestMagic);
  w.U8(static_cast<uint8_t>(request.format));
  w.U64(request.limits.max_text_bytes);
  w.U64(request.limits.max_input_bytes);
  w.U64(request.limits.max_memory_bytes);
  w.U32(request.limits.cpu_seconds);
  w.U32(request.limits.wall_ms);
  w.U32(request.limits.max_archive_entries);
  const std::string frame = w.Framed();

  struct iovec iov;
  iov.iov_base = const_cast<char*>(frame.data());
  iov.iov_len = frame.size();
  union {
    char buf[CMSG_SPACE(sizeof(int))];
    struct cmsghdr align;
  } control;
  std::memset(&control, 0, sizeof(control));
  struct msghdr msg;
  std::memset(&msg, 0, sizeof(msg));
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  msg.msg_control = control.buf;
  msg.msg_controllen = sizeof(control.buf);
  struct cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
  cmsg->cmsg_level = SOL_SOCKET;
  cmsg->cmsg_type = SCM_RIGHTS;
  cmsg->cmsg_len = CMSG_LEN(sizeof(int));
  std::memcpy(CMSG_DATA(cmsg), &file_fd, sizeof(int));
  ssize_t n;
  do {
    n = sendmsg(sock, &msg, MSG_NOSIGNAL);
  } while (n < 0 && errno == EINTR);
  if (n < 0) return false;
  // The descriptor went with the first byte; the rest is plain data.
  return WriteAll(sock, frame.data() + n, frame.size() - static_cast<size_t>(n));
}

int ReceiveRequest(int sock, WorkerRequest* request, int* file_fd) {
  *file_fd = -1;
  char head[4];
  union {
    char buf[CMSG_SPACE(sizeof(int))];
    struct cmsghdr align;
  } control;
  struct iovec iov;
  iov.iov_base = head;
  iov.iov_len = sizeof(head);
  struct msghdr msg;
  std::memset(&msg, 0, sizeof(msg));
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  msg.msg_control = control.buf;
  msg.msg_controllen = sizeof(control.buf);
  ssize_t n;
  do {
    n = recvmsg(sock, &msg, MSG_CMSG_CLOEXEC);
  } while (n < 0 && errno == EINTR);
  if (n == 0) return 0;
  if (n < 0) return -1;
  for (struct cmsghdr* c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
    if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_RIGHTS) {
      std::memcpy(file_fd, CMSG_DATA(c), sizeof(int));
    }
  }
  if (*file_fd < 0 || (msg.msg_flags & MSG_CTRUNC)) return -1;
  if (n < 4 && ReadExactly(sock, head + n, 4 - n) != 1) return -1;
  const uint32_t length = LengthOf(head);
  if (length != kRequestBody) return -1;
  std::string body(length, '\0');
  if (ReadExactly(sock, &body[0], length) != 1) return -1;
  Reader r(body);
  uint32_t magic, cpu, wall, entries;
  uint8_t format;
  uint64_t text, input, memory;
  if (!r.U32(&magic) || magic != kRequestMagic || !r.U8(&format) || !r.U64(&text) ||
      !r.U64(&input) || !r.U64(&memory) || !r.U32(&cpu) || !r.U32(&wall) || !r.U32(&entries) ||
      format > static_cast<uint8_t>(DocFormat::kOdf)) {
    return -1;
  }
  request->format = static_cast<DocFormat>(format);
  request->limits.max_text_bytes = static_cast<size_t>(text);
  request->limits.max_input_bytes = input;
  request->limits.max_memory_bytes = memory;
  request->limits.cpu_seconds = cpu;
  request->limits.wall_ms = wall;
  request->limits.max_archive_entries = entries;
  return 1;
}

bool SendResult(int sock, const ExtractResult& result) {
  Writer w;
  w.U32(kResultMagic);
  w.U8(static_cast<uint8_t>(result.status));
  w.U8(result.truncated ? 1 : 0);
  w.Str(result.format);
  w.Str(result.charset);
  w.Str(result.title);
  w.Str(result.detail);
  w.Str(result.text);
  const std::string frame = w.Framed();
  return WriteAll(sock, frame.data(), frame.size());
}

ReceiveOutcome ReceiveResult(int sock, long long deadline_ms, size_t max_bytes,
                             ExtractResult* result) {
  std::string buf;
  size_t want = 4;
  bool have_length = false;
  char chunk[65536];
  while (buf.size() < want) {
    const long long left = deadline_ms - MonotonicMs();
    if (left <= 0) return ReceiveOutcome::kTimeout;
    struct pollfd pfd = {sock, POLLIN, 0};
    const int rc = poll(&pfd, 1, left > 1000000 ? 1000000 : static_cast<int>(left));
    if (rc < 0) {
      if (errno == EINTR) continue;
      return ReceiveOutcome::kClosed;
    }
    if (rc == 0) continue;
    const size_t room = std::min(sizeof(chunk), want - buf.size());
    const ssize_t n = recv(sock, chunk, room, MSG_DONTWAIT);
    if (n < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      return ReceiveOutcome::kClosed;
    }
    if (n == 0) return ReceiveOutcome::kClosed;
    buf.append(chunk, static_cast<size_t>(n));
    if (!have_length && buf.size() >= 4) {
      const uint32_t length = LengthOf(buf.data());
      if (length > max_bytes) return ReceiveOutcome::kMalformed;
      want = 4 + static_cast<size_t>(length);
      have_length = true;
    }
  }
  const std::string body = buf.substr(4);
  Reader r(body);
  uint32_t magic;
  uint8_t status, truncated;
  if (!r.U32(&magic) || magic != kResultMagic || !r.U8(&status) || !r.U8(&truncated) ||
      status > static_cast<uint8_t>(ExtractStatus::kWorkerFailed) || !r.Str(&result->format) ||
      !r.Str(&result->charset) || !r.Str(&result->title) || !r.Str(&result->detail) ||
      !r.Str(&result->text) || !r.AtEnd()) {
    return ReceiveOutcome::kMalformed;
  }
  result->status = static_cast<ExtractStatus>(status);
  result->truncated = truncated != 0;
  // The worker is not trusted to keep its promises.
  result->format = SanitizeUtf8(result->format);
  result->charset = SanitizeUtf8(result->charset);
  result->title = SanitizeUtf8(result->title);
  result->detail = SanitizeUtf8(result->detail);
  if (!IsValidUtf8(result->text)) result->text = SanitizeUtf8(result->text);
  return ReceiveOutcome::kOk;
}

}  // namespace indexer
}  // namespace kestondri
