#pragma once

#include "service/engine/scan_result.h"

#include <prometheus/collectable.h>
#include <prometheus/counter.h>
#include <prometheus/gauge.h>
#include <prometheus/histogram.h>
#include <prometheus/metric_family.h>
#include <prometheus/registry.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace keldra {

/// "realtime", "manual", "scheduled", "path" or "client".
const char* laneName(ScanLane lane);

/// Why a file was not scanned wholly, as one of a few words that never grow in number. `detail`: of the result.
std::string_view failureReason(std::string_view detail);

/// What scans came to since the service's start, by lane. May be used from any thread; a count never waits for another.
class ScanMetrics : public prometheus::Collectable {
public:
    ScanMetrics();

    /// A scan that is under way or waits for a scanner, until it goes.
    class Running {
    public:
        explicit Running(prometheus::Gauge& gauge) : gauge_(gauge) { gauge_.Increment(); }
        ~Running() { gauge_.Decrement(); }
        Running(const Running&) = delete;
        Running& operator=(const Running&) = delete;

    private:
        prometheus::Gauge& gauge_;
    };

    Running begin(ScanLane lane) { return Running(*of(lane).running); }
    /// `bytes`: the file's size.
    void count(ScanLane lane, const ScanResult& result, std::uint64_t bytes, std::chrono::duration<double> took);
    /// A file that was not scanned since it is known to be as it was when it was clean.
    void countRemembered(ScanLane lane) { of(lane).remembered->Increment(); }

    std::vector<prometheus::MetricFamily> Collect() const override { return registry_.Collect(); }

private:
    struct Lane {
        prometheus::Counter* files;
        prometheus::Counter* bytes;
        prometheus::Counter* finds;
        prometheus::Counter* remembered;
        prometheus::Gauge* running;
        prometheus::Histogram* seconds;
    };

    Lane& of(ScanLane lane) { return lanes_[static_cast<std::size_t>(lane)]; }

    prometheus::Registry registry_;
    prometheus::Family<prometheus::Counter>& failures_;
    std::array<Lane, 5> lanes_{};
};

}  // namespace keldra
