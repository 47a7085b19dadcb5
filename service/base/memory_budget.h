#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <stop_token>
#include <utility>

namespace keldra {

/// Bytes of memory that the system could hand out now without swapping (MemAvailable of /proc/meminfo); all there is
/// when it does not say.
std::uint64_t availableMemory();

/// Bytes of memory that the machine has.
std::uint64_t physicalMemory();

/// Keeps scans of large files, which the engine takes into memory whole, from using up the machine's memory together.
/// May be used from any thread.
class MemoryBudget {
public:
    /// What a scan may use until this goes.
    class Share {
    public:
        Share(MemoryBudget& budget, std::uint64_t bytes) : budget_(&budget), bytes_(bytes) {}
        Share(Share&& other) noexcept;
        Share& operator=(Share&&) = delete;
        Share(const Share&) = delete;
        Share& operator=(const Share&) = delete;
        ~Share();

    private:
        MemoryBudget* budget_;
        std::uint64_t bytes_;
    };

    /// `available`: bytes that could be used now; asked at each request.
    explicit MemoryBudget(std::function<std::uint64_t()> available = availableMemory)
        : available_(std::move(available)) {}

    /// A share for a file of that many bytes, once no other file takes too much of the memory. Nothing when it is too
    /// large even alone, or when a stop is asked for before.
    std::optional<Share> take(std::uint64_t bytes, const std::stop_token& stop);

private:
    const std::function<std::uint64_t()> available_;
    std::mutex mutex_;
    std::condition_variable_any given_;
    std::uint64_t taken_ = 0;
};

}  // namespace keldra
