// Throttling of password guessing. Failed logins are counted over a sliding
// window per (account, address) pair, per client address and per account;
// once a count reaches its bound, further logins for that key are refused
// without asking PAM until old failures leave the window. Logins still
// running count as failures, so a burst of parallel guesses cannot slip past
// a bound.
//
// A guesser must not be able to lock the owner out: failures from one
// address bar only that address (its pair, and the address itself once it
// tried many accounts). Guessing one account from many addresses meets the
// account's own bound; that one is not applied to an address the account
// signed in from lately (up to kTrustedAddresses of them, for kTrustPeriod),
// so the owner keeps signing in from where they usually do.
//
// Each table holds at most kMaxKeys keys: a flood of guesses from very many
// addresses (any of 127/8 on loopback) must not grow the master's memory
// without bound. Until the next Sweep() makes room, a login that would need
// a new key in a full table is refused like a throttled one, except from an
// address the account signed in from. Single-threaded.
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

  struct Limits {
    int per_pair = 5;      // failures of one account from one address
    int per_address = 30;  // failures of any account from one address
    int per_account = 20;  // failures of one account from addresses it is not known at
  };
  static constexpr size_t kTrustedAddresses = 16;
  static constexpr std::chrono::hours kTrustPeriod{24 * 30};
  static constexpr size_t kMaxKeys = 20000;

  LoginThrottle(Limits limits, std::chrono::seconds window) : limits_(limits), window_(window) {}

  // True when a login may go on; it then counts as running until Finish().
  bool Begin(const std::string& account, const std::string& address, Clock::time_point now);
  // Ends a login begun with Begin(). A success forgets the pair's failures
  // only (one right password must not reopen a guessing address, nor an
  // account guessed from elsewhere) and makes the address known for the
  // account.
  void Finish(const std::string& account, const std::string& address, bool success,
              Clock::time_point now);
  // Forgets keys with no recent failure and nothing running.
  void Sweep(Clock::time_point now);
  size_t keys() const { return pairs_.size() + accounts_.size() + addresses_.size(); }

 private:
  struct Record {
    std::deque<Clock::time_point> failures;
    int running = 0;
  };
  using Table = std::unordered_map<std::string, Record>;

  void Prune(Record* record, Clock::time_point now) const;
  bool Allowed(Table* table, const std::string& key, int max, bool known, Clock::time_point now);
  void Finish(Table* table, const std::string& key, bool failed, bool forget,
              Clock::time_point now);
  bool Known(const std::string& account, const std::string& address, Clock::time_point now) const;
  void Remember(const std::string& account, const std::string& address, Clock::time_point now);
  void Sweep(Table* table, Clock::time_point now);

  Limits limits_;
  std::chrono::seconds window_;
  Table pairs_;
  Table accounts_;
  Table addresses_;
  // Per account, the addresses it signed in from and when last.
  std::unordered_map<std::string, std::unordered_map<std::string, Clock::time_point>> known_;
};

}  // namespace host
}  // namespace kestondri

#endif  // KESTONDRI_HOST_SERVER_LOGIN_THROTTLE_H_
