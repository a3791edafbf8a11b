// The module's common parts on the real system: the error type, the
// failure log (exact texts, the errno rule), mutexes, JSON helpers, and file,
// path and string utilities on real files.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/json_helpers.h"
#include "common/lock_mutex.h"
#include "common/log.h"
#include "common/mutex.h"
#include "common/sdk/credentials.h"
#include "common/util.h"
#include "kest/json.h"
#include "module/api_runner.h"
#include "support/thrown.h"

namespace kestondri {
namespace {

using kesttest::CapturedLines;
using kesttest::LogLine;
using kesttest::ParseJson;
using kesttest::SyslogCapture;
using kesttest::WriteFile;

class CommonTest : public kesttest::ModuleTest {};

TEST(ErrorTest, MessageAndReason) {
  const struct {
    int code;
    const char* reason;  // null: built from the code alone
    const char* message;
  } cases[] = {
      {120, nullptr, "KestOndri error, code=120"},
      {1600, "Outdated query", "KestOndri error, code=1600, reason=[Outdated query]"},
  };
  for (const auto& c : cases) {
    const auto code = static_cast<ErrorCode>(c.code);
    const Error e = c.reason ? Error(code, c.reason) : Error(code);
    EXPECT_EQ(code, e.code());
    EXPECT_STREQ(c.message, e.message());
    EXPECT_EQ(c.message, ErrorString(code, c.reason ? c.reason : ""));
    EXPECT_STREQ(c.reason ? c.reason : "", e.what()) << "what() is the reason alone";
  }
}

// Each line is one error-priority line, whatever its text holds; errno,
// when set, is reported and then cleared. (The handler's, the task's and
// the platform layer's tests hold the other forms of line.)
TEST_F(CommonTest, LinesAndTheErrnoRule) {
  const LogSite site{"share.cc", 34, "SDKShare"};
  const std::string long_reason(3000, 'r');
  const struct {
    std::function<void()> write;
    int errno_before;
    std::string text;
  } cases[] = {
      {[&] { LogError(site, "Failed to execute, %d %s", 800, "x"); }, ENOENT,
       "Failed to execute, 800 x [err: No such file or directory]"},
      {[&] { LogFailed(site, "%s%n", "100% %s %m done"); }, 0,
       "Failed [%s%n], reason: 100% %s %m done"},
      {[&] { LogFailed(site, "e", long_reason); }, 0, "Failed [e], reason: " + long_reason},
  };
  for (const auto& c : cases) {
    SyslogCapture::Instance().Clear();
    errno = c.errno_before;
    c.write();
    EXPECT_EQ(0, errno) << c.text;
    SyslogCapture::Instance().Settle(50);
    const auto lines = SyslogCapture::Instance().Lines();
    ASSERT_EQ(1u, lines.size()) << c.text;
    EXPECT_EQ(3, lines[0].priority & 7) << "error priority";
    EXPECT_EQ(LogLine("share.cc", 34, "SDKShare", c.text), lines[0].text);
  }
}

// Lock, TryLock and Unlock as POSIX answers them for each kind of mutex:
// "+" true, "-" false.
TEST_F(CommonTest, MutexKinds) {
  const struct {
    int kind;
    const char* steps;  // L lock, T try, U unlock
    const char* results;
  } cases[] = {
      {PTHREAD_MUTEX_NORMAL, "LTUTU", "+-+++"},
      {PTHREAD_MUTEX_RECURSIVE, "LLUU", "++++"},
      {PTHREAD_MUTEX_ERRORCHECK, "ULLU", "-+-+"},
  };
  for (const auto& c : cases) {
    Mutex mutex(c.kind);
    std::string results;
    for (const char* step = c.steps; *step; ++step) {
      const bool ok = *step == 'L' ? mutex.Lock() : *step == 'T' ? mutex.TryLock() : mutex.Unlock();
      results += ok ? '+' : '-';
    }
    EXPECT_EQ(c.results, results) << c.steps;
  }
  // The platform lock is one mutex, held by its guard and not recursive.
  Mutex& lock = sdk::SDKMutex();
  EXPECT_EQ(&lock, &sdk::SDKMutex());
  {
    LockMutex guard(lock);
    EXPECT_FALSE(lock.TryLock());
  }
  EXPECT_TRUE(lock.TryLock());
  EXPECT_TRUE(lock.Unlock());
  EXPECT_TRUE(CapturedLines().empty());
}

TEST_F(CommonTest, MutexFailuresAreLoggedAndTheScopeStillRuns) {
  Mutex checked(PTHREAD_MUTEX_ERRORCHECK);
  {
    LockMutex guard(checked);
    EXPECT_TRUE(checked.Unlock());
  }
  ASSERT_TRUE(checked.Lock());
  bool ran = false;
  {
    LockMutex guard(checked);
    ran = true;
  }
  EXPECT_TRUE(ran);
  // The second guard's unlock released the lock taken before it.
  EXPECT_TRUE(checked.TryLock());
  EXPECT_TRUE(checked.Unlock());
  {
    Mutex odd(99);
    EXPECT_TRUE(odd.Lock());
    EXPECT_TRUE(odd.Unlock());
  }
  EXPECT_EQ((std::vector<std::string>{
                LogLine("lock_mutex.cc", 15, "~LockMutex", "Failed [!mutex_.Unlock()]"),
                LogLine("lock_mutex.cc", 10, "LockMutex", "Failed [!mutex_.Lock()]"),
                LogLine("mutex.cc", 11, "Mutex",
                        "Failed [0 != pthread_mutexattr_settype(&attr_, type)]")}),
            CapturedLines());
}

// Reads member "k" of `object` as a T with `required`; returns the reason of
// the error thrown ("" when none) and leaves the result in `out`.
template <typename T>
std::string Read(T& out, const Json::Value& object, bool required) {
  try {
    GetJsonValue<T>(out, object, "k", required);
    return "";
  } catch (const Error& e) {
    EXPECT_EQ(kErrInvalidParam, e.code());
    return e.what();
  }
}

// Which types accept a member: s(tring) b(ool) i(nt) u(nsigned) l(ong)
// d(ouble). Only a JSON integer is a long.
const struct {
  const char* member;
  const char* accepted_by;
} kMemberCases[] = {
    {R"("x")", "s"},  {"null", "sbiud"},       {"1", "sbiuld"}, {"-1", "sbild"},
    {"1.5", "sbiud"}, {"4294967295", "sbuld"}, {"1e30", "sbd"}, {"18446744073709551615", "sbld"},
    {"[]", ""},       {R"({"a":1})", ""},
};

template <typename T>
void CheckType(char kind, const T& sentinel) {
  for (const auto& c : kMemberCases) {
    const Json::Value object = ParseJson(std::string(R"({"k":)") + c.member + "}");
    const bool accepted = std::string(c.accepted_by).find(kind) != std::string::npos;
    const std::string what = std::string(1, kind) + " " + c.member;
    EXPECT_EQ(accepted, isJsonType<T>(object["k"])) << what;
    T lenient = sentinel;
    T strict = sentinel;
    EXPECT_EQ("", Read(lenient, object, false)) << what;
    const std::string reason = Read(strict, object, true);
    const T expected = accepted ? asJsonType<T>(object["k"]) : sentinel;
    // The wording is the same for every type.
    EXPECT_EQ(accepted ? "" : "Not a string, data=" + Json::toString(object), reason) << what;
    EXPECT_EQ(expected, strict) << what;
    EXPECT_EQ(expected, lenient) << what;
  }
  T out = sentinel;
  EXPECT_EQ("", Read(out, ParseJson(R"({"other":1})"), false));
  EXPECT_EQ(R"(Missing property: k, data={"other":1})",
            Read(out, ParseJson(R"({"other":1})"), true));
  for (bool required : {false, true}) {
    EXPECT_EQ("Not an object, data=[1]", Read(out, ParseJson("[1]"), required));
  }
  EXPECT_EQ(sentinel, out);
}

TEST(JsonHelpersTest, ScalarTypes) {
  CheckType<std::string>('s', std::string("sentinel"));
  CheckType<bool>('b', false);
  CheckType<int>('i', -42);
  CheckType<unsigned int>('u', 42u);
  CheckType<long>('l', -42L);
  CheckType<double>('d', -4.25);
  long l = 0;
  EXPECT_EQ("", Read(l, ParseJson(R"({"k":18446744073709551615})"), true));
  EXPECT_EQ(-1L, l) << "a uint beyond the signed range keeps its bits";
}

// Helpers of the module's fixed interface that the product itself does not
// call: one case per rule.
TEST_F(CommonTest, HelpersOfTheFixedInterface) {
  Json::Value any("sentinel");
  EXPECT_EQ("", Read(any, ParseJson(R"({"k":{"a":null}})"), true));
  EXPECT_EQ(ParseJson(R"({"a":null})"), any);
  EXPECT_EQ("", Read(any, ParseJson("{}"), false));
  EXPECT_EQ("Missing property: k, data={}", Read(any, ParseJson("{}"), true));
  EXPECT_EQ("Not an object, data=[]", Read(any, ParseJson("[]"), false));
  EXPECT_EQ(ParseJson(R"({"a":null})"), any);

  // null removes, objects merge, anything else replaces; no object changes nothing.
  Json::Value target = ParseJson(R"({"a":1,"b":{"d":2,"e":3},"c":[1,2],"s":"s","o":{"p":1}})");
  JsonApplyChanges(target, ParseJson(R"({"a":null,"b":{"c":1,"e":null},"c":[9],"s":{"n":true},
                                          "o":5,"m":null,"x":{"y":{"z":1}}})"));
  JsonApplyChanges(target, ParseJson(R"([{"a":2}])"));
  EXPECT_EQ(R"({"b":{"c":1,"d":2},"c":[9],"o":5,"s":{"n":true},"x":{"y":{"z":1}}})",
            Json::toString(target));
  EXPECT_EQ(Json::Value(Json::arrayValue), Vec2JsonArr<std::string>({}));
  const std::vector<std::string> strings = {"b", "", std::string("n\0l", 3)};
  EXPECT_EQ(strings, JsonArr2Vec<std::string>(Vec2JsonArr(strings)));
  EXPECT_EQ((std::vector<std::string>{"x", "1", "true", "", "2.5"}),
            JsonArr2Vec<std::string>(ParseJson(R"(["x",[1],1,true,null,2.5,{"a":1}])")));
  EXPECT_TRUE(JsonArr2Vec<std::string>(ParseJson(R"({"a":"b"})")).empty());

  EXPECT_EQ("c file  archive.tar.GZ", Basename("/a.b/c") + " " + Basename("file") + " " +
                                          Basename("/a/b/") + " " + Basename("/x/archive.tar.GZ"));
  EXPECT_EQ("|GZ|gz|", GetFileExtension("/a.b/c", false) + "|" +
                           GetFileExtension("/x/archive.tar.GZ", false) + "|" +
                           GetFileExtension("/x/archive.tar.GZ", true) + "|");
  EXPECT_EQ("[a ][  a][abc\xc3\x89]",  // bytes above 127 stay
            "[" + LTrim("  a ") + "][" + RTrim("  a \n") + "][" + ToLower("AbC\xc3\x89") + "]");

  WriteFile("/volume1/util/f", "data");
  mkdir("/volume1/util/d", 0755);
  symlink("/volume1/util/f", "/volume1/util/lf");
  symlink("/volume1/util/d", "/volume1/util/ld");
  symlink("ld", "/volume1/util/rel");  // relative: resolved from the cwd
  std::string answers;
  for (const bool answer :
       {IsFileExist("/volume1/util/f"), IsFileExist("/volume1/util/lf"),
        IsFileExist("/volume1/util/d"), IsDirExist("/volume1/util/d", false),
        IsDirExist("/volume1/util/ld", false), IsDirExist("/volume1/util/ld", true),
        IsDirExist("/volume1/util/lf", true), IsDirExist("/volume1/util/rel", true),
        IsDirExist("/volume1/util/none", true)}) {
    answers += answer ? '+' : '-';
  }
  EXPECT_EQ("+--+-+---", answers);
  struct dirent64 entry {};
  for (const auto type : {DT_DIR, DT_REG, DT_UNKNOWN}) {
    entry.d_type = type;
    // An entry of unknown type is never a folder, even for one.
    EXPECT_EQ(type == DT_DIR, IsDirentDir(&entry, "/volume1"));
  }
  EXPECT_TRUE(CPFile("/volume1/util/f", "/volume1/util/b"));
  EXPECT_TRUE(MVFile("/volume1/util/b", "/volume2/b"));
  EXPECT_FALSE(IsFileExist("/volume1/util/b"));
  EXPECT_EQ("data", kesttest::ReadFile("/volume2/b"));
  EXPECT_FALSE(CPFile("/volume1/util/none", "/volume1/util/c"));
  EXPECT_TRUE(Unlink("/volume2/b"));
  EXPECT_TRUE(Unlink("/volume2/b"));  // missing counts as removed
  EXPECT_FALSE(Unlink("/volume1/util/d"));
  EXPECT_TRUE(ChownKestOndri("/volume1/util/f"));
  struct stat st;
  ASSERT_EQ(0, stat("/volume1/util/f", &st));
  EXPECT_EQ(kesttest::kServiceUid, st.st_uid);
  EXPECT_EQ(kesttest::kServiceUid, st.st_gid);
  EXPECT_FALSE(ChownKestOndri("/volume1/util/none"));
}

// Of the helpers the product calls: what the permission checks, the hits
// and the history make of paths and strings.
TEST_F(CommonTest, PathsAndStrings) {
  for (const auto& c : std::vector<std::pair<const char*, const char*>>{
           {"/a/b/c.txt", "/a/b"}, {"file", "file"}, {"/file", ""}, {"/a/b/", "/a/b"}}) {
    EXPECT_EQ(c.second, Dirname(c.first)) << c.first;  // no '/': the whole path, not "."
  }
  EXPECT_TRUE(StringStartWith("/volume1/x", "/volume1"));
  EXPECT_FALSE(StringStartWith("x/volume1", "/volume1"));
  EXPECT_FALSE(StringStartWith("ab", "abc"));
  EXPECT_EQ("a b", Trim(" \t a b\n\v"));
  EXPECT_EQ("", Trim(" \t\r\n "));
  EXPECT_EQ("/volume1/util", RealPath("/volume1/util/../util/"));
  EXPECT_EQ("", RealPath("/volume1/util/none"));
  WriteFile("/volume1/util/f", "data", 0640);
  EXPECT_TRUE(CheckACLPerm("/volume1/util/f", 4));
  EXPECT_FALSE(CheckACLPerm("/volume1/util/f", 1));
  EXPECT_FALSE(CheckACLPerm("/volume1/util/none", 7));
  EXPECT_TRUE(IsMountPoint("/volume2"));
  EXPECT_FALSE(IsMountPoint("/volume1/util"));

  // A path that is not UTF-8 travels as a reference to its bytes; anything
  // that is no whole reference is a path as it is.
  EXPECT_EQ("hex:2f61ff0a", PathRef("/a\xff\n"));
  EXPECT_EQ("/a\xff\n", PathFromParam(PathRef("/a\xff\n")));
  EXPECT_EQ("/a", PathFromParam("hex:2F61"));
  EXPECT_EQ("", PathFromParam("hex:"));
  for (const std::string& param : std::vector<std::string>{
           "hex:2f6", "hex:2z", "hex:z2", "/volume1/x", "he:2f", std::string("hex:2\0", 6)}) {
    EXPECT_EQ(param, PathFromParam(param));
  }
}

TEST_F(CommonTest, ProcessDirWalksDepthFirstAndSurvivesCallbackErrors) {
  WriteFile("/volume1/walk/a/x", "");
  WriteFile("/volume1/walk/a/b/y", "");
  WriteFile("/volume1/walk/z", "");
  symlink("/volume1/walk/a", "/volume1/walk/link");  // not followed
  std::vector<std::string> seen;
  ProcessDir("/volume1/walk", [&seen](const std::string& path) {
    seen.push_back(path);
    if (path == "/volume1/walk/z") throw std::runtime_error("boom");
    if (path == "/volume1/walk/a/x") throw 42;
  });
  // A folder is visited before what it holds.
  const auto at = [&seen](const char* p) { return std::find(seen.begin(), seen.end(), p); };
  EXPECT_LT(at("/volume1/walk/a/b"), at("/volume1/walk/a/b/y"));
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(
      (std::vector<std::string>{"/volume1/walk/a", "/volume1/walk/a/b", "/volume1/walk/a/b/y",
                                "/volume1/walk/a/x", "/volume1/walk/link", "/volume1/walk/z"}),
      seen);
  EXPECT_EQ("502 Failed to open dir: /volume1/walk/none", kesttest::Thrown<Error>([] {
              ProcessDir("/volume1/walk/none", [](const std::string&) {});
            }));
  auto lines = CapturedLines();
  std::sort(lines.begin(), lines.end());
  EXPECT_EQ((std::vector<std::string>{
                LogLine("util.cc", 177, "ProcessDir",
                        "Failed [nullptr == (dir = opendir(full_path.c_str()))], reason: "
                        "Failed to open dir: /volume1/walk/none [err: No such file or "
                        "directory]"),
                LogLine("util.cc", 187, "ProcessDir",
                        "ProcessDir failed on /volume1/walk/z, reason=boom"),
                LogLine("util.cc", 189, "ProcessDir", "ProcessDir failed on /volume1/walk/a/x")}),
            lines);
}

}  // namespace
}  // namespace kestondri
