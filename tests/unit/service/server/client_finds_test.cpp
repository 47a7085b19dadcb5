#include "service/server/client_finds.h"
#include "tests/harness/temp_dir.h"
#include "tests/unit/service/test_clock.h"

#include <gtest/gtest.h>

namespace keldra {
namespace {

class ClientFindsTest : public testing::Test {
protected:
    static ClientReport find(const std::string& path, const std::string& user = "mail") {
        return {.client = user + " (process 7)",
                .user = user,
                .address = "local",
                .process = 7,
                .name = path,
                .path = path,
                .result = {Verdict::INFECTED, "Bad", ""}};
    }
    std::vector<Event> events(EventKind kind = EventKind::FIND) {
        return journal_.query({.kinds = {kind}}, 0, 1000).events;
    }

    TempDir folder_;
    TestClock clock_;
    EventJournal journal_{{.folder = folder_.path()}, clock_};
    ShareUsers users_;
    ClientFinds finds_{journal_, users_, clock_};
};

TEST_F(ClientFindsTest, TheSameFindOfAClientIsToldOnceAnHour) {
    finds_.add(find("/a"));
    finds_.add(find("/a"));
    finds_.add(find("/b"));
    finds_.add(find("/a", "proxy"));
    ASSERT_EQ(events().size(), 3U);
    EXPECT_EQ(events().front().who.user, "proxy");
    EXPECT_EQ(events().front().task, "client");
    clock_.pass(3601);
    finds_.add(find("/a"));
    EXPECT_EQ(events().size(), 4U);
}

TEST_F(ClientFindsTest, AFloodBecomesOneEventWithItsNumber) {
    for (int i = 0; i < 5000; ++i) finds_.add(find("/" + std::to_string(i)));
    EXPECT_EQ(events().size(), 100U);
    finds_.add(find("/other", "proxy"));
    EXPECT_EQ(events().size(), 101U) << "of another client";
    clock_.pass(3601);
    finds_.tellRest();
    ASSERT_EQ(events().size(), 102U);
    EXPECT_EQ(events().front().count, 4900U);
    EXPECT_EQ(events().front().who.user, "mail");
}

TEST_F(ClientFindsTest, AFileServersFindNamesWhoeverHasTheShareOpen) {
    users_.connected({7, "all", "/srv", "anna", "192.0.2.1"});
    users_.connected({7, "docs", "/srv/docs", "ben", "192.0.2.2"});
    users_.connected({8, "docs", "/srv/docs", "cleo", "192.0.2.3"});
    finds_.add(find("/srv/docs/x", "root"));
    finds_.add(find("/srv/docs2/x", "root"));
    users_.connected({7, "all", "/srv", "dora", "192.0.2.1"});
    finds_.add(find("/srv/z", "root"));
    users_.disconnected(7, "all", "anna");
    finds_.add(find("/srv/w", "root"));
    users_.disconnected(7, "all", "");
    finds_.add(find("/srv/y", "root"));
    const auto told = events();
    ASSERT_EQ(told.size(), 5U);
    EXPECT_EQ(told[4].who.user + told[4].who.address, "ben192.0.2.2");
    EXPECT_NE(told[4].detail.find("share docs"), std::string::npos);
    EXPECT_EQ(told[3].who.user, "anna");
    EXPECT_EQ(told[2].who.user, "anna, dora") << "either of them";
    EXPECT_EQ(told[1].who.user, "dora");
    EXPECT_EQ(told[0].who.user, "root");
}

}  // namespace
}  // namespace keldra
