#pragma once

#include <chrono>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

/// A person who is logged in.
struct WebSession {
  using Time = std::chrono::steady_clock::time_point;

  std::string id;     // the digest of the cookie
  std::string role;   // of the database
  std::string token;  // that a change has to bring
  bool mayChange = false;
  Time begun, used;
};

/// The sessions of browsers, in memory alone: a restart ends all of them. Any thread may call any
/// member.
class WebSessions {
 public:
  using Time = WebSession::Time;

  static constexpr std::chrono::hours kIdle{8}, kLongest{24};
  static constexpr std::size_t kMost = 10000, kMostOfRole = 50;  // above, the oldest one ends

  struct Begun {
    std::string cookie;
    WebSession session;
  };
  Begun begin(const std::string& role, bool mayChange, Time now);
  /// The session of a cookie, which is used by that; nothing for another text and when it is over.
  std::optional<WebSession> use(const std::string& cookie, Time now);
  void end(const std::string& id);

  /// Ends the sessions of the role, and returns their ids.
  std::vector<std::string> endOf(const std::string& role);
  /// Ends the sessions that were not used for too long, and returns their ids.
  std::vector<std::string> endOld(Time now);
  void setMayChange(const std::string& role, bool mayChange);

  std::set<std::string> roles() const;
  bool contains(const std::string& id) const;
  std::size_t count() const;

 private:
  static bool isOver(const WebSession& session, Time now);
  void makeRoom(const std::string& role);
  template <typename Condition>
  std::vector<std::string> endWhere(const Condition& condition);

  mutable std::mutex mutex;
  std::unordered_map<std::string, WebSession> sessions;  // by their ids; guarded by mutex
};
