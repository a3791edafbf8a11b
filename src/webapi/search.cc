#include "webapi/search.h"

#include <cxxabi.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <functional>
#include <memory>
#include <set>
#include <stdexcept>
#include <unordered_map>
#include <utility>

#include "common/constants.h"
#include "common/json_helpers.h"
#include "common/lock_mutex.h"
#include "common/log.h"
#include "common/process_mark.h"
#include "common/sdk/share.h"
#include "common/sdk/share_path.h"
#include "common/sdk/task.h"
#include "common/sdk/user.h"
#include "common/string_helpers.h"
#include "common/util.h"
#include "kest/json.h"
#include "kest/klib.h"
#include "kestdaemon/sock_connection.h"
#include "kestondri/db.h"
#include "kestondri/fileindex.h"
#include "kestondri/pref.h"

namespace kestondri {
namespace webapi {
namespace {

constexpr char kFile[] = "search.cc";
constexpr char kQueryInfoPrefix[] = "/tmp/vyr_query_";
constexpr char kQueryInfoSuffix[] = ".pid";
constexpr int kMalformedQuery = 1001;
// One message is capped by the transport; a daemon that streams without end
// is cut off here, so that a page of hits never costs unbounded memory.
constexpr size_t kMaxReplyBytes = 256u << 20;

// A broken exchange with the daemon: the log names the check and the error's
// composed message, then the code alone goes up.
[[noreturn]] void DaemonFailed(const LogSite& site, const char* expr, ErrorCode code) {
  const Error error(code);
  LogFailed(site, expr, error.message());
  throw error;
}

// The tracking file lives in a folder every local user may write to, so a
// file there is taken for a record only when it is a regular file (never a
// symbolic link) written by the module itself: owned by root (requests of
// administrators) or by the identity this request acts as. Anything else is
// as good as no file, and is never written through.
constexpr off_t kMaxRecordBytes = 64 * 1024;
constexpr char kRecordStartTime[] = "start_time";

bool OwnRecord(int fd) {
  struct stat st {};
  return 0 == fstat(fd, &st) && S_ISREG(st.st_mode) && st.st_size <= kMaxRecordBytes &&
         (0 == st.st_uid || geteuid() == st.st_uid);
}

bool ReadRecord(Json::Value& record, const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return false;
  std::string text;
  bool ok = OwnRecord(fd);
  char buffer[4096];
  while (ok) {
    const ssize_t n = read(fd, buffer, sizeof(buffer));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0 || text.size() > static_cast<size_t>(kMaxRecordBytes)) {
      ok = n == 0;
      break;
    }
    text.append(buffer, static_cast<size_t>(n));
  }
  close(fd);
  return ok && Json::fromString(record, text);
}

bool WriteRecord(const Json::Value& record, const std::string& path) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  const std::string text = Json::toString(record);
  bool ok = OwnRecord(fd) && 0 == ftruncate(fd, 0);
  for (size_t done = 0; ok && done < text.size();) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    ok = n > 0;
    if (ok) done += static_cast<size_t>(n);
  }
  return 0 == close(fd) && ok;
}

// What the pid of a tracking record turns out to be.
struct OlderRequest {
  enum Kind {
    kGone,         // no live process started when the record says
    kThisProcess,  // the process serving this request
    kServing,      // a sibling worker serving this identity: may be stopped
    kStranger,     // a live process that is not ours to stop
  } kind = kGone;
  pid_t pid = 0;
  int pidfd = -1;   // held from before the checks until the signal
  std::string why;  // for kStranger, what did not match
};

int PidfdOpen(pid_t pid) { return static_cast<int>(syscall(SYS_pidfd_open, pid, 0)); }

// The record's "start_time" is written by the module from /proc; a record
// without it (or with another) cannot be told from one naming a reused pid.
OlderRequest FindOlderRequest(pid_t pid, const Json::Value& record) {
  OlderRequest older;
  older.pid = pid;
  // The descriptor pins the process: checks made after it is open are about
  // that very process, and a signal through it never reaches a later
  // holder of the pid.
  older.pidfd = PidfdOpen(pid);
  const int saved = errno;
  ProcessMark mark;
  const Json::Value& start = record[kRecordStartTime];
  if (!ReadProcessMark(pid, &mark) || !start.isUInt64() || start.asUInt64() != mark.start_time) {
    older.kind = OlderRequest::kGone;
  } else if (pid == getpid()) {
    older.kind = OlderRequest::kThisProcess;
  } else if (mark.parent != getppid()) {
    older.kind = OlderRequest::kStranger;
    older.why = "not a worker of this server";
  } else if (mark.euid != geteuid()) {
    older.kind = OlderRequest::kStranger;
    older.why = "acts for another identity";
  } else {
    older.kind = OlderRequest::kServing;
  }
  errno = saved;
  if (older.kind != OlderRequest::kServing && older.pidfd >= 0) {
    close(older.pidfd);
    older.pidfd = -1;
  }
  return older;
}

