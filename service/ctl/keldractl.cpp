#include "norv/au_config.h"
#include "norv/path_list.h"
#include "service/access/password.h"
#include "service/base/json_text.h"
#include "service/base/json_value.h"
#include "service/base/version.h"
#include "service/ctl/control_client.h"
#include "service/ctl/progress_bar.h"
#include "service/settings/fresh_setup.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <termios.h>
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <filesystem>
#include <iostream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using keldra::ask;
using keldra::ControlReply;
using keldra::flagOf;
using keldra::numberOf;
using keldra::printable;
using keldra::textOf;

/// As virus scanners have it.
constexpr int STATUS_CLEAN = 0;
constexpr int STATUS_FOUND = 1;
constexpr int STATUS_ERROR = 2;
constexpr int SCAN_COMPLETED = 3;
constexpr int SCAN_RUNNING = 4;
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

/// Calls `each` for the objects of a list. Returns how many there are.
std::size_t forEach(const std::string& list, const std::function<void(const rapidjson::Value&)>& each) {
    rapidjson::Document document;
    document.Parse(list.data(), list.size());
    if (document.HasParseError() || !document.IsArray()) return 0;
    for (const auto& entry : document.GetArray())
        if (entry.IsObject()) each(entry);
    return document.Size();
}

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

void printJson(const IPCMessage& message) {
    keldra::JsonText json;
    json.object([&] {
        for (const auto& [name, parameter] : message.params) json.member(name, parameter.value);
    });
    print(json.text());
}

std::int64_t numberOf(const ControlReply& reply, const char* name) { return reply.message.value<std::int64_t>(name); }

std::string databaseLine(const ControlReply& reply) {
    const std::string database = reply.text("Database");
    const std::string message = reply.text("EngineMessage").empty() ? "" : " (" + reply.text("EngineMessage") + ")";
    if (database != "loaded") return database + message;
    return reply.text("Signatures") + " signatures, version " + reply.text("DatabaseVersion") + " of " +
           keldra::timeText(numberOf(reply, "DatabaseTime"), "unknown date") + message;
}

std::string realtimeLine(const ControlReply& reply) {
    const std::string state = numberOf(reply, "RealtimeRunning") != 0 ? "running" : "not running";
    const std::string message = reply.text("RealtimeMessage");
    return message.empty() ? state : state + " (" + message + ")";
}

std::string scansLine(const ControlReply& reply) {
    std::string running;
    for (const char* const kind : {"manual", "scheduled", "path"}) {
        const std::string id = reply.text(std::string("Running_") + kind);
        if (!id.empty()) running += (running.empty() ? "" : ", ") + std::string(kind) + " " + id;
    }
    return running.empty() ? "none" : running;
}

int runStatus(const CommandLine& line) {
    const ControlReply reply = ask(IPCMessage::GET, IPCMessage::SERVICE_STATUS);
    if (!reply.done) return fail(reply.fault());
    if (line.json) return printJson(reply.message), STATUS_CLEAN;
    const std::string fault = reply.text("Configuration");
    print("Version:         " + reply.text("Version") + ", up " + reply.text("Uptime") + " s");
    print("Configuration:   " + (fault.empty() ? "good" : "cannot be used: " + fault));
    print("Signatures:      " + databaseLine(reply));
    print("Engine:          " + reply.text("EngineVersion"));
    print("Real-time scan:  " + realtimeLine(reply));
    print("Running scans:   " + scansLine(reply));
    print("Next scan:       " + keldra::timeText(numberOf(reply, "NextScan"), "not scheduled"));
    print("Next update:     " + keldra::timeText(numberOf(reply, "NextUpdate"), "not scheduled"));
    print("Last scan:       " + keldra::timeText(numberOf(reply, "LastScan")) + " (scheduled)");
    print("Last update:     " + keldra::timeText(numberOf(reply, "LastUpdate")) + " (scheduled)");
    print("In quarantine:   " + reply.text("Quarantined"));
    print("Log-on sessions: " + reply.text("Sessions"));
    return STATUS_CLEAN;
}

// scan

void printFind(const rapidjson::Value& find) {
    const std::string detail = textOf(find, "detail");
    const std::string what =
        flagOf(find, "infected") ? printable(textOf(find, "signature")) + " FOUND" : "NOT FULLY SCANNED";
    print(printable(textOf(find, "path")) + ": " + what + (detail.empty() ? "" : " (" + printable(detail) + ")"));
}

void ignoreFind(const rapidjson::Value&) {}

