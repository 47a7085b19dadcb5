#pragma once

#include <prometheus/metric_family.h>

#include <vector>

namespace keldra {

/// Of this process, under the names that all programs give them; and the memory of the service with its scanners, where
/// the kernel counts it for the service alone. What cannot be had is left out.
std::vector<prometheus::MetricFamily> processMetrics();

}  // namespace keldra
