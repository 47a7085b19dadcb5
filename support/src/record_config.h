#pragma once

#include "norv/norv_config.h"

#include <cstdint>
#include <string>

/// Fills a record's fields from one category of the configuration; a value that is missing or of the wrong form leaves
/// the field as it is.
class ConfigReader {
public:
    ConfigReader(const NORVConfig& config, const char* category) : config_(config), category_(category) {}

    template <typename T>
    void operator()(const char* name, T& value) const {
        value = configValueOr(config_, category_, name, value);
    }
    /// The update components, a number of which only the low byte counts.
    void operator()(const char* name, uint8_t& value) const {
        value = static_cast<uint8_t>(configValueOr(config_, category_, name, uint32_t{value}));
    }

private:
    const NORVConfig& config_;
    std::string category_;
};

/// Writes a record's fields into one category of the configuration, in the forms that ConfigReader reads.
class ConfigWriter {
public:
    ConfigWriter(NORVConfig& config, const char* category) : config_(config), category_(category) {}

    void operator()(const char* name, const std::string& value) const { config_.setValue(category_, name, value); }
    void operator()(const char* name, bool value) const { config_.setValue(category_, name, value ? "1" : "0"); }
    void operator()(const char* name, int32_t value) const { config_.setValue(category_, name, std::to_string(value)); }
    void operator()(const char* name, uint32_t value) const {
        config_.setValue(category_, name, std::to_string(value));
    }
    void operator()(const char* name, uint8_t value) const { config_.setValue(category_, name, std::to_string(value)); }

private:
    NORVConfig& config_;
    std::string category_;
};
