#include "norv/protocol/quarantine.h"
#include "service/ctl/command_line.h"
#include "service/ctl/control_client.h"
#include "service/ctl/output.h"

#include <concepts>
#include <functional>
#include <set>
#include <string>

namespace keldra {

namespace {

struct QuarantineOptions {
    std::string id;
};

void printItem(const protocol::QuarantinedFile& item) {
    print(item.id + "  " + timeText(item.when) + "  " + (item.backup ? "backup  " : "") + printable(item.signature) +
          "  " + printable(item.path));
}

/// Calls `each` for all items, newest first. Returns why not, or nothing. What is put away meanwhile moves the others
/// on, so some come twice.
Fault forEachItem(const std::function<void(const protocol::QuarantinedFile&)>& each) {
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

int runQuarantineList(const QuarantineOptions&) {
    Fault fault;
    LowerJson json;
    json.array([&] {
        fault = forEachItem([&](const protocol::QuarantinedFile& item) {
            if (jsonWanted())
                json.value(item);
            else
                printItem(item);
        });
    });
    if (!fault.empty()) return fail(fault);
    if (jsonWanted()) print(json.text());
    return STATUS_DONE;
}

std::string shown(const std::string& text) { return printable(text); }
std::string shown(bool flag) { return flag ? "yes" : "no"; }
template <std::integral T>
requires(!std::same_as<T, bool>) std::string shown(T number) { return std::to_string(number); }

int runQuarantineShow(const QuarantineOptions& line) {
    const auto answer = ask(protocol::GetQuarantined{line.id});
    if (!answer) return fail(faultOf(answer));
    const protocol::QuarantinedFile& item = answer.reply.item;
    if (jsonWanted()) return print(lowerJson(item)), STATUS_DONE;
    protocol::QuarantinedFile::visit(
        item, [](const char* name, const auto& field) { print(lowerName(name) + ": " + shown(field)); });
    return STATUS_DONE;
}

template <typename Request>
int runQuarantineChange(const QuarantineOptions& line) {
    const auto answer = ask(Request{line.id});
    if (!answer) return fail(faultOf(answer));
    return done(printable(answer.reply.message));
}

int runTrusted(const QuarantineOptions&) {
    const auto answer = ask(protocol::GetTrusted());
    if (!answer) return fail(faultOf(answer));
    if (jsonWanted()) return print(lowerJson(answer.reply.trusted)), STATUS_DONE;
    for (const auto& entry : answer.reply.trusted) print(entry.sha256 + "  " + printable(entry.name));
    return STATUS_DONE;
}

template <typename Request>
void describeChange(CLI::App& quarantine, Run& run, const char* name, const char* help, const char* what = "id") {
    QuarantineOptions* options = nullptr;
    addCommand(quarantine, run, name, help, options, runQuarantineChange<Request>)
        ->add_option(what, options->id)
        ->required();
}

}  // namespace

void describeQuarantine(CLI::App& app, Run& run) {
    CLI::App* const quarantine = app.add_subcommand("quarantine", "Look after the files put away");
    quarantine->require_subcommand(1);
    QuarantineOptions* options = nullptr;
    addCommand(*quarantine, run, "list", "List them, newest first", options, runQuarantineList);
    CLI::App* const show =
        addCommand(*quarantine, run, "show", "Show all that is known about one", options, runQuarantineShow);
    show->add_option("id", options->id)->required();
    using namespace protocol;
    describeChange<RestoreQuarantined>(*quarantine, run, "restore", "Put one back where it was; never overwrites");
    describeChange<DeleteQuarantined>(*quarantine, run, "delete", "Delete one for good");
    describeChange<TrustQuarantined>(*quarantine, run, "trust", "Never again report files of its content");
    describeChange<Distrust>(*quarantine, run, "distrust", "Take a SHA-256 off the trusted ones", "sha256");
    addCommand(*quarantine, run, "trusted", "List what is trusted", options, runTrusted);
}

}  // namespace keldra
