#include "webapi/checkers.h"

#include <vector>

#include "common/error.h"

namespace kestondri {
namespace webapi {
namespace {

using Request = KEST::APIRequest;
constexpr Request::PARAM_NECESSITY R = Request::PARAM_REQUIRED;
constexpr Request::PARAM_NECESSITY O = Request::PARAM_OPTIONAL;
// Members inside list elements are read with the framework's item
// necessity 1: checked for their type where present.
constexpr KEST::PARAM_NECESSITY kItemNecessity = static_cast<KEST::PARAM_NECESSITY>(1);

enum class Kind { kString, kInt, kObject, kArray };
enum class MemberKind { kString, kInt, kDouble, kBool, kObject };

// Answers whether one list element (or an object parameter) is acceptable.
using ItemCheck = bool (*)(const Json::Value& element);

struct ParamSpec {
  const char* name;
  Kind kind;
  Request::PARAM_NECESSITY necessity;
  ItemCheck item_check;  // null: no element check
};

struct MemberSpec {
  const char* name;
  MemberKind kind;
};

bool MemberValid(const Json::Value& element, const MemberSpec& member) {
  switch (member.kind) {
    case MemberKind::kString:
      return !KEST::APIParameterFactoryBasicImpl<std::string>::FromJson(element, member.name,
                                                                        kItemNecessity, nullptr)
                  .IsInvalid();
    case MemberKind::kInt:
      return !KEST::APIParameterFactoryBasicImpl<int>::FromJson(element, member.name,
                                                                kItemNecessity, nullptr)
                  .IsInvalid();
    case MemberKind::kDouble:
      return !KEST::APIParameterFactoryBasicImpl<double>::FromJson(element, member.name,
                                                                   kItemNecessity, nullptr)
                  .IsInvalid();
    case MemberKind::kBool:
      return !KEST::APIParameterFactoryBasicImpl<bool>::FromJson(element, member.name,
                                                                 kItemNecessity, nullptr)
                  .IsInvalid();
    case MemberKind::kObject:
      return !KEST::APIParameterFactory::ObjectFromJson(element, member.name, kItemNecessity,
                                                        nullptr)
                  .IsInvalid();
  }
  return false;
}

template <size_t N>
bool MembersValid(const Json::Value& element, const MemberSpec (&members)[N]) {
  if (!element.isObject()) return false;
  for (const auto& member : members) {
    if (!MemberValid(element, member)) return false;
  }
  return true;
}

bool IsStringItem(const Json::Value& element) { return element.isString(); }

bool IsWeightItem(const Json::Value& element) {
  static const MemberSpec kMembers[] = {{"weight", MemberKind::kDouble},
                                        {"field", MemberKind::kString}};
  return MembersValid(element, kMembers);
}

bool IsCriteriaItem(const Json::Value& element) {
  static const MemberSpec kMembers[] = {{"value", MemberKind::kString},
                                        {"field", MemberKind::kString}};
  return MembersValid(element, kMembers);
}

bool IsHighlightItem(const Json::Value& element) {
  static const MemberSpec kMembers[] = {{"frag_length", MemberKind::kInt},
                                        {"num_fragments", MemberKind::kInt},
                                        {"field", MemberKind::kString}};
  return MembersValid(element, kMembers);
}

bool IsFolderItem(const Json::Value& element) {
  static const MemberSpec kMembers[] = {
      {"additional", MemberKind::kObject}, {"paused", MemberKind::kBool},
      {"video", MemberKind::kBool},        {"audio", MemberKind::kBool},
      {"photo", MemberKind::kBool},        {"document", MemberKind::kBool},
      {"path", MemberKind::kString},       {"name", MemberKind::kString}};
  static const MemberSpec kAdditional[] = {{"status", MemberKind::kString}};
  if (!MembersValid(element, kMembers)) return false;
  if (element.isMember("additional")) return MembersValid(element["additional"], kAdditional);
  return true;
}

KEST::APIParameter<Json::Value> Fetch(const Request& request, const ParamSpec& param, bool* is_set,
                                      bool* is_invalid) {
  KEST::APIParameter<Json::Value> value;
  switch (param.kind) {
    case Kind::kString: {
      auto p = request.GetAndCheckString(param.name, param.necessity, nullptr);
      *is_set = p.IsSet();
      *is_invalid = p.IsInvalid();
      break;
    }
    case Kind::kInt: {
      auto p = request.GetAndCheckInt(param.name, param.necessity, nullptr);
      *is_set = p.IsSet();
      *is_invalid = p.IsInvalid();
      break;
    }
    case Kind::kObject:
      value = request.GetAndCheckObject(param.name, param.necessity, nullptr);
      *is_set = value.IsSet();
      *is_invalid = value.IsInvalid();
      break;
    case Kind::kArray:
      value = request.GetAndCheckUnitArray(param.name, param.necessity, nullptr);
      *is_set = value.IsSet();
      *is_invalid = value.IsInvalid();
      break;
  }
  return value;
}

bool Fail(KEST::APIResponse* response, const char* name, const char* reason) {
  Json::Value data(Json::objectValue);
  data["name"] = name;
  data["reason"] = reason;
  response->SetError(kErrInvalidParam, data);
  return false;
}

// Reads every parameter, reports the first invalid one, then walks the
// present lists (and object parameters with an item check) in order.
template <size_t N>
bool RunChecker(Request* request, KEST::APIResponse* response, const ParamSpec (&params)[N]) {
  struct Fetched {
    KEST::APIParameter<Json::Value> value;
    bool is_set = false;
    bool is_invalid = false;
  };
  std::vector<Fetched> fetched(N);
  for (size_t i = 0; i < N; ++i) {
    fetched[i].value = Fetch(*request, params[i], &fetched[i].is_set, &fetched[i].is_invalid);
  }
  for (size_t i = 0; i < N; ++i) {
    if (fetched[i].is_invalid) {
      return Fail(response, params[i].name, fetched[i].is_set ? "type" : "required");
    }
  }
  for (size_t i = 0; i < N; ++i) {
    if (!params[i].item_check || !fetched[i].is_set) continue;
    const Json::Value& value = fetched[i].value.Get();
    if (params[i].kind == Kind::kObject) {
      if (!params[i].item_check(value)) return Fail(response, params[i].name, "type");
      continue;
    }
    for (const auto& element : value) {
      if (!params[i].item_check(element)) return Fail(response, params[i].name, "type");
    }
  }
  return true;
}

}  // namespace

bool CheckPass(Request*, KEST::APIResponse*) { return true; }

bool CheckIndice(Request* request, KEST::APIResponse* response) {
  static const ParamSpec kParams[] = {{"indice", Kind::kArray, R, IsStringItem}};
  return RunChecker(request, response, kParams);
}

bool CheckLength(Request* request, KEST::APIResponse* response) {
  static const ParamSpec kParams[] = {{"length", Kind::kInt, R, nullptr}};
  return RunChecker(request, response, kParams);
}

bool CheckPathList(Request* request, KEST::APIResponse* response) {
  static const ParamSpec kParams[] = {{"path", Kind::kArray, R, IsStringItem}};
  return RunChecker(request, response, kParams);
}

bool CheckPathString(Request* request, KEST::APIResponse* response) {
  static const ParamSpec kParams[] = {{"path", Kind::kString, R, nullptr}};
  return RunChecker(request, response, kParams);
}

bool CheckFolder(Request* request, KEST::APIResponse* response) {
  static const ParamSpec kParams[] = {{"folder", Kind::kArray, R, IsFolderItem}};
  return RunChecker(request, response, kParams);
}

bool CheckFolderList(Request* request, KEST::APIResponse* response) {
  static const ParamSpec kParams[] = {{"additional", Kind::kArray, O, IsStringItem},
                                      {"direction", Kind::kString, O, nullptr},
                                      {"group", Kind::kString, O, nullptr},
                                      {"pattern", Kind::kString, O, nullptr},
                                      {"sort_by", Kind::kString, O, nullptr},
                                      {"limit", Kind::kInt, O, nullptr},
                                      {"offset", Kind::kInt, O, nullptr}};
  return RunChecker(request, response, kParams);
}

bool CheckPathOwner(Request* request, KEST::APIResponse* response) {
  static const ParamSpec kParams[] = {{"path", Kind::kArray, O, IsStringItem},
                                      {"owner", Kind::kString, O, nullptr}};
  return RunChecker(request, response, kParams);
}

bool CheckSearch(Request* request, KEST::APIResponse* response) {
  // Only the weights are required here; the search method reads the others
  // again with its own necessities.
  static const ParamSpec kParams[] = {{"search_weight_list", Kind::kArray, R, IsWeightItem},
                                      {"criteria_list", Kind::kArray, O, IsCriteriaItem},
                                      {"highlight", Kind::kArray, O, IsHighlightItem},
                                      {"keyword", Kind::kString, O, nullptr},
                                      {"file_type", Kind::kString, O, nullptr},
                                      {"fields", Kind::kArray, O, IsStringItem},
                                      {"size", Kind::kInt, O, nullptr},
                                      {"from", Kind::kInt, O, nullptr},
                                      {"indice", Kind::kArray, O, IsStringItem}};
  return RunChecker(request, response, kParams);
}

bool CheckHighlight(Request* request, KEST::APIResponse* response) {
  static const ParamSpec kParams[] = {{"full_path", Kind::kString, R, nullptr},
                                      {"doc_id", Kind::kInt, R, nullptr},
                                      {"highlight", Kind::kObject, R, IsHighlightItem},
                                      {"keyword", Kind::kString, R, nullptr}};
  return RunChecker(request, response, kParams);
}

}  // namespace webapi
}  // namespace kestondri
