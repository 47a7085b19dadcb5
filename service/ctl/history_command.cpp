#include "norv/protocol/scans.h"
#include "service/ctl/command_line.h"
#include "service/ctl/control_client.h"
#include "service/ctl/output.h"

#include <string>

namespace keldra {

namespace {

struct HistoryOptions {
    std::string kind;
};

int runHistory(const HistoryOptions& options) {
    auto answer = ask(protocol::GetScanHistory());
    if (!answer) return fail(faultOf(answer));
    auto& scans = answer.reply.scans;
    if (!options.kind.empty())
        std::erase_if(scans, [&options](const protocol::ScanSummary& scan) { return scan.kind != options.kind; });
    if (jsonWanted()) return print(lowerJson(scans)), STATUS_DONE;
    for (const protocol::ScanSummary& scan : scans)
        print(scan.id + "  " + timeText(scan.started) + "  " + scan.kind + "  " + scan.outcome + "  " +
              std::to_string(scan.scanned) + " scanned, " + std::to_string(scan.found) + " infected, " +
              std::to_string(scan.notFullyScanned) + " not fully scanned, " + std::to_string(scan.skipped) +
              " skipped, " + sizeText(scan.bytes) + (scan.lastFile.empty() ? "" : ", at " + printable(scan.lastFile)));
    return STATUS_DONE;
}

}  // namespace

void describeHistory(CLI::App& app, Run& run) {
    HistoryOptions* options = nullptr;
    CLI::App* const history = addCommand(app, run, "history", "List the scans, newest first", options, runHistory);
    history->add_option("--kind", options->kind, "Only those of a kind")
        ->check(CLI::IsMember({protocol::KIND_MANUAL, protocol::KIND_SCHEDULED, protocol::KIND_PATH}));
}

}  // namespace keldra
