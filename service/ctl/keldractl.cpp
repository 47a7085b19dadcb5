#include "norv/au_config.h"
#include "norv/path_list.h"
#include "norv/protocol/quarantine.h"
#include "norv/protocol/scans.h"
#include "norv/protocol/status.h"
#include "norv/protocol/updates.h"
#include "service/access/password.h"
#include "service/base/version.h"
#include "service/ctl/control_client.h"
#include "service/ctl/progress_bar.h"
#include "service/settings/fresh_setup.h"

#include <termios.h>
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <concepts>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <filesystem>
#include <functional>
#include <iostream>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

using keldra::ask;
using keldra::faultOf;
using keldra::printable;
using protocol::ScanState;

/// As virus scanners have it.
constexpr int STATUS_CLEAN = 0;
constexpr int STATUS_FOUND = 1;
constexpr int STATUS_ERROR = 2;
constexpr std::chrono::milliseconds POLL_INTERVAL{100};

struct CommandLine {
    std::string socket;
    bool json = false;
    keldra::FreshSetup setup;
    std::string state;
    bool fromStdin = false;
    std::vector<std::string> paths;
    bool act = false;
    unsigned int workers = 0;
    std::string id;
};

std::atomic<bool> interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free);

int fail(const std::string& sentence) {
    std::fprintf(stderr, "keldractl: %s\n", sentence.c_str());
    return STATUS_ERROR;
}

void print(const std::string& line) { std::printf("%s\n", line.c_str()); }

// init and passwd: work on the files, whether the service runs or not.

int runInit(CommandLine& line) {
    keldra::FreshSetup& setup = line.setup;
    if (setup.var.empty()) setup.var = setup.state / "var";
    for (std::filesystem::path* path : {&setup.config, &setup.state, &setup.key, &setup.var})
        *path = std::filesystem::absolute(*path).lexically_normal();
    for (std::string& path : setup.scanPaths) path = std::filesystem::absolute(path).lexically_normal();
    std::vector<std::string> report;
    const std::string fault = keldra::makeFreshSetup(setup, report);
    for (const std::string& entry : report) print(entry);
    return fault.empty() ? STATUS_CLEAN : fail(fault);
}

termios shownTerminal{};

/// What is typed is shown again before a signal ends this.
void showAndEnd(int number) {
    ::tcsetattr(STDIN_FILENO, TCSANOW, &shownTerminal);
    std::signal(number, SIG_DFL);
    std::raise(number);
}

/// Reads a line from the terminal without showing it.
bool readHidden(const char* prompt, std::string& line) {
    if (::tcgetattr(STDIN_FILENO, &shownTerminal) != 0) return false;
    for (const int number : {SIGINT, SIGQUIT, SIGTERM, SIGHUP}) std::signal(number, showAndEnd);
    termios hidden = shownTerminal;
    hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    std::fputs(prompt, stderr);
    ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &hidden);
    const bool read = static_cast<bool>(std::getline(std::cin, line));
    ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &shownTerminal);
    for (const int number : {SIGINT, SIGQUIT, SIGTERM, SIGHUP}) std::signal(number, SIG_DFL);
    std::fputs("\n", stderr);
    return read;
}

std::string readPassword(bool fromStdin, std::string& password) {
    if (fromStdin) return std::getline(std::cin, password) ? "" : "no password on standard input";
    if (!::isatty(STDIN_FILENO)) return "this is no terminal; use --stdin to read the password from standard input";
    std::string again;
    if (!readHidden("New console password: ", password) || !readHidden("Once more: ", again))
        return "no password was read";
    return password == again ? "" : "the two passwords differ";
}

int runPasswd(CommandLine& line) {
    std::string password;
    if (const std::string fault = readPassword(line.fromStdin, password); !fault.empty()) return fail(fault);
    const std::string fault = keldra::storePassword(std::filesystem::path(line.state) / "password", password);
    if (!fault.empty()) return fail(fault);
    print("The console password is set. Sessions begun with the old one end.");
    return STATUS_CLEAN;
}

// status

/// A reply as one object of its parameters' texts.
template <typename Reply>
void printJson(const Reply& reply) {
    IPCMessage message;
    protocol::write(message, reply);
    JsonText json;
    json.object([&] {
        for (const auto& [name, parameter] : message.params) json.member(name, parameter.value);
    });
    print(json.text());
}

std::string databaseLine(const protocol::ServiceStatus& status) {
    const std::string message = status.engineMessage.empty() ? "" : " (" + status.engineMessage + ")";
    if (status.database != protocol::DATABASE_LOADED) return status.database + message;
    return std::to_string(status.signatures) + " signatures, version " + status.databaseVersion + " of " +
           keldra::timeText(status.databaseTime, "unknown date") + message;
}

