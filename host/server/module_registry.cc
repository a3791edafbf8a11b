#include "server/module_registry.h"

#include <dlfcn.h>

#include <cstring>
#include <memory>

namespace kestondri {
namespace host {
namespace {

// A table longer than this has lost its terminating row.
constexpr int kMaxRows = 4096;
constexpr size_t kMaxNameLength = 255;
constexpr long kMaxVersion = 1000000;

// True when `address` lies inside some loaded object: a pointer that does
// not is garbage, and reading through it would crash the server.
bool InLoadedObject(const void* address) {
  Dl_info info;
  return address && dladdr(address, &info) != 0;
}

// Names are printable ASCII without blanks; reads at most kMaxNameLength + 1
// bytes so an unterminated name cannot walk off the object.
bool ValidName(const char* name) {
  if (!InLoadedObject(name)) return false;
  for (size_t i = 0; i <= kMaxNameLength; ++i) {
    const char c = name[i];
    if (c == '\0') return i > 0;
    if (c <= ' ' || c > '~') return false;
  }
  return false;
}

template <typename Row>
bool IsTerminator(const Row& row) {
  static const Row kZero{};
  return memcmp(&row, &kZero, sizeof(Row)) == 0;
}

std::string RowProblem(int index, const char* what) {
  return "row " + std::to_string(index + 1) + ": " + what;
}

struct LibraryCloser {
  void operator()(void* library) const { dlclose(library); }
};

}  // namespace

ModuleRegistry::~ModuleRegistry() {
  // The workers and the answers they wrote are gone by now; closing is tidy
  // only, and a module's static destructors must not run twice.
  for (void* library : libraries_) dlclose(library);
}

bool ModuleRegistry::Load(const std::string& path, std::string* error) {
  std::unique_ptr<void, LibraryCloser> library(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL));
  if (!library) {
    const char* why = dlerror();
    *error = "module " + path + ": cannot load: " + (why ? why : "unknown error");
    return false;
  }
  auto get_table =
      reinterpret_cast<KEST::GetAPITableFunc>(dlsym(library.get(), KEST::kGetAPITableSymbol));
  auto get_checks = reinterpret_cast<KEST::GetAPICheckTableFunc>(
      dlsym(library.get(), KEST::kGetAPICheckTableSymbol));
  if (!get_table || !get_checks) {
    *error = "module " + path + ": does not export " + KEST::kGetAPITableSymbol + " and " +
             KEST::kGetAPICheckTableSymbol;
    return false;
  }

  std::map<Key, Route> handlers;
  std::map<Key, KEST::APIChecker> checkers;
  std::string problem;
  const auto loaded = [this](const Key& key) {
    const auto it = routes_.find(key);
    return it == routes_.end() ? Route{} : it->second;
  };

  const KEST::APIHandlerRow* table = get_table();
  if (!InLoadedObject(table)) problem = "handler table: not in a loaded object";
  for (int i = 0; problem.empty(); ++i) {
    if (i == kMaxRows) {
      problem = "handler table: no terminating row";
      break;
    }
    const auto& row = table[i];
    if (IsTerminator(row)) break;
    std::string fault;
    if (!ValidName(row.api))
      fault = "bad api name";
    else if (!ValidName(row.method))
      fault = "bad method name";
    else if (row.version < 1 || row.version > kMaxVersion)
      fault = "bad version";
    else if (!InLoadedObject(reinterpret_cast<const void*>(row.handler)))
      fault = "bad handler";
    if (!fault.empty()) {
      problem = "handler table " + RowProblem(i, fault.c_str());
      break;
    }
    Key key{row.api, row.method, static_cast<long>(row.version)};
    if (handlers.count(key) || loaded(key).handler) {
      problem = "handler table " + RowProblem(i, "serves a method twice");
      break;
    }
    handlers[key].handler = row.handler;
  }

  const KEST::APICheckRow* checks = problem.empty() ? get_checks() : nullptr;
  if (problem.empty() && !InLoadedObject(checks)) problem = "check table: not in a loaded object";
  for (int i = 0; problem.empty(); ++i) {
    if (i == kMaxRows) {
      problem = "check table: no terminating row";
      break;
    }
    const auto& row = checks[i];
    if (IsTerminator(row)) break;
    std::string fault;
    if (!ValidName(row.api))
      fault = "bad api name";
    else if (!ValidName(row.method))
      fault = "bad method name";
    else if (row.version < 1 || row.version > kMaxVersion)
      fault = "bad version";
    else if (!InLoadedObject(reinterpret_cast<const void*>(row.checker)))
      fault = "bad checker";
    else if (row.reserved1 || row.reserved2)
      fault = "reserved words not null";
    if (!fault.empty()) {
      problem = "check table " + RowProblem(i, fault.c_str());
      break;
    }
    Key key{row.api, row.method, static_cast<long>(row.version)};
    if (checkers.count(key) || loaded(key).checker) {
      problem = "check table " + RowProblem(i, "checks a method twice");
      break;
    }
    checkers[key] = row.checker;
  }
  if (!problem.empty()) {
    *error = "module " + path + ": " + problem;
    return false;
  }

  for (const auto& [key, route] : handlers) routes_[key].handler = route.handler;
  for (const auto& [key, checker] : checkers) routes_[key].checker = checker;
  handler_count_ += handlers.size();
  libraries_.push_back(library.release());
  return true;
}

ModuleRegistry::Match ModuleRegistry::Find(const std::string& api, const std::string& method,
                                           long version, Route* route) const {
  const auto first = routes_.lower_bound(Key{api, "", 0});
  if (first == routes_.end() || std::get<0>(first->first) != api) return Match::kUnknownAPI;
  const auto exact = routes_.find(Key{api, method, version});
  if (exact != routes_.end()) {
    *route = exact->second;
    return Match::kFound;
  }
  const auto any_version = routes_.lower_bound(Key{api, method, 0});
  if (any_version != routes_.end() && std::get<0>(any_version->first) == api &&
      std::get<1>(any_version->first) == method) {
    return Match::kBadVersion;
  }
  return Match::kUnknownMethod;
}

}  // namespace host
}  // namespace kestondri
