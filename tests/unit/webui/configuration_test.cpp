#include "webui/cgi/utils/configuration.h"
#include "webui/cgi/utils/encryption.h"

#include "norv/crypto.h"
#include "tests/unit/webui/page_test.h"

#include <string>
#include <utility>
#include <vector>

using ::testing::ElementsAre;

namespace {

class Configuration : public PageTest {
protected:
    ScriptedService service{console.socket()};
    const std::string document =
        R"(<Document><Group Type="Configuration"><P Name="VarPath" Value="/var/x"/></Group></Document>)";

    /// Serves the check with one answer and the state with another.
    bool fetch(const Answer& check, const Answer& state, NORVConfig& config) {
        service.on(IPCMessage::GET, IPCMessage::CONFIG_FILE_CHECK, check);
        service.on(IPCMessage::GET, IPCMessage::CONFIG_FILE_STATE, state);
        return getNORVConfigFromEntity(config);
    }
};

TEST_F(Configuration, WhatWasThereStaysWhenTheServiceFails) {
    NORVConfig config = configurationOf(document, 5);
    EXPECT_FALSE(fetch(Answer::refuse(2), Answer::reply(1), config));
    EXPECT_EQ(service.takeRequests().size(), 1U);
    EXPECT_FALSE(fetch(Answer::reply(1), Answer::refuse(2), config));
    EXPECT_FALSE(fetch(Answer::reply(1), Answer::hangUp(), config));
    EXPECT_EQ(config.lastModified(), 5);
    EXPECT_THAT(logged(1), ElementsAre("CheckConfigFile retuned an error. result=2",
                                       "CheckConfigFile retuned an error. result=2", "sendMessage failed"));
}

TEST_F(Configuration, BuildNumberIsTheFirstLine) {
    console.write("cgi/build", "1042\nmore\n");
    console.write("cgi/empty", "");
    EXPECT_EQ(GetBuildNumber("build"), "1042");
    EXPECT_EQ(GetBuildNumber("empty"), "");
    EXPECT_EQ(GetBuildNumber("none"), "");
    EXPECT_THAT(logged(2), ElementsAre("failed to read", "failed to open none"));
}

TEST_F(Configuration, AnyOtherKernelModuleCounts) {
    const std::vector<std::pair<std::string, bool>> cases = {{"", false},
                                                             {"norvmod 1\nnorvmod2 1\n", false},
                                                             {"norvmod 1\next4 1\n", true},
                                                             {"ext4 1 norvmod\n", true},
                                                             {"norvmod 1\n\n", true}};
    for (const auto& [modules, expected] : cases) {
        console.write("cgi/modules", modules);
        EXPECT_EQ(GetNORVRunningOrNot("modules"), expected) << modules;
    }
    EXPECT_FALSE(GetNORVRunningOrNot("none"));
    EXPECT_TRUE(Exist("modules"));
    EXPECT_FALSE(Exist("none"));
}

TEST_F(Configuration, PasswordsOfEveryLengthReachTheService) {
    for (std::size_t length = 0; length <= 130; ++length) {
        const std::string plain(length, 'p');
        std::string text = plain;
        std::string back;
        ASSERT_TRUE(encrypt_string(text)) << length;
        ASSERT_TRUE(dm_decryptString(text, back)) << length;
        EXPECT_EQ(back, plain);
    }
}

TEST_F(Configuration, WithoutAKeyNoPasswordIsSent) {
    setenv("KELDRA_KEY_FILE", "none", 1);
    std::string text = "secret";
    EXPECT_FALSE(encrypt_string(text));
    EXPECT_EQ(text, "secret");
    EXPECT_THAT(logged(1).back(), ::testing::StartsWith("dm_encryptString() failed. ["));
}

TEST(ParseData, ReadsTheValueOfAnId) {
    EXPECT_EQ(ParseData(R"(<x ID="a" Value="1"/><x ID="b" Value="2"/>)", "b"), "2");
    EXPECT_EQ(ParseData(R"(ID="a" Value="")", "a"), "");
    EXPECT_EQ(ParseData(R"(ID="a" Value="1)", "a"), "");
    EXPECT_EQ(ParseData(R"(ID="a"  Value="1")", "a"), "");
    EXPECT_EQ(ParseData("", "a"), "");
}

}  // namespace
