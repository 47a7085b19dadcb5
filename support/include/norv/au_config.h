#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

class NORVConfig;

/// Components of an update, bits of one byte.
inline constexpr uint8_t UPDATE_VIRUS_PATTERN = 1U << 0U;
inline constexpr uint8_t UPDATE_SCAN_ENGINE = 1U << 1U;
inline constexpr uint8_t UPDATE_SPYWARE_PATTERN = 1U << 5U;

/// An update that somebody asks for, category "Varnel".
struct NORVManualAUConfig {
    NORVManualAUConfig() = default;
    explicit NORVManualAUConfig(const NORVConfig& config);

    uint8_t components = 0;
};

/// The scheduled update, category "Varnel".
struct NORVScheduledAUConfig {
    enum Kind : int32_t { OFF = 0, HOURLY = 1, DAILY = 2, WEEKLY = 3 };

    NORVScheduledAUConfig() = default;
    explicit NORVScheduledAUConfig(const NORVConfig& config);

    uint8_t components = 0;
    int32_t kind = OFF;
    int32_t period = 0;   ///< every so many days (DAILY) or weeks (WEEKLY)
    std::string time;     ///< "hh:mm:ss", local time
    int32_t weekDay = 0;  ///< Sunday 0 to Saturday 6
};

/// All that is known about updates: what is installed, what is scheduled, where it comes from. Category "Varnel".
struct NORVAUConfig {
    NORVAUConfig() = default;
    explicit NORVAUConfig(const NORVConfig& config);

    std::string engineVersion;
    std::string engineLastUpdate;
    std::string virusPatternVersion;
    std::string virusPatternLastUpdate;
    std::string spywarePatternVersion;
    std::string spywarePatternLastUpdate;
    NORVScheduledAUConfig scheduled;
    NORVManualAUConfig manual;
    std::string schedule;          ///< "Schedule": the kind and period as the settings page shows them
    std::string scheduledTime;     ///< "ScheduledTime"
    std::string scheduledWeekDay;  ///< "ScheduledWDay"
    std::string randomizedUpdate;  ///< "RandomizedUpdate": start at a random minute within the hour
    std::string source;            ///< "official", "mirror" or "custom"
    std::string mirror;            ///< host of the private mirror
    std::string customURLs;        ///< files and URLs of the custom source, a path list
    std::string proxyServer;
    std::string proxyPort;
    std::string proxyUser;
    std::string proxyPassword;
};

/// Text forms, as for the scan records (norv/scan_config.h).
std::string recordText(const NORVManualAUConfig& record);
std::ostream& operator<<(std::ostream& out, const NORVManualAUConfig& record);
std::istream& operator>>(std::istream& in, NORVManualAUConfig& record);
bool parseRecord(std::string_view text, NORVManualAUConfig& record);
std::string recordText(const NORVScheduledAUConfig& record);
std::ostream& operator<<(std::ostream& out, const NORVScheduledAUConfig& record);
std::istream& operator>>(std::istream& in, NORVScheduledAUConfig& record);
bool parseRecord(std::string_view text, NORVScheduledAUConfig& record);

/// Writes a record's fields into the document, for the service.
void storeRecord(NORVConfig& config, const NORVManualAUConfig& record);
void storeRecord(NORVConfig& config, const NORVScheduledAUConfig& record);
