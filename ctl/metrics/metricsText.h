#pragma once

#include <string>

#include "common/metrics/page.h"

struct MetricsReading;

/// The page of a reading. What is not known has no sample: a value that the database did not
/// confirm is not shown as if it were the present one. `version` is that of the program.
std::string metricsText(const MetricsReading& reading, MetricsFormat format,
                        const std::string& version);
