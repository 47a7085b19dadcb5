#include "norv/crypto.h"
#include "tests/service/service_test.h"

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
    /// Logs on with a name; KeldradRunner::logOn gives none.
    std::string logOn(const std::string& password, const std::string& user = "admin",
                      const std::string& address = "192.0.2.7") const {
        std::array<char, 512> encrypted{};
        if (dm_encryptString(password.c_str(), encrypted.data(), encrypted.size()) < 1) return {};
        IPCMessage request(IPCMessage::SESSION, PASSWORD_LOGON);
        request.addParam("Password", encrypted.data());
        request.addParam("User", user);
        request.addParam("RemoteAddr", address);
        const auto reply = service_.ask(request);
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

TEST_F(SessionTest, GuessingIsSlowedDownForTheGuesserOnly) {
    ASSERT_TRUE(service_.start());
    for (int i = 0; i < 6; ++i) EXPECT_EQ(logOn("guess", "admin", "203.0.113.9"), "");
    EXPECT_EQ(logOn(PASSWORD, "admin", "203.0.113.9"), "") << "right, but too early";
    EXPECT_NE(logOn(PASSWORD), "");
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
    const std::string id = logOn(PASSWORD);
    ASSERT_TRUE(session(SESSION_CHECK, id));
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));  // file times count whole seconds here
    setPassword("another one");
    EXPECT_FALSE(session(SESSION_CHECK, id));
    EXPECT_EQ(logOn(PASSWORD), "");
    EXPECT_NE(logOn("another one"), "");
}

TEST_F(SessionTest, APasswordIsRefusedWithTheReason) {
    const std::vector<std::string> command{"passwd", "--state", service_.file("state"), "--stdin"};
    const ProcessResult tooLong = service_.control(command, std::string(33, 'x'));
    EXPECT_EQ(tooLong.status, 2);
    EXPECT_NE(tooLong.errors.find("longer than 32"), std::string::npos) << tooLong.errors;
    EXPECT_EQ(service_.control(command, "").status, 2);
    EXPECT_EQ(service_.control({"passwd", "--state", service_.file("none"), "--stdin"}, "good").status, 2);
}

}  // namespace
