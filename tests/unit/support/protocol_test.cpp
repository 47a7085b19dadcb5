#include "norv/protocol/folders.h"
#include "norv/protocol/scans.h"
#include "norv/protocol/settings.h"
#include "norv/protocol/status.h"
#include "tests/harness/scripted_service.h"
#include "tests/harness/temp_dir.h"
#include "tests/unit/support/scoped_environment.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <map>
#include <regex>
#include <set>

namespace {

using M = IPCMessage;

class Protocol : public testing::Test {
protected:
    /// What a request for a scan's finds makes of this answer.
    auto finds(const Answer& answer) {
        service.on(M::GET, M::SCAN_FINDS, answer);
        return protocol::ask(protocol::GetScanFinds{"17_1", 5}, 5);
    }
    TempDir folder;
    ScopedEnvironment socket{"KELDRA_SOCKET", (folder / "socket").string()};
    ScriptedService service{folder / "socket"};
};

TEST_F(Protocol, ARequestNamesWhatItAsksForAndTheAnswerIsReadAsItWasWritten) {
    const auto answer = finds(
        Answer::reply(1, {{"Finds", R"([{"path":"/\u0001","infected":true,"left":1,"new":[{}]},{}])"}, {"More", "1"}}));
    ASSERT_TRUE(answer);
    ASSERT_EQ(answer.reply.finds.size(), 2U);
    EXPECT_EQ(answer.reply.finds[0].path, "/\x01");
    EXPECT_TRUE(answer.reply.finds[0].infected);
    EXPECT_FALSE(answer.reply.finds[0].left) << "not a boolean";
    EXPECT_TRUE(answer.reply.more);
    const auto requests = service.takeRequests();
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_EQ(requests[0].value<std::string>("RequestID") + requests[0].value<std::string>("From"), "17_15");
    IPCMessage back;
    write(back, answer.reply);
    EXPECT_EQ(
        back.value<std::string>("Finds"),
        R"([{"path":"/\u0001","infected":true,"signature":"","type":"","detail":"","left":false,"skipped":false},)"
        R"({"path":"","infected":false,"signature":"","type":"","detail":"","left":false,"skipped":false}])");
}

TEST_F(Protocol, WhatCannotBeReadIsNotTakenForAnEmptyList) {
    for (const char* list : {"", "{", "{}", "[1]", "[[]]", "[{}", "null"}) {
        const auto answer = finds(Answer::reply(1, {{"Finds", list}}));
        EXPECT_TRUE(answer.done) << list;
        EXPECT_FALSE(answer) << list;
    }
    const auto refused = finds(Answer::reply(2, {{"Message", "no"}, {"More", "1"}}));
    EXPECT_TRUE(refused.reached && !refused.done);
    EXPECT_EQ(refused.message, "no");
    EXPECT_FALSE(refused.reply.more) << "a refusal carries no result";
    EXPECT_FALSE(finds(Answer::hangUp()).reached);
}

TEST_F(Protocol, ANumberThatDoesNotFitReadsAsTheNearest) {
    service.on(M::GET, M::MANUAL_SCAN_STATUS,
               Answer::reply(1, {{"Status", "99999999999"},
                                 {"Total", "-99999999999999999999"},
                                 {"Skipped", "-1"},
                                 {"Bytes", "99999999999999999999"},
                                 {"Started", "x"}}));
    const auto progress = protocol::ask(protocol::GetScanProgress{"1"}, 5).reply;
    EXPECT_EQ(static_cast<int32_t>(progress.state), INT32_MAX);
    EXPECT_EQ(progress.total, INT64_MIN);
    EXPECT_EQ(progress.skipped, 0U);
    EXPECT_EQ(progress.bytes, UINT64_MAX);
    EXPECT_EQ(progress.started, 0);
}

TEST(ProtocolRecords, WhatIsNotThereIsNotWritten) {
    protocol::ServiceStatus status;
    status.runningPath = "17_1";
    IPCMessage message;
    write(message, status);
    EXPECT_FALSE(message.hasParam("Running_manual"));
    EXPECT_EQ(message.value<std::string>("Running_path"), "17_1");
    EXPECT_EQ(protocol::read<protocol::ServiceStatus>(message).runningManual, std::nullopt);
}

TEST(ProtocolRecords, AListThatOneReplyCannotCarryIsCut) {
    protocol::ScanFind find;
    find.path = std::string(1'000'000, 'x');
    std::vector<protocol::ScanFind> finds(20, find);
    EXPECT_TRUE(protocol::cutToReply(finds));
    EXPECT_LT(finds.size(), 20U);
}

/// The pages' scripts and templates write the states of a scan as numbers.
TEST(ProtocolRecords, ThePagesKnowTheStatesOfAScanByTheSameNumbers) {
    using enum protocol::ScanState;
    const std::map<std::string, protocol::ScanState> states{{"NOT_RUNNING", NOT_RUNNING},
                                                            {"STOPPED", STOPPED},
                                                            {"FAILED", FAILED},
                                                            {"COMPLETED", COMPLETED},
                                                            {"RUNNING", RUNNING}};
    const std::filesystem::path root = SOURCE_DIR;
    const std::regex constant(R"(const (NOT_RUNNING|STOPPED|FAILED|COMPLETED|RUNNING) = (-?\d+);)");
    const std::regex text(R"re(data-state="(-?\d+)"[^>]*>%\[STATE_(\w+)\]%)re");
    int found = 0;
    const auto check = [&](const std::string& content, const std::regex& form, int name, int number) {
        for (std::sregex_iterator match(content.begin(), content.end(), form), end; match != end; ++match, ++found)
            EXPECT_EQ(states.at((*match)[name]), static_cast<protocol::ScanState>(std::stoi((*match)[number])));
    };
    for (const auto& script : std::filesystem::directory_iterator(root / "webui/htdocs/js"))
        check(readFile(script), constant, 1, 2);
    check(readFile(root / "templates/history.html"), text, 2, 1);
    EXPECT_GE(found, 5) << "the pages no longer say it this way";
}

}  // namespace
