#include "norv/crypto.h"
#include "norv/json_value.h"
#include "norv/scan_config.h"
#include "tests/service/service_test.h"

#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <thread>
#include <vector>

namespace {

using enum IPCMessage::CommandID;

const std::string TOKEN(64, 'c');
const std::string PASSWORD = "right password";

class SessionTest : public ServiceTest {
protected:
    SessionTest() { setPassword(PASSWORD); }

    void setPassword(const std::string& password) {
        const ProcessResult result =
            service_.control({"passwd", "--state", service_.file("state"), "--stdin"}, password);
        EXPECT_EQ(result.status, 0) << result.errors;
    }
    static std::string enciphered(const std::string& password) {
        std::array<char, 512> text{};
        return dm_encryptString(password.c_str(), text.data(), text.size()) < 1 ? "" : text.data();
    }
    /// Logs on with a name; KeldradRunner::logOn gives none.
    std::string logOn(const std::string& password, const std::string& user = "admin",
                      const std::string& address = "192.0.2.7") const {
        IPCMessage request(IPCMessage::SESSION, PASSWORD_LOGON);
        request.addParam("Password", enciphered(password));
        request.addParam("User", user);
        request.addParam("RemoteAddr", address);
        const auto reply = service_.ask(request, std::chrono::seconds(30));
        return reply && reply->result == 1 ? reply->value<std::string>("SessionID") : std::string();
    }
    bool session(IPCMessage::CommandID command, const std::string& id, const std::string& method = "GET",
                 const std::string& header = "", const std::string& address = "192.0.2.7") const {
        IPCMessage request(IPCMessage::SESSION, command);
        request.addParam("SessionID", id);
        request.addParam("RemoteAddr", address);
        request.addParam("RequestMethod", method);
        request.addParam("CsrfTokenHeader", header);
        request.addParam("CsrfTokenCookie", TOKEN);
        const auto reply = service_.ask(request);
        return reply && reply->result == 1;
    }
};

TEST_F(SessionTest, ALogOnOutlivesAKilledServiceUntilItsLogOff) {
    ASSERT_TRUE(service_.start());
    const std::string id = logOn(PASSWORD);
    ASSERT_EQ(id.size(), 64U);
    service_.crash();
    ASSERT_TRUE(service_.start());
    EXPECT_TRUE(session(SESSION_CHECK, id));
    EXPECT_FALSE(session(SESSION_CHECK, id, "GET", "", "192.0.2.8"));
    EXPECT_FALSE(session(SESSION_CHECK, id, "POST"));
    EXPECT_TRUE(session(SESSION_CHECK, id, "POST", TOKEN));
    EXPECT_TRUE(session(SESSION_LOGOFF, id, "POST", TOKEN));
    EXPECT_FALSE(session(SESSION_CHECK, id));
}

TEST_F(SessionTest, GuessingIsSlowedDownForTheGuesserOnlyUntilTheBlockIsLifted) {
    ASSERT_TRUE(service_.start());
    for (int i = 0; i < 6; ++i) EXPECT_EQ(logOn("guess", "admin", "203.0.113.9"), "");
    EXPECT_EQ(logOn(PASSWORD, "admin", "203.0.113.9"), "") << "right, but too early";
    EXPECT_NE(logOn(PASSWORD), "");
    EXPECT_NE(get(SESSIONS).value<std::string>("Blocked").find("203.0.113.9"), std::string::npos);
    EXPECT_EQ(service_.control({"sessions", "unblock", "203.0.113.9"}).status, 0);
    EXPECT_EQ(service_.control({"sessions", "unblock", "203.0.113.9"}).status, 2) << "nothing is held any more";
    EXPECT_NE(logOn(PASSWORD, "admin", "203.0.113.9"), "");
}

TEST_F(SessionTest, AFloodOfGuessesHoldsUpNeitherOtherCommandsNorARightPasswordFromANewAddress) {
    ASSERT_TRUE(service_.start());
    std::atomic<bool> stop = false;
    std::vector<std::jthread> attackers;
    for (int i = 0; i < 64; ++i)
        attackers.emplace_back([this, i, &stop] {
            for (int n = 0; !stop; ++n)
                logOn("guess", "admin",
                      "198.18." + std::to_string(i / 4) + "." + std::to_string((n * 4 + i % 4) % 256));
        });
    // By then those have used up what is looked at without waiting.
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(get(SERVICE_STATUS).result, 1);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(500));
    EXPECT_EQ(logOn("mistyped"), "");
    EXPECT_NE(logOn(PASSWORD), "");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(9)) << "a turn of each network";
    EXPECT_NE(logOn(PASSWORD, "admin", "2001:db8::7"), "");
    stop = true;
    service_.crash();
}

