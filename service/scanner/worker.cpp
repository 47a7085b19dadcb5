#include "service/scanner/worker.h"

#include "service/engine/scanner_wire.h"
#include "service/scanner/content_scan.h"

#include <clamav.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <vector>

namespace keldra {

namespace {

/// The process's own limits. Setting them for each small file costs a tenth of what its scan does, so they are set
/// anew only where the file needs another one.
class ProcessLimits {
public:
    /// `bytes`: of address space.
    void setMemory(uint64_t bytes) {
        const uint64_t rounded = (bytes / MEMORY_STEP + 1) * MEMORY_STEP;
        if (rounded == memory_) return;
        rlimit limit{};
        if (::getrlimit(RLIMIT_AS, &limit) != 0) return;
        limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, rounded);
        if (::setrlimit(RLIMIT_AS, &limit) == 0) memory_ = rounded;
    }

    /// The limit on processor time counts from the process's start: it moves on with the files.
    void setProcessorTime(uint32_t milliseconds) {
        const auto now = Steady::now();
        if (milliseconds == milliseconds_ && now - moved_ < TIME_STEP) return;
        rusage used{};
        rlimit limit{};
        if (::getrusage(RUSAGE_SELF, &used) != 0 || ::getrlimit(RLIMIT_CPU, &limit) != 0) return;
        const auto seconds = static_cast<rlim_t>(used.ru_utime.tv_sec + used.ru_stime.tv_sec);
        limit.rlim_cur = std::min(limit.rlim_max, seconds + milliseconds / 1000 + CPU_BEYOND_LIMIT);
        if (::setrlimit(RLIMIT_CPU, &limit) != 0) return;
        milliseconds_ = milliseconds;
        moved_ = now;
    }

private:
    using Steady = std::chrono::steady_clock;
    static constexpr uint64_t MEMORY_STEP = uint64_t{1} << 20U;
    /// A file may be given less by that much, which is little beside what is given beyond its time.
    static constexpr std::chrono::seconds TIME_STEP{1};
    static constexpr rlim_t CPU_BEYOND_LIMIT = 10;  // seconds

    uint64_t memory_ = 0;
    uint32_t milliseconds_ = 0;
    Steady::time_point moved_;
};

void applyLimits(cl_engine& library, const wire::ScanOrder& order) {
    // The library counts the file itself to what it unpacks and looks at.
    const auto number = [](uint64_t value) { return static_cast<long long>(value); };
    cl_engine_set_num(&library, CL_ENGINE_MAX_FILESIZE, number(std::max(order.size, order.fileSize)));
    cl_engine_set_num(&library, CL_ENGINE_MAX_SCANSIZE, number(order.size + order.unpacked));
    cl_engine_set_num(&library, CL_ENGINE_MAX_FILES, order.members);
    cl_engine_set_num(&library, CL_ENGINE_MAX_SCANTIME, order.milliseconds);
}

wire::ScanAnswer answerTo(cl_engine& library, const wire::ScanOrder& order, int file) {
    applyLimits(library, order);
    const ScanResult result = scanContent(
        {.fd = file,
         .size = order.size,
         .library = &library,
         .memberLimit = std::max(order.size, order.fileSize),
         .options = {
             .archives = order.archives != 0, .layers = order.layers, .memberSizeLimit = order.memberSizeLimit}});
    wire::ScanAnswer answer;
    answer.number = order.number;
    answer.verdict = static_cast<uint32_t>(result.verdict);
    wire::put(answer.signature, result.signature);
    wire::put(answer.detail, result.detail);
    return answer;
}

}  // namespace

void serveScans(cl_engine& library, uint64_t mapped) {
    ProcessLimits limits;
    while (true) {
        wire::ScanOrder order;
        std::vector<FileDescriptor> files;
        if (wire::receive(wire::CHANNEL, order, files) != 1 || files.size() != 1) ::_exit(EXIT_SUCCESS);
        limits.setMemory(mapped + order.size + order.memory);
        limits.setProcessorTime(order.milliseconds);
        const wire::ScanAnswer answer = answerTo(library, order, files.front().get());
        // The file is let go before anybody may want to do something to it.
        files.clear();
        if (!wire::send(wire::CHANNEL, answer)) ::_exit(EXIT_FAILURE);
    }
}

}  // namespace keldra
