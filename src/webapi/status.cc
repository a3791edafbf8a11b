#include "webapi/status.h"

#include <ctime>
#include <memory>
#include <set>

#include "common/log.h"
#include "common/sdk/share.h"
#include "common/util.h"
#include "kest/klib.h"
#include "kestondri/fileindex.h"

namespace kestondri {
namespace webapi {
namespace {

constexpr char kSource[] = "status.cc";
constexpr char kProcessing[] = "processing";
constexpr char kPaused[] = "paused";
constexpr char kFinished[] = "finished";
constexpr char kTermSuggPidFile[] = "/var/packages/KestOndri/etc/updater.term.sugg.pid";

}  // namespace

void StatusGetAPI::Execute() {
  output_["status"]["index"] = IsIndexProcessing();
  output_["status"]["term"] = IsTermSuggProcessing();
}

std::string StatusGetAPI::IsIndexProcessing() {
  const std::set<std::string> shares = fileindex::FolderMgr().GetIndexedShares();
  bool pending = false;
  for (const auto& share_name : shares) {
    try {
      sdk::SDKShare share(share_name);
      if (!share.CanBeIndexed()) continue;
      const std::string queue_path = share.GetQueuePath();
      if (IsFileExist(queue_path) || IsFileExist(queue_path + ".tmp")) {
        pending = true;
        break;
      }
    } catch (...) {
      LogError({kSource, 43, "IsIndexProcessing"}, "Failed to get status from share[%s]",
               share_name.c_str());
    }
  }
  if (!pending) return kFinished;
  auto status = std::make_shared<fileindex::StatusMgr>();
  const int64_t pause_until = status->GetPauseInfo();
  // 0 means paused until resumed; kept as the field knows it.
  if (pause_until == 0 || pause_until > static_cast<int64_t>(time(nullptr))) return kPaused;
  return kProcessing;
}

std::string StatusGetAPI::IsTermSuggProcessing() {
  return 1 == KLIBCProcAliveByPidFile(kTermSuggPidFile) ? kProcessing : kFinished;
}

void StatusPauseAPI::ParseParams() {
  length_ = request_->GetAndCheckInt("length", KEST::APIRequest::PARAM_REQUIRED).Get();
}

void StatusPauseAPI::Execute() {
  auto status = std::make_shared<fileindex::StatusMgr>();
  status->Pause(length_);
}

void StatusResumeAPI::Execute() {
  auto status = std::make_shared<fileindex::StatusMgr>();
  status->Resume();
}

}  // namespace webapi
}  // namespace kestondri
