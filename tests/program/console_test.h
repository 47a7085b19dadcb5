#pragma once

#include "tests/harness/build_paths.h"
#include "tests/harness/console.h"
#include "tests/harness/scripted_service.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <utility>
#include <vector>

inline const std::string HTML_HEAD = "Content-type: text/html\n\n";
inline const std::string PLAIN_HEAD = "Content-type: text/plain\n\n";
/// What a browser without a valid session gets.
inline const std::string TO_LOG_ON = "Content-type: text/html\nLocation: /\nStatus: 307 Temporary Redirect\n\n";
inline const std::string NOT_RESPONDING = "Keldra service is not responding. Please restart Keldra and try again.";
inline const std::string SAVED = "Configuration changes have been successfully saved.";

/// All ways in which the service can let a request down, save for being slow.
inline std::vector<std::pair<std::string, Answer>> brokenExchanges() {
    return {{"connection cut", Answer::hangUp()},
            {"half a frame", Answer::halfFrame()},
            {"no message in the frame", Answer::garbage()},
            {"frame beyond the limit", Answer::oversized()}};
}

/// The same and all refusals: whatever is not an acceptance.
inline std::vector<std::pair<std::string, Answer>> notAccepted() {
    auto all = brokenExchanges();
    for (const int32_t result : {0, 2, 3}) all.emplace_back("result " + std::to_string(result), Answer::refuse(result));
    return all;
}

/// A built program of the console in a console tree of its own, before a service that says what the test wants.
class ConsoleTest : public testing::Test {
protected:
    using M = IPCMessage;

    ConsoleTest() {
        defaults.document = document("");
        serve();
        // Pages that any handler may answer with: each shows its items, one a line.
        console.writeTemplate("not_support.html", "not supported\n");
        console.writeTemplate("error.html", "error page __REQUEST_ID__\n");
        console.writeTemplate("response/Response_success.html",
                              "success\n__PAGE_HEADER__\n__PAGE_TITLE__\n__FAIL_REASON__\n__RESPONSE_BACK_PAGE__\n");
        console.writeTemplate("response/Response_fail.html",
                              "failure\n__PAGE_HEADER__\n__PAGE_TITLE__\n__FAIL_REASON__\n__RESPONSE_BACK_PAGE__\n");
        console.writeTemplate("response/Disk_full.html",
                              "disk full\n__PAGE_HEADER__\n__PAGE_TITLE_1__\n__PAGE_TITLE_2__\n__FAIL_REASON__\n"
                              "__RESPONSE_BACK_PAGE__\n");
    }

    /// The configuration document: VarPath and what the test adds.
    std::string document(const std::string& groups) const {
        return "<Document><Group Type=\"Configuration\"><P Name=\"VarPath\" Value=\"" + console.var().string() +
               "\"/></Group>" + groups + "</Document>";
    }
    void serve() { serveDefaults(service, defaults); }

    /// Runs scanoption.cgi.
    CgiResponse run(const CgiRequest& request) { return console.run(consoleProgram("scanoption.cgi"), request); }
    CgiResponse get(const std::string& query) { return run(CgiRequest::get(query)); }
    CgiResponse post(const std::string& body) { return run(CgiRequest::post(body)); }

    /// What the service was asked since the last call, in order, as "kind/command".
    std::vector<std::string> sent() {
        requests = service.takeRequests();
        std::vector<std::string> result;
        for (const IPCMessage& request : requests) {
            result.push_back(std::to_string(request.operation) + "/" + std::to_string(request.commandID));
        }
        return result;
    }
    /// The same without what every request begins with: the session check, before it the document where it is needed.
    std::vector<std::string> sentByHandler() {
        std::vector<std::string> all = sent();
        for (const std::vector<std::string>& start :
             {std::vector<std::string>{"5/33"}, {"5/113"}, {"0/1", "0/2", "5/33"}}) {
            if (all.size() >= start.size() && std::equal(start.begin(), start.end(), all.begin()))
                return {all.begin() + static_cast<std::ptrdiff_t>(start.size()), all.end()};
        }
        return {"no start"};
    }
    /// A parameter of the last request that `sent()` saw.
    std::string lastParam(const std::string& name) const {
        return requests.empty() ? std::string() : requests.back().value<std::string>(name);
    }
    /// The settings record in the last request that `sent()` saw.
    template <typename Record>
    Record lastRecord(const std::string& parameter) const {
        Record record;
        std::istringstream text(lastParam(parameter));
        EXPECT_TRUE(text >> record) << "not a record: " << text.str();
        return record;
    }

    Console console;
    ScriptedService service{console.socket()};
    ServiceDefaults defaults;
    std::vector<IPCMessage> requests;
};

/// The whole response was this page and the program ended well.
inline void expectPage(const CgiResponse& response, const std::string& body) {
    EXPECT_EQ(response.bytes, HTML_HEAD + body);
    EXPECT_EQ(response.process.status, 0) << response.process.errors;
}

/// Not a byte was written.
inline void expectNothing(const CgiResponse& response, int status) {
    EXPECT_EQ(response.bytes, "");
    EXPECT_EQ(response.process.status, status) << response.process.errors;
}

inline void expectLogOn(const CgiResponse& response, int status = 1) {
    EXPECT_EQ(response.bytes, TO_LOG_ON);
    EXPECT_EQ(response.process.status, status) << response.process.errors;
}

/// The lines above trace level, in order, as "severity message".
inline std::vector<std::string> complaints(const CgiResponse& response) {
    std::vector<std::string> lines;
    for (const LogLine& line : response.log) {
        if (line.severity != 5) lines.push_back(std::to_string(line.severity) + " " + line.message);
    }
    return lines;
}