/// Prints the finds from number `from` on; returns the number after the last one.
std::size_t printFinds(const std::string& id, std::size_t from, bool json) {
    for (;;) {
        const ControlReply reply =
            ask(IPCMessage::GET, IPCMessage::SCAN_FINDS, {{"RequestID", id}, {"From", std::to_string(from)}});
        const std::string finds = reply.text("Finds");
        const std::size_t count = reply.done ? forEach(finds, json ? ignoreFind : printFind) : 0;
        if (json && count > 0) print(finds);
        if (count == 0) return from;
        from += count;
    }
}

int printSummary(const ControlReply& reply, bool json) {
    const auto found = numberOf(reply, "VirusFound");
    const auto unsure = numberOf(reply, "NotFullyScanned") + numberOf(reply, "Skipped");
    if (json) {
        printJson(reply.message);
    } else {
        print("Scanned " + reply.text("Scanned") + ", infected " + reply.text("VirusFound") + ", not fully scanned " +
              reply.text("NotFullyScanned") + ", skipped " + reply.text("Skipped"));
    }
    if (numberOf(reply, "Status") != SCAN_COMPLETED)
        return fail("The scan did not run to its end. " + reply.text("Message"));
    if (found > 0) return STATUS_FOUND;
    return unsure > 0 ? STATUS_ERROR : STATUS_CLEAN;
}

void showScan(keldra::ProgressBar& bar, const ControlReply& reply) {
    bar.show(reply.message.value<std::uint64_t>("Scanned") + reply.message.value<std::uint64_t>("Skipped"),
             reply.message.value<std::uint64_t>("Total"),
             reply.text("Scanned") + " of " + reply.text("Total") + " files, " + reply.text("VirusFound") +
                 " infected, " + printable(reply.text("CurrentFile")));
}

int follow(const std::string& id, bool json) {
    keldra::ProgressBar bar;
    std::size_t printed = 0;
    bool stopped = false;
    for (;;) {
        if (interrupted && !std::exchange(stopped, true))
            ask(IPCMessage::STOP, IPCMessage::PATH_SCAN, {{"RequestID", id}});
        const ControlReply reply = ask(IPCMessage::GET, IPCMessage::MANUAL_SCAN_STATUS, {{"RequestID", id}});
        if (!reply.done) return fail(reply.fault());
        bar.clear();
        printed = printFinds(id, printed, json);
        if (numberOf(reply, "Status") != SCAN_RUNNING) return printSummary(reply, json);
        showScan(bar, reply);
        std::this_thread::sleep_for(POLL_INTERVAL);
    }
}

int runScan(const CommandLine& line) {
    std::vector<std::string> paths;
    for (const std::string& path : line.paths) paths.push_back(std::filesystem::absolute(path).lexically_normal());
    const ControlReply reply =
        ask(IPCMessage::START, IPCMessage::PATH_SCAN,
            {{"Paths", joinPathList(paths)}, {"Act", line.act ? "1" : "0"}, {"Workers", std::to_string(line.workers)}});
    if (!reply.done) return fail(reply.fault());
    std::signal(SIGINT, [](int) { interrupted = true; });
    return follow(reply.text("RequestID"), line.json);
}

// quarantine

void printItem(const rapidjson::Value& item) {
    print(textOf(item, "id") + "  " + keldra::timeText(numberOf(item, "when")) + "  " +
          (flagOf(item, "backup") ? "backup  " : "") + printable(textOf(item, "signature")) + "  " +
          printable(textOf(item, "path")));
}

/// Calls `each` for all items, newest first. Returns why not, or nothing. What is put away meanwhile moves the others
/// on, so some come twice.
std::string forEachItem(const std::function<void(const rapidjson::Value&)>& each) {
    std::set<std::string> seen;
    for (std::size_t from = 0, before = 1; seen.size() != before;) {
        before = seen.size();
        const ControlReply reply = ask(IPCMessage::GET, IPCMessage::QUARANTINE, {{"From", std::to_string(from)}});
        if (!reply.done) return reply.fault();
        from += forEach(reply.text("Items"), [&](const rapidjson::Value& item) {
            if (seen.insert(textOf(item, "id")).second) each(item);
        });
    }
    return {};
}

int runQuarantineList(const CommandLine& line) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> json(buffer);
    json.StartArray();
    const std::string fault = forEachItem([&](const rapidjson::Value& item) {
        if (line.json)
            item.Accept(json);
        else
            printItem(item);
    });
    json.EndArray();
    if (!fault.empty()) return fail(fault);
    if (line.json) print({buffer.GetString(), buffer.GetSize()});
    return STATUS_CLEAN;
}

