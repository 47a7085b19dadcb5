#pragma once

#include "norv/json_text.h"
#include "norv/norv_config.h"
#include "webui/cgi/qs_control.h"
#include "webui/cgi/service_message.h"

#include <optional>
#include <string>

/// A request to a program of the console whose session the service has confirmed (for a POST: its token as well).
struct ConsoleRequest {
    const CQSControl& fields;

    /// The configuration, fetched at each call; nothing when it cannot be had.
    std::optional<NORVConfig> fetchConfiguration() const;
    std::string text(const char* name) const { return fields.getEnv(name); }
    bool has(const char* name) const { return !text(name).empty(); }
    bool isPost() const { return fields.requestMethod() == CQSControl::POST; }
};

/// A page's script that asks again and again wants to be told; a person goes to the log-on page.
enum class WithoutService { LOG_ON, TELL };

/// What a page asks by itself, again and again, keeps nobody logged on.
enum class AskedBy { PERSON, PAGE };

/// Whether whoever asks must have chosen the password; who has not is sent to the page where it is changed.
enum class Password { OWN, ANY };

/// Runs a program of the console: opens the log (at the level that the environment names: the configuration is fetched
/// only where it is used), reads the request and checks the session; then `handle` answers. Without a session the
/// browser has been sent to the log-on page and `handle` is not called. Returns the exit status: that of `handle`, 1
/// when it was not called. `argc`, `argv`: those of `main`. `withoutService`: what becomes of a request while the
/// service does not answer, so that no session can be checked.
int runConsoleProgram(int argc, char** argv, int (*handle)(const ConsoleRequest& request),
                      WithoutService withoutService = WithoutService::LOG_ON, AskedBy askedBy = AskedBy::PERSON,
                      Password password = Password::OWN);

/// Answers with a JSON text. `status`: the HTTP status, nothing for 200. Returns 0, for `handle` to pass on.
int answerJson(const std::string& json, const std::string& status = "");
/// Answers {"error": message}. `message`: English, answered in the console's language. Returns 1.
int answerError(const std::string& status, const std::string& message);
/// Answers with a file for the browser to save. `fileName`: made by the program, never by a request. Returns 0.
int answerDownload(const std::string& contentType, const std::string& fileName, const std::string& content);

/// Whatever changes something must come by POST, so that the token was checked. False when it did not, and the error
/// is answered.
bool requirePost(const ConsoleRequest& request);
/// The HTTP error, by its status and in words, that tells what became of a request which is not done.
struct Failure {
    std::string status;
    std::string message;
};
/// `refusalStatus`: the HTTP status of a refusal.
Failure failureOf(bool reached, bool done, const std::string& reason, const std::string& refusalStatus);

/// Asks the service. When it does not answer, refuses or sends what cannot be read, that is answered as an error: 503,
/// `refusalStatus` with the service's reason, or 502; the result is then false.
template <typename Request>
auto askOrAnswer(const Request& request, const std::string& refusalStatus = "409 Conflict") {
    auto answer = askService(request);
    if (!answer) {
        const Failure failure = failureOf(answer.reached, answer.done, answer.message, refusalStatus);
        answerError(failure.status, failure.message);
    }
    return answer;
}

/// The answer to a request that the service did not answer.
inline constexpr const char* NOT_RESPONDING = "Keldra service is not responding. Please restart Keldra and try again.";
