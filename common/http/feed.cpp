#include "common/http/feed.h"

#include <algorithm>
#include <utility>

void HttpFeed::publish(const std::string& message) {
  const auto shared = std::make_shared<const std::string>(message);
  for (const auto& follower : present()) {
    follower->give(shared);
  }
}

void HttpFeed::greet(const std::string& message) {
  const std::lock_guard lock(mutex);
  greeting = message.empty() ? nullptr : std::make_shared<const std::string>(message);
}

void HttpFeed::end(const std::string& key) {
  endWhere([&](const std::string& other) { return other == key; });
}

void HttpFeed::endWhere(const std::function<bool(const std::string&)>& condition) {
  for (const auto& follower : present()) {
    if (condition(follower->key)) {
      follower->end();
    }
  }
}

std::size_t HttpFeed::count() const {
  return present().size();
}

void HttpFeed::join(const std::shared_ptr<HttpFollower>& follower) {
  const std::lock_guard lock(mutex);
  followers.push_back(follower);
  if (greeting) {
    follower->give(greeting);
  }
}

/// Forgets those that are gone. The last owner of a follower may be this list, so it is not
/// destroyed under the lock.
std::vector<std::shared_ptr<HttpFollower>> HttpFeed::present() const {
  std::vector<std::shared_ptr<HttpFollower>> found;
  const std::lock_guard lock(mutex);
  std::erase_if(followers, [&](const std::weak_ptr<HttpFollower>& follower) {
    auto one = follower.lock();
    const bool isGone = one == nullptr;
    if (!isGone) {
      found.push_back(std::move(one));
    }
    return isGone;
  });
  return found;
}
