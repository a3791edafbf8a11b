#include "reply_frame.h"

#include <arpa/inet.h>
#include <kestdaemon/sock_connection.h>

#include <cstdint>
#include <memory>
#include <sstream>

namespace kestondri {
namespace daemon {

bool AppendFrame(const Json::Value& message, std::string* out) {
  thread_local const std::unique_ptr<Json::StreamWriter> writer = [] {
    Json::StreamWriterBuilder b;
    b["indentation"] = "";
    b["emitUTF8"] = true;
    b["commentStyle"] = "None";
    return std::unique_ptr<Json::StreamWriter>(b.newStreamWriter());
  }();
  thread_local std::ostringstream text;
  text.str(std::string());
  text.clear();
  writer->write(message, &text);
  const std::string body = text.str();
  if (body.size() > kestdaemon::kMaxMessageSize) return false;
  const uint32_t length = htonl(static_cast<uint32_t>(body.size()));
  out->append(reinterpret_cast<const char*>(&length), sizeof length);
  out->append(body);
  return true;
}

}  // namespace daemon
}  // namespace kestondri
