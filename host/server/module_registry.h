// The module libraries the server serves, and the routing of a request to a
// handler and its parameter checker.
//
// Load() dlopens a library and reads both of its tables; a library without
// the two entry points, or with a row that does not fit (a null or garbled
// name, a version out of range, a null function, reserved words set, a
// pointer that lies in no loaded object, no terminating row), is refused as a
// whole and the library closed again. A checker guards the handler of the
// same (api, version, method) whichever library serves it; a checked method
// that no library serves is still routed so that its checker answers first.
//
// The master loads the libraries once, before any worker is forked; workers
// call the functions through the inherited mappings. Not thread-safe.
#ifndef KESTONDRI_HOST_SERVER_MODULE_REGISTRY_H_
#define KESTONDRI_HOST_SERVER_MODULE_REGISTRY_H_

#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "kest/webapi_module.h"

namespace kestondri {
namespace host {

struct Route {
  KEST::APIHandler handler = nullptr;  // null: checked, but served by no library
  KEST::APIChecker checker = nullptr;  // null: no checker
};

class ModuleRegistry {
 public:
  enum class Match { kFound, kUnknownAPI, kUnknownMethod, kBadVersion };

  ModuleRegistry() = default;
  ~ModuleRegistry();
  ModuleRegistry(const ModuleRegistry&) = delete;
  ModuleRegistry& operator=(const ModuleRegistry&) = delete;

  // False with `*error` (naming `path` and the fault) when the library is
  // refused; nothing of it is kept then.
  bool Load(const std::string& path, std::string* error);

  Match Find(const std::string& api, const std::string& method, long version, Route* route) const;

  size_t handler_count() const { return handler_count_; }

 private:
  using Key = std::tuple<std::string, std::string, long>;  // api, method, version

  std::vector<void*> libraries_;
  std::map<Key, Route> routes_;
  size_t handler_count_ = 0;
};

}  // namespace host
}  // namespace kestondri

#endif  // KESTONDRI_HOST_SERVER_MODULE_REGISTRY_H_