void StopOlderRequest(const OlderRequest& older) {
  const int saved = errno;
  if (older.pidfd >= 0) {
    syscall(SYS_pidfd_send_signal, older.pidfd, SIGKILL, nullptr, 0);
    close(older.pidfd);
  } else {
    // Kernels before 5.3 have no pidfd: the checks and the signal are a few
    // microseconds apart, too short for a pid to be reused in between.
    kill(older.pid, SIGKILL);
  }
  // What the signal returns is ignored: the older request may just have ended.
  errno = saved;
}

using UserRecord = std::unique_ptr<KESTUSER, decltype(&KESTUserFree)>;

// Builds a User from a platform record; the record stays the caller's.
// Called under the platform lock.
sdk::User UserFromRecord(const KESTUSER* record) {
  sdk::User user;
  user.name_ = record->szName ? record->szName : "";
  user.uid_ = record->nUID;
  user.gid_ = record->nGID;
  user.flags_ = record->fFlags;
  user.home_enabled_ = KESTServiceUserHomeIsEnabled(record->fFlags) != 0;
  return user;
}

}  // namespace

Json::Value ReadSearchReply(kestdaemon::SockConnection& conn, const std::string& request_text) {
  Json::Value result;
  // A map node: stays put while "total" is added beside it.
  Json::Value& hits = result["hits"];
  hits = Json::Value(Json::arrayValue);
  Json::Value js_resp;
  std::string str_resp;
  size_t received = 0;
  for (;;) {
    if (!conn.Recv(str_resp)) {
      DaemonFailed({kFile, 268, "Search"}, "!conn.Recv(str_resp)", kErrExecute);
    }
    received += str_resp.size();
    if (received > kMaxReplyBytes) {
      ThrowFailed({kFile, 272, "Search"}, "received > kMaxReplyBytes",
                  Error(kErrExecute, "search reply too large"));
    }
    js_resp = Json::Value();
    if (!Json::fromString(js_resp, str_resp) || !js_resp.isObject()) {
      DaemonFailed({kFile, 277, "Search"}, "!js_resp.fromString(str_resp)", kErrExecute);
    }
    if (js_resp.isMember("total")) {
      if (!isJsonType<int>(js_resp["total"])) {
        ThrowFailed({kFile, 281, "Search"}, "!js_resp[\"total\"].isInt()",
                    Error(kErrExecute, "Malformed count message: " + str_resp));
      }
      result["total"] = js_resp["total"].asInt();
      continue;
    }
    if (js_resp.isMember("success")) break;
    hits.append(std::move(js_resp));
  }

  if (js_resp["success"].asBool()) return result;

  int code = 0;
  std::string msg;
  GetJsonValue<int>(code, js_resp["error"], "code", true);
  GetJsonValue<std::string>(msg, js_resp["error"], "msg", true);
  if (kMalformedQuery == code) {
    // The daemon's own text says less than the query that caused it.
    msg = "Malformed search query: " + request_text;
  }
  throw Error(static_cast<ErrorCode>(code), "Unable to perform search, msg=" + msg);
}

Json::Value UnavailOfReply(const std::string& str_res) {
  Json::Value res;
  if (!Json::fromString(res, str_res) || !res.isObject()) {
    DaemonFailed({kFile, 321, "GetUnavailDB"}, "!res.fromString(str_res)", kErrExecute);
  }

  Json::Value unavail(Json::arrayValue);
  const Json::Value& data = res["data"];
  if (!data.isObject()) return unavail;
  for (const char* state : {"unknown", "checking", "crashed"}) {
    const Json::Value& names = data[state];
    if (!names.isArray()) continue;
    for (const auto& name : names) {
      if (name.isString()) unavail.append(name);
    }
  }
  return unavail;
}

SearchAPI::~SearchAPI() = default;

