// The package's per-user preferences, kept in the package database (see
// kestondri/db.h for where it lives and who may open it).
#ifndef KESTONDRI_PREF_H_
#define KESTONDRI_PREF_H_

#include <sys/types.h>

#include <string>

namespace kestondri {
namespace pref {

// Preference keys, with the value a user who never set them gets.
extern const char kEnableHistory[];             // bool, default true
extern const char kMaxHistoryNum[];             // int, default 50
extern const char kHideOndriIndexPrompt[];      // bool, default false
extern const char kHideSearchnowIndexPrompt[];  // bool, default false
extern const char kMaxFragmentNum[];            // int, default 3

// The preferences of one user. Reading a key the user never set gives its
// default. The calling process's effective user may read and change only its
// own preferences; root and the package's service user may reach anyone's.
//
// T is bool, int or std::string, and must be the key's type. Throws
// kestondri::Error 120 for an unknown key or a key of another type, 507 when
// the caller may not reach the user's preferences, 502 when the database
// fails. Thread-safe (accesses are serialised inside the library).
class Preference {
 public:
  explicit Preference(uid_t uid);
  template <typename T>
  T Get(const std::string& key) const;
  template <typename T>
  void Set(const std::string& key, const T& value);

 private:
  uid_t uid_;
};

}  // namespace pref
}  // namespace kestondri

#endif  // KESTONDRI_PREF_H_
