#include "service/base/memory_budget.h"

#include <unistd.h>

#include <fstream>
#include <limits>
#include <string>
#include <utility>

namespace keldra {

namespace {

/// Below this a file is not worth counting.
constexpr std::uint64_t SMALL = std::uint64_t{32} << 20U;

}  // namespace

std::uint64_t availableMemory() {
    std::ifstream file("/proc/meminfo");
    for (std::string name; file >> name; file.ignore(std::numeric_limits<std::streamsize>::max(), '\n')) {
        std::uint64_t kibibytes = 0;
        if (name == "MemAvailable:" && file >> kibibytes) return kibibytes * 1024;
    }
    return physicalMemory();
}

std::uint64_t physicalMemory() {
    const long pages = ::sysconf(_SC_PHYS_PAGES);
    const long size = ::sysconf(_SC_PAGESIZE);
    return pages > 0 && size > 0 ? static_cast<std::uint64_t>(pages) * static_cast<std::uint64_t>(size)
                                 : std::numeric_limits<std::uint64_t>::max();
}

MemoryBudget::Share::Share(Share&& other) noexcept
    : budget_(std::exchange(other.budget_, nullptr)), bytes_(other.bytes_) {}

MemoryBudget::Share::~Share() {
    if (budget_ == nullptr || bytes_ == 0) return;
    {
        const std::lock_guard lock(budget_->mutex_);
        budget_->taken_ -= bytes_;
    }
    budget_->given_.notify_all();
}

std::optional<MemoryBudget::Share> MemoryBudget::take(std::uint64_t bytes, const std::stop_token& stop) {
    if (bytes <= SMALL) return Share(*this, 0);
    std::unique_lock lock(mutex_);
    bool fits = false;
    // What is taken may not be in use yet, so it is counted beside what is available. A quarter stays for the others.
    const auto decided = [&] {
        fits = bytes + taken_ <= available_() / 4 * 3;
        return fits || taken_ == 0;
    };
    if (!given_.wait(lock, stop, decided) || !fits) return std::nullopt;
    taken_ += bytes;
    return Share(*this, bytes);
}

}  // namespace keldra
