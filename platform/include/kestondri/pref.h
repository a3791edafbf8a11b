// The package's per-user preferences.
#ifndef KESTONDRI_PREF_H_
#define KESTONDRI_PREF_H_

#include <sys/types.h>

#include <string>

namespace kestondri {
namespace pref {

// Preference keys.
extern const char kEnableHistory[];             // bool, default true
extern const char kMaxHistoryNum[];             // int, default 50
extern const char kHideOndriIndexPrompt[];      // bool, default false
extern const char kHideSearchnowIndexPrompt[];  // bool, default false
extern const char kMaxFragmentNum[];            // int, default 3

// The preferences of one user. Reading a key the user never set gives its
// default. A process may read and write only its effective user's own
// preferences (root may read any).
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