void SearchAPI::ParseParams() {
  using Req = KEST::APIRequest;
  const auto indice = request_->GetAndCheckArray("indice", Req::PARAM_REQUIRED);
  const auto from = request_->GetAndCheckInt("from", Req::PARAM_REQUIRED);
  const auto size = request_->GetAndCheckInt("size", Req::PARAM_REQUIRED);
  const auto query_serial = request_->GetAndCheckInt("query_serial", Req::PARAM_REQUIRED);
  const auto fields = request_->GetAndCheckArray("fields", Req::PARAM_REQUIRED);
  const auto file_type = request_->GetAndCheckString("file_type", Req::PARAM_REQUIRED);
  const auto highlight = request_->GetAndCheckArray("highlight", Req::PARAM_OPTIONAL);
  const auto keyword = request_->GetAndCheckString("keyword", Req::PARAM_OPTIONAL);
  const auto orig_keyword = request_->GetAndCheckString("orig_keyword", Req::PARAM_OPTIONAL);
  const auto criteria_list = request_->GetAndCheckArray("criteria_list", Req::PARAM_OPTIONAL);
  const auto search_weight_list =
      request_->GetAndCheckArray("search_weight_list", Req::PARAM_OPTIONAL);
  const auto agent = request_->GetAndCheckString("agent", Req::PARAM_OPTIONAL);
  const auto query_id = request_->GetAndCheckString("query_id", Req::PARAM_OPTIONAL);

  keyword_ = keyword.Get("");
  orig_keyword_ = orig_keyword.Get("");
  criteria_list_ = criteria_list.Get(Json::Value(Json::arrayValue));
  file_type_ = file_type.Get();
  from_ = from.Get();
  size_ = size.Get();
  Json::Value shares = indice.Get(Json::Value(Json::arrayValue));
  search_weight_list_ = search_weight_list.Get();
  has_criteria_ = 0 != criteria_list_.size();
  agent_ = agent.Get("others");
  query_id_ = query_id.Get("");
  query_serial_ = query_serial.Get(0);
  params_["fields"] = fields.Get(Json::Value(Json::arrayValue));
  if (highlight.IsReset()) {
    highlight_ = Json::Value();
  } else {
    highlight_ = highlight.Get();
  }

  if (shares.empty()) {
    shares = Json::Value(Json::arrayValue);
    for (const auto& name : fileindex::FolderMgr().GetIndexedShares()) shares.append(name);
  }

  const std::string user_name = request_->GetLoginUserName();
  indice_ = Json::Value(Json::arrayValue);
  for (const auto& name : shares) {
    std::string share_name;
    try {
      share_name = name.asString();
      sdk::SDKShare share(share_name);
      if (!request_->IsAdmin() && share_name != "homes" && 4 == share.GetPrivilege(user_name)) {
        continue;
      }
    } catch (abi::__forced_unwind&) {
      throw;
    } catch (...) {
      // A share that cannot be opened or checked is simply not searched.
      continue;
    }
    indice_.append(fileindex::elastic::GetFileIndexID(share_name));
  }

  if (!request_->IsAdmin()) {
    params_["filters"][0]["name"] = "permission";
    params_["filters"][0]["data"] = static_cast<Json::UInt>(request_->GetLoginUID());
  }
}

void SearchAPI::Execute() {
  if (!orig_keyword_.empty() &&
      pref::Preference(request_->GetLoginUID()).Get<bool>(kPrefEnableHistory)) {
    sdk::ForkTask task(1);
    task.DoTask(std::bind(&SearchAPI::RecordHistory, this));
  }

  if (indice_.empty()) {
    output_["hits"] = Json::Value(Json::arrayValue);
    output_["total"] = 0;
    output_["unavail"] = Json::Value(Json::arrayValue);
    return;
  }

  MarkProcRunning();
  Json::Value result = Search();
  Json::Value unavail = GetUnavailDB();
  ClearProcRunning();

  output_["hits"] = result["hits"];
  output_["total"] = result["total"];
  output_["unavail"] = unavail;
}

