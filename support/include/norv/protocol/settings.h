#pragma once

#include "norv/au_config.h"
#include "norv/protocol/call.h"
#include "norv/scan_config.h"

#include <optional>
#include <string>

namespace protocol {

/// Where a settings record travels: the command and the name of the parameter.
template <typename Record>
struct SettingsPlace;
template <>
struct SettingsPlace<NORVRealtimeScanConfig> {
    static constexpr auto COMMAND = IPCMessage::REALTIME_SCAN_CONFIG;
    static constexpr const char* PARAMETER = "RealtimeScanConfig";
};
template <>
struct SettingsPlace<NORVManualScanConfig> {
    static constexpr auto COMMAND = IPCMessage::MANUAL_SCAN_CONFIG;
    static constexpr const char* PARAMETER = "ManualScanConfig";
};
template <>
struct SettingsPlace<NORVScheduledScanConfig> {
    static constexpr auto COMMAND = IPCMessage::SCHEDULED_SCAN_CONFIG;
    static constexpr const char* PARAMETER = "ScheduledScanConfig";
};
template <>
struct SettingsPlace<NORVScheduledAUConfig> {
    static constexpr auto COMMAND = IPCMessage::SCHEDULED_UPDATE_CONFIG;
    static constexpr const char* PARAMETER = "ScheduledAUConfig";
};

/// Stored settings; none when the reply lacks them.
template <typename Record>
struct Settings {
    std::optional<Record> settings;

    static void visit(auto& record, auto&& field) { field(SettingsPlace<Record>::PARAMETER, record.settings); }
};

template <typename Record>
struct GetSettings {
    static constexpr auto KIND = IPCMessage::GET;
    static constexpr auto COMMAND = SettingsPlace<Record>::COMMAND;
    using Reply = Settings<Record>;
    static void visit(auto& /*record*/, auto&& /*field*/) {}
};

/// What saving settings came to, besides being done.
struct SettingsSaved {
    static constexpr const char* DISK_FULL = "DiskFull";
    std::optional<std::string> backupResult;  ///< DISK_FULL when no backup of what was before could be kept

    static void visit(auto& record, auto&& field) { field("BackupResult", record.backupResult); }
};

/// Lays settings over the stored ones.
template <typename Record>
struct SetSettings {
    static constexpr auto KIND = IPCMessage::SET;
    static constexpr auto COMMAND = SettingsPlace<Record>::COMMAND;
    using Reply = SettingsSaved;
    Record settings;

    static void visit(auto& record, auto&& field) { field(SettingsPlace<Record>::PARAMETER, record.settings); }
};

}  // namespace protocol
