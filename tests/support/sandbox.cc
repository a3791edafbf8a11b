#include "support/sandbox.h"

#include <crypt.h>
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "kest/json.h"
#include "support/syslog_capture.h"

namespace kesttest {
namespace {

[[noreturn]] void Die(const std::string& what) {
  fprintf(stderr, "test sandbox: %s: %s\n", what.c_str(), strerror(errno));
  exit(2);
}

void Check(bool ok, const std::string& what) {
  if (!ok) Die(what);
}

void MkdirP(const std::string& path, mode_t mode = 0755) {
  std::string partial;
  std::stringstream parts(path);
  std::string part;
  while (std::getline(parts, part, '/')) {
    if (part.empty()) continue;
    partial += "/" + part;
    if (mkdir(partial.c_str(), mode) != 0 && errno != EEXIST) Die("mkdir " + partial);
  }
}

void MountTmpfs(const std::string& path, const char* options = "mode=0755") {
  MkdirP(path);
  Check(mount("tmpfs", path.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options) == 0,
        "mount tmpfs on " + path);
}

void Bind(const std::string& from, const std::string& to, bool recursive = false) {
  struct stat st;
  Check(stat(from.c_str(), &st) == 0, "stat " + from);
  if (S_ISDIR(st.st_mode)) {
    MkdirP(to);
  } else {
    int fd = open(to.c_str(), O_CREAT | O_WRONLY, 0644);
    Check(fd >= 0, "create " + to);
    close(fd);
  }
  Check(mount(from.c_str(), to.c_str(), nullptr, MS_BIND | (recursive ? MS_REC : 0), nullptr) == 0,
        "bind " + from + " on " + to);
}

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// Host lines of a passwd-like file, without the entries the sandbox defines.
std::string HostLinesWithout(const std::string& path, const std::vector<std::string>& names) {
  std::stringstream in(Slurp(path));
  std::string line;
  std::string out;
  while (std::getline(in, line)) {
    const std::string name = line.substr(0, line.find(':'));
    bool ours = false;
    for (const auto& n : names) ours = ours || n == name;
    if (!ours && !line.empty()) out += line + "\n";
  }
  return out;
}

std::string Hash(const char* password) {
  struct crypt_data data;
  memset(&data, 0, sizeof(data));
  const char* hash = crypt_r(password, "$6$kestsandbox$", &data);
  Check(hash && hash[0] == '$', "crypt");
  return hash;
}

struct TestGroup {
  const char* name;
  gid_t gid;
};

const std::vector<TestGroup>& SharedGroups() {
  static const std::vector<TestGroup> groups = {{"staff", kStaffGid},
                                                {"administrators", kAdministratorsGid}};
  return groups;
}

void WriteAccountFiles(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& u : TestUsers()) names.push_back(u.name);
  std::vector<std::string> group_names = names;
  for (const auto& g : SharedGroups()) group_names.push_back(g.name);

