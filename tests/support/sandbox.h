// The sandbox every test executable runs in.
//
// EnterSandbox() moves the process into private mount and network
// namespaces and pivots into a fresh root: an overlay of the host's root with
// tmpfs over the product's fixed paths (/run, hence /var/run, /tmp,
// /var/packages, /volume1, /volume2, /etc/kest), a private /dev whose
// /dev/log is the test's own syslog socket, and bind-mounted passwd, group
// and shadow files that add the test users below. The source and build trees
// stay visible at their paths. Nothing of the host is changed.
#ifndef KEST_TESTS_SUPPORT_SANDBOX_H_
#define KEST_TESTS_SUPPORT_SANDBOX_H_

#include <json/json.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace kesttest {

struct TestUser {
  const char* name;
  uid_t uid;
  gid_t gid;                        // primary group, named like the user
  const char* password;             // for PAM logins
  std::vector<const char*> groups;  // supplementary groups
};

// Groups that exist in the sandbox besides each user's own group.
constexpr gid_t kStaffGid = 2100;           // "staff": ann and bob
constexpr gid_t kAdministratorsGid = 2200;  // "administrators": carol
constexpr uid_t kServiceUid = 990;          // "KestOndri", the package's service user

constexpr uid_t kAnnUid = 2001;    // ordinary user, in staff
constexpr uid_t kBobUid = 2002;    // ordinary user, in staff
constexpr uid_t kCarolUid = 2003;  // administrator
constexpr uid_t kDaveUid = 2004;   // ordinary user, in no shared group

const std::vector<TestUser>& TestUsers();
const TestUser& UserByName(const std::string& name);

// Sets up the sandbox; aborts the process with a message when it cannot.
void EnterSandbox();

// Back to root with no supplementary groups beyond root's: tests that switch
// identity call it in TearDown.
void BecomeRoot();

// Writes `content` to `path` (creating parent folders), mode `mode`.
void WriteFile(const std::string& path, const std::string& content, mode_t mode = 0644);
std::string ReadFile(const std::string& path);
// Replaces /etc/kest/shares.conf through a rename, as an editor saving it
// would, so that a reader never sees half a file.
void WriteSharesConf(const std::string& text);
// Leaves a socket file at `path` that nobody listens on, as a daemon that
// died would.
void BindDeadSocket(const std::string& path);
// Parses JSON text; a test failure when it is not JSON.
Json::Value ParseJson(const std::string& text);

// Number of open descriptors of this process.
int OpenFdCount();
// The pids of `parent`'s living children, or with `zombies` of those that
// ended and wait to be reaped.
std::vector<pid_t> ChildrenOf(pid_t parent, bool zombies = false);
// The pids of this process's living (non-zombie) children.
std::vector<pid_t> LiveChildren();
// Reaps every exited child; waits up to `timeout_ms` for children still
// running to end. Returns the number of children left running. The wait
// statuses of the reaped children are appended to `statuses` when given.
int ReapChildren(int timeout_ms = 2000, std::vector<int>* statuses = nullptr);

// A program run as a child of the test: stopped (SIGTERM, reaped) by Stop()
// or the destructor.
class ChildProcess {
 public:
  ChildProcess() = default;
  ~ChildProcess() { Stop(); }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Runs `argv` (the program first, looked up in PATH without a slash);
  // `quiet` sends its output to /dev/null, `own_group` gives it a process
  // group of its own (for programs that signal their whole group).
  void Run(const std::vector<std::string>& argv, bool quiet = false, bool own_group = false);
  // False once the child has ended (it is then reaped).
  bool Running();
  // Sends SIGTERM unless `wait_only`, then reaps the child: its wait status;
  // the status it ended with when it had, -1 when it never ran.
  int Stop(bool wait_only = false);
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
  int status_ = -1;
};

// Runs `body` in a forked child acting as the sandbox's `user` (uid, gid and
// groups; "root" stays root) and returns what `body` returned once the child
// has ended; "" and a test failure when the child failed. With `lingering`,
// the child stays after answering, until killed: its pid goes there.
std::string InChildAs(const std::string& user, const std::function<std::string()>& body,
                      pid_t* lingering = nullptr);

}  // namespace kesttest

#endif  // KEST_TESTS_SUPPORT_SANDBOX_H_
