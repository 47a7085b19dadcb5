#include "service/events/event_journal.h"
#include "service/events/repeated_events.h"

#include "tests/harness/temp_dir.h"
#include "tests/unit/service/test_clock.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

namespace keldra {
namespace {

constexpr int PATIENCE = 10000;  // milliseconds

class EventJournalTest : public testing::Test {
protected:
    EventJournalTest() { settings_.folder = dir_ / "events", settings_.retry = 20; }

    static Event find(const std::string& path) {
        return {.kind = EventKind::FIND,
                .severity = EventSeverity::ALERT,
                .task = "realtime",
                .path = path,
                .signature = "Win.Test.Worm",
                .action = "moved to quarantine",
                .who = {"anna", "192.0.2.7"}};
    }
    std::uintmax_t bytes() const {
        std::uintmax_t all = 0;
        for (const auto& entry : std::filesystem::directory_iterator(settings_.folder)) all += entry.file_size();
        return all;
    }

    TempDir dir_;
    TestClock clock_;
    EventJournalSettings settings_;
};

TEST_F(EventJournalTest, WhatHappenedIsThereAfterARestartAlsoBesideAHalfWrittenLine) {
    const std::string odd = "/srv/a\n\"b\\\xff\x01.exe";
    {
        EventJournal journal(settings_, clock_);
        journal.add(find(odd));
        journal.add({.kind = EventKind::LOGON, .detail = "refused", .who = {"bob", ""}, .count = 3});
        journal.countScanned(7);
        ASSERT_TRUE(journal.flush(PATIENCE));
    }
    std::ofstream(settings_.folder / "1.events", std::ios::app) << R"({"id":3,"kind":"fi)";
    EventJournal journal(settings_, clock_);
    journal.add({.kind = EventKind::SERVICE});
    ASSERT_TRUE(journal.flush(PATIENCE));
    const EventPage page = journal.query({}, 0, 10);
    ASSERT_EQ(page.total, 3U);
    EXPECT_EQ(page.events[0].kind, EventKind::SERVICE);
    EXPECT_EQ(page.events[1].count, 3U);
    const Event& last = page.events[2];
    EXPECT_EQ(last.path, odd);
    EXPECT_EQ(eventToLine(last).find('\n'), std::string::npos);
    EXPECT_EQ(std::tuple(last.task, last.signature, last.action, last.who.user, last.who.address, last.time),
              std::tuple("realtime", "Win.Test.Worm", "moved to quarantine", "anna", "192.0.2.7", clock_.now()));
    const std::vector<DayFigures> days = journal.days(30);
    ASSERT_EQ(days.size(), 30U);
    EXPECT_EQ(std::tuple(days[29].scanned, days[29].found, days[28].scanned), std::tuple(7U, 1U, 0U));
}

TEST_F(EventJournalTest, AQuestionIsAnsweredNewestFirstByKindTextTimeAndPage) {
    EventJournal journal(settings_, clock_);
    for (int i = 0; i < 1200; ++i) {
        Event event = find("/srv/File" + std::to_string(i));
        event.time = 1000 + i;
        if (i % 3 == 0) event.kind = EventKind::SCAN, event.severity = EventSeverity::INFO;
        journal.add(event);
    }
    struct Row {
        EventFilter filter;
        std::size_t from;
        std::uint64_t total;
        std::string first;
    };
    const std::vector<Row> rows{{{}, 0, 1200, "/srv/File1199"},
                                {{}, 1199, 1200, "/srv/File0"},
                                {{.kinds = {EventKind::SCAN}}, 1, 400, "/srv/File1194"},
                                {{.leastSeverity = EventSeverity::WARNING}, 0, 800, "/srv/File1199"},
                                {{.text = "file77"}, 0, 11, "/srv/File779"},
                                {{.text = "192.0.2"}, 2, 1200, "/srv/File1197"},
                                {{.since = 1010, .until = 1020}, 0, 10, "/srv/File19"},
                                {{.before = 11}, 0, 10, "/srv/File9"}};
    for (const bool written : {false, true}) {
        for (const Row& row : rows) {
            const EventPage page = journal.query(row.filter, row.from, 1);
            EXPECT_EQ(page.total, row.total) << row.first;
            ASSERT_EQ(page.events.size(), 1U) << row.first;
            EXPECT_EQ(page.events[0].path, row.first) << (written ? "from disk" : "while it is written");
        }
        ASSERT_TRUE(journal.flush(PATIENCE));
    }
}

TEST_F(EventJournalTest, ItsSizeHasAnEndAndAClockThatJumpsCostsNothing) {
    settings_.segmentBytes = 20000;
    settings_.segments = 3;
    EventJournal journal(settings_, clock_);
    const auto scans = [&journal] { return journal.query({.kinds = {EventKind::SCAN}}, 0, 9).events; };
    journal.add({.kind = EventKind::SCAN, .task = "scheduled", .action = "completed", .record = R"({"id":"1_1"})"});
    journal.add({.kind = EventKind::SCAN, .task = "scheduled", .action = "started"});
    for (int i = 0; i < 2000; ++i) {
        journal.add(find("/srv/" + std::to_string(i)));
        if (i % 50 == 0) journal.flush(PATIENCE);
    }
    ASSERT_TRUE(journal.flush(PATIENCE));
    EXPECT_LT(bytes(), 3U * (20000 + 20000));
    const std::uint64_t kept = journal.query({}, 0, 1).total;
    EXPECT_GT(kept, 100U);
    EXPECT_EQ(journal.query({}, 0, 1).events.at(0).path, "/srv/1999");
    ASSERT_EQ(scans().size(), 1U) << "the scan outlives a flood, and only what has a record";
    EXPECT_EQ(scans()[0].record, R"({"id":"1_1"})");
    clock_.seconds += int64_t{500} * 86400;
    clock_.milliseconds += int64_t{7200} * 1000;
    journal.countScanned(1);
    journal.stop();
    EXPECT_EQ(journal.query({}, 0, 1).total, kept);
}

TEST_F(EventJournalTest, ADiskThatTakesNothingStopsNobodyAndIsTriedAgain) {
    EventJournal journal(settings_, clock_);
    std::filesystem::remove_all(settings_.folder);
    std::ofstream(settings_.folder) << "in the way";
    std::vector<std::string> heard;
    journal.onEvents([&heard](const std::vector<Event>& events) {
        for (const Event& event : events) heard.push_back(event.path);
    });
    journal.add(find("/srv/a"));
    EXPECT_FALSE(journal.flush(200));
    EXPECT_NE(journal.problem(), "");
    EXPECT_EQ(journal.query({}, 0, 10).total, 1U) << "it is known all the same";
    std::filesystem::remove(settings_.folder);
    std::filesystem::create_directory(settings_.folder);
    ASSERT_TRUE(journal.flush(PATIENCE));
    EXPECT_EQ(journal.problem(), "");
    journal.stop();
    EXPECT_EQ(heard, std::vector<std::string>{"/srv/a"}) << "told once, however often it was tried";
}

/// For weeks, from ever new addresses: what else stands in the journal stays, and every attempt is counted.
TEST_F(EventJournalTest, AFloodFromStrangersIsBundledByAddressAndMinuteAndTakesLittleRoom) {
    EventJournal journal(settings_, clock_);
    RepeatedEvents strangers(journal, clock_);
    const auto refused = [](int address) {
        return Event{.kind = EventKind::LOGON, .action = "refused", .who = {"", std::to_string(address)}};
    };
    for (int i = 0; i < 30; ++i) strangers.add(refused(1)), clock_.pass(1);
    EXPECT_EQ(journal.query({}, 0, 10).total, 1U) << "the first one stands there at once";
    clock_.pass(60);
    strangers.settle();
    EXPECT_EQ(journal.query({}, 0, 10).events.at(0).count, 29U);
    const int flood = 20 * 24 * 60;
    for (int i = 0; i < flood; ++i) strangers.add(refused(i)), clock_.pass(60);
    strangers.settle(true);
    const EventPage all = journal.query({}, 0, 10000);
    EXPECT_LT(all.total, 20U * 150U);
    std::uint64_t told = 0;
    for (const Event& event : all.events) told += event.count;
    EXPECT_EQ(told, 30U + flood);
}

}  // namespace
}  // namespace keldra
