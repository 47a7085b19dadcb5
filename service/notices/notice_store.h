#pragma once

#include "norv/protocol/notices.h"

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace keldra {

using NoticeSettings = protocol::NoticeSettings;

/// What is wrong with settings, English; empty when nothing is.
std::string checkNoticeSettings(const NoticeSettings& settings);

/// The addresses of a list joined by ",", without blanks.
std::vector<std::string> mailAddresses(const std::string& list);

/// The settings of notices with their secrets, in a file that only the service may read. May be used from any thread.
class NoticeStore {
public:
    /// Reads the file; without one the settings are those of a fresh service.
    explicit NoticeStore(std::filesystem::path file);

    /// With the secrets.
    NoticeSettings settings() const;
    /// Without them.
    NoticeSettings served() const;
    /// Tells one state of the settings from the next.
    std::uint64_t revision() const;
    /// Checks and stores. Secrets that are left out stay, unless they would go to another server than they were given
    /// for. `revision`: that of the settings that are to be changed, if it matters. Returns what is wrong, or nothing.
    std::string store(NoticeSettings settings, std::optional<std::uint64_t> revision = {});

private:
    const std::filesystem::path file_;
    mutable std::mutex mutex_;
    NoticeSettings settings_;
    std::uint64_t revision_ = 0;
};

}  // namespace keldra
