#pragma once

#include <optional>
#include <string>

class Session;

/// What a text without a date means.
enum class MomentRule {
  kNext,            // "18:00" is the next moment at which it is 18:00
  kNextOrDuration,  // the same, and "2h" or "1 day 30m" is that time from now
  kLastOrDuration,  // "18:00" is the last such moment, and "2h" is two hours ago
};

/// A time that the operator gave, in the zone of zoneName(), as a time with its zone for the
/// functions of the database; nothing for nothing. Throws Failure (kRefused) for a text that the
/// server cannot read.
std::optional<std::string> momentOf(Session& session, const std::optional<std::string>& text,
                                    MomentRule rule = MomentRule::kNext);
