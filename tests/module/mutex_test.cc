// Mutex and LockMutex: results, and the log lines of failures.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "common/lock_mutex.h"
#include "common/mutex.h"
#include "common/sdk/credentials.h"
#include "module/api_runner.h"
#include "support/syslog_capture.h"

namespace kestondri {
namespace {

using kesttest::SyslogCapture;

std::vector<std::string> Captured() { return kesttest::CapturedLines(); }

TEST(MutexTest, KindsBehaveAsPosixSays) {
  Mutex normal(PTHREAD_MUTEX_NORMAL);
  EXPECT_TRUE(normal.Lock());
  EXPECT_FALSE(normal.TryLock());
  EXPECT_TRUE(normal.Unlock());
  EXPECT_TRUE(normal.TryLock());
  EXPECT_TRUE(normal.Unlock());

  Mutex recursive(PTHREAD_MUTEX_RECURSIVE);
  EXPECT_TRUE(recursive.Lock());
  EXPECT_TRUE(recursive.Lock());
  EXPECT_TRUE(recursive.Unlock());
  EXPECT_TRUE(recursive.Unlock());

  Mutex checked(PTHREAD_MUTEX_ERRORCHECK);
  EXPECT_FALSE(checked.Unlock());
  EXPECT_TRUE(checked.Lock());
  EXPECT_FALSE(checked.Lock());
  EXPECT_TRUE(checked.Unlock());
}

TEST(MutexTest, PlatformLockIsOneNonRecursiveMutex) {
  Mutex& lock = sdk::SDKMutex();
  EXPECT_EQ(&lock, &sdk::SDKMutex());
  {
    LockMutex guard(lock);
    EXPECT_FALSE(lock.TryLock()) << "held by the guard, not recursive";
  }
  EXPECT_TRUE(lock.TryLock());
  EXPECT_TRUE(lock.Unlock());
}

TEST(MutexTest, FailedUnlockIsLogged) {
  SyslogCapture::Instance().Clear();
  errno = 0;
  Mutex checked(PTHREAD_MUTEX_ERRORCHECK);
  {
    LockMutex guard(checked);
    EXPECT_TRUE(checked.Unlock());
  }
  EXPECT_EQ(std::vector<std::string>{kesttest::LogLine("lock_mutex.cc", 15, "~LockMutex",
                                                       "Failed [!mutex_.Unlock()]")},
            Captured());
}

TEST(MutexTest, FailedLockIsLoggedAndTheScopeStillRuns) {
  Mutex checked(PTHREAD_MUTEX_ERRORCHECK);
  ASSERT_TRUE(checked.Lock());
  SyslogCapture::Instance().Clear();
  errno = 0;
  bool ran = false;
  {
    LockMutex guard(checked);
    ran = true;
  }
  EXPECT_TRUE(ran);
  EXPECT_EQ(std::vector<std::string>{kesttest::LogLine("lock_mutex.cc", 10, "LockMutex",
                                                       "Failed [!mutex_.Lock()]")},
            Captured());
  // The guard's unlock released the lock taken before it.
  EXPECT_TRUE(checked.TryLock());
  EXPECT_TRUE(checked.Unlock());
}

TEST(MutexTest, BadKindIsLoggedAndTheMutexStillWorks) {
  SyslogCapture::Instance().Clear();
  errno = 0;
  {
    Mutex odd(99);
    EXPECT_TRUE(odd.Lock());
    EXPECT_TRUE(odd.Unlock());
  }
  EXPECT_EQ(std::vector<std::string>{kesttest::LogLine(
                "mutex.cc", 11, "Mutex", "Failed [0 != pthread_mutexattr_settype(&attr_, type)]")},
            Captured());
}

}  // namespace
}  // namespace kestondri
