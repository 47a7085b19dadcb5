#include "norv/protocol/metrics.h"
#include "tests/harness/child_user.h"
#include "tests/service/service_test.h"

#include <vector>

namespace {

using enum IPCMessage::CommandID;

/// The web server's user, in a process of its own.
constexpr unsigned WEB_USER = 12345;

class RightsTest : public ServiceTest {
protected:
    void SetUp() override {
        if (!mayBecomeAnotherUser()) GTEST_SKIP() << "only root can be another user";
        ASSERT_TRUE(service_.setPassword("right password"));
        service_.arguments.insert(service_.arguments.end(), {"--allow-user", std::to_string(WEB_USER)});
        ASSERT_TRUE(service_.start());
        openToUsers(service_.socket());
    }
    /// Sends these one after the other on one connection. The results as the web server's user gets them.
    std::vector<int> asWebServer(const std::vector<IPCMessage>& requests) const {
        return resultsAsUser(WEB_USER, service_.socket(), requests);
    }
    static IPCMessage check(const std::string& id, IPCMessage::CommandID command = SESSION_CHECK) {
        IPCMessage request(IPCMessage::SESSION, command);
        request.addParam("SessionID", id);
        request.addParam("RemoteAddr", "192.0.2.7");
        request.addParam("RequestMethod", "GET");
        return request;
    }
    static IPCMessage scanOf(const std::string& path) {
        IPCMessage request(IPCMessage::START, PATH_SCAN);
        request.addParam("Paths", path);
        request.addParam("Act", 1);
        return request;
    }
};

TEST_F(RightsTest, TheWebServerMayDoWhatPagesNeedAndOnlyWithASession) {
    const std::string id = service_.logOn("right password");
    const IPCMessage status(IPCMessage::GET, SERVICE_STATUS);
    const IPCMessage document(IPCMessage::GET, CONFIG_FILE_STATE);
    const IPCMessage start(IPCMessage::START, MANUAL_SCAN);
    const IPCMessage block(IPCMessage::STOP, LOGON_BLOCK);
    const IPCMessage scan = scanOf(service_.file("samples"));
    using Results = std::vector<int>;
    const IPCMessage metrics = protocol::toMessage(protocol::GetMetrics());
    EXPECT_EQ(asWebServer({document, metrics, status, start, scan, block}), (Results{1, 1, 2, 2, 2, 2}));
    EXPECT_EQ(asWebServer({check(std::string(64, '0')), status}), (Results{2, 2}));
    EXPECT_EQ(asWebServer({document, check(id), status, scan}), (Results{1, 1, 1, 2}));
    EXPECT_EQ(asWebServer({check(id, SESSION_WATCH), status}), (Results{1, 1}));
    EXPECT_EQ(asWebServer({check(id), check(id, SESSION_LOGOFF), status}), (Results{1, 1, 2}))
        << "a session that has ended serves no connection any more";
    EXPECT_EQ(get(SERVICE_STATUS).result, 1) << "the owner needs none";
}

}  // namespace
