// Login sessions of the server's master process.
//
// A session id and its CSRF token are 256 random bits each, from the kernel's
// random source, written as 64 hex digits. A session dies after
// `idle_timeout` without use, at logout, or to make room. Room is taken from
// the account that logs in: past `max_per_user` sessions, or with the store
// full, its own least recently used session goes. Only an account holding no
// session yet takes room from another, from the account that holds the most:
// logging in over and over never signs other users out. Single-threaded: the
// master owns the store.
#ifndef KESTONDRI_HOST_SERVER_SESSION_STORE_H_
#define KESTONDRI_HOST_SERVER_SESSION_STORE_H_

#include <sys/types.h>

#include <chrono>
#include <string>
#include <unordered_map>

#include "kest/klib.h"

namespace kestondri {
namespace host {

struct Session {
  std::string id;
  std::string csrf_token;
  std::string user;  // login user name
  uid_t uid = 0;
  // The login user as last looked up: the administrator flag and, when the
  // user was found, the ids and groups that workers hand to the platform
  // instead of asking the name services again.
  bool is_admin = false;
  bool has_identity = false;
  KLIBUserIdentity identity;
  std::chrono::steady_clock::time_point looked_up;
  std::chrono::steady_clock::time_point last_used;
};

// 64 hex digits of fresh randomness. Throws std::runtime_error when the
// kernel gives none (never hands out a guessable id).
std::string RandomToken();

// Compares without an early exit, so a wrong token's timing tells nothing.
bool TokensEqual(const std::string& a, const std::string& b);

class SessionStore {
 public:
  using Clock = std::chrono::steady_clock;

  SessionStore(std::chrono::seconds idle_timeout, size_t max_sessions, size_t max_per_user)
      : idle_timeout_(idle_timeout), max_sessions_(max_sessions), max_per_user_(max_per_user) {}

  // A new session for the user. Throws what RandomToken() throws.
  // `identity` null: the user's identity is unknown.
  const Session& Create(const std::string& user, uid_t uid, bool is_admin,
                        const KLIBUserIdentity* identity, Clock::time_point now);
  // Records a fresh lookup of the user; nothing when the session is gone.
  void SetLookup(const std::string& id, bool is_admin, const KLIBUserIdentity* identity,
                 Clock::time_point now);
  // The live session with that id, its idle clock restarted; null when
  // unknown or expired (an expired one is removed).
  const Session* Find(const std::string& id, Clock::time_point now);
  // True when a session was removed.
  bool Remove(const std::string& id);
  // Drops every expired session.
  void Sweep(Clock::time_point now);
  size_t size() const { return sessions_.size(); }

 private:
  using Map = std::unordered_map<std::string, Session>;
  Map::iterator Erase(Map::iterator it);
  size_t Held(uid_t uid) const {
    const auto it = per_user_.find(uid);
    return it == per_user_.end() ? 0 : it->second;
  }
  // Removes the least recently used session of the user.
  void EvictOldest(uid_t uid);
  static void Record(Session* session, bool is_admin, const KLIBUserIdentity* identity,
                     Clock::time_point now);
  bool Expired(const Session& session, Clock::time_point now) const {
    return now - session.last_used > idle_timeout_;
  }

  std::chrono::seconds idle_timeout_;
  size_t max_sessions_;
  size_t max_per_user_;
  Map sessions_;
  std::unordered_map<uid_t, size_t> per_user_;  // sessions held by each uid
};

}  // namespace host
}  // namespace kestondri

#endif  // KESTONDRI_HOST_SERVER_SESSION_STORE_H_