std::string realtimeLine(const protocol::ServiceStatus& status) {
    const std::string state = status.realtimeRunning ? "running" : "not running";
    return status.realtimeMessage.empty() ? state : state + " (" + status.realtimeMessage + ")";
}

std::string scansLine(const protocol::ServiceStatus& status) {
    std::string running;
    const auto add = [&running](const char* kind, const std::optional<std::string>& id) {
        if (id) running.append(running.empty() ? "" : ", ").append(kind).append(" ").append(*id);
    };
    add(protocol::KIND_MANUAL, status.runningManual);
    add(protocol::KIND_SCHEDULED, status.runningScheduled);
    add(protocol::KIND_PATH, status.runningPath);
    return running.empty() ? "none" : running;
}

int runStatus(const CommandLine& line) {
    const auto answer = ask(protocol::GetServiceStatus());
    if (!answer) return fail(faultOf(answer));
    const protocol::ServiceStatus& status = answer.reply;
    if (line.json) return printJson(status), STATUS_CLEAN;
    const std::string& fault = status.configuration;
    print("Version:         " + status.version + ", up " + std::to_string(status.uptime) + " s");
    print("Configuration:   " + (fault.empty() ? "good" : "cannot be used: " + fault));
    print("Signatures:      " + databaseLine(status));
    print("Engine:          " + status.engineVersion);
    print("Real-time scan:  " + realtimeLine(status));
    print("Running scans:   " + scansLine(status));
    print("Next scan:       " + keldra::timeText(status.nextScan, "not scheduled"));
    print("Next update:     " + keldra::timeText(status.nextUpdate, "not scheduled"));
    print("Last scan:       " + keldra::timeText(status.lastScan) + " (scheduled)");
    print("Last update:     " + keldra::timeText(status.lastUpdate) + " (scheduled)");
    print("In quarantine:   " + std::to_string(status.quarantined));
    print("Log-on sessions: " + std::to_string(status.sessions));
    return STATUS_CLEAN;
}

// scan

void printFind(const protocol::ScanFind& find) {
    const std::string what = find.infected ? printable(find.signature) + " FOUND" : "NOT FULLY SCANNED";
    print(printable(find.path) + ": " + what + (find.detail.empty() ? "" : " (" + printable(find.detail) + ")"));
}

/// Prints the finds from number `from` on; returns the number after the last one.
std::size_t printFinds(const std::string& id, std::size_t from, bool json) {
    for (;;) {
        const auto answer = ask(protocol::GetScanFinds{id, from});
        const auto& finds = answer.reply.finds;
        if (!answer || finds.empty()) return from;
        if (json)
            print(jsonText(finds));
        else
            std::for_each(finds.begin(), finds.end(), printFind);
        from += finds.size();
    }
}

int printSummary(const protocol::ScanProgress& scan, bool json) {
    if (json) {
        printJson(scan);
    } else {
        print("Scanned " + std::to_string(scan.scanned) + ", infected " + std::to_string(scan.found) +
              ", not fully scanned " + std::to_string(scan.notFullyScanned) + ", skipped " +
              std::to_string(scan.skipped));
    }
    if (scan.state != ScanState::COMPLETED) return fail("The scan did not run to its end. " + scan.message);
    if (scan.found > 0) return STATUS_FOUND;
    return scan.notFullyScanned + scan.skipped > 0 ? STATUS_ERROR : STATUS_CLEAN;
}

void showScan(keldra::ProgressBar& bar, const protocol::ScanProgress& scan) {
    bar.show(static_cast<std::uint64_t>(scan.scanned) + scan.skipped, static_cast<std::uint64_t>(scan.total),
             std::to_string(scan.scanned) + " of " + std::to_string(scan.total) + " files, " +
                 std::to_string(scan.found) + " infected, " + printable(scan.currentFile));
}

int follow(const std::string& id, bool json) {
    keldra::ProgressBar bar;
    std::size_t printed = 0;
    bool stopped = false;
    for (;;) {
        if (interrupted && !std::exchange(stopped, true)) ask(protocol::StopPathScan{id});
        const auto answer = ask(protocol::GetScanProgress{id});
        if (!answer) return fail(faultOf(answer));
        bar.clear();
        printed = printFinds(id, printed, json);
        if (answer.reply.state != ScanState::RUNNING) return printSummary(answer.reply, json);
        showScan(bar, answer.reply);
        std::this_thread::sleep_for(POLL_INTERVAL);
    }
}

