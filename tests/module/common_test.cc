// The module's common parts on the real system: errors, log, JSON, file, path and string helpers.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/json_helpers.h"
#include "common/lock_mutex.h"
#include "common/log.h"
#include "common/mutex.h"
#include "common/util.h"
#include "kest/json.h"
#include "module/api_runner.h"

namespace kestondri {
namespace {

using kesttest::LogLine;
using kesttest::ParseJson;
using kesttest::SyslogCapture;
using kesttest::WriteFile;

class CommonTest : public kesttest::ModuleTest {};

// The error's texts and the log's fixed lines: one error-priority line each,
// whatever its text holds; errno, when set, is reported and then cleared.
TEST_F(CommonTest, ErrorsAndLogLines) {
  const Error outdated(kErrOutdatedQuery, "Outdated query");
  EXPECT_EQ("KestOndri error, code=120|",  // what() is the reason alone
            std::string(Error(static_cast<ErrorCode>(120)).message()) + "|" +
                Error(kErrInvalidParam).what());
  EXPECT_STREQ("KestOndri error, code=1600, reason=[Outdated query]", outdated.message());
  EXPECT_EQ(outdated.message(), ErrorString(kErrOutdatedQuery, "Outdated query"));
  EXPECT_STREQ("Outdated query", outdated.what());

  const LogSite site{"share.cc", 34, "SDKShare"};
  const std::string long_reason(3000, 'r');
  Mutex checked(PTHREAD_MUTEX_ERRORCHECK);
  const struct {
    std::function<void()> write;
    int errno_before;
    std::string line;
  } cases[] = {
      {[&] { LogError(site, "Failed to execute, %d %s", 800, "x"); }, ENOENT,
       LogLine("share.cc", 34, "SDKShare",
               "Failed to execute, 800 x [err: No such file or directory]")},
      {[&] { LogFailed(site, "%s%n", "100% %s %m done"); }, 0,
       LogLine("share.cc", 34, "SDKShare", "Failed [%s%n], reason: 100% %s %m done")},
      {[&] { LogFailed(site, "e", long_reason); }, 0,
       LogLine("share.cc", 34, "SDKShare", "Failed [e], reason: " + long_reason)},
      // A failed lock or unlock is logged, and the scope still runs.
      {[&] {
         checked.Lock();
         LockMutex again(checked);
       },
       0, LogLine("lock_mutex.cc", 10, "LockMutex", "Failed [!mutex_.Lock()]")},
      {[&] {
         LockMutex guard(checked);
         checked.Unlock();
       },
       0, LogLine("lock_mutex.cc", 15, "~LockMutex", "Failed [!mutex_.Unlock()]")},
  };
  for (const auto& c : cases) {
    SyslogCapture::Instance().Clear();
    errno = c.errno_before;
    c.write();
    EXPECT_EQ(0, errno) << c.line;
    SyslogCapture::Instance().Settle(50);
    const auto lines = SyslogCapture::Instance().Lines();
    ASSERT_EQ(1u, lines.size()) << c.line;
    EXPECT_EQ(3, lines[0].priority & 7) << "error priority";
    EXPECT_EQ(c.line, lines[0].text);
  }
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

// The reader's own rules: three faults ("Not a string" for every type), an optional member of
// the wrong type left alone, only an integer as a long (a big uint keeps its bits).
TEST(JsonHelpersTest, Reads) {
  int i = 7;
  EXPECT_EQ("Not an object, data=[1]", Read(i, ParseJson("[1]"), false));
  EXPECT_EQ(R"(Missing property: k, data={"o":1})", Read(i, ParseJson(R"({"o":1})"), true));
  EXPECT_EQ("", Read(i, ParseJson(R"({"o":1})"), false));
  EXPECT_EQ("", Read(i, ParseJson(R"({"k":"x"})"), false));
  EXPECT_EQ(7, i);
  EXPECT_EQ(R"(Not a string, data={"k":"x"})", Read(i, ParseJson(R"({"k":"x"})"), true));
  EXPECT_EQ("", Read(i, ParseJson(R"({"k":-3})"), true));
  EXPECT_EQ(-3, i);
  unsigned int u = 7;
  EXPECT_EQ(R"(Not a string, data={"k":-1})", Read(u, ParseJson(R"({"k":-1})"), true));
  std::string text;
  EXPECT_EQ(R"(Not a string, data={"k":[]})", Read(text, ParseJson(R"({"k":[]})"), true));
  long l = 0;
  for (const char* member : {"1.5", "true", "null", R"("1")"}) {
    const Json::Value object = ParseJson(std::string(R"({"k":)") + member + "}");
    EXPECT_EQ("Not a string, data=" + Json::toString(object), Read(l, object, true)) << member;
  }
  EXPECT_EQ("", Read(l, ParseJson(R"({"k":18446744073709551615})"), true));
  EXPECT_EQ(-1L, l);
  Json::Value any("sentinel");
  EXPECT_EQ("", Read(any, ParseJson(R"({"k":{"a":null}})"), true));
  EXPECT_EQ(ParseJson(R"({"a":null})"), any);
  EXPECT_EQ("Missing property: k, data={}", Read(any, ParseJson("{}"), true));
}

// Helpers of the module's fixed interface that the product itself does not
// call: one case per rule, in order (later ones see what earlier ones did).
TEST_F(CommonTest, HelpersOfTheFixedInterface) {
  // null removes, objects merge, anything else replaces; no object changes nothing.
  Json::Value target = ParseJson(R"({"a":1,"b":{"d":2,"e":3},"c":[1,2],"s":"s","o":{"p":1}})");
  JsonApplyChanges(target, ParseJson(R"({"a":null,"b":{"c":1,"e":null},"c":[9],"s":{"n":true},
                                          "o":5,"m":null,"x":{"y":{"z":1}}})"));
  JsonApplyChanges(target, ParseJson(R"([{"a":2}])"));
  WriteFile("/volume1/util/f", "data");
  WriteFile("/volume1/util/d/e/g", "");
  symlink("/volume1/util/f", "/volume1/util/lf");
  symlink("/volume1/util/d", "/volume1/util/ld");
  symlink("ld", "/volume1/util/rel");  // relative: resolved from the cwd
  const auto yes = [](bool answer) { return std::string(answer ? "+" : "-"); };
  struct dirent64 entry {};
  entry.d_type = DT_UNKNOWN;  // never a folder, even for one
  std::string walked;
  Mutex recursive(PTHREAD_MUTEX_RECURSIVE);  // the kind reaches the system
  const std::pair<std::string, std::string> cases[] = {
      {Json::toString(target),
       R"({"b":{"c":1,"d":2},"c":[9],"o":5,"s":{"n":true},"x":{"y":{"z":1}}})"},
      {Json::toString(Vec2JsonArr<std::string>({"b", "", std::string("n\0l", 3)})),
       R"(["b","","n\u0000l"])"},
      {Json::toString(Vec2JsonArr(
           JsonArr2Vec<std::string>(ParseJson(R"(["x",[1],1,true,null,2.5,{"a":1}])")))),
       R"(["x","1","true","","2.5"])"},
      {yes(JsonArr2Vec<std::string>(ParseJson(R"({"a":"b"})")).empty()), "+"},
      {Basename("/a.b/c") + " " + Basename("file") + " " + Basename("/a/b/"), "c file "},
      {GetFileExtension("/a.b/c", false) + "|" + GetFileExtension("/x/archive.tar.GZ", false) +
           "|" + GetFileExtension("/x/archive.tar.GZ", true),
       "|GZ|gz"},
      {LTrim("  a ") + "|" + RTrim("  a \n") + "|" + ToLower("AbC\xc3\x89"), "a |  a|abc\xc3\x89"},
      {yes(recursive.Lock() && recursive.Lock() && recursive.Unlock() && recursive.Unlock()), "+"},
      {yes(IsFileExist("/volume1/util/f")) + yes(IsFileExist("/volume1/util/lf")) +
           yes(IsFileExist("/volume1/util/d")) + yes(IsDirExist("/volume1/util/d", false)) +
           yes(IsDirExist("/volume1/util/ld", false)) + yes(IsDirExist("/volume1/util/ld", true)) +
           yes(IsDirExist("/volume1/util/lf", true)) + yes(IsDirExist("/volume1/util/rel", true)) +
           yes(IsDirentDir(&entry, "/volume1")),
       "+--+-+---"},
      {(ProcessDir("/volume1/util/d", [&](const std::string& p) { walked += p + " "; }), walked),
       "/volume1/util/d/e /volume1/util/d/e/g "},  // a folder before what it holds
      {yes(CPFile("/volume1/util/f", "/volume1/util/b")), "+"},
      {yes(MVFile("/volume1/util/b", "/volume2/b")), "+"},
      {kesttest::ReadFile("/volume2/b") + yes(IsFileExist("/volume1/util/b")), "data-"},
      {yes(CPFile("/volume1/util/none", "/volume1/util/c")), "-"},
      {yes(Unlink("/volume2/b")), "+"},
      {yes(Unlink("/volume2/b")), "+"},  // missing counts as removed
      {yes(Unlink("/volume1/util/d")), "-"},
      {yes(ChownKestOndri("/volume1/util/f")) + yes(ChownKestOndri("/volume1/util/none")), "+-"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.second, c.first) << &c - cases;
  struct stat st;
  ASSERT_EQ(0, stat("/volume1/util/f", &st));
  EXPECT_EQ(kesttest::kServiceUid, st.st_uid);
  EXPECT_EQ(kesttest::kServiceUid, st.st_gid);
}

// Of the helpers the product calls, what its callers' tests miss: no '/', hostile references.
TEST_F(CommonTest, PathsAndStrings) {
  for (const auto& c : std::vector<std::pair<const char*, const char*>>{
           {"/a/b/c.txt", "/a/b"}, {"file", "file"}, {"/file", ""}, {"/a/b/", "/a/b"}})
    EXPECT_EQ(c.second, Dirname(c.first)) << c.first;  // no '/': the whole path, not "."
  // A path that is not UTF-8 travels as a reference to its bytes; the rest is a path as it is.
  EXPECT_EQ("hex:2f61ff0a", PathRef("/a\xff\n"));
  EXPECT_EQ("/a\xff\n", PathFromParam(PathRef("/a\xff\n")));
  EXPECT_EQ("", PathFromParam("hex:"));
  for (const std::string& param : std::vector<std::string>{
           "hex:2f6", "hex:2z", "hex:z2", "/volume1/x", "he:2f", std::string("hex:2\0", 6)})
    EXPECT_EQ(param, PathFromParam(param));
}

}  // namespace
}  // namespace kestondri