TEST_F(SessionTest, ThatTooManyFilesAreOpenIsSaidWhereverItIsTheReason) {
    ASSERT_TRUE(service_.start());
    IPCMessage logOn(IPCMessage::SESSION, PASSWORD_LOGON);
    logOn.addParam("Password", enciphered(PASSWORD));
    logOn.addParam("User", "admin");
    logOn.addParam("RemoteAddr", "192.0.2.7");
    // One is left, for the connection, once those of the start have gone.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    rlimit limit{};
    ASSERT_EQ(::prlimit(service_.pid(), RLIMIT_NOFILE, nullptr, &limit), 0);
    rlimit low = limit;
    low.rlim_cur = 1;
    const std::string files = "/proc/" + std::to_string(service_.pid()) + "/fd/";
    for (bool free = false; !free; free = !std::filesystem::is_symlink(files + std::to_string(low.rlim_cur - 1)))
        ++low.rlim_cur;
    ASSERT_EQ(::prlimit(service_.pid(), RLIMIT_NOFILE, &low, nullptr), 0);
    const auto said = [](const IPCMessage& reply) { return reply.value<std::string>("Message"); };
    EXPECT_EQ(said(service_.ask(logOn).value_or(IPCMessage())),
              "The key that passwords are enciphered with cannot be read: Too many open files");
    const NORVManualScanConfig record;
    EXPECT_EQ(said(store(MANUAL_SCAN_CONFIG, "ManualScanConfig", record)),
              "The settings could not be saved: Too many open files");
    EXPECT_NE(get(SERVICE_STATUS).value<std::string>("Reasons").find("\"open_files\""), std::string::npos);
    ASSERT_EQ(::prlimit(service_.pid(), RLIMIT_NOFILE, &limit, nullptr), 0);
    EXPECT_EQ(service_.ask(logOn).value_or(IPCMessage()).result, 1);
    EXPECT_EQ(get(SERVICE_STATUS).value<std::string>("Reasons").find("\"open_files\""), std::string::npos);
}

TEST_F(SessionTest, AWrongNameOrAnUndecipherablePasswordIsRefused) {
    ASSERT_TRUE(service_.start());
    EXPECT_EQ(logOn(PASSWORD, "root"), "");
    IPCMessage request(IPCMessage::SESSION, PASSWORD_LOGON);
    request.addParam("Password", PASSWORD);
    request.addParam("User", "admin");
    request.addParam("RemoteAddr", "192.0.2.9");
    const auto reply = service_.ask(request);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->result, 2);
    EXPECT_FALSE(reply->hasParam("SessionID"));
}

TEST_F(SessionTest, ANewPasswordTakesEffectAtOnceAndEndsOldSessions) {
    ASSERT_TRUE(service_.start());
    // Within one second: what was begun with the old one ends, however late.
    const std::string id = logOn(PASSWORD);
    ASSERT_TRUE(session(SESSION_CHECK, id));
    setPassword("another one");
    EXPECT_FALSE(session(SESSION_CHECK, id));
    EXPECT_EQ(logOn(PASSWORD), "");
    const std::string next = logOn("another one");
    EXPECT_TRUE(session(SESSION_CHECK, next));

    IPCMessage change(IPCMessage::SET, CONSOLE_PASSWORD);
    change.addParam("Password", enciphered("another"));
    change.addParam("NewPassword", enciphered("the third one"));
    EXPECT_EQ(service_.ask(change).value_or(IPCMessage()).value<std::string>("Message"),
              "The present password is wrong.");
    change.params.erase("Password");
    change.addParam("Password", enciphered("another one"));
    EXPECT_EQ(service_.ask(change).value_or(IPCMessage()).result, 1);
    EXPECT_FALSE(session(SESSION_CHECK, next));
    EXPECT_NE(logOn("the third one"), "");
}

TEST_F(SessionTest, SessionsAreListedEndedAndBlocksLiftedFromTheCommandLine) {
    ASSERT_TRUE(service_.start());
    EXPECT_EQ(service_.control({"sessions", "list"}).output, "Nobody is logged on.\n");
    std::vector<std::string> ids;
    for (int i = 1; i <= 3; ++i) ids.push_back(logOn(PASSWORD, "admin", "192.0.2." + std::to_string(i)));
    for (int i = 0; i < 5; ++i) logOn("guess", "admin", "2001:db8::9");
    const JsonDocument listed = parseJson(service_.control({"sessions", "list", "--json"}).output);
    ASSERT_EQ(listed["sessions"].Size(), 3U);
    std::string second;
    for (const auto& session : listed["sessions"].GetArray()) {
        EXPECT_STREQ(session["user"].GetString(), "admin");
        EXPECT_EQ(std::count(ids.begin(), ids.end(), session["id"].GetString()), 0) << "gives nobody the session";
        if (session["address"].GetString() == std::string("192.0.2.2")) second = session["id"].GetString();
    }
    EXPECT_STREQ(listed["blocked"][0]["address"].GetString(), "2001:db8::/64");

    EXPECT_EQ(service_.control({"sessions", "end"}).status, 2);
    EXPECT_EQ(service_.control({"sessions", "end", "--all", second}).status, 2);
    EXPECT_EQ(service_.control({"sessions", "end", "none"}).status, 2);
    EXPECT_EQ(service_.control({"sessions", "end", second.substr(0, 12)}).status, 0);
    EXPECT_TRUE(session(SESSION_CHECK, ids[0], "GET", "", "192.0.2.1"));
    EXPECT_FALSE(session(SESSION_CHECK, ids[1], "GET", "", "192.0.2.2"));
    EXPECT_EQ(service_.control({"sessions", "end", "--all"}).output, "Sessions ended: 2\n");
    service_.crash();
    ASSERT_TRUE(service_.start());
    EXPECT_FALSE(session(SESSION_CHECK, ids[0], "GET", "", "192.0.2.1")) << "for good";
}

TEST_F(SessionTest, APasswordIsRefusedWithTheReason) {
    const std::vector<std::string> command{"passwd", "--state", service_.file("state"), "--stdin"};
    const ProcessResult tooLong = service_.control(command, std::string(33, 'x'));
    EXPECT_EQ(tooLong.status, 2);
    EXPECT_NE(tooLong.errors.find("longer than 32"), std::string::npos) << tooLong.errors;
    EXPECT_EQ(service_.control(command, "").status, 2);
    EXPECT_NE(service_.control(command, "seven 7").errors.find("shorter than 8"), std::string::npos);
    EXPECT_EQ(service_.control({"passwd", "--state", service_.file("none"), "--stdin"}, "good enough").status, 2);
}

}  // namespace
