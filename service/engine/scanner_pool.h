#pragma once

#include "service/base/memory_budget.h"
#include "service/engine/bad_files.h"
#include "service/engine/clean_files.h"
#include "service/engine/scan_engine.h"
#include "service/engine/scanner_team.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace keldra {

/// The engine in processes of its own: a host for each set of signatures, whose workers scan one file at a time and are
/// ended and replaced when they fail.
class ScannerPool : public ScanEngine {
public:
    explicit ScannerPool(EngineSettings settings);
    ~ScannerPool() override;

    ScanResult scan(int fd, const std::string& path, const ScanOptions& options, std::stop_token stop) override;
    bool knowsClean(int place, const struct stat& status, const ScanOptions& options) const override;
    EngineState state() const override;
    bool load() override;
    void reload(std::function<void(bool)> done) override;
    void stopReloads() override;
    bool ownsProcess(pid_t pid) const override;
    void setLimits(const EngineLimits& limits) override;

private:
    /// A host with the signatures it has loaded.
    struct Generation {
        std::shared_ptr<ScannerHost> host;
        std::string identity;      ///< empty: what it finds clean must not be remembered
        FileDescriptor temporary;  ///< holds the workers' folders
    };
    using Current = std::shared_ptr<const Generation>;
    /// What a load came to.
    struct Built;

    Current current() const;
    Current awaitCurrent(ScanLane lane, const std::stop_token& stop) const;
    std::string whyNone() const;
    ScanResult scanWith(const Current& generation, int fd, const struct stat& status, const ScanOptions& options,
                        const std::stop_token& stop, bool& hostGone);
    ScanLimits limitsOf(const ScanOptions& options) const;
    wire::ScanOrder orderOf(const struct stat& status, const ScanOptions& options);
    void noteHanging(const ScannerWorker& worker);

    Built build(std::vector<SignatureFolder> folders);
    Built buildWhatGoes();
    bool adopt(Built built);
    void makeRoomInMemory();
    void describe(Built& built, const wire::HostNews& news, const std::vector<SignatureFolder>& folders) const;
    void request(std::function<void(bool)> done);
    void reloadLoop(const std::stop_token& stop);
    void watch(const std::stop_token& stop);
    void planRestart();
    void restartWhenDead();

    const EngineSettings settings_;
    const ScannerProgram program_;
    ScannerTeam team_;
    CleanFiles cleanFiles_;
    BadFiles badFiles_;
    MemoryBudget memory_;
    std::atomic<uint64_t> orders_ = 0;

    mutable std::mutex mutex_;
    mutable std::condition_variable_any changed_;
    Current current_;
    std::shared_ptr<ScannerHost> loadingHost_;
    EngineState state_;
    EngineLimits limits_;
    int loading_ = 0;
    bool ending_ = false;
    bool restarting_ = false;                        ///< the host has ended, the next one is to come
    bool toldUnconfined_ = false;                    ///< under loadMutex_
    std::chrono::steady_clock::time_point born_;     ///< when the present host was started
    std::chrono::steady_clock::time_point restart_;  ///< not before this, the next one
    std::chrono::milliseconds pause_{0};
    mutable std::vector<std::pair<std::weak_ptr<ScannerHost>, uint32_t>> hanging_;
    std::vector<std::function<void(bool)>> reloads_;
    mutable std::mutex hostsMutex_;  ///< for `ownsProcess` alone, which must not wait
    std::vector<std::weak_ptr<ScannerHost>> hosts_;
    std::mutex loadMutex_;
    std::jthread reloader_;
    std::jthread watcher_;
};

}  // namespace keldra
