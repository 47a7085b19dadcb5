#pragma once

#include <prometheus/metric_family.h>

#include <string>
#include <vector>

namespace keldra {

/// Metrics as OpenMetrics 1.0 text. Names are those of Prometheus' own format: a counter's ends in "_total".
std::string openMetricsText(const std::vector<prometheus::MetricFamily>& families);
/// The same as Prometheus' text format 0.0.4.
std::string prometheusText(const std::vector<prometheus::MetricFamily>& families);

}  // namespace keldra
