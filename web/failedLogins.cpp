#include "web/failedLogins.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>

#include "web/secret.h"

namespace {

constexpr std::chrono::minutes kPeriod{1};

std::string pairOf(const std::string& network, const std::string& role) {
  return network + "\n" + digestOf(role);  // a name from a request can be long
}

}  // namespace

std::string networkOf(const std::string& address) {
  std::array<unsigned char, 16> bytes{};
  if (inet_pton(AF_INET6, address.c_str(), bytes.data()) != 1) {
    return address;
  }
  std::fill(bytes.begin() + 8, bytes.end(), static_cast<unsigned char>(0));
  std::array<char, INET6_ADDRSTRLEN> text{};
  inet_ntop(AF_INET6, bytes.data(), text.data(), text.size());
  return text.data();
}

bool FailedLogins::begin(const std::string& address, const std::string& role, Time now) {
  const std::string network = networkOf(address);
  const std::string pair = pairOf(network, role);
  const std::lock_guard lock(mutex);
  if (attempts.size() + 2 > kMostKept) {
    forgetOld(now);
  }
  if (attempts.size() + 2 > kMostKept || !hasRoom(network, kMostOfAddress, now) ||
      !hasRoom(pair, kMostOfRole, now)) {
    return false;
  }
  attempts[network].push_back(now);
  attempts[pair].push_back(now);
  return true;
}

void FailedLogins::succeed(const std::string& address, const std::string& role) {
  const std::string network = networkOf(address);
  const std::lock_guard lock(mutex);
  for (const std::string& key : {network, pairOf(network, role)}) {
    const auto found = attempts.find(key);
    if (found != attempts.end()) {
      found->second.pop_back();
      if (found->second.empty()) {
        attempts.erase(found);
      }
    }
  }
}

bool FailedLogins::hasRoom(const std::string& key, std::size_t most, Time now) {
  const auto found = attempts.find(key);
  if (found == attempts.end()) {
    return true;
  }
  Times& times = found->second;
  while (!times.empty() && now - times.front() >= kPeriod) {
    times.pop_front();
  }
  if (times.empty()) {
    attempts.erase(found);
    return true;
  }
  return times.size() < most;
}

void FailedLogins::forgetOld(Time now) {
  std::erase_if(attempts, [&](const auto& entry) { return now - entry.second.back() >= kPeriod; });
}
