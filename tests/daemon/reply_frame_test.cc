// The daemon's reply frames: one after another in a buffer, each its
// length header and compact text that reads back as the value written.
#include "reply_frame.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <kest/json.h>
#include <kestdaemon/sock_connection.h>

#include <cstdint>
#include <cstring>
#include <string>

namespace kestondri {
namespace daemon {
namespace {

Json::Value Parsed(const std::string& text) {
  Json::Value v;
  EXPECT_TRUE(Json::fromString(v, text)) << text;
  return v;
}

TEST(ReplyFrameTest, FramesAppendAndReadBack) {
  Json::Value hit(Json::objectValue);
  hit["KESTMDPath"] = "/volume1/docs/Ünïcode ✓/file \"quoted\" \\ back.txt";
  hit["KESTMDIsDir"] = false;
  hit["KESTMDFSSize"] = static_cast<Json::UInt64>(12345);
  hit["_score"] = 12.345678901234567;
  hit["highlight"]["KESTMDTextContent"].append("a <b>mark</b>\n\ttab");
  struct Case {
    const char* what;
    Json::Value value;
  };
  const Case cases[] = {
      {"a hit", hit},
      {"count", Parsed(R"({"total":5277})")},
      {"error", Parsed(R"({"success":false,"error":{"code":1001,"msg":"bad \"query\""}})")},
      {"control bytes", Json::Value(std::string("nul\0 bell\x07 esc\x1b", 15))},
  };
  std::string frames = "kept";
  for (const auto& c : cases) ASSERT_TRUE(AppendFrame(c.value, &frames)) << c.what;
  EXPECT_EQ("kept", frames.substr(0, 4));
  size_t at = 4;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_LE(at + 4, frames.size());
    uint32_t length;
    std::memcpy(&length, frames.data() + at, sizeof length);
    length = ntohl(length);
    ASSERT_LE(at + 4 + length, frames.size());
    const std::string text = frames.substr(at + 4, length);
    EXPECT_EQ(std::string::npos, text.find('\n')) << "one line";
    EXPECT_EQ(Json::toString(c.value), Json::toString(Parsed(text)));
    at += 4 + length;
  }
  EXPECT_EQ(frames.size(), at);
}

TEST(ReplyFrameTest, MessageOverTheCapIsRefusedAndLeavesTheBufferAlone) {
  Json::Value big(std::string(kestdaemon::kMaxMessageSize - 1, 'x'));  // + 2 quotes
  std::string frame = "before";
  EXPECT_FALSE(AppendFrame(big, &frame));
  EXPECT_EQ("before", frame);
  Json::Value fits(std::string(kestdaemon::kMaxMessageSize - 2, 'x'));
  EXPECT_TRUE(AppendFrame(fits, &frame));
  EXPECT_EQ(6 + 4 + kestdaemon::kMaxMessageSize, frame.size());
}

}  // namespace
}  // namespace daemon
}  // namespace kestondri
