#pragma once

#include "tests/harness/log_file.h"
#include "tests/harness/process.h"
#include "tests/harness/temp_dir.h"

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// A request as the web server hands it to a CGI program. Nothing for a field: the variable is not set at all.
struct CgiRequest {
    std::optional<std::string> method = "GET";
    std::optional<std::string> query = "";
    std::string body{};  ///< standard input
    std::optional<std::string> cookies = "hvssn=5e55; CsrfToken=f00";
    std::optional<std::string> remoteAddress = "192.0.2.7";
    /// Further variables, over those of the console; nothing takes one away.
    std::map<std::string, std::optional<std::string>> environment{};

    static CgiRequest get(std::string query) { return {.query = std::move(query)}; }
    static CgiRequest post(std::string body) { return {.method = "POST", .query = "", .body = std::move(body)}; }
};

/// What a CGI program made of a request.
struct CgiResponse {
    ProcessResult process;
    std::string bytes;              ///< the whole response
    std::vector<std::string> head;  ///< its lines up to the empty one, without line ends
    std::string body;               ///< all after the empty line
    std::vector<LogLine> log;

    /// The messages logged at a severity, in their order.
    std::vector<std::string> logged(int severity) const;
    /// Whether this very line was logged.
    bool logged(int severity, std::string_view message) const;
};

/// A console's folders in a temporary place (cgi/, templates/, locale/, var/) with an empty string table for en-US, and
/// the environment to run a CGI program in them: log level 5, language en-US, a service socket that need not exist.
class Console {
public:
    Console();

    std::filesystem::path socket() const { return root_ / "service.sock"; }
    std::filesystem::path var() const { return root_ / "var"; }
    std::filesystem::path keyFile() const { return root_ / "console.key"; }
    /// A page template, named as the program names it ("Update/update_fail.html").
    void writeTemplate(std::string_view name, std::string_view text);
    /// Any file of the tree.
    void write(std::string_view relativePath, std::string_view text);
    std::string read(std::string_view relativePath) const;
    /// Runs a program with the request, in cgi/. The response's log holds this run's lines only.
    CgiResponse run(const std::filesystem::path& program, const CgiRequest& request);

private:
    std::map<std::string, std::string> environment(const CgiRequest& request) const;

    TempDir root_;
};
