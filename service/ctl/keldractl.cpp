#include "norv/printable.h"
#include "service/base/version.h"
#include "service/ctl/command_line.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

namespace {

using keldra::fail;
using keldra::STATUS_ERROR;
using keldra::STATUS_UNKNOWN;

using keldra::Fault;

bool isEveryCommand(const CLI::App*) { return true; }

/// The first word that is no command or option of ours; nothing when all are.
Fault unknownWord(const CLI::App*& current, const std::vector<std::string>& words) {
    for (std::size_t i = 0; i < words.size() && words[i] != "--"; ++i) {
        const std::string& word = words[i];
        if (word.size() > 1 && word[0] == '-') {
            const std::string name = word.substr(0, word.find('='));
            const CLI::Option* const option = current->get_option_no_throw(name);
            if (!option)
                return {keldra::FAULT_UNKNOWN_OPTION, "unknown option \"" + printable(name) + "\"; --help says more"};
            if (option->get_items_expected_max() > 0 && name == word) ++i;
            continue;
        }
        if (current->get_subcommands(isEveryCommand).empty()) continue;
        const auto named = current->get_subcommands([&word](const CLI::App* one) { return one->check_name(word); });
        if (named.empty())
            return {keldra::FAULT_UNKNOWN_COMMAND,
                    "unknown command \"" + printable(word) + "\"; keldractl --help lists them"};
        current = named.front();
    }
    return {};
}

/// What is wrong with the words.
Fault wrongUse(const CLI::App& app, const CLI::ParseError& error, const std::vector<std::string>& words) {
    const CLI::App* current = &app;
    if (Fault unknown = unknownWord(current, words); !unknown.empty()) return unknown;
    std::string commands;
    for (const CLI::App* const one : current->get_subcommands(isEveryCommand))
        commands.append(commands.empty() ? "" : ", ").append(one->get_name());
    if (!commands.empty() && error.get_name() == "RequiredError")
        return {keldra::FAULT_ARGUMENTS, "one of these must follow: " + commands};
    return {keldra::FAULT_ARGUMENTS, printable(error.what()) + "; --help says more"};
}

/// Its status is never one that `status` has for a verdict.
int refuse(const CLI::App& app, const CLI::ParseError& error, const std::vector<std::string>& words) {
    const bool isStatus = !words.empty() && words[0] == "status";
    if (error.get_exit_code() == 0) return app.exit(error);
    // The parser stopped before it knew.
    const auto end = std::find(words.begin(), words.end(), "--");
    keldra::jsonWanted() = std::find(words.begin(), end, "--json") != end;
    return fail(wrongUse(app, error, words), isStatus ? STATUS_UNKNOWN : STATUS_ERROR);
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
        return refuse(app, error, {argv + std::min(argc, 1), argv + argc});
    }
    if (!socket.empty()) ::setenv("KELDRA_SOCKET", socket.c_str(), 1);
    // What goes wrong is told on standard error; the log is the service's.
    return run();
} catch (const std::exception& error) {
    return fail({keldra::FAULT_FAILED, error.what()});
}
