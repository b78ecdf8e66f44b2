#pragma once

#include <chrono>
#include <deque>
#include <mutex>
#include <string>
#include <unordered_map>

/// How often logins have failed, by address and role: after some failures, further logins have to
/// wait. Any thread may call any member.
class FailedLogins {
 public:
  using Time = std::chrono::steady_clock::time_point;

  static constexpr std::size_t kMostOfRole = 5;      // a minute, of an address and role
  static constexpr std::size_t kMostOfAddress = 50;  // a minute, of an address and any role
  static constexpr std::size_t kMostKept = 20000;    // addresses, and pairs of address and role

  /// False when the address has to wait. Otherwise the attempt counts as failed until succeed(), so
  /// that many at the same time do not pass.
  bool begin(const std::string& address, const std::string& role, Time now);
  /// Takes back what the last begin() has counted.
  void succeed(const std::string& address, const std::string& role);

 private:
  using Times = std::deque<Time>;

  bool hasRoom(const std::string& key, std::size_t most, Time now);
  void forgetOld(Time now);

  std::mutex mutex;
  std::unordered_map<std::string, Times> attempts;  // guarded by mutex
};

/// The part of an IP address that one network can choose from: of IPv6 the first 64 bits.
std::string networkOf(const std::string& address);
