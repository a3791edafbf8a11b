#include "server/session_store.h"

#include <sys/random.h>

#include <cerrno>
#include <stdexcept>

namespace kestondri {
namespace host {

std::string RandomToken() {
  unsigned char bytes[32];
  size_t got = 0;
  while (got < sizeof(bytes)) {
    const ssize_t n = getrandom(bytes + got, sizeof(bytes) - got, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) throw std::runtime_error("no randomness from the kernel");
    got += static_cast<size_t>(n);
  }
  static constexpr char kHex[] = "0123456789abcdef";
  std::string token;
  token.reserve(sizeof(bytes) * 2);
  for (unsigned char b : bytes) {
    token.push_back(kHex[b >> 4]);
    token.push_back(kHex[b & 0xf]);
  }
  return token;
}

bool TokensEqual(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  unsigned char diff = 0;
  for (size_t i = 0; i < a.size(); ++i) diff |= static_cast<unsigned char>(a[i] ^ b[i]);
  return diff == 0;
}

const Session& SessionStore::Create(const std::string& user, uid_t uid, bool is_admin,
                                    const KLIBUserIdentity* identity, Clock::time_point now) {
  if (Held(uid) >= max_per_user_ || sessions_.size() >= max_sessions_) Sweep(now);
  if (Held(uid) >= max_per_user_) {
    EvictOldest(uid);
  } else if (sessions_.size() >= max_sessions_) {
    uid_t victim = uid;
    if (Held(uid) == 0) {
      size_t most = 0;
      for (const auto& [holder, count] : per_user_) {
        if (count > most) {
          most = count;
          victim = holder;
        }
      }
    }
    EvictOldest(victim);
  }
  Session session;
  session.id = RandomToken();
  session.csrf_token = RandomToken();
  session.user = user;
  session.uid = uid;
  session.last_used = now;
  const std::string id = session.id;
  Session& stored = sessions_[id] = std::move(session);
  ++per_user_[uid];
  Record(&stored, is_admin, identity, now);
  return stored;
}

const Session* SessionStore::Find(const std::string& id, Clock::time_point now) {
  const auto it = sessions_.find(id);
  if (it == sessions_.end()) return nullptr;
  if (Expired(it->second, now)) {
    Erase(it);
    return nullptr;
  }
  it->second.last_used = now;
  return &it->second;
}

void SessionStore::SetLookup(const std::string& id, bool is_admin, const KLIBUserIdentity* identity,
                             Clock::time_point now) {
  const auto it = sessions_.find(id);
  if (it != sessions_.end()) Record(&it->second, is_admin, identity, now);
}

void SessionStore::Record(Session* session, bool is_admin, const KLIBUserIdentity* identity,
                          Clock::time_point now) {
  session->is_admin = is_admin;
  session->has_identity = identity != nullptr;
  session->identity = identity ? *identity : KLIBUserIdentity();
  session->identity.name = session->user;
  session->looked_up = now;
}

bool SessionStore::Remove(const std::string& id) {
  const auto it = sessions_.find(id);
  if (it == sessions_.end()) return false;
  Erase(it);
  return true;
}

void SessionStore::Sweep(Clock::time_point now) {
  for (auto it = sessions_.begin(); it != sessions_.end();) {
    it = Expired(it->second, now) ? Erase(it) : std::next(it);
  }
}

SessionStore::Map::iterator SessionStore::Erase(Map::iterator it) {
  const auto count = per_user_.find(it->second.uid);
  if (count != per_user_.end() && --count->second == 0) per_user_.erase(count);
  return sessions_.erase(it);
}

void SessionStore::EvictOldest(uid_t uid) {
  auto oldest = sessions_.end();
  for (auto it = sessions_.begin(); it != sessions_.end(); ++it) {
    if (it->second.uid == uid &&
        (oldest == sessions_.end() || it->second.last_used < oldest->second.last_used)) {
      oldest = it;
    }
  }
  if (oldest != sessions_.end()) Erase(oldest);
}

}  // namespace host
}  // namespace kestondri
