#include "service/metrics/measured_engine.h"

#include <sys/stat.h>

#include <chrono>

namespace keldra {

ScanResult MeasuredEngine::scan(int fd, const std::string& path, const ScanOptions& options, std::stop_token stop) {
    const auto running = metrics_.begin(options.lane);
    const auto begun = std::chrono::steady_clock::now();
    ScanResult result = engine_->scan(fd, path, options, std::move(stop));
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begun;
    struct stat status {};
    const bool known = ::fstat(fd, &status) == 0 && status.st_size > 0;
    metrics_.count(options.lane, result, known ? static_cast<std::uint64_t>(status.st_size) : 0, took);
    return result;
}

bool MeasuredEngine::knowsClean(int place, const struct stat& status, const ScanOptions& options) const {
    const bool known = engine_->knowsClean(place, status, options);
    if (known) metrics_.countRemembered(options.lane);
    return known;
}

}  // namespace keldra
