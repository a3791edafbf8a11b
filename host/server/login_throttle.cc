#include "server/login_throttle.h"

namespace kestondri {
namespace host {
namespace {

// A NUL never occurs in an account name or an address.
std::string PairKey(const std::string& account, const std::string& address) {
  return account + '\0' + address;
}

}  // namespace

void LoginThrottle::Prune(Record* record, Clock::time_point now) const {
  while (!record->failures.empty() && now - record->failures.front() >= window_) {
    record->failures.pop_front();
  }
}

bool LoginThrottle::Allowed(Table* table, const std::string& key, int max, bool known,
                            Clock::time_point now) {
  const auto it = table->find(key);
  // Expired keys leave at the periodic Sweep(), not here: a flood must not
  // buy a pass over the whole table with every attempt.
  if (it == table->end()) return known || table->size() < kMaxKeys;
  Prune(&it->second, now);
  return static_cast<int>(it->second.failures.size()) + it->second.running < max;
}

bool LoginThrottle::Known(const std::string& account, const std::string& address,
                          Clock::time_point now) const {
  const auto it = known_.find(account);
  if (it == known_.end()) return false;
  const auto when = it->second.find(address);
  return when != it->second.end() && now - when->second < kTrustPeriod;
}

void LoginThrottle::Remember(const std::string& account, const std::string& address,
                             Clock::time_point now) {
  auto& addresses = known_[account];
  addresses[address] = now;
  if (addresses.size() <= kTrustedAddresses) return;
  auto oldest = addresses.begin();
  for (auto it = addresses.begin(); it != addresses.end(); ++it) {
    if (it->second < oldest->second) oldest = it;
  }
  addresses.erase(oldest);
}

bool LoginThrottle::Begin(const std::string& account, const std::string& address,
                          Clock::time_point now) {
  const std::string pair = PairKey(account, address);
  // The address an account signed in from is bound by its pair only: the
  // owner there is not locked out by guesses from elsewhere, and a guesser
  // there knows the password already.
  const bool known = Known(account, address, now);
  if (!Allowed(&pairs_, pair, limits_.per_pair, known, now)) return false;
  if (!known && (!Allowed(&addresses_, address, limits_.per_address, false, now) ||
                 !Allowed(&accounts_, account, limits_.per_account, false, now))) {
    return false;
  }
  ++pairs_[pair].running;
  ++accounts_[account].running;
  ++addresses_[address].running;
  return true;
}

void LoginThrottle::Finish(Table* table, const std::string& key, bool failed, bool forget,
                           Clock::time_point now) {
  Record& record = (*table)[key];
  if (record.running > 0) --record.running;
  if (forget) record.failures.clear();
  if (failed) record.failures.push_back(now);
  if (record.failures.empty() && record.running == 0) table->erase(key);
}

void LoginThrottle::Finish(const std::string& account, const std::string& address, bool success,
                           Clock::time_point now) {
  Finish(&pairs_, PairKey(account, address), !success, success, now);
  Finish(&accounts_, account, !success, false, now);
  Finish(&addresses_, address, !success, false, now);
  if (success) Remember(account, address, now);
}

void LoginThrottle::Sweep(Table* table, Clock::time_point now) {
  for (auto it = table->begin(); it != table->end();) {
    Prune(&it->second, now);
    const bool idle = it->second.failures.empty() && it->second.running == 0;
    it = idle ? table->erase(it) : std::next(it);
  }
}

void LoginThrottle::Sweep(Clock::time_point now) {
  for (Table* table : {&pairs_, &accounts_, &addresses_}) Sweep(table, now);
  for (auto account = known_.begin(); account != known_.end();) {
    auto& addresses = account->second;
    for (auto it = addresses.begin(); it != addresses.end();) {
      it = now - it->second >= kTrustPeriod ? addresses.erase(it) : std::next(it);
    }
    account = addresses.empty() ? known_.erase(account) : std::next(account);
  }
}

}  // namespace host
}  // namespace kestondri