void SearchAPI::MarkProcRunning() {
  query_info_file_ = kQueryInfoPrefix + query_id_ + kQueryInfoSuffix;
  if (std::string::npos != query_id_.find("/")) {
    ThrowFailed({kFile, 173, "MarkProcRunning"}, "string::npos != query_id_.find(\"/\")",
                Error(kErrInvalidParam));
  }
  if (query_id_.empty()) return;

  Json::Value query_info;
  if (ReadRecord(query_info, query_info_file_)) {
    // A file that holds JSON but no object is as good as none.
    if (!query_info.isObject()) query_info = Json::Value(Json::objectValue);
    unsigned int pid = 0;
    int serial = 0;
    GetJsonValue<unsigned int>(pid, query_info, "pid", false);
    GetJsonValue<int>(serial, query_info, "query_serial", false);
    // A record without a positive pid can name no one to stop, and counts as
    // outdated: kept, since nothing an attacker writes there harms anyone.
    if (static_cast<int32_t>(pid) <= 0) throw Error(kErrOutdatedQuery, "Outdated query");
    const OlderRequest older = FindOlderRequest(static_cast<pid_t>(pid), query_info);
    if (older.kind == OlderRequest::kServing || older.kind == OlderRequest::kThisProcess) {
      // Equal serials count as outdated so that a retried request never
      // kills its twin.
      if (serial >= query_serial_) throw Error(kErrOutdatedQuery, "Outdated query");
      // A record of this very process is left by an earlier request of this
      // worker that failed: that request is over, and this one must live.
      if (older.kind == OlderRequest::kServing) StopOlderRequest(older);
    } else if (older.kind == OlderRequest::kStranger) {
      // Anyone may write a record here naming any pid: only a worker of this
      // server acting for this very identity, started when the record says,
      // is an older request of the query id. Anything else is refused and
      // the record counts as none, for whatever serial comes.
      LogFailed({kFile, __LINE__, "MarkProcRunning"}, "IsOlderRequest(pid)",
                "refused to stop pid " + std::to_string(pid) + ": " + older.why);
    }
    // kGone: the request that wrote the record failed or was killed; it
    // blocks nobody, and its pid may by now be someone else's.
  } else {
    query_info = Json::Value(Json::objectValue);
  }

  query_info["pid"] = static_cast<Json::Int>(getpid());
  query_info["query_serial"] = query_serial_;
  ProcessMark self;
  if (ReadProcessMark(getpid(), &self)) {
    query_info[kRecordStartTime] = static_cast<Json::UInt64>(self.start_time);
  }
  if (!WriteRecord(query_info, query_info_file_)) {
    LogFailed({kFile, 199, "MarkProcRunning"}, "!query_info.toFile(query_info_file_)");
  }
}

void SearchAPI::ClearProcRunning() {
  if (query_id_.empty()) return;
  if (0 > unlink(query_info_file_.c_str())) {
    LogFailed({kFile, 208, "ClearProcRunning"}, "0 > unlink(query_info_file_.c_str())");
  }
}

Json::Value SearchAPI::Search() {
  Json::Value result;
  if (0 != access(kElasticdSocketPath, F_OK)) {
    errno = 0;
    result["hits"] = Json::Value(Json::arrayValue);
    result["total"] = 0;
    return result;
  }

  kestdaemon::DomainSockConnection conn(kElasticdSocketPath);
  if (!conn.Connect(kElasticdConnectTimeout)) {
    DaemonFailed({kFile, 227, "Search"}, "!conn.Connect(kElasticdConnectTimeout)",
                 kErrDaemonConnect);
  }

  Json::Value js_req_to_daemon;
  js_req_to_daemon["command"] = "search";
  Json::Value& data = js_req_to_daemon["data"];
  data = params_;
  data["pre_query"]["keyword"] = keyword_;
  data["pre_query"]["criteria_list"] = criteria_list_;
  data["pre_query"]["file_type"] = file_type_;
  data["pre_query"]["search_weight_list"] = search_weight_list_;
  data["orig_keyword"] = orig_keyword_;
  data["indice"] = indice_;
  data["from"] = from_;
  data["size"] = size_;
  data["default_search_op"] = "AND";
  data["accurate_sum"] = false;
  for (const char* field :
       {"KESTMDPath", "KESTMDFSName", "KESTMDExtension", "KESTMDIsDir", "KESTMDFSSize"}) {
    data["load_field"].append(field);
  }
  data["lazy_field"].append("KESTMDTextContent");
  data["collector"]["agent"] = agent_;
  data["collector"]["uid"] = static_cast<Json::UInt>(request_->GetLoginUID());
  data["collector"]["has_criteria"] = has_criteria_;
  if (!highlight_.isNull()) data["highlight"] = highlight_;

  const std::string request_text = Json::toString(js_req_to_daemon);
  if (!conn.Send(request_text)) {
    DaemonFailed({kFile, 259, "Search"}, "!conn.Send(js_req_to_daemon.toString())", kErrExecute);
  }

  return ReadSearchReply(conn, request_text);
}

