#pragma once

#include <optional>
#include <string>

class Session;

/// A time that the operator gave, in the zone of zoneName(), as a time with its zone for the
/// functions of the database; nothing for nothing. "18:00" is the next moment at which it is 18:00.
/// With `mayBeDuration`, "2h" or "1 day 30m" is the time from now on. Throws Failure (kRefused) for
/// a text that the server cannot read.
std::optional<std::string> momentOf(Session& session, const std::optional<std::string>& text,
                                    bool mayBeDuration = false);
