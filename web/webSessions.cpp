#include "web/webSessions.h"

#include <algorithm>

#include "web/secret.h"

bool WebSessions::isOver(const WebSession& session, Time now) {
  return now - session.used >= kIdle || now - session.begun >= kLongest;
}

WebSessions::Begun WebSessions::begin(const std::string& role, bool mayChange, Time now) {
  Begun begun;
  begun.cookie = randomSecret();
  begun.session = {digestOf(begun.cookie), role, randomSecret(), mayChange, now, now};
  const std::lock_guard lock(mutex);
  makeRoom(role);
  sessions[begun.session.id] = begun.session;
  return begun;
}

std::optional<WebSession> WebSessions::use(const std::string& cookie, Time now) {
  const std::lock_guard lock(mutex);
  const auto found = sessions.find(digestOf(cookie));
  if (found == sessions.end()) {
    return std::nullopt;
  }
  if (isOver(found->second, now)) {
    sessions.erase(found);
    return std::nullopt;
  }
  found->second.used = now;
  return found->second;
}

void WebSessions::end(const std::string& id) {
  const std::lock_guard lock(mutex);
  sessions.erase(id);
}

template <typename Condition>
std::vector<std::string> WebSessions::endWhere(const Condition& condition) {
  std::vector<std::string> ended;
  const std::lock_guard lock(mutex);
  std::erase_if(sessions, [&](const auto& entry) {
    const bool ends = condition(entry.second);
    if (ends) {
      ended.push_back(entry.first);
    }
    return ends;
  });
  return ended;
}

std::vector<std::string> WebSessions::endOf(const std::string& role) {
  return endWhere([&](const WebSession& session) { return session.role == role; });
}

std::vector<std::string> WebSessions::endOld(Time now) {
  return endWhere([&](const WebSession& session) { return isOver(session, now); });
}

void WebSessions::setMayChange(const std::string& role, bool mayChange) {
  const std::lock_guard lock(mutex);
  for (auto& [id, session] : sessions) {
    if (session.role == role) {
      session.mayChange = mayChange;
    }
  }
}

std::set<std::string> WebSessions::roles() const {
  const std::lock_guard lock(mutex);
  std::set<std::string> found;
  for (const auto& [id, session] : sessions) {
    found.insert(session.role);
  }
  return found;
}

bool WebSessions::contains(const std::string& id) const {
  const std::lock_guard lock(mutex);
  return sessions.contains(id);
}

std::size_t WebSessions::count() const {
  const std::lock_guard lock(mutex);
  return sessions.size();
}

/// Caller holds mutex.
void WebSessions::makeRoom(const std::string& role) {
  const auto isOf = [&](const auto& entry) { return entry.second.role == role; };
  const auto ofRole = static_cast<std::size_t>(std::ranges::count_if(sessions, isOf));
  if (sessions.size() < kMost && ofRole < kMostOfRole) {
    return;
  }
  auto oldest = sessions.end();
  for (auto place = sessions.begin(); place != sessions.end(); ++place) {
    if ((ofRole < kMostOfRole || isOf(*place)) &&
        (oldest == sessions.end() || place->second.used < oldest->second.used)) {
      oldest = place;
    }
  }
  sessions.erase(oldest);
}
