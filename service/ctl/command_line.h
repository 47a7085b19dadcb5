#pragma once

#include "service/ctl/fault.h"
#include "service/ctl/output.h"

#include <CLI/CLI.hpp>

#include <functional>
#include <memory>
#include <string>

namespace keldra {

// Exit statuses, of scans as virus scanners have them.
inline constexpr int STATUS_DONE = 0;
inline constexpr int STATUS_FOUND = 1;
inline constexpr int STATUS_ERROR = 2;
/// Of `status`, where 0, 1 and 2 are the verdict.
inline constexpr int STATUS_UNKNOWN = 3;

/// What the command line asks for: run after all of it is read. Returns the exit status.
using Run = std::function<int()>;

// Each describes one group of commands to the parser; a command that is given sets `run`. Both outlive the parsing.
void describeSetUp(CLI::App& app, Run& run);       // init, passwd, second-step-off
void describeStatus(CLI::App& app, Run& run);      // status
void describeScan(CLI::App& app, Run& run);        // scan
void describeHistory(CLI::App& app, Run& run);     // history
void describeEvents(CLI::App& app, Run& run);      // events
void describeMetrics(CLI::App& app, Run& run);     // metrics
void describeQuarantine(CLI::App& app, Run& run);  // quarantine …
void describeShareUser(CLI::App& app, Run& run);   // share-user
void describeUpdate(CLI::App& app, Run& run);      // update
void describeSettings(CLI::App& app, Run& run);    // settings …
void describeSessions(CLI::App& app, Run& run);    // sessions …

/// Adds a command whose options are kept as long as the parser; `run` gets the options. Every command knows --json.
template <typename Options>
CLI::App* addCommand(CLI::App& parent, Run& run, const char* name, const char* help, Options*& options,
                     int (*action)(const Options&)) {
    CLI::App* const command = parent.add_subcommand(name, help);
    const auto kept = std::make_shared<Options>();
    options = kept.get();
    command->add_flag("--json", jsonWanted(), "What it says as JSON, its errors too");
    command->callback([kept, &run, action] { run = [kept, action] { return action(*kept); }; });
    return command;
}

/// Says on standard error what went wrong, and as an object on standard output where JSON is wanted; returns `status`.
int fail(const Fault& fault, int status = STATUS_ERROR);
void print(const std::string& line);
/// Says that a command is done, with what there is to say of it. Returns its status.
int done(const std::string& message = {});

}  // namespace keldra
