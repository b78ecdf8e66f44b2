#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

/// One client of a feed.
class HttpFollower {
 public:
  explicit HttpFollower(std::string name) : key(std::move(name)) {}
  virtual ~HttpFollower() = default;
  HttpFollower(const HttpFollower&) = delete;
  HttpFollower& operator=(const HttpFollower&) = delete;

  /// Sends a message, without waiting for it. Any thread.
  virtual void give(std::shared_ptr<const std::string> message) = 0;
  /// Closes the connection. Any thread.
  virtual void end() = 0;

  const std::string key;
};

/// Messages to all clients that follow, such as server-sent events. Any thread may call any member.
/// Publish nothing any more when the server is being destroyed.
class HttpFeed {
 public:
  /// A message to all who follow now.
  void publish(const std::string& message);
  /// What those get first who follow from now on; "" is nothing.
  void greet(const std::string& message);
  /// Ends the connections of the followers with this key.
  void end(const std::string& key);
  /// Ends the connections of the followers whose key fulfils the condition.
  void endWhere(const std::function<bool(const std::string&)>& condition);
  /// The number of followers.
  std::size_t count() const;

  /// Called by the server.
  void join(const std::shared_ptr<HttpFollower>& follower);

 private:
  std::vector<std::shared_ptr<HttpFollower>> present() const;

  mutable std::mutex mutex;
  mutable std::vector<std::weak_ptr<HttpFollower>> followers;  // guarded by mutex
  std::shared_ptr<const std::string> greeting;                 // guarded by mutex
};