int runScan(const CommandLine& line) {
    std::vector<std::string> paths;
    for (const std::string& path : line.paths) paths.push_back(std::filesystem::absolute(path).lexically_normal());
    const auto answer =
        ask(protocol::StartPathScan{.paths = joinPathList(paths), .act = line.act, .workers = line.workers});
    if (!answer) return fail(faultOf(answer));
    std::signal(SIGINT, [](int) { interrupted = true; });
    return follow(answer.reply.requestId, line.json);
}

// quarantine

void printItem(const protocol::QuarantinedFile& item) {
    print(item.id + "  " + keldra::timeText(item.when) + "  " + (item.backup ? "backup  " : "") +
          printable(item.signature) + "  " + printable(item.path));
}

/// Calls `each` for all items, newest first. Returns why not, or nothing. What is put away meanwhile moves the others
/// on, so some come twice.
std::string forEachItem(const std::function<void(const protocol::QuarantinedFile&)>& each) {
    std::set<std::string> seen;
    for (std::size_t from = 0, before = 1; seen.size() != before;) {
        before = seen.size();
        const auto answer = ask(protocol::GetQuarantine{from});
        if (!answer) return faultOf(answer);
        from += answer.reply.items.size();
        for (const auto& item : answer.reply.items)
            if (seen.insert(item.id).second) each(item);
    }
    return {};
}

int runQuarantineList(const CommandLine& line) {
    std::string fault;
    JsonText json;
    json.array([&] {
        fault = forEachItem([&](const protocol::QuarantinedFile& item) {
            if (line.json)
                json.value(item);
            else
                printItem(item);
        });
    });
    if (!fault.empty()) return fail(fault);
    if (line.json) print(json.text());
    return STATUS_CLEAN;
}

std::string shown(const std::string& text) { return printable(text); }
std::string shown(bool flag) { return flag ? "yes" : "no"; }
template <std::integral T>
requires(!std::same_as<T, bool>) std::string shown(T number) { return std::to_string(number); }

int runQuarantineShow(const CommandLine& line) {
    const auto answer = ask(protocol::GetQuarantined{line.id});
    if (!answer) return fail(faultOf(answer));
    const protocol::QuarantinedFile& item = answer.reply.item;
    if (line.json) return print(jsonText(item)), STATUS_CLEAN;
    protocol::QuarantinedFile::visit(
        item, [](const char* name, const auto& field) { print(std::string(name) + ": " + shown(field)); });
    return STATUS_CLEAN;
}

template <typename Request>
int runQuarantineChange(const CommandLine& line) {
    const auto answer = ask(Request{line.id});
    if (!answer) return fail(faultOf(answer));
    if (!answer.reply.message.empty()) print(printable(answer.reply.message));
    return STATUS_CLEAN;
}

int runTrusted(const CommandLine& line) {
    const auto answer = ask(protocol::GetTrusted());
    if (!answer) return fail(faultOf(answer));
    if (line.json) return print(jsonText(answer.reply.trusted)), STATUS_CLEAN;
    for (const auto& entry : answer.reply.trusted) print(entry.sha256 + "  " + printable(entry.name));
    return STATUS_CLEAN;
}

// update

int followUpdate(const std::string& id, bool json) {
    keldra::ProgressBar bar;
    for (;;) {
        const auto answer = ask(protocol::GetUpdateProgress());
        if (!answer) return fail(faultOf(answer));
        const protocol::UpdateProgress& update = answer.reply;
        if (update.requestId != id || !update.running) {
            bar.clear();
            if (json)
                printJson(update);
            else
                print(printable(update.message));
            return update.succeeded ? STATUS_CLEAN : STATUS_ERROR;
        }
        bar.show(static_cast<std::uint64_t>(update.progress), 10, "updating the signatures");
        std::this_thread::sleep_for(POLL_INTERVAL);
    }
}

int runUpdate(const CommandLine& line) {
    const std::string id = std::to_string(std::time(nullptr)) + "_" + std::to_string(::getpid());
    protocol::StartManualUpdate request{.requestId = id, .settings = {}};
    request.settings.components = UPDATE_VIRUS_PATTERN | UPDATE_SCAN_ENGINE | UPDATE_SPYWARE_PATTERN;
    const auto answer = ask(request);
    return answer ? followUpdate(id, line.json) : fail(faultOf(answer));
}

// The command line.

using Run = std::function<int()>;

