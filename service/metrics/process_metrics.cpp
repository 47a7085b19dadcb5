#include "service/metrics/process_metrics.h"

#include "service/base/files.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>

namespace keldra {

namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

/// The number behind a word of a text of the kernel's.
std::optional<std::uint64_t> numberBehind(const std::string& path, const std::string& word) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::string name;
        std::uint64_t number = 0;
        if (words >> name >> number && name == word) return number;
    }
    return std::nullopt;
}

/// Memory that belongs to all processes of the service's control group; nothing when it has none of its own.
std::optional<std::uint64_t> groupMemory() {
    std::ifstream file("/proc/self/cgroup");
    std::string line;
    while (std::getline(file, line) && !line.starts_with("0::/")) {
    }
    if (!line.ends_with(".service")) return std::nullopt;
    return numberBehind("/sys/fs/cgroup" + line.substr(3) + "/memory.stat", "anon");
}

std::optional<double> openDescriptors() {
    const auto descriptors = namesIn("/proc/self/fd");
    return descriptors ? std::optional(static_cast<double>(descriptors->size())) : std::nullopt;
}

double processorSeconds() {
    rusage usage{};
    if (::getrusage(RUSAGE_SELF, &usage) != 0) return 0;
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void add(std::vector<MetricFamily>& families, const char* name, const char* help, std::optional<double> value,
         MetricType type = MetricType::Gauge) {
    if (!value) return;
    ClientMetric metric;
    (type == MetricType::Counter ? metric.counter.value : metric.gauge.value) = *value;
    families.push_back({name, help, type, {metric}});
}

}  // namespace

std::vector<MetricFamily> processMetrics() {
    constexpr double KIBIBYTE = 1024;
    std::vector<MetricFamily> families;
    if (const auto resident = numberBehind("/proc/self/status", "VmRSS:"))
        add(families, "process_resident_memory_bytes", "Memory of keldrad itself.",
            static_cast<double>(*resident) * KIBIBYTE);
    if (const auto group = groupMemory())
        add(families, "keldra_memory_bytes", "Memory of the service and its scanners.", static_cast<double>(*group));
    add(families, "process_cpu_seconds_total", "Processor time of keldrad itself.", processorSeconds(),
        MetricType::Counter);
    add(families, "process_open_fds", "Open descriptors of keldrad.", openDescriptors());
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0)
        add(families, "process_max_fds", "Most descriptors that keldrad may have.",
            static_cast<double>(limit.rlim_cur));
    return families;
}

}  // namespace keldra
