#pragma once

#include "norv/protocol/call.h"

#include <cstdint>
#include <string>
#include <vector>

namespace protocol {

/// A file that was put away.
struct QuarantinedFile {
    std::string id;
    std::string path;  ///< where it was found
    uint64_t size = 0;
    uint32_t owner = 0;
    uint32_t group = 0;
    std::string ownerName;  ///< empty: the system knows none
    std::string groupName;
    uint32_t mode = 0;
    int64_t modified = 0;  ///< seconds since the epoch
    std::string sha256;
    std::string signature;
    std::string type;
    std::string task;     ///< which scan found it
    int64_t when = 0;     ///< seconds since the epoch
    bool backup = false;  ///< a copy of a file that was cleaned, no file put away

    static void visit(auto& record, auto&& field) {
        field("id", record.id);
        field("path", record.path);
        field("size", record.size);
        field("owner", record.owner);
        field("group", record.group);
        field("ownerName", record.ownerName);
        field("groupName", record.groupName);
        field("mode", record.mode);
        field("modified", record.modified);
        field("sha256", record.sha256);
        field("signature", record.signature);
        field("type", record.type);
        field("task", record.task);
        field("when", record.when);
        field("backup", record.backup);
    }
};

/// Newest first.
struct QuarantineList {
    std::vector<QuarantinedFile> items;
    uint64_t total = 0;  ///< of all there are

    static void visit(auto& record, auto&& field) {
        field("Items", record.items);
        field("Total", record.total);
    }
};

struct GetQuarantine {
    static constexpr auto KIND = IPCMessage::GET;
    static constexpr auto COMMAND = IPCMessage::QUARANTINE;
    using Reply = QuarantineList;
    uint64_t from = 0;  ///< number of the first one wanted

    static void visit(auto& record, auto&& field) { field("From", record.from); }
};

struct QuarantineItemReply {
    QuarantinedFile item;

    static void visit(auto& record, auto&& field) { field("Item", record.item); }
};

struct GetQuarantined {
    static constexpr auto KIND = IPCMessage::GET;
    static constexpr auto COMMAND = IPCMessage::QUARANTINE_ITEM;
    using Reply = QuarantineItemReply;
    std::string id;

    static void visit(auto& record, auto&& field) { field("Id", record.id); }
};

/// What was done, said in English.
struct ActionDone {
    std::string message;

    static void visit(auto& record, auto&& field) { field(MESSAGE, record.message); }
};

/// Something done to one item.
template <IPCMessage::Operation Kind, IPCMessage::CommandID Command>
struct ItemAction {
    static constexpr auto KIND = Kind;
    static constexpr auto COMMAND = Command;
    using Reply = ActionDone;
    std::string id;

    static void visit(auto& record, auto&& field) { field("Id", record.id); }
};

using RestoreQuarantined = ItemAction<IPCMessage::START, IPCMessage::QUARANTINE_ITEM>;
using DeleteQuarantined = ItemAction<IPCMessage::STOP, IPCMessage::QUARANTINE_ITEM>;
using TrustQuarantined = ItemAction<IPCMessage::START, IPCMessage::QUARANTINE_TRUST>;

struct Distrust {
    static constexpr auto KIND = IPCMessage::STOP;
    static constexpr auto COMMAND = IPCMessage::QUARANTINE_TRUST;
    using Reply = ActionDone;
    std::string sha256;

    static void visit(auto& record, auto&& field) { field("Sha256", record.sha256); }
};

/// A content that is never reported again.
struct TrustedContent {
    std::string sha256;
    std::string name;

    static void visit(auto& record, auto&& field) {
        field("sha256", record.sha256);
        field("name", record.name);
    }
};

struct TrustedList {
    std::vector<TrustedContent> trusted;

    static void visit(auto& record, auto&& field) { field("Trusted", record.trusted); }
};

struct GetTrusted {
    static constexpr auto KIND = IPCMessage::GET;
    static constexpr auto COMMAND = IPCMessage::QUARANTINE_TRUST;
    using Reply = TrustedList;
    static void visit(auto& /*record*/, auto&& /*field*/) {}
};

}  // namespace protocol
