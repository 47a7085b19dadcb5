#include "tests/harness/console.h"

#include <algorithm>
#include <string>

namespace {

void splitResponse(CgiResponse& response) {
    std::size_t start = 0;
    while (start < response.bytes.size()) {
        const std::size_t end = response.bytes.find('\n', start);
        if (end == std::string::npos) break;
        if (end == start) {
            response.body = response.bytes.substr(end + 1);
            return;
        }
        response.head.push_back(response.bytes.substr(start, end - start));
        start = end + 1;
    }
}

}  // namespace

std::vector<std::string> CgiResponse::logged(int severity) const {
    std::vector<std::string> messages;
    for (const LogLine& line : log) {
        if (line.severity == severity) messages.push_back(line.message);
    }
    return messages;
}

bool CgiResponse::logged(int severity, std::string_view message) const {
    return std::any_of(log.begin(), log.end(),
                       [&](const LogLine& line) { return line.severity == severity && line.message == message; });
}

Console::Console() {
    for (const char* folder : {"cgi", "templates/en-US", "locale", "var"}) {
        std::filesystem::create_directories(root_ / folder);
    }
    write("templates/en-US/string.mui", "");
    write("console.key", std::string(64, '7') + "\n");
}

void Console::writeTemplate(std::string_view name, std::string_view text) {
    write("templates/" + std::string(name), text);
}

void Console::write(std::string_view relativePath, std::string_view text) { writeFile(root_ / relativePath, text); }

std::string Console::read(std::string_view relativePath) const { return readFile(root_ / relativePath); }

std::map<std::string, std::string> Console::environment(const CgiRequest& request) const {
    std::map<std::string, std::string> result{{"KELDRA_SOCKET", socket()},
                                              {"KELDRA_KEY_FILE", keyFile()},
                                              {"KELDRA_LOG", root_ / "log"},
                                              {"KELDRA_LOCALE", "en-US"},
                                              {"KELDRA_LOCALE_DIR", root_ / "locale"},
                                              {"KELDRA_CONFIGURATION_USERDEBUGLEVEL", "5"}};
    const auto set = [&](const char* name, const std::optional<std::string>& value) {
        if (value) result[name] = *value;
    };
    set("REQUEST_METHOD", request.method);
    set("QUERY_STRING", request.query);
    set("HTTP_COOKIE", request.cookies);
    set("REMOTE_ADDR", request.remoteAddress);
    for (const auto& [name, value] : request.environment) {
        result.erase(name);
        set(name.c_str(), value);
    }
    return result;
}

CgiResponse Console::run(const std::filesystem::path& program, const CgiRequest& request) {
    std::filesystem::remove(root_ / "log");
    CgiResponse response;
    response.process = runProgram({.argv = {program.string()},
                                   .environment = environment(request),
                                   .input = request.body,
                                   .workingDirectory = root_ / "cgi"});
    response.bytes = response.process.output;
    splitResponse(response);
    response.log = readLog(root_ / "log");
    return response;
}
