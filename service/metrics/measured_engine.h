#pragma once

#include "service/engine/scan_engine.h"
#include "service/metrics/scan_metrics.h"

#include <functional>
#include <memory>
#include <stop_token>
#include <string>
#include <utility>

namespace keldra {

/// An engine whose scans are counted and timed, whoever asks for them; it does nothing else.
class MeasuredEngine : public ScanEngine {
public:
    /// `metrics` must outlive it.
    MeasuredEngine(std::unique_ptr<ScanEngine> engine, ScanMetrics& metrics)
        : engine_(std::move(engine)), metrics_(metrics) {}

    ScanResult scan(int fd, const std::string& path, const ScanOptions& options, std::stop_token stop) override;
    bool knowsClean(int place, const struct stat& status, const ScanOptions& options) const override;
    EngineState state() const override { return engine_->state(); }
    bool load() override { return engine_->load(); }
    void reload(std::function<void(bool)> done) override { engine_->reload(std::move(done)); }
    void stopReloads() override { engine_->stopReloads(); }
    void setLimits(const EngineLimits& limits) override { engine_->setLimits(limits); }
    bool ownsProcess(pid_t pid) const override { return engine_->ownsProcess(pid); }

private:
    const std::unique_ptr<ScanEngine> engine_;
    ScanMetrics& metrics_;
};

}  // namespace keldra
