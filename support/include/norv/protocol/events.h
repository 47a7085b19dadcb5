#pragma once

#include "norv/protocol/call.h"

#include <cstdint>
#include <string>
#include <vector>

namespace protocol {

/// Something that happened.
struct Event {
    uint64_t id = 0;
    int64_t time = 0;  ///< seconds since the epoch
    std::string kind;
    std::string severity;
    std::string task;
    std::string path;
    std::string signature;
    std::string action;
    std::string detail;
    std::string user;
    std::string address;
    uint64_t count = 0;  ///< of how many such things it tells

    static void visit(auto& record, auto&& field) {
        field("id", record.id);
        field("time", record.time);
        field("kind", record.kind);
        field("severity", record.severity);
        field("task", record.task);
        field("path", record.path);
        field("signature", record.signature);
        field("action", record.action);
        field("detail", record.detail);
        field("user", record.user);
        field("address", record.address);
        field("count", record.count);
    }
};

/// Newest first.
struct EventList {
    uint64_t total = 0;  ///< of all that match
    std::vector<Event> events;

    static void visit(auto& record, auto&& field) {
        field("Total", record.total);
        field("Events", record.events);
    }
};

/// What is left empty or 0 does not restrict.
struct ListEvents {
    static constexpr auto KIND = IPCMessage::GET;
    static constexpr auto COMMAND = IPCMessage::EVENTS;
    using Reply = EventList;
    uint64_t from = 0;   ///< number of the first one wanted
    uint64_t count = 0;  ///< most of them wanted; 0: the service decides
    std::string kinds;   ///< names, separated by ","
    std::string severity;
    std::string text;
    int64_t since = 0;    ///< seconds since the epoch
    int64_t until = 0;    ///< seconds since the epoch, left out
    uint64_t before = 0;  ///< only events with a smaller id

    static void visit(auto& record, auto&& field) {
        field("From", record.from);
        field("Count", record.count);
        field("Kinds", record.kinds);
        field("Severity", record.severity);
        field("Text", record.text);
        field("Since", record.since);
        field("Until", record.until);
        field("Before", record.before);
    }
};

struct DayFigures {
    std::string day;  ///< local, "2026-03-31"
    uint64_t scanned = 0;
    uint64_t found = 0;
    uint64_t failed = 0;  ///< files that were skipped or not fully scanned

    static void visit(auto& record, auto&& field) {
        field("day", record.day);
        field("scanned", record.scanned);
        field("found", record.found);
        field("failed", record.failed);
    }
};

/// Oldest first; the last one is today.
struct DailyFigures {
    std::vector<DayFigures> figures;

    static void visit(auto& record, auto&& field) { field("Figures", record.figures); }
};

struct GetDailyFigures {
    static constexpr auto KIND = IPCMessage::GET;
    static constexpr auto COMMAND = IPCMessage::DAILY_FIGURES;
    using Reply = DailyFigures;
    uint64_t days = 0;  ///< 0: the service decides

    static void visit(auto& record, auto&& field) { field("Days", record.days); }
};

}  // namespace protocol
