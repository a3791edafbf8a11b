// Checks that one request leaves the process as it found it.
//
//   {
//     kesttest::RequestGuard guard;
//     kestondri::webapi::OndriAPIRun<SomeAPI>(&request, &response);
//   }  // reaps the request's children and checks what it left behind
//
// At construction it reaps leftovers of earlier tests, opens the syslog
// connection (so that a first log line does not count as a leaked
// descriptor) and records the open descriptor count, the live children and
// the effective uid, gid and supplementary groups. Finish() (or the
// destructor) reaps the children forked meanwhile, then records a test
// failure when descriptors or live children differ, when the effective ids
// are not the expected ones, or when the platform lock is still held. It
// then puts back the recorded identity so that the next test starts as it
// did.
//
// A request acting as an ordinary login user deliberately leaves the
// process as that user; say so with ExpectIdentityAfter().
//
// Link the module's objects (kestondri_core) next to this helper: it checks
// the module's platform lock. Not thread-safe.
#ifndef KEST_TESTS_SUPPORT_REQUEST_GUARD_H_
#define KEST_TESTS_SUPPORT_REQUEST_GUARD_H_

#include <sys/types.h>

#include <string>
#include <vector>

namespace kesttest {

class RequestGuard {
 public:
  RequestGuard();
  ~RequestGuard();
  RequestGuard(const RequestGuard&) = delete;
  RequestGuard& operator=(const RequestGuard&) = delete;

  // The effective ids the request is expected to leave (default: the ids at
  // construction).
  void ExpectIdentityAfter(uid_t euid, gid_t egid);
  // The same for a test user by name.
  void ExpectIdentityAfter(const std::string& user_name);

  // Reaps and checks (once); returns the wait statuses of the children that
  // ended during the request.
  const std::vector<int>& Finish();

 private:
  int fd_count_;
  size_t children_;
  uid_t euid_;
  gid_t egid_;
  std::vector<gid_t> groups_;
  uid_t expected_euid_;
  gid_t expected_egid_;
  bool finished_ = false;
  std::vector<int> statuses_;
};

// Every status of `statuses` is a normal exit with status 0, and there are
// `count` of them.
bool AllExitedZero(const std::vector<int>& statuses, size_t count);

}  // namespace kesttest

#endif  // KEST_TESTS_SUPPORT_REQUEST_GUARD_H_
