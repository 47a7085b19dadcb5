#include "norv/protocol/session.h"
#include "service/access/password.h"
#include "service/ctl/command_line.h"
#include "service/settings/fresh_setup.h"
#include "service/settings/state_folder.h"

#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

// init and passwd: work on the files, whether the service runs or not.

namespace keldra {

namespace {

/// Seconds.
constexpr unsigned int NOTE_TIMEOUT = 2;

struct PasswdOptions {
    std::string state;
    bool fromStdin = false;
    bool once = false;
};

struct SecondStepOptions {
    std::string state;
};

int runInit(const FreshSetup& given) {
    FreshSetup setup = given;
    if (setup.var.empty()) setup.var = setup.state / "var";
    for (std::filesystem::path* path : {&setup.config, &setup.state, &setup.key, &setup.var})
        *path = std::filesystem::absolute(*path).lexically_normal();
    for (std::string& path : setup.scanPaths) path = std::filesystem::absolute(path).lexically_normal();
    std::vector<std::string> report;
    const std::string fault = makeFreshSetup(setup, report);
    std::string told;
    for (const std::string& entry : report) told += (told.empty() ? "" : "\n") + entry;
    const bool failed = !fault.empty();
    if (!failed || !jsonWanted()) done(told);
    return failed ? fail({FAULT_FAILED, fault}) : STATUS_DONE;
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

int runPasswd(const PasswdOptions& options) {
    std::string password;
    if (const std::string fault = readPassword(options.fromStdin, password); !fault.empty())
        return fail({FAULT_FAILED, fault});
    const std::string fault =
        PasswordFile(std::filesystem::path(options.state) / "password").store(password, options.once);
    if (!fault.empty()) return fail({FAULT_FAILED, fault});
    // Only for the record; there need not be a service.
    protocol::ask(protocol::NotePassword{std::filesystem::absolute(options.state).string()}, NOTE_TIMEOUT);
    return done("The console password is set. Sessions begun with the old one end.");
}

int runSecondStepOff(const SecondStepOptions& options) {
    std::error_code error;
    const bool removed = std::filesystem::remove(std::filesystem::path(options.state) / SECOND_FACTOR_FILE, error);
    if (error) return fail({FAULT_FAILED, error.message()});
    return done(removed ? "The console asks for no code any more." : "The console asks for no code.");
}

}  // namespace

void describeSetUp(CLI::App& app, Run& run) {
    FreshSetup* setup = nullptr;
    CLI::App* const init =
        addCommand(app, run, "init", "Make configuration, key and folders; keep what is there", setup, runInit);
    init->add_option("--config", setup->config, "The configuration document")->required();
    init->add_option("--state", setup->state, "The service's state folder")->required();
    init->add_option("--key", setup->key, "Key file of the password encryption")->required();
    init->add_option("--var", setup->var, "Folder shared with the console [STATE/var]");
    init->add_option("--scan-path", setup->scanPaths, "Folder to scan; may be repeated");

    PasswdOptions* options = nullptr;
    CLI::App* const passwd = addCommand(app, run, "passwd", "Set the console's password", options, runPasswd);
    passwd->add_option("--state", options->state, "The service's state folder")->required();
    passwd->add_flag("--stdin", options->fromStdin,
                     "Read it once from standard input instead of twice from the terminal");
    passwd->add_flag("--once", options->once, "Whoever logs on with it must choose another one first");

    SecondStepOptions* second = nullptr;
    CLI::App* const off =
        addCommand(app, run, "second-step-off", "Log on without a code again, when app and recovery codes are lost",
                   second, runSecondStepOff);
    off->add_option("--state", second->state, "The service's state folder")->required();
}

}  // namespace keldra