int runQuarantineShow(const CommandLine& line) {
    const ControlReply reply = ask(IPCMessage::GET, IPCMessage::QUARANTINE_ITEM, {{"Id", line.id}});
    if (!reply.done) return fail(reply.fault());
    if (line.json) return print(reply.text("Item")), STATUS_CLEAN;
    forEach("[" + reply.text("Item") + "]", [](const rapidjson::Value& item) {
        for (const auto& member : item.GetObject()) {
            const std::string name = member.name.GetString();
            const std::string shown = member.value.IsString() ? printable(textOf(item, name.c_str()))
                                      : member.value.IsBool() ? (flagOf(item, name.c_str()) ? "yes" : "no")
                                                              : std::to_string(numberOf(item, name.c_str()));
            print(std::string(name).append(": ").append(shown));
        }
    });
    return STATUS_CLEAN;
}

int runQuarantineChange(const CommandLine& line, IPCMessage::Operation operation, IPCMessage::CommandID command,
                        const char* parameter) {
    const ControlReply reply = ask(operation, command, {{parameter, line.id}});
    if (!reply.done) return fail(reply.fault());
    if (const std::string message = reply.text("Message"); !message.empty()) print(printable(message));
    return STATUS_CLEAN;
}

int runTrusted(const CommandLine& line) {
    const ControlReply reply = ask(IPCMessage::GET, IPCMessage::QUARANTINE_TRUST);
    if (!reply.done) return fail(reply.fault());
    if (line.json) return print(reply.text("Trusted")), STATUS_CLEAN;
    forEach(reply.text("Trusted"), [](const rapidjson::Value& entry) {
        print(textOf(entry, "sha256") + "  " + printable(textOf(entry, "name")));
    });
    return STATUS_CLEAN;
}

// update

int followUpdate(const std::string& id, bool json) {
    keldra::ProgressBar bar;
    for (;;) {
        const ControlReply reply = ask(IPCMessage::GET, IPCMessage::UPDATE_STATUS);
        if (!reply.done) return fail(reply.fault());
        if (reply.text("RequestID") != id || numberOf(reply, "Running") == 0) {
            bar.clear();
            if (json)
                printJson(reply.message);
            else
                print(printable(reply.text("Message")));
            return numberOf(reply, "Succeeded") != 0 ? STATUS_CLEAN : STATUS_ERROR;
        }
        bar.show(reply.message.value<std::uint64_t>("Progress"), 10, "updating the signatures");
        std::this_thread::sleep_for(POLL_INTERVAL);
    }
}

int runUpdate(const CommandLine& line) {
    const std::string id = std::to_string(std::time(nullptr)) + "_" + std::to_string(::getpid());
    NORVManualAUConfig components;
    components.components = UPDATE_VIRUS_PATTERN | UPDATE_SCAN_ENGINE | UPDATE_SPYWARE_PATTERN;
    std::ostringstream record;
    record << components;
    const ControlReply reply =
        ask(IPCMessage::START, IPCMessage::MANUAL_UPDATE, {{"RequestID", id}, {"ManualAUConfig", record.str()}});
    return reply.done ? followUpdate(id, line.json) : fail(reply.fault());
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

void describeChange(CLI::App& quarantine, CommandLine& line, Run& run, const char* name, const char* help,
                    IPCMessage::Operation operation, IPCMessage::CommandID command, const char* parameter = "Id") {
    CLI::App* const change = quarantine.add_subcommand(name, help);
    change->add_option("id", line.id)->required();
    change->callback([&line, &run, operation, command, parameter] {
        run = [&line, operation, command, parameter] {
            return runQuarantineChange(line, operation, command, parameter);
        };
    });
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
    describeChange(*quarantine, line, run, "restore", "Put one back where it was; never overwrites", IPCMessage::START,
                   IPCMessage::QUARANTINE_ITEM);
    describeChange(*quarantine, line, run, "delete", "Delete one for good", IPCMessage::STOP,
                   IPCMessage::QUARANTINE_ITEM);
    describeChange(*quarantine, line, run, "trust", "Never again report files of its content", IPCMessage::START,
                   IPCMessage::QUARANTINE_TRUST);
    describeChange(*quarantine, line, run, "distrust", "Take a SHA-256 off the trusted ones", IPCMessage::STOP,
                   IPCMessage::QUARANTINE_TRUST, "Sha256");
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
