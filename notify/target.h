#pragma once

#include <memory>
#include <string>
#include <vector>

#include "notify/config.h"
#include "notify/event.h"

/// Where events go. Owned by one thread.
class Target {
 public:
  Target() = default;
  virtual ~Target() = default;
  Target(const Target&) = delete;
  Target& operator=(const Target&) = delete;

  /// Delivers all of them, one or more, in one try. Returns "" when they have been taken, else why
  /// not, in one line without secrets.
  virtual std::string deliver(const std::vector<Event>& events) = 0;
};

/// The command or the endpoint of the configuration, which outlives the target.
std::unique_ptr<Target> makeCommandTarget(const NotifyConfig& config);
std::unique_ptr<Target> makeHttpTarget(const NotifyConfig& config);
