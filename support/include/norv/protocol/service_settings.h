#pragma once

#include "norv/protocol/settings.h"

#include <cstdint>
#include <string>
#include <vector>

namespace protocol {

/// Settings that belong to no scan, and folders that are likely to be worth guarding.
inline constexpr auto SERVICE_SETTINGS = static_cast<IPCMessage::CommandID>(130);
inline constexpr auto SHARE_PROPOSALS = static_cast<IPCMessage::CommandID>(131);

/// A setting as whoever shows it needs it.
struct ServiceSetting {
    std::string name;   ///< "limits.realtime_wait"
    std::string kind;   ///< "number", "switch", "choice", "text", "secret", "folders", "sources" or "time"
    std::string value;  ///< of a secret only whether there is one: "1" or empty
    std::string fallback;
    int64_t least = 0;
    int64_t most = 0;
    std::string choices;  ///< separated by "|"
    std::string unit;     ///< English, plural
    std::string about;    ///< an English sentence

    static void visit(auto& record, auto&& field) {
        field("name", record.name);
        field("kind", record.kind);
        field("value", record.value);
        field("fallback", record.fallback);
        field("least", record.least);
        field("most", record.most);
        field("choices", record.choices);
        field("unit", record.unit);
        field("about", record.about);
    }
};

struct ServiceSettings {
    std::vector<ServiceSetting> settings;

    static void visit(auto& record, auto&& field) { field("Settings", record.settings); }
};

struct GetServiceSettings {
    static constexpr auto KIND = IPCMessage::GET;
    static constexpr auto COMMAND = SERVICE_SETTINGS;
    using Reply = ServiceSettings;
    bool secrets = false;  ///< also the secrets' values; only for root and the service's own user

    static void visit(auto& record, auto&& field) { field("Secrets", record.secrets); }
};

/// Stores some settings, all of them or none. Both texts are JSON objects of texts by name; a setting that is no longer
/// as `expected` says is not overwritten.
struct SetServiceSettings {
    static constexpr auto KIND = IPCMessage::SET;
    static constexpr auto COMMAND = SERVICE_SETTINGS;
    using Reply = SettingsSaved;
    std::string settings;
    std::string expected;

    static void visit(auto& record, auto&& field) {
        field("Settings", record.settings);
        field("Expected", record.expected);
    }
};

struct ProposedShare {
    std::string path;
    std::string origin;  ///< "smb", "nfs" or "mount"
    std::string name;    ///< of the share, the clients of an export, or the type of the file system

    static void visit(auto& record, auto&& field) {
        field("path", record.path);
        field("origin", record.origin);
        field("name", record.name);
    }
};

struct ProposedShares {
    std::vector<ProposedShare> proposals;

    static void visit(auto& record, auto&& field) { field("Proposals", record.proposals); }
};

struct GetShareProposals {
    static constexpr auto KIND = IPCMessage::GET;
    static constexpr auto COMMAND = SHARE_PROPOSALS;
    using Reply = ProposedShares;
    static void visit(auto& /*record*/, auto&& /*field*/) {}
};

}  // namespace protocol
