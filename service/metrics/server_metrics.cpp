#include "service/metrics/server_metrics.h"

#include <algorithm>

namespace keldra {

namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;
using Labels = std::vector<ClientMetric::Label>;

constexpr std::array LEVELS{"protected", "attention", "unprotected"};

/// Collects families of which most have one value.
class Families {
public:
    MetricFamily& open(const char* name, const char* help, MetricType type = MetricType::Gauge) {
        return families_.emplace_back(MetricFamily{name, help, type, {}});
    }
    template <typename T>
    void gauge(const char* name, const char* help, T value) {
        add(open(name, help), {}, value);
    }
    /// `value` is a time: what never happened is not told.
    void time(const char* name, const char* help, std::int64_t value) {
        if (value != 0) gauge(name, help, value);
    }
    template <typename T>
    static void add(MetricFamily& family, Labels labels, T value) {
        ClientMetric metric;
        metric.label = std::move(labels);
        const auto number = static_cast<double>(value);
        (family.type == MetricType::Counter ? metric.counter.value : metric.gauge.value) = number;
        family.metric.push_back(std::move(metric));
    }
    std::vector<MetricFamily> take() { return std::move(families_); }

private:
    std::vector<MetricFamily> families_;
};

void addVerdict(const ServerFacts& facts, Families& families) {
    auto& info = families.open("keldra_build_info", "Always 1; the versions are in its labels.");
    Families::add(
        info, {{"database", facts.databaseVersion}, {"engine", facts.engineVersion}, {"version", facts.version}}, 1);
    families.time("keldra_start_time_seconds", "When the service started, since the epoch.", facts.started);
    auto& levels = families.open("keldra_protection", "1 for the verdict on this server, 0 for the others.");
    for (const char* const level : LEVELS) Families::add(levels, {{"level", level}}, facts.level == level ? 1 : 0);
    auto& reasons = families.open("keldra_protection_reason", "1 for each thing that speaks against being protected.");
    for (const auto& [code, severity] : facts.reasons)
        Families::add(reasons, {{"reason", code}, {"severity", severity}}, 1);
    families.gauge("keldra_untreated_files", "Infected files that lie where they were found.", facts.untreated);
}

void addEngine(const ServerFacts& facts, Families& families) {
    families.gauge("keldra_signatures", "Signatures in use.", facts.signatures);
    families.time("keldra_signatures_timestamp_seconds", "When the official signatures were built, since the epoch.",
                  facts.signatureTime);
    families.gauge("keldra_scanner_up", "1 while files can be scanned.", facts.scannerWorks ? 1 : 0);
    Families::add(families.open("keldra_scanner_restarts_total", "Times that the scanner had to be started again.",
                                MetricType::Counter),
                  {}, facts.scannerRestarts);
    families.gauge("keldra_scanners_hanging", "Scanners that took too long and could not be ended yet.",
                   facts.scannersHanging);
    families.time("keldra_last_update_success_timestamp_seconds", "When an update last succeeded, since the epoch.",
                  facts.lastUpdate);
    families.gauge("keldra_last_update_failed", "1 when the last update failed.", facts.updateFailed ? 1 : 0);
}

void addScans(const ServerFacts& facts, Families& families) {
    constexpr std::array KINDS{"manual", "scheduled"};
    auto& ends = families.open("keldra_last_complete_scan_timestamp_seconds",
                               "When a scan of this kind last ran to its end, since the epoch.");
    for (std::size_t i = 0; i < KINDS.size(); ++i)
        if (facts.lastScans[i] != 0) Families::add(ends, {{"kind", KINDS[i]}}, facts.lastScans[i]);
    auto& left = families.open("keldra_last_complete_scan_files_not_scanned",
                               "Files that the last complete scan of this kind did not scan, or not wholly.");
    for (std::size_t i = 0; i < KINDS.size(); ++i)
        if (facts.lastScans[i] != 0) Families::add(left, {{"kind", KINDS[i]}}, facts.lastNotScanned[i]);
}

void addRealtime(const ServerFacts& facts, Families& families) {
    families.gauge("keldra_realtime_wanted", "1 when the settings switch the real-time scan on.",
                   facts.realtimeWanted ? 1 : 0);
    families.gauge("keldra_realtime_guarding", "1 while the real-time scan guards files.",
                   facts.realtimeGuards ? 1 : 0);
    families.gauge("keldra_realtime_hanging_files", "Files whose file system does not answer.", facts.realtimeHanging);
    auto& waiting = families.open("keldra_realtime_waiting_files", "Files that wait for the real-time scan, by queue.");
    constexpr std::array QUEUES{"quick", "slow", "background"};
    for (std::size_t i = 0; i < QUEUES.size(); ++i)
        Families::add(waiting, {{"queue", QUEUES[i]}}, facts.realtimeWaiting[i]);
}

void addRest(const ServerFacts& facts, Families& families) {
    families.gauge("keldra_client_connections", "Connections of other programs.", facts.clientConnections);
    families.gauge("keldra_client_scans", "Files of other programs that are being scanned or wait.", facts.clientScans);
    families.gauge("keldra_sessions", "Sessions of the console.", facts.sessions);
    families.gauge("keldra_quarantine_files", "Files in the quarantine.", facts.quarantineFiles);
    families.gauge("keldra_quarantine_bytes", "Size of the files in the quarantine.", facts.quarantineBytes);
    families.gauge("keldra_quarantine_limit_bytes", "Most that the quarantine may hold; 0: any amount.",
                   facts.quarantineLimit);
    if (facts.stateFree != UINT64_MAX)
        families.gauge("keldra_state_free_bytes", "Room left on the disk of the service's own data.", facts.stateFree);
}

}  // namespace

std::vector<MetricFamily> serverMetrics(const ServerFacts& facts) {
    Families families;
    addVerdict(facts, families);
    addEngine(facts, families);
    addScans(facts, families);
    addRealtime(facts, families);
    addRest(facts, families);
    return families.take();
}

}  // namespace keldra
