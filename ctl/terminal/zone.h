#pragma once

#include <string>

// The time zone in which koductl takes and shows times. JSON and the database have UTC.

/// Makes `name` the zone, such as "Europe/Berlin"; "" keeps that of TZ, else of the system. Throws
/// Failure (kWrongUsage) for a zone that this machine does not know. Written during start-up only.
void useZone(const std::string& name);

/// The name that the server knows the zone by: "Europe/Berlin", or "UTC".
std::string zoneName();

/// "Times are UTC." or "Times are those of Europe/Berlin."
std::string zoneSentence();
