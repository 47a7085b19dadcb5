#include "norv/au_config.h"

#include "record_config.h"
#include "record_stream.h"

#include <charconv>
#include <string_view>

namespace {

constexpr const char* MANUAL = "NORVManualAUConfig";
constexpr const char* SCHEDULED = "NORVScheduledAUConfig";
constexpr const char* CATEGORY = "Varnel";

// What the texts carry. `Record` is the record, const or not; `field` takes a name and the field.

constexpr auto VISIT_MANUAL = [](auto& record, auto&& field) { field("components", record.components); };

constexpr auto VISIT_SCHEDULED = [](auto& record, auto&& field) {
    field("components", record.components);
    field("kind", record.kind);
    field("period", record.period);
    field("time", record.time);
    field("weekDay", record.weekDay);
};

// What the configuration carries, by other names.

constexpr auto VISIT_MANUAL_SETTINGS = [](auto& record, auto&& field) { field("ManualComponents", record.components); };

constexpr auto VISIT_SCHEDULED_SETTINGS = [](auto& record, auto&& field) {
    field("ScheduledComponents", record.components);
    field("ScheduledTime", record.time);
    field("ScheduledWDay", record.weekDay);
};

constexpr auto VISIT_SETTINGS = [](auto& record, auto&& field) {
    field("EngineVersion", record.engineVersion);
    field("EngineLastUpdate", record.engineLastUpdate);
    field("VirusPatternVersion", record.virusPatternVersion);
    field("VirusPatternLastUpdate", record.virusPatternLastUpdate);
    field("SpywarePatternVersion", record.spywarePatternVersion);
    field("SpywarePatternLastUpdate", record.spywarePatternLastUpdate);
    field("Schedule", record.schedule);
    field("ScheduledTime", record.scheduledTime);
    field("ScheduledWDay", record.scheduledWeekDay);
    field("RandomizedUpdate", record.randomizedUpdate);
    field("Source", record.source);
    field("Mirror", record.mirror);
    field("CustomURLs", record.customURLs);
    field("ProxyServer", record.proxyServer);
    field("ProxyPort", record.proxyPort);
    field("ProxyUser", record.proxyUser);
    field("ProxyPassword", record.proxyPassword);
};

bool parseNumber(std::string_view text, int32_t& number) {
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && stop == text.data() + text.size();
}

/// The "Schedule" setting, "<kind>-<period>"; anything else leaves the update switched off.
void readSchedule(const std::string& schedule, NORVScheduledAUConfig& record) {
    const std::string_view text = schedule;
    const std::size_t dash = text.find('-');
    int32_t kind = 0;
    int32_t period = 0;
    if (dash == std::string_view::npos || !parseNumber(text.substr(0, dash), kind)) return;
    if (!parseNumber(text.substr(dash + 1), period)) return;
    record.kind = kind;
    record.period = period;
}

}  // namespace

NORVManualAUConfig::NORVManualAUConfig(const NORVConfig& config) {
    VISIT_MANUAL_SETTINGS(*this, ConfigReader(config, CATEGORY));
}

NORVScheduledAUConfig::NORVScheduledAUConfig(const NORVConfig& config) {
    VISIT_SCHEDULED_SETTINGS(*this, ConfigReader(config, CATEGORY));
    readSchedule(configValueOr(config, CATEGORY, "Schedule", std::string()), *this);
}

NORVAUConfig::NORVAUConfig(const NORVConfig& config) : scheduled(config), manual(config) {
    VISIT_SETTINGS(*this, ConfigReader(config, CATEGORY));
}

std::string recordText(const NORVManualAUConfig& record) { return writeRecord(MANUAL, record, VISIT_MANUAL); }

std::ostream& operator<<(std::ostream& out, const NORVManualAUConfig& record) { return out << recordText(record); }

bool parseRecord(std::string_view text, NORVManualAUConfig& record) {
    return readRecord(text, MANUAL, record, VISIT_MANUAL);
}

std::istream& operator>>(std::istream& in, NORVManualAUConfig& record) { return extractRecord(in, record); }

std::string recordText(const NORVScheduledAUConfig& record) { return writeRecord(SCHEDULED, record, VISIT_SCHEDULED); }

std::ostream& operator<<(std::ostream& out, const NORVScheduledAUConfig& record) { return out << recordText(record); }

bool parseRecord(std::string_view text, NORVScheduledAUConfig& record) {
    return readRecord(text, SCHEDULED, record, VISIT_SCHEDULED);
}

std::istream& operator>>(std::istream& in, NORVScheduledAUConfig& record) { return extractRecord(in, record); }

void storeRecord(NORVConfig& config, const NORVManualAUConfig& record) {
    VISIT_MANUAL_SETTINGS(record, ConfigWriter(config, CATEGORY));
}

void storeRecord(NORVConfig& config, const NORVScheduledAUConfig& record) {
    VISIT_SCHEDULED_SETTINGS(record, ConfigWriter(config, CATEGORY));
    config.setValue(CATEGORY, "Schedule", std::to_string(record.kind) + "-" + std::to_string(record.period));
}