void describeFiles(CLI::App& app, CommandLine& line, Run& run) {
    CLI::App* const init = app.add_subcommand("init", "Make configuration, key and folders; keep what is there");
    init->add_option("--config", line.setup.config, "The configuration document")->required();
    init->add_option("--state", line.setup.state, "The service's state folder")->required();
    init->add_option("--key", line.setup.key, "Key file of the password encryption")->required();
    init->add_option("--var", line.setup.var, "Folder shared with the console [STATE/var]");
    init->add_option("--scan-path", line.setup.scanPaths, "Folder to scan; may be repeated");
    init->callback([&line, &run] { run = [&line] { return runInit(line); }; });

    CLI::App* const passwd = app.add_subcommand("passwd", "Set the console's password");
    passwd->add_option("--state", line.state, "The service's state folder")->required();
    passwd->add_flag("--stdin", line.fromStdin, "Read it once from standard input instead of twice from the terminal");
    passwd->callback([&line, &run] { run = [&line] { return runPasswd(line); }; });
}

void describeService(CLI::App& app, CommandLine& line, Run& run) {
    CLI::App* const status = app.add_subcommand("status", "Show how the service is doing");
    status->add_flag("--json", line.json, "As a JSON object");
    status->callback([&line, &run] { run = [&line] { return runStatus(line); }; });

    CLI::App* const scan = app.add_subcommand(
        "scan",
        "Scan files and folders. Status 0: all clean, 1: something found, 2: an error, or not all could be "
        "scanned");
    scan->add_option("path", line.paths, "Files and folders")->required();
    scan->add_flag("--act", line.act, "Do to finds what the manual scan's settings say; else they are only reported");
    scan->add_option("--workers", line.workers, "Files scanned at a time, 1 to 32; 0: the service decides")
        ->check(CLI::Range(0, 32))
        ->capture_default_str();
    scan->add_flag("--json", line.json, "As JSON, one text per line: lists of finds, then the counts");
    scan->callback([&line, &run] { run = [&line] { return runScan(line); }; });

    CLI::App* const update = app.add_subcommand("update", "Update signatures now and wait for it");
    update->add_flag("--json", line.json, "As a JSON object");
    update->callback([&line, &run] { run = [&line] { return runUpdate(line); }; });
}

template <typename Request>
void describeChange(CLI::App& quarantine, CommandLine& line, Run& run, const char* name, const char* help) {
    CLI::App* const change = quarantine.add_subcommand(name, help);
    change->add_option("id", line.id)->required();
    change->callback([&line, &run] { run = [&line] { return runQuarantineChange<Request>(line); }; });
}

void describeQuarantine(CLI::App& app, CommandLine& line, Run& run) {
    CLI::App* const quarantine = app.add_subcommand("quarantine", "Look after the files put away");
    quarantine->require_subcommand(1);
    CLI::App* const list = quarantine->add_subcommand("list", "List them, newest first");
    list->add_flag("--json", line.json, "As a JSON list");
    list->callback([&line, &run] { run = [&line] { return runQuarantineList(line); }; });
    CLI::App* const show = quarantine->add_subcommand("show", "Show all that is known about one");
    show->add_option("id", line.id)->required();
    show->add_flag("--json", line.json, "As a JSON object");
    show->callback([&line, &run] { run = [&line] { return runQuarantineShow(line); }; });
    using namespace protocol;
    describeChange<RestoreQuarantined>(*quarantine, line, run, "restore",
                                       "Put one back where it was; never overwrites");
    describeChange<DeleteQuarantined>(*quarantine, line, run, "delete", "Delete one for good");
    describeChange<TrustQuarantined>(*quarantine, line, run, "trust", "Never again report files of its content");
    describeChange<Distrust>(*quarantine, line, run, "distrust", "Take a SHA-256 off the trusted ones");
    CLI::App* const trusted = quarantine->add_subcommand("trusted", "List what is trusted");
    trusted->add_flag("--json", line.json, "As a JSON list");
    trusted->callback([&line, &run] { run = [&line] { return runTrusted(line); }; });
}

}  // namespace

int main(int argc, char** argv) try {
    CommandLine line;
    Run run;
    CLI::App app("Looks after the Keldra service from the command line.", "keldractl");
    app.set_version_flag("--version", std::string("keldractl ") + keldra::VERSION);
    app.add_option("--socket", line.socket, "Socket of the service (KELDRA_SOCKET) [/run/keldra/keldrad.sock]");
    app.require_subcommand(1);
    describeFiles(app, line, run);
    describeService(app, line, run);
    describeQuarantine(app, line, run);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? STATUS_CLEAN : STATUS_ERROR;
    }
    if (!line.socket.empty()) ::setenv("KELDRA_SOCKET", line.socket.c_str(), 1);
    // What goes wrong is told on standard error; the log is the service's.
    return run();
} catch (const std::exception& error) {
    return fail(error.what());
}
