#include "service/base/version.h"
#include "service/ctl/command_line.h"

#include <CLI/CLI.hpp>

#include <cstdlib>
#include <exception>
#include <string>
#include <string_view>

namespace {

using keldra::fail;
using keldra::STATUS_ERROR;
using keldra::STATUS_UNKNOWN;

/// What is wrong with the words, in one sentence.
std::string wrongUse(const CLI::App& app, const CLI::ParseError& error, int argc, char** argv) {
    const CLI::App* current = &app;
    for (int i = 1; i < argc && !current->get_subcommands([](const CLI::App*) { return true; }).empty(); ++i) {
        std::string word = argv[i];
        if (word == "--socket") ++i;
        if (word.starts_with('-')) continue;
        const auto named = current->get_subcommands([&word](const CLI::App* one) { return one->check_name(word); });
        if (named.empty()) return "unknown command \"" + word + "\"; keldractl --help lists them";
        current = named.front();
    }
    std::string commands;
    for (const CLI::App* const one : current->get_subcommands([](const CLI::App*) { return true; }))
        commands.append(commands.empty() ? "" : ", ").append(one->get_name());
    if (!commands.empty() && error.get_name() == "RequiredError") return "one of these must follow: " + commands;
    return std::string(error.what()) + "; --help says more";
}

/// Its status is never one that `status` has for a verdict.
int refuse(const CLI::App& app, const CLI::ParseError& error, int argc, char** argv) {
    const bool isStatus = argc > 1 && std::string_view(argv[1]) == "status";
    if (error.get_exit_code() == 0) return app.exit(error);
    return fail(wrongUse(app, error, argc, argv), isStatus ? STATUS_UNKNOWN : STATUS_ERROR);
}

}  // namespace

int main(int argc, char** argv) try {
    std::string socket;
    keldra::Run run;
    CLI::App app("Looks after the Keldra service from the command line.", "keldractl");
    app.set_version_flag("--version", std::string("keldractl ") + keldra::VERSION);
    app.add_option("--socket", socket, "Socket of the service (KELDRA_SOCKET) [/run/keldra/keldrad.sock]");
    app.require_subcommand(1);
    for (const auto describe :
         {keldra::describeStatus, keldra::describeScan, keldra::describeHistory, keldra::describeEvents,
          keldra::describeMetrics, keldra::describeShareUser, keldra::describeQuarantine, keldra::describeUpdate,
          keldra::describeSettings, keldra::describeSessions, keldra::describeSetUp})
        describe(app, run);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return refuse(app, error, argc, argv);
    }
    if (!socket.empty()) ::setenv("KELDRA_SOCKET", socket.c_str(), 1);
    // What goes wrong is told on standard error; the log is the service's.
    return run();
} catch (const std::exception& error) {
    return fail(error.what());
}