  std::string passwd = HostLinesWithout("/etc/passwd", names);
  std::string shadow = HostLinesWithout("/etc/shadow", names);
  std::string group = HostLinesWithout("/etc/group", group_names);
  std::string gshadow = HostLinesWithout("/etc/gshadow", group_names);
  for (const auto& u : TestUsers()) {
    const bool service = u.uid < 1000;
    passwd += std::string(u.name) + ":x:" + std::to_string(u.uid) + ":" + std::to_string(u.gid) +
              "::" + (service ? "/nonexistent" : std::string("/home/") + u.name) + ":" +
              (service ? "/usr/sbin/nologin" : "/bin/sh") + "\n";
    shadow +=
        std::string(u.name) + ":" + (u.password ? Hash(u.password) : "!") + ":19000:0:99999:7:::\n";
    group += std::string(u.name) + ":x:" + std::to_string(u.gid) + ":\n";
    gshadow += std::string(u.name) + ":!::\n";
  }
  for (const auto& g : SharedGroups()) {
    std::string members;
    for (const auto& u : TestUsers()) {
      for (const char* name : u.groups) {
        if (std::string(name) == g.name)
          members += (members.empty() ? "" : ",") + std::string(u.name);
      }
    }
    group += std::string(g.name) + ":x:" + std::to_string(g.gid) + ":" + members + "\n";
    gshadow += std::string(g.name) + ":!::" + members + "\n";
  }
  WriteFile(dir + "/passwd", passwd);
  WriteFile(dir + "/group", group);
  WriteFile(dir + "/shadow", shadow, 0640);
  WriteFile(dir + "/gshadow", gshadow, 0640);
}

void BuildDev(const std::string& dev) {
  MountTmpfs(dev, "mode=0755");
  for (const char* node : {"null", "zero", "full", "random", "urandom", "tty"}) {
    Bind(std::string("/dev/") + node, dev + "/" + node);
  }
  MkdirP(dev + "/pts");
  Check(mount("/dev/pts", (dev + "/pts").c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0,
        "bind /dev/pts");
  MountTmpfs(dev + "/shm", "mode=1777");
  symlink("/proc/self/fd", (dev + "/fd").c_str());
  symlink("/proc/self/fd/0", (dev + "/stdin").c_str());
  symlink("/proc/self/fd/1", (dev + "/stdout").c_str());
  symlink("/proc/self/fd/2", (dev + "/stderr").c_str());
  symlink("pts/ptmx", (dev + "/ptmx").c_str());
}

void LoopbackUp() {
  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  Check(fd >= 0, "socket");
  struct ifreq ifr;
  memset(&ifr, 0, sizeof(ifr));
  strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
  Check(ioctl(fd, SIOCGIFFLAGS, &ifr) == 0, "get lo flags");
  ifr.ifr_flags |= IFF_UP | IFF_RUNNING;
  Check(ioctl(fd, SIOCSIFFLAGS, &ifr) == 0, "bring lo up");
  close(fd);
  // The syslog socket is a datagram socket; a queue of 10 (the default)
  // would make a chatty child block on it.
  std::ofstream("/proc/sys/net/unix/max_dgram_qlen") << 4096;
}

}  // namespace

const std::vector<TestUser>& TestUsers() {
  static const std::vector<TestUser> users = {
      {"KestOndri", kServiceUid, kServiceUid, nullptr, {}},
      {"ann", kAnnUid, kAnnUid, "ann-secret", {"staff"}},
      {"bob", kBobUid, kBobUid, "bob-secret", {"staff"}},
      {"carol", kCarolUid, kCarolUid, "carol-secret", {"administrators"}},
      {"dave", kDaveUid, kDaveUid, "dave-secret", {}},
  };
  return users;
}

const TestUser& UserByName(const std::string& name) {
  for (const auto& u : TestUsers()) {
    if (name == u.name) return u;
  }
  throw std::invalid_argument("no test user " + name);
}

void EnterSandbox() {
  if (getuid() != 0) {
    fprintf(stderr, "test sandbox: the tests must run as root (they use namespaces)\n");
    exit(2);
  }
  char cwd[4096];
  Check(getcwd(cwd, sizeof(cwd)) != nullptr, "getcwd");

  Check(unshare(CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWUTS | CLONE_NEWIPC) == 0, "unshare");
  Check(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "make / private");
  LoopbackUp();

  // Staging lives in the build tree, on a tmpfs only this namespace sees.
  const std::string staging = std::string(KEST_BINARY_DIR) + "/.sandbox";
  MountTmpfs(staging);
  for (const char* d : {"upper", "work", "root", "files"}) MkdirP(staging + "/" + d);
  const std::string root = staging + "/root";
  const std::string options =
      "lowerdir=/,upperdir=" + staging + "/upper,workdir=" + staging + "/work";
  Check(mount("overlay", root.c_str(), "overlay", 0, options.c_str()) == 0, "overlay root");

  Bind("/proc", root + "/proc", true);
  Bind("/sys", root + "/sys", true);
  BuildDev(root + "/dev");
  const std::vector<std::string> fresh = {"/run",     "/tmp",     "/var/packages",
                                          "/volume1", "/volume2", "/etc/kest"};
  for (const auto& path : fresh) {
    MountTmpfs(root + path, path == "/tmp" ? "mode=1777" : "mode=0755");
  }
  struct stat st;
  if (lstat("/var/run", &st) == 0 && !S_ISLNK(st.st_mode)) MountTmpfs(root + "/var/run");

  // The trees the tests run from stay where they are.
  std::vector<std::string> keep = {KEST_SOURCE_DIR, KEST_BINARY_DIR, cwd};
  for (const auto& path : keep) Bind(path, root + path);

  WriteAccountFiles(staging + "/files");
  for (const char* name : {"passwd", "group", "shadow", "gshadow"}) {
    Bind(staging + "/files/" + name, root + "/etc/" + name);
  }

  MkdirP(root + "/.oldroot");
  Check(chdir(root.c_str()) == 0, "chdir new root");
  Check(syscall(SYS_pivot_root, ".", ".oldroot") == 0, "pivot_root");
  Check(chdir("/") == 0, "chdir /");
  Check(umount2("/.oldroot", MNT_DETACH) == 0, "detach old root");
  rmdir("/.oldroot");
  Check(chdir(cwd) == 0, "chdir back");
  sethostname("kest-sandbox", 12);
  setenv("HOME", "/root", 1);

  SyslogCapture::Instance().Start();
}

void BecomeRoot() {
  if (geteuid() != 0 && seteuid(0) != 0) Die("seteuid(0)");
  if (setegid(0) != 0) Die("setegid(0)");
  gid_t none[1] = {0};
  if (setgroups(1, none) != 0) Die("setgroups");
}

void WriteFile(const std::string& path, const std::string& content, mode_t mode) {
  const auto slash = path.rfind('/');
  if (slash != std::string::npos && slash > 0) MkdirP(path.substr(0, slash));
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) throw std::runtime_error("cannot write " + path);
  out << content;
  out.close();
  chmod(path.c_str(), mode);
}

