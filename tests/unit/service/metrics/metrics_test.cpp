#include "service/metrics/measured_engine.h"
#include "service/metrics/metric_text.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <thread>

namespace keldra {
namespace {

/// Answers what it is told to.
class ToldEngine : public ScanEngine {
public:
    explicit ToldEngine(const ScanResult& result) : result_(result) {}
    ScanResult scan(int, const std::string&, const ScanOptions&, std::stop_token) override { return result_; }
    bool knowsClean(int, const struct stat&, const ScanOptions&) const override { return true; }
    EngineState state() const override { return {}; }
    bool load() override { return false; }
    void reload(std::function<void(bool)>) override {}

private:
    const ScanResult& result_;
};

TEST(MetricsTest, EachScanCountsOnceInItsLaneWhateverItCameTo) {
    ScanMetrics metrics;
    ScanResult result;
    MeasuredEngine engine(std::make_unique<ToldEngine>(result), metrics);
    const auto scan = [&](Verdict verdict, const std::string& detail, ScanLane lane) {
        result = {verdict, "", detail};
        engine.scan(-1, "", {.lane = lane}, {});
    };
    scan(Verdict::CLEAN, "", ScanLane::REALTIME);
    scan(Verdict::INFECTED, "", ScanLane::CLIENT);
    scan(Verdict::FAILED, "the scanner crashed", ScanLane::CLIENT);
    scan(Verdict::NOT_FULLY_SCANNED, "it is encrypted, wholly or in parts (X)", ScanLane::CLIENT);
    engine.knowsClean(-1, {}, {.lane = ScanLane::SCHEDULED});
    const std::string text = openMetricsText(metrics.Collect());
    for (const char* const line :
         {"keldra_scanned_files_total{lane=\"client\"} 3\n", "keldra_scanned_files_total{lane=\"realtime\"} 1\n",
          "keldra_finds_total{lane=\"client\"} 1\n", "keldra_finds_total{lane=\"realtime\"} 0\n",
          "keldra_scan_failures_total{lane=\"client\",reason=\"scanner\"} 1\n",
          "keldra_scan_failures_total{lane=\"client\",reason=\"encrypted\"} 1\n",
          "keldra_scan_failures_total{lane=\"manual\",reason=\"time\"} 0\n",
          "keldra_remembered_files_total{lane=\"scheduled\"} 1\n", "keldra_scans_in_progress{lane=\"client\"} 0\n",
          "keldra_scan_duration_seconds_count{lane=\"client\"} 3\n", "le=\"+Inf\"} 3\n", "le=\"10.0\"} 3\n"})
        EXPECT_NE(text.find(line), std::string::npos) << line << text;
}

/// The labels' number is what keeps a monitoring system's memory bounded.
TEST(MetricsTest, ReasonsAreFewWhateverADetailSays) {
    const std::pair<const char*, const char*> rows[] = {
        {"the scan was stopped", "stopped"},
        {"the scan took too long", "time"},
        {"it is too large for the engine", "limit"},
        {"archives are nested more deeply than the settings allow", "limit"},
        {"a limit of the engine was met (Heuristics.Limits.Exceeded.MaxFiles)", "limit"},
        {"what it holds takes too much room unpacked", "limit"},
        {"there is not enough memory for a file of its size", "memory"},
        {"the scanner took too much memory", "memory"},
        {"the scanner answered nonsense", "scanner"},
        {"there are no virus signatures", "signatures"},
        {"the engine failed: cannot /tmp/x", "engine"},
        {"it cannot be read: Input/output error", "unreadable"},
        {"it is not a regular file", "other"},
    };
    for (const auto& [detail, reason] : rows) EXPECT_EQ(failureReason(detail), reason) << detail;
}

TEST(MetricsTest, LabelsCannotBreakOutOfTheirLine) {
    prometheus::ClientMetric metric;
    metric.label = {{"database", "a\"b\\c\nd"}};
    metric.gauge.value = std::nan("");
    EXPECT_EQ(openMetricsText({{"x", "h\n", prometheus::MetricType::Gauge, {metric}}}),
              "# TYPE x gauge\n# HELP x h\\n\nx{database=\"a\\\"b\\\\c\\nd\"} NaN\n# EOF\n");
}

}  // namespace
}  // namespace keldra
