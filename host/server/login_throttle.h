// Throttling of password guessing: failed logins are counted per account and
// per client address over a sliding window; once either count reaches its
// bound, further logins for that key are refused without asking PAM until
// old failures leave the window. Logins still running count as failures, so
// a burst of parallel guesses cannot slip past the bound. Single-threaded.
#ifndef KESTONDRI_HOST_SERVER_LOGIN_THROTTLE_H_
#define KESTONDRI_HOST_SERVER_LOGIN_THROTTLE_H_

#include <chrono>
#include <deque>
#include <string>
#include <unordered_map>

namespace kestondri {
namespace host {

class LoginThrottle {
 public:
  using Clock = std::chrono::steady_clock;

  LoginThrottle(int max_per_account, int max_per_address, std::chrono::seconds window)
      : max_per_account_(max_per_account), max_per_address_(max_per_address), window_(window) {}

  // True when a login may go on; it then counts as running until Finish().
  bool Begin(const std::string& account, const std::string& address, Clock::time_point now);
  // Ends a login begun with Begin(). A success forgets the account's
  // failures (not the address's: one right password must not reopen a
  // guessing address).
  void Finish(const std::string& account, const std::string& address, bool success,
              Clock::time_point now);
  // Forgets keys with no recent failure and nothing running.
  void Sweep(Clock::time_point now);
  size_t keys() const { return accounts_.size() + addresses_.size(); }

 private:
  struct Record {
    std::deque<Clock::time_point> failures;
    int running = 0;
  };
  using Table = std::unordered_map<std::string, Record>;

  void Prune(Record* record, Clock::time_point now) const;
  bool Allowed(Table* table, const std::string& key, int max, Clock::time_point now);
  void Finish(Table* table, const std::string& key, bool failed, bool forget,
              Clock::time_point now);

  int max_per_account_;
  int max_per_address_;
  std::chrono::seconds window_;
  Table accounts_;
  Table addresses_;
};

}  // namespace host
}  // namespace kestondri

#endif  // KESTONDRI_HOST_SERVER_LOGIN_THROTTLE_H_