std::string ReadFile(const std::string& path) { return Slurp(path); }

void WriteSharesConf(const std::string& text) {
  WriteFile("/etc/kest/shares.conf.new", text);
  if (rename("/etc/kest/shares.conf.new", "/etc/kest/shares.conf") != 0) {
    ADD_FAILURE() << "cannot replace /etc/kest/shares.conf: " << strerror(errno);
  }
}

void BindDeadSocket(const std::string& path) {
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
  unlink(path.c_str());
  EXPECT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr))) << path;
  close(fd);
  chmod(path.c_str(), 0666);
}

Json::Value ParseJson(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(Json::fromString(value, text)) << text;
  return value;
}

int OpenFdCount() {
  int count = 0;
  DIR* dir = opendir("/proc/self/fd");
  if (!dir) return -1;
  while (struct dirent* entry = readdir(dir)) {
    if (entry->d_name[0] != '.') ++count;
  }
  closedir(dir);
  return count - 1;  // the directory's own descriptor
}

std::vector<pid_t> ChildrenOf(pid_t parent, bool zombies) {
  std::vector<pid_t> children;
  DIR* dir = opendir("/proc");
  if (!dir) return children;
  while (struct dirent* entry = readdir(dir)) {
    const pid_t pid = atoi(entry->d_name);
    if (pid <= 0) continue;
    std::string stat = Slurp("/proc/" + std::to_string(pid) + "/stat");
    const auto close_paren = stat.rfind(')');
    if (close_paren == std::string::npos) continue;
    char state = 0;
    int ppid = 0;
    if (sscanf(stat.c_str() + close_paren + 1, " %c %d", &state, &ppid) != 2) continue;
    if (ppid == parent && (state == 'Z') == zombies) children.push_back(pid);
  }
  closedir(dir);
  return children;
}

std::vector<pid_t> LiveChildren() { return ChildrenOf(getpid()); }

int ReapChildren(int timeout_ms, std::vector<int>* statuses) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  auto sweep = [statuses] {
    int status = 0;
    while (waitpid(-1, &status, WNOHANG) > 0) {
      if (statuses) statuses->push_back(status);
    }
  };
  for (;;) {
    sweep();
    const int running = static_cast<int>(LiveChildren().size());
    if (running == 0 || std::chrono::steady_clock::now() >= deadline) {
      // A child may have ended between the sweep and the count.
      sweep();
      return running;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

void ChildProcess::Run(const std::vector<std::string>& argv, bool quiet, bool own_group) {
  Stop();
  status_ = -1;
  pid_ = fork();
  if (pid_ != 0) return;
  if (own_group) setpgid(0, 0);
  if (quiet) {
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    dup2(null, 2);
  }
  std::vector<char*> args;
  for (const auto& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  execvp(args[0], args.data());
  _exit(127);
}

bool ChildProcess::Running() {
  if (pid_ > 0 && waitpid(pid_, &status_, WNOHANG) == pid_) pid_ = -1;
  return pid_ > 0;
}

int ChildProcess::Stop(bool wait_only) {
  if (pid_ <= 0) return status_;
  if (!wait_only) kill(pid_, SIGTERM);
  waitpid(pid_, &status_, 0);
  pid_ = -1;
  return status_;
}

std::string InChildAs(const std::string& user, const std::function<std::string()>& body,
                      pid_t* lingering) {
  int out[2];
  if (pipe(out) != 0) return "";
  const pid_t child = fork();
  if (child == 0) {
    close(out[0]);
    if (user != "root") {
      const TestUser& u = UserByName(user);
      std::vector<gid_t> groups = {u.gid};
      for (const char* g : u.groups) groups.push_back(getgrnam(g)->gr_gid);
      if (setgroups(groups.size(), groups.data()) != 0 || setgid(u.gid) != 0 ||
          setuid(u.uid) != 0) {
        _exit(3);
      }
    }
    const std::string text = body();
    for (size_t done = 0; done < text.size();) {
      const ssize_t n = write(out[1], text.data() + done, text.size() - done);
      if (n <= 0) _exit(4);
      done += static_cast<size_t>(n);
    }
    close(out[1]);
    while (lingering) pause();
    _exit(0);
  }
  close(out[1]);
  std::string text;
  char buffer[65536];
  for (ssize_t n; (n = read(out[0], buffer, sizeof buffer)) > 0;) text.append(buffer, n);
  close(out[0]);
  if (lingering) {
    *lingering = child;
    return text;
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
      << "child as " << user << ": " << status;
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? text : "";
}

}  // namespace kesttest
