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

// Walks a module table up to its terminating row. Each row's common words
// are checked here; `row_fault` checks the rest of a row, and `take` records
// a valid row or names why it cannot (a method served twice). Answers the
// first problem, or "" for a good table.
template <typename Row, typename RowFault, typename Take>
std::string WalkTable(const Row* rows, const char* table, RowFault row_fault, Take take) {
  if (!InLoadedObject(rows)) return std::string(table) + ": not in a loaded object";
  for (int i = 0;; ++i) {
    if (i == kMaxRows) return std::string(table) + ": no terminating row";
    const Row& row = rows[i];
    if (IsTerminator(row)) return "";
    const char* fault = nullptr;
    if (!ValidName(row.api)) {
      fault = "bad api name";
    } else if (!ValidName(row.method)) {
      fault = "bad method name";
    } else if (row.version < 1 || row.version > kMaxVersion) {
      fault = "bad version";
    } else {
      fault = row_fault(row);
    }
    if (!fault) fault = take(row);
    if (fault) return std::string(table) + " " + RowProblem(i, fault);
  }
}

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
  const auto loaded = [this](const Key& key) {
    const auto it = routes_.find(key);
    return it == routes_.end() ? Route{} : it->second;
  };

  std::string problem = WalkTable(
      get_table(), "handler table",
      [](const KEST::APIHandlerRow& row) -> const char* {
        return InLoadedObject(reinterpret_cast<const void*>(row.handler)) ? nullptr : "bad handler";
      },
      [&](const KEST::APIHandlerRow& row) -> const char* {
        const Key key{row.api, row.method, static_cast<long>(row.version)};
        if (handlers.count(key) || loaded(key).handler) return "serves a method twice";
        handlers[key].handler = row.handler;
        return nullptr;
      });
  if (problem.empty()) {
    problem = WalkTable(
        get_checks(), "check table",
        [](const KEST::APICheckRow& row) -> const char* {
          if (!InLoadedObject(reinterpret_cast<const void*>(row.checker))) return "bad checker";
          if (row.reserved1 || row.reserved2) return "reserved words not null";
          return nullptr;
        },
        [&](const KEST::APICheckRow& row) -> const char* {
          const Key key{row.api, row.method, static_cast<long>(row.version)};
          if (checkers.count(key) || loaded(key).checker) return "checks a method twice";
          checkers[key] = row.checker;
          return nullptr;
        });
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
