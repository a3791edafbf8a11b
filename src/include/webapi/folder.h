// The eight methods of KEST.Ondri.FileIndexing.Folder: thin, typed doorways
// into the indexing library, which validates, decides who may do what and
// formats the answers. Each object serves one request on one thread;
// library failures (kestondri::Error) leave Execute() for the handler.
#ifndef KESTONDRI_WEBAPI_FOLDER_H_
#define KESTONDRI_WEBAPI_FOLDER_H_

#include <json/json.h>

#include <cstdint>
#include <string>

#include "webapi/ondri_api.h"

namespace kestondri {
namespace webapi {

class FolderAddAPI : public OndriAPI {
 public:
  using OndriAPI::OndriAPI;

 protected:
  void ParseParams() override;
  void Execute() override;

 private:
  Json::Value folder_;
};

class FolderSetAPI : public OndriAPI {
 public:
  using OndriAPI::OndriAPI;

 protected:
  void ParseParams() override;
  void Execute() override;

 private:
  Json::Value folder_;
};

class FolderGetAPI : public OndriAPI {
 public:
  using OndriAPI::OndriAPI;

 protected:
  void ParseParams() override;
  void Execute() override;

 private:
  std::string path_;
};

// "path" wins over "owner"; neither is Error 120 "Need path or owner".
class FolderDelAPI : public OndriAPI {
 public:
  using OndriAPI::OndriAPI;

 protected:
  void ParseParams() override;
  void Execute() override;

 private:
  Json::Value path_;
  std::string owner_;
};

// offset and limit are 32-bit here and reach the library sign-extended: the
// default limit -1 arrives as the largest value, meaning no limit.
class FolderListAPI : public OndriAPI {
 public:
  using OndriAPI::OndriAPI;

 protected:
  void ParseParams() override;
  void Execute() override;

 private:
  int32_t offset_ = 0;
  int32_t limit_ = -1;
  std::string direction_;
  std::string sort_by_;
  std::string group_;
  std::string pattern_;
  Json::Value additional_;
};

class FolderListGroupAPI : public OndriAPI {
 public:
  using OndriAPI::OndriAPI;

 protected:
  void Execute() override;
};

class FolderSummaryAPI : public OndriAPI {
 public:
  using OndriAPI::OndriAPI;

 protected:
  void Execute() override;
};

class FolderReIndexAPI : public OndriAPI {
 public:
  using OndriAPI::OndriAPI;

 protected:
  void ParseParams() override;
  void Execute() override;

 private:
  Json::Value path_;
};

}  // namespace webapi
}  // namespace kestondri

#endif  // KESTONDRI_WEBAPI_FOLDER_H_
