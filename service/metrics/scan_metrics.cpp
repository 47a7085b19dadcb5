#include "service/metrics/scan_metrics.h"

#include <algorithm>
#include <utility>

namespace keldra {

namespace {

constexpr std::array LANES{ScanLane::REALTIME, ScanLane::MANUAL, ScanLane::SCHEDULED, ScanLane::PATH, ScanLane::CLIENT};

/// Seconds. A small file takes less than a millisecond, the longest scan is ended after ten minutes.
const prometheus::Histogram::BucketBoundaries BUCKETS{0.0001, 0.00025, 0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025, 0.05,
                                                      0.1,    0.25,    0.5,    1,     2.5,    5,     10,   30,    120};

/// Words of the details, and the reason they stand for.
constexpr std::array REASONS{
    std::pair{std::string_view("the scan was stopped"), std::string_view("stopped")},
    std::pair{std::string_view("took too long"), std::string_view("time")},
    std::pair{std::string_view("encrypted"), std::string_view("encrypted")},
    std::pair{std::string_view("nested more deeply"), std::string_view("limit")},
    std::pair{std::string_view("larger than the settings"), std::string_view("limit")},
    std::pair{std::string_view("limit of the engine"), std::string_view("limit")},
    std::pair{std::string_view("too large"), std::string_view("limit")},
    std::pair{std::string_view("too much room"), std::string_view("limit")},
    std::pair{std::string_view("memory"), std::string_view("memory")},
    std::pair{std::string_view("the scanner"), std::string_view("scanner")},
    std::pair{std::string_view("signatures"), std::string_view("signatures")},
    std::pair{std::string_view("the engine failed"), std::string_view("engine")},
    std::pair{std::string_view("cannot be read"), std::string_view("unreadable")},
};

}  // namespace

const char* laneName(ScanLane lane) {
    switch (lane) {
        case ScanLane::REALTIME:
            return "realtime";
        case ScanLane::MANUAL:
            return "manual";
        case ScanLane::SCHEDULED:
            return "scheduled";
        case ScanLane::CLIENT:
            return "client";
        case ScanLane::PATH:
            break;
    }
    return "path";
}

std::string_view failureReason(std::string_view detail) {
    const auto* const row = std::find_if(REASONS.begin(), REASONS.end(), [detail](const auto& one) {
        return detail.find(one.first) != std::string_view::npos;
    });
    return row == REASONS.end() ? std::string_view("other") : row->second;
}

/// All series exist from the start: a rate over one that appears with its first count would miss that count.
ScanMetrics::ScanMetrics()
    : failures_(prometheus::BuildCounter()
                    .Name("keldra_scan_failures_total")
                    .Help("Files that were not scanned, or not wholly, by lane and reason.")
                    .Register(registry_)) {
    auto& files = prometheus::BuildCounter()
                      .Name("keldra_scanned_files_total")
                      .Help("Files that were given to the engine, whatever came of it.")
                      .Register(registry_);
    auto& bytes = prometheus::BuildCounter()
                      .Name("keldra_scanned_bytes_total")
                      .Help("Size of the files that were given to the engine.")
                      .Register(registry_);
    auto& finds = prometheus::BuildCounter()
                      .Name("keldra_finds_total")
                      .Help("Files in which something was found.")
                      .Register(registry_);
    auto& remembered = prometheus::BuildCounter()
                           .Name("keldra_remembered_files_total")
                           .Help("Files that were not opened, as they have not changed since they were clean.")
                           .Register(registry_);
    auto& running = prometheus::BuildGauge()
                        .Name("keldra_scans_in_progress")
                        .Help("Files that are being scanned, or wait for a scanner.")
                        .Register(registry_);
    auto& seconds = prometheus::BuildHistogram()
                        .Name("keldra_scan_duration_seconds")
                        .Help("Time that one file took, waiting for a scanner included.")
                        .Register(registry_);
    for (const ScanLane lane : LANES) {
        const prometheus::Labels labels{{"lane", laneName(lane)}};
        of(lane) = {&files.Add(labels),      &bytes.Add(labels),   &finds.Add(labels),
                    &remembered.Add(labels), &running.Add(labels), &seconds.Add(labels, BUCKETS)};
        for (const auto& row : REASONS) failures_.Add({{"lane", laneName(lane)}, {"reason", std::string(row.second)}});
    }
}

void ScanMetrics::count(ScanLane lane, const ScanResult& result, std::uint64_t bytes,
                        std::chrono::duration<double> took) {
    Lane& counts = of(lane);
    counts.files->Increment();
    counts.bytes->Increment(static_cast<double>(bytes));
    counts.seconds->Observe(took.count());
    if (result.verdict == Verdict::INFECTED) counts.finds->Increment();
    if (result.verdict == Verdict::NOT_FULLY_SCANNED || result.verdict == Verdict::FAILED)
        failures_.Add({{"lane", laneName(lane)}, {"reason", std::string(failureReason(result.detail))}}).Increment();
}

}  // namespace keldra
