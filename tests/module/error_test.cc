// The module's error type: composed message, reason, codes.
#include <gtest/gtest.h>

#include "common/error.h"

namespace kestondri {
namespace {

TEST(ErrorTest, ComposedMessageAndReason) {
  struct Case {
    ErrorCode code;
    const char* reason;  // null: built from the code alone
    const char* message;
  };
  const Case cases[] = {
      {kErrInvalidParam, nullptr, "KestOndri error, code=120"},
      {kErrUnknown, nullptr, "KestOndri error, code=117"},
      {kErrInvalidParam, "x", "KestOndri error, code=120, reason=[x]"},
      {kErrExecute, "", "KestOndri error, code=121"},
      {kErrExecute, " ", "KestOndri error, code=121, reason=[ ]"},
      {kErrOutdatedQuery, "Outdated query", "KestOndri error, code=1600, reason=[Outdated query]"},
      {static_cast<ErrorCode>(-5), "d", "KestOndri error, code=-5, reason=[d]"},
      {static_cast<ErrorCode>(4001), "[%s]", "KestOndri error, code=4001, reason=[[%s]]"},
  };
  for (const auto& c : cases) {
    const Error e = c.reason ? Error(c.code, c.reason) : Error(c.code);
    EXPECT_EQ(c.code, e.code());
    EXPECT_STREQ(c.message, e.message());
    EXPECT_EQ(c.message, ErrorString(c.code, c.reason ? c.reason : ""));
    EXPECT_STREQ(c.reason ? c.reason : "", e.what()) << "what() is the reason alone";
    EXPECT_EQ(c.reason ? c.reason : "", e.reason());
  }
}

TEST(ErrorTest, CaughtAsStandardExceptionStillGivesTheReason) {
  try {
    throw Error(kErrShare, "no share photo");
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ("no share photo", e.what());
  }
  const std::string with_nul("a\0b", 3);
  EXPECT_EQ(with_nul, Error(kErrUser, with_nul).reason());
}

TEST(ErrorTest, CodesNeverChange) {
  const std::pair<ErrorCode, int> codes[] = {
      {kErrUnknown, 117},        {kErrInvalidParam, 120}, {kErrExecute, 121},
      {kErrPlatform, 502},       {kErrCredentials, 503},  {kErrNoPermission, 507},
      {kErrDaemonConnect, 605},  {kErrShare, 800},        {kErrUser, 801},
      {kErrOutdatedQuery, 1600},
  };
  for (const auto& c : codes) EXPECT_EQ(c.second, static_cast<int>(c.first));
  static_assert(sizeof(ErrorCode) == 4, "the code is a 32-bit enumeration");
}

}  // namespace
}  // namespace kestondri