Json::Value SearchAPI::GetUnavailDB() {
  kestdaemon::DomainSockConnection conn(kElasticdSocketPath);
  if (!conn.Connect(kElasticdConnectTimeout)) {
    DaemonFailed({kFile, 306, "GetUnavailDB"}, "!conn.Connect(kElasticdConnectTimeout)",
                 kErrDaemonConnect);
  }
  Json::Value req;
  req["command"] = "list_db_status";
  req["data"] = Json::Value(Json::objectValue);
  if (!conn.Send(Json::toString(req))) {
    DaemonFailed({kFile, 313, "GetUnavailDB"}, "!conn.Send(req.toString())", kErrExecute);
  }
  std::string str_res;
  if (!conn.Recv(str_res)) {
    DaemonFailed({kFile, 317, "GetUnavailDB"}, "!conn.Recv(str_res)", kErrExecute);
  }
  return UnavailOfReply(str_res);
}

void SearchAPI::FormOutput() {
  FillOwners();
  FillIsMountPoint();
}

void SearchAPI::FillOwners() {
  const std::string login_name = request_->GetLoginUserName();
  const uid_t login_uid = request_->GetLoginUID();
  sdk::User login_user = [&] {
    LockMutex lock(sdk::SDKMutex());
    PKESTUSER raw = nullptr;
    const int rc = KESTUserGet(login_name.c_str(), &raw);
    UserRecord record(raw, &KESTUserFree);
    if (0 > rc || !record) throw Error(kErrUser, "KESTUserGet failed, user=" + login_name);
    return UserFromRecord(record.get());
  }();

  std::unordered_map<uint32_t, std::string> owners;
  owners[login_uid] = login_name;

  for (auto& hit : output_["hits"]) {
    // Read through a const view: a member the daemon did not send is read
    // as empty and never added to the hit as null.
    const Json::Value& sent = hit;
    const std::string path = sent["KESTMDPath"].asString();
    // The answer shows such a path with replacement characters; the
    // reference still names the file for highlight and download.
    if (!Json::isValidUtf8(path)) hit["additional"]["path_ref"] = PathRef(path);
    hit["KESTMDSharePath"] = sdk::SharePathMgr::GetSharePath(path, login_user);
    hit["readable"] = CheckACLPerm(path, 4);

    const std::string owner_id = sent["KESTMDOwnerUserID"].asString();
    if (owner_id.empty()) continue;
    uint32_t uid = 0;
    try {
      uid = static_cast<uint32_t>(std::stoul(owner_id));
      auto cached = owners.find(uid);
      if (cached != owners.end()) {
        hit["KESTMDOwnerUserName"] = cached->second;
        continue;
      }
      std::string name;
      {
        LockMutex lock(sdk::SDKMutex());
        PKESTUSER raw = nullptr;
        const int rc = KESTUserGetByUID(uid, &raw);
        UserRecord record(raw, &KESTUserFree);
        if (0 > rc || !record) {
          throw Error(kErrUser, "KESTUserGetByUID failed, uid=" + std::to_string(uid));
        }
        name = UserFromRecord(record.get()).GetName();
      }
      owners[uid] = name;
      hit["KESTMDOwnerUserName"] = name;
    } catch (const Error&) {
      owners[uid] = "";
      hit["KESTMDOwnerUserName"] = "";
    } catch (const std::exception&) {
      hit["KESTMDOwnerUserName"] = "";
    }
  }
}

void SearchAPI::FillIsMountPoint() {
  for (auto& hit : output_["hits"]) {
    const Json::Value& sent = hit;
    hit["additional"]["is_mount_point"] = IsMountPoint(sent["KESTMDPath"].asString());
  }
}

void SearchAPI::RecordHistory() {
  const int max_history_num =
      pref::Preference(request_->GetLoginUID()).Get<int>(kPrefMaxHistoryNum);
  sdk::SDKCredentials credentials(kServiceUser);
  db::SearchHistory record;
  record.id = 0;
  record.uid = request_->GetLoginUID();
  record.keyword = Trim(orig_keyword_);
  record.time = time(nullptr);
  db::SearchHistoryTable table(db::DBSession::Instance());
  table.UpdateWithTime(record, max_history_num);
}

}  // namespace webapi
}  // namespace kestondri
