#include "kestondri/pref.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "../db/store.h"
#include "common/error.h"

namespace kestondri {
namespace pref {

const char kEnableHistory[] = "enable_history";
const char kMaxHistoryNum[] = "max_history_num";
const char kHideOndriIndexPrompt[] = "hide_ondri_index_prompt";
const char kHideSearchnowIndexPrompt[] = "hide_searchnow_index_prompt";
const char kMaxFragmentNum[] = "max_fragment_num";

namespace {

enum class Kind { kBool, kInt, kString };

struct KeyInfo {
  const char* name;
  Kind kind;
  const char* default_text;  // in the stored form
};

const KeyInfo kKeys[] = {
    {kEnableHistory, Kind::kBool, "true"},
    {kMaxHistoryNum, Kind::kInt, "50"},
    {kHideOndriIndexPrompt, Kind::kBool, "false"},
    {kHideSearchnowIndexPrompt, Kind::kBool, "false"},
    {kMaxFragmentNum, Kind::kInt, "3"},
};

template <typename T>
constexpr Kind KindOf();
template <>
constexpr Kind KindOf<bool>() {
  return Kind::kBool;
}
template <>
constexpr Kind KindOf<int>() {
  return Kind::kInt;
}
template <>
constexpr Kind KindOf<std::string>() {
  return Kind::kString;
}

const KeyInfo& Lookup(const std::string& key, Kind kind) {
  for (const KeyInfo& info : kKeys) {
    if (key != info.name) continue;
    if (info.kind != kind) throw Error(kErrInvalidParam, "preference of another type: " + key);
    return info;
  }
  throw Error(kErrInvalidParam, "unknown preference: " + key);
}

void CheckCaller(uid_t uid) {
  if (db::CallerMayTouch(uid)) return;
  throw Error(kErrNoPermission, "preferences of uid " + std::to_string(uid) +
                                    " are not open to uid " + std::to_string(db::CallerUID()));
}

std::string Encode(bool value) { return value ? "true" : "false"; }
std::string Encode(int value) { return std::to_string(value); }
std::string Encode(const std::string& value) { return value; }

// A stored text that does not decode (written by hand, or by an older
// version) reads as the default rather than failing every search.
bool Decode(const std::string& text, bool* out) {
  if (text == "true") return *out = true, true;
  if (text == "false") return *out = false, true;
  return false;
}
bool Decode(const std::string& text, int* out) {
  if (text.empty()) return false;
  char* end = nullptr;
  errno = 0;
  const long value = strtol(text.c_str(), &end, 10);
  const bool ok = errno == 0 && *end == '\0' && value >= INT32_MIN && value <= INT32_MAX;
  errno = 0;
  if (ok) *out = static_cast<int>(value);
  return ok;
}
bool Decode(const std::string& text, std::string* out) {
  *out = text;
  return true;
}

}  // namespace

Preference::Preference(uid_t uid) : uid_(uid) {}

template <typename T>
T Preference::Get(const std::string& key) const {
  const KeyInfo& info = Lookup(key, KindOf<T>());
  CheckCaller(uid_);
  std::string text = info.default_text;
  db::WithDatabase([&](sqlite3* conn) {
    db::Statement stmt(conn, "SELECT value FROM preference WHERE uid = ?1 AND key = ?2");
    stmt.Bind(1, static_cast<int64_t>(uid_)).Bind(2, key);
    if (stmt.Step()) text = stmt.Text(0);
  });
  T value{};
  if (!Decode(text, &value)) Decode(std::string(info.default_text), &value);
  return value;
}

template <typename T>
void Preference::Set(const std::string& key, const T& value) {
  Lookup(key, KindOf<T>());
  CheckCaller(uid_);
  db::WithDatabase([&](sqlite3* conn) {
    db::Statement(conn,
                  "INSERT INTO preference (uid, key, value) VALUES (?1, ?2, ?3)"
                  " ON CONFLICT (uid, key) DO UPDATE SET value = excluded.value")
        .Bind(1, static_cast<int64_t>(uid_))
        .Bind(2, key)
        .Bind(3, Encode(value))
        .Run();
  });
}

template bool Preference::Get<bool>(const std::string&) const;
template int Preference::Get<int>(const std::string&) const;
template std::string Preference::Get<std::string>(const std::string&) const;
template void Preference::Set<bool>(const std::string&, const bool&);
template void Preference::Set<int>(const std::string&, const int&);
template void Preference::Set<std::string>(const std::string&, const std::string&);

}  // namespace pref
}  // namespace kestondri
