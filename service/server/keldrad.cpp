#include "norv/log.h"
#include "service/base/version.h"
#include "service/server/service.h"

#include <grp.h>
#include <pwd.h>
#include <CLI/CLI.hpp>

#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr int STATUS_FAILED = 1;
constexpr int STATUS_USAGE = 2;
/// The log of the console and of the service go to the same facility.
constexpr int LOG_FACILITY = 152;

struct CommandLine {
    keldra::ServiceOptions service;
    std::string key;
    std::string log;
    std::vector<std::string> users;
    std::string group;
};

std::string environmentOr(const char* name, const char* fallback) {
    const char* const value = std::getenv(name);
    return value && *value ? value : fallback;
}

void describe(CLI::App& app, CommandLine& line) {
    keldra::ServiceOptions& options = line.service;
    options.socket = environmentOr("KELDRA_SOCKET", "/run/keldra/keldrad.sock");
    line.key = environmentOr("KELDRA_KEY_FILE", "/etc/keldra/console.key");
    line.log = environmentOr("KELDRA_LOG", "syslog");
    app.set_version_flag("--version", std::string("keldrad ") + keldra::VERSION);
    app.add_option("--config", options.config, "The configuration document")->required();
    app.add_option("--state", options.state, "Folder for all that is stored beside the configuration; made 0700")
        ->required();
    app.add_option("--socket", options.socket, "Unix socket to answer on (KELDRA_SOCKET)")->capture_default_str();
    app.add_option("--socket-group", line.group, "Group that the socket is given to");
    app.add_option("--allow-user", line.users,
                   "User (name or number) who may talk to the service, beside root and its own; may be repeated");
    app.add_option("--key", line.key, "Key file of the password encryption (KELDRA_KEY_FILE)")->capture_default_str();
    app.add_option("--var", options.var,
                   "Folder shared with the console when the configuration names none [STATE/var]");
    app.add_option("--signatures", options.signatures,
                   "Folder of signatures used beside the updated ones in STATE/signatures; may be repeated");
    app.add_option("--scanner", options.scanner, "Program that scans files [keldra-scanner beside this program]");
    app.add_option("--scan-user", options.scanUser,
                   "User whom it runs as, where the service has the right to choose [keldra-scan, else nobody]");
    app.add_option("--freshclam", options.freshclam, "Program that fetches updates")->capture_default_str();
    app.add_option("--database-owner", options.databaseOwner, "User whom it runs as when the service runs as root");
    app.add_option("--log", line.log, "syslog, stderr, or a file to append to (KELDRA_LOG)")->capture_default_str();
    app.add_option("--session-idle", options.sessionLimits.idleSeconds, "Seconds without use that end a log-on")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.add_option("--session-limit", options.sessionLimits.absoluteSeconds, "Seconds that end a log-on in any case")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.footer(
        "SIGHUP reads configuration and signatures again; SIGTERM and SIGINT end the service.\n"
        "Exit status: 0 ended by a signal, 1 cannot run, 2 wrong arguments.");
}

std::optional<uid_t> userId(const std::string& name) {
    uid_t id = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), id);
    if (error == std::errc() && end == name.data() + name.size()) return id;
    const passwd* const entry = ::getpwnam(name.c_str());
    return entry ? std::optional(entry->pw_uid) : std::nullopt;
}

/// Looks users and group up. Returns what is wrong.
std::string resolveAccess(CommandLine& line) {
    for (const std::string& name : line.users) {
        const auto id = userId(name);
        if (!id) return "There is no user " + name + ".";
        line.service.access.users.push_back(*id);
    }
    if (line.group.empty()) return {};
    const group* const entry = ::getgrnam(line.group.c_str());
    if (!entry) return "There is no group " + line.group + ".";
    line.service.access.group = entry->gr_gid;
    return {};
}

/// Others change their folder or read these; paths must mean the same to everyone.
void completePaths(CommandLine& line) {
    keldra::ServiceOptions& options = line.service;
    if (options.var.empty()) options.var = options.state / "var";
    for (std::filesystem::path* path : {&options.config, &options.state, &options.var})
        *path = std::filesystem::absolute(*path).lexically_normal();
    for (std::string& folder : options.signatures) folder = std::filesystem::absolute(folder).lexically_normal();
    ::setenv("KELDRA_KEY_FILE", line.key.c_str(), 1);
    ::setenv("KELDRA_LOG", line.log.c_str(), 1);
}

int fail(const std::string& sentence) {
    std::fprintf(stderr, "keldrad: %s\n", sentence.c_str());
    // Not a second time on the same terminal.
    if (environmentOr("KELDRA_LOG", "") != "stderr") NORV_LOG(NORV_LOG_ERROR, "%s", sentence.c_str());
    return STATUS_FAILED;
}

int serve(CommandLine& line) {
    if (const std::string fault = resolveAccess(line); !fault.empty()) return fail(fault);
    completePaths(line);
    // A log that nobody reads any more, or a file that may not grow, is a failed write and no reason to end.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    initLog("keldrad", LOG_FACILITY, NORV_LOG_INFO);
    keldra::Service service(line.service);
    std::string error;
    if (!service.open(error)) return fail(error);
    service.run();
    return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) try {
    CommandLine line;
    CLI::App app("The resident service of the Keldra console: settings, sessions, scans, updates.", "keldrad");
    describe(app, line);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? EXIT_SUCCESS : STATUS_USAGE;
    }
    return serve(line);
} catch (const std::exception& error) {
    return fail(error.what());
}
