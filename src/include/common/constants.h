// Names and fixed values shared by the module's API classes.
#ifndef KESTONDRI_COMMON_CONSTANTS_H_
#define KESTONDRI_COMMON_CONSTANTS_H_

namespace kestondri {

// Preference keys. The last three are defined with the others but read by no
// method of this module.
constexpr char kPrefEnableHistory[] = "enable_history";
constexpr char kPrefMaxHistoryNum[] = "max_history_num";
constexpr char kPrefHideOndriIndexPrompt[] = "hide_ondri_index_prompt";
constexpr char kPrefHideSearchnowIndexPrompt[] = "hide_searchnow_index_prompt";
constexpr char kPrefMaxFragmentNum[] = "max_fragment_num";

// The search daemon.
constexpr char kElasticdSocketPath[] = "/var/run/kestelasticd.sock";
constexpr long kElasticdConnectTimeout = 86400;

// The package's service user.
constexpr char kServiceUser[] = "KestOndri";

}  // namespace kestondri

#endif  // KESTONDRI_COMMON_CONSTANTS_H_
