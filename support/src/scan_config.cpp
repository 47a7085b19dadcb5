#include "norv/scan_config.h"

#include "record_config.h"
#include "record_stream.h"

namespace {

constexpr const char* MANUAL = "NORVManualScanConfig";
constexpr const char* REALTIME = "NORVRealtimeScanConfig";
constexpr const char* SCHEDULED = "NORVScheduledScanConfig";
constexpr const char* MANUAL_CATEGORY = "ManualScan";
constexpr const char* REALTIME_CATEGORY = "RealtimeScan";
constexpr const char* SCHEDULED_CATEGORY = "ScheduledScan";

// The fields of each record, once for every reader and writer: the texts and the configuration use the same names.
// `Record` is the record, const or not; `field` takes a name and the field.

constexpr auto VISIT_COMMON = [](auto& record, auto&& field) {
    field("includeExtList", record.includeExtList);
    field("includeHVExtList", record.includeHVExtList);
    field("zelscan", record.zelscan);
    field("customActions", record.customActions);
    field("universeAction", record.universeAction);
    field("scanCompressed", record.scanCompressed);
    field("compressionLayer", record.compressionLayer);
    field("compressFileSizeLimit", record.compressFileSizeLimit);
    field("backupBeforeClean", record.backupBeforeClean);
    field("scanPaths", record.scanPaths);
    field("excludePaths", record.excludePaths);
    field("excludePatterns", record.excludePatterns);
};

constexpr auto VISIT_ON_DEMAND_ONLY = [](auto& record, auto&& field) { field("scanWorkers", record.scanWorkers); };

constexpr auto VISIT_REALTIME_ONLY = [](auto& record, auto&& field) {
    field("scanDirection", record.scanDirection);
    field("serviceRunning", record.serviceRunning);
    field("kernelHookModuleLoaded", record.kernelHookModuleLoaded);
    field("scanTimeLimit", record.scanTimeLimit);
    field("denyOnTimeout", record.denyOnTimeout);
};

constexpr auto VISIT_SCHEDULED_ONLY = [](auto& record, auto&& field) {
    field("frequency", record.frequency);
    field("time", record.time);
    field("weekDay", record.weekDay);
    field("monthDay", record.monthDay);
};

constexpr auto VISIT_MANUAL = [](auto& record, auto&& field) {
    VISIT_COMMON(record, field);
    VISIT_ON_DEMAND_ONLY(record, field);
};

constexpr auto VISIT_REALTIME = [](auto& record, auto&& field) {
    VISIT_COMMON(record, field);
    VISIT_REALTIME_ONLY(record, field);
};

constexpr auto VISIT_SCHEDULED = [](auto& record, auto&& field) {
    VISIT_COMMON(record, field);
    VISIT_SCHEDULED_ONLY(record, field);
};

}  // namespace

NORVScanConfig::NORVScanConfig(const NORVConfig& config, const char* category) {
    VISIT_COMMON(*this, ConfigReader(config, category));
}

NORVOnDemandScanConfig::NORVOnDemandScanConfig(const NORVConfig& config, const char* category)
    : NORVScanConfig(config, category) {
    VISIT_ON_DEMAND_ONLY(*this, ConfigReader(config, category));
}

NORVManualScanConfig::NORVManualScanConfig(const NORVConfig& config)
    : NORVOnDemandScanConfig(config, MANUAL_CATEGORY) {}

NORVRealtimeScanConfig::NORVRealtimeScanConfig(const NORVConfig& config) : NORVScanConfig(config, REALTIME_CATEGORY) {
    VISIT_REALTIME_ONLY(*this, ConfigReader(config, REALTIME_CATEGORY));
}

NORVScheduledScanConfig::NORVScheduledScanConfig(const NORVConfig& config)
    : NORVScanConfig(config, SCHEDULED_CATEGORY) {
    VISIT_SCHEDULED_ONLY(*this, ConfigReader(config, SCHEDULED_CATEGORY));
}

std::string recordText(const NORVManualScanConfig& record) { return writeRecord(MANUAL, record, VISIT_MANUAL); }

std::ostream& operator<<(std::ostream& out, const NORVManualScanConfig& record) { return out << recordText(record); }

bool parseRecord(std::string_view text, NORVManualScanConfig& record) {
    return readRecord(text, MANUAL, record, VISIT_MANUAL);
}

std::istream& operator>>(std::istream& in, NORVManualScanConfig& record) { return extractRecord(in, record); }

std::string recordText(const NORVRealtimeScanConfig& record) { return writeRecord(REALTIME, record, VISIT_REALTIME); }

std::ostream& operator<<(std::ostream& out, const NORVRealtimeScanConfig& record) { return out << recordText(record); }

bool parseRecord(std::string_view text, NORVRealtimeScanConfig& record) {
    return readRecord(text, REALTIME, record, VISIT_REALTIME);
}

std::istream& operator>>(std::istream& in, NORVRealtimeScanConfig& record) { return extractRecord(in, record); }

std::string recordText(const NORVScheduledScanConfig& record) {
    return writeRecord(SCHEDULED, record, VISIT_SCHEDULED);
}

std::ostream& operator<<(std::ostream& out, const NORVScheduledScanConfig& record) { return out << recordText(record); }

bool parseRecord(std::string_view text, NORVScheduledScanConfig& record) {
    return readRecord(text, SCHEDULED, record, VISIT_SCHEDULED);
}

std::istream& operator>>(std::istream& in, NORVScheduledScanConfig& record) { return extractRecord(in, record); }

void storeRecord(NORVConfig& config, const NORVManualScanConfig& record) {
    VISIT_MANUAL(record, ConfigWriter(config, MANUAL_CATEGORY));
}

void storeRecord(NORVConfig& config, const NORVRealtimeScanConfig& record) {
    VISIT_REALTIME(record, ConfigWriter(config, REALTIME_CATEGORY));
}

void storeRecord(NORVConfig& config, const NORVScheduledScanConfig& record) {
    VISIT_SCHEDULED(record, ConfigWriter(config, SCHEDULED_CATEGORY));
}
