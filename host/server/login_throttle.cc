#include "server/login_throttle.h"

namespace kestondri {
namespace host {

void LoginThrottle::Prune(Record* record, Clock::time_point now) const {
  while (!record->failures.empty() && now - record->failures.front() >= window_) {
    record->failures.pop_front();
  }
}

bool LoginThrottle::Allowed(Table* table, const std::string& key, int max, Clock::time_point now) {
  const auto it = table->find(key);
  if (it == table->end()) return true;
  Prune(&it->second, now);
  return static_cast<int>(it->second.failures.size()) + it->second.running < max;
}

bool LoginThrottle::Begin(const std::string& account, const std::string& address,
                          Clock::time_point now) {
  if (!Allowed(&accounts_, account, max_per_account_, now) ||
      !Allowed(&addresses_, address, max_per_address_, now)) {
    return false;
  }
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
  Finish(&accounts_, account, !success, success, now);
  Finish(&addresses_, address, !success, false, now);
}

void LoginThrottle::Sweep(Clock::time_point now) {
  for (Table* table : {&accounts_, &addresses_}) {
    for (auto it = table->begin(); it != table->end();) {
      Prune(&it->second, now);
      const bool idle = it->second.failures.empty() && it->second.running == 0;
      it = idle ? table->erase(it) : std::next(it);
    }
  }
}

}  // namespace host
}  // namespace kestondri
