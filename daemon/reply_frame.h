// The daemon's reply messages as they go on the wire: compact JSON text
// (UTF-8 kept as it is) after the connection's 4-byte big-endian length
// (kestdaemon/sock_connection.h). Shared by the server's socket sink and
// by whatever must cost the same as it (the benchmark's in-process sink).
#ifndef KESTONDRI_DAEMON_REPLY_FRAME_H_
#define KESTONDRI_DAEMON_REPLY_FRAME_H_

#include <json/json.h>

#include <string>

namespace kestondri {
namespace daemon {

// Appends `message` to `*out` as one frame. False, with `*out` unchanged,
// when its text is over kestdaemon::kMaxMessageSize. Thread-safe: each
// thread keeps its own writer, made once rather than once a message.
bool AppendFrame(const Json::Value& message, std::string* out);

}  // namespace daemon
}  // namespace kestondri

#endif  // KESTONDRI_DAEMON_REPLY_FRAME_H_
