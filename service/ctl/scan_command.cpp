#include "norv/counted.h"
#include "norv/path_list.h"
#include "norv/protocol/scans.h"
#include "norv/protocol/status.h"
#include "service/ctl/command_line.h"
#include "service/ctl/control_client.h"
#include "service/ctl/output.h"
#include "service/ctl/progress_bar.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace keldra {

namespace {

using protocol::ScanState;

constexpr std::chrono::milliseconds POLL_INTERVAL{100};

struct ScanOptions {
    std::vector<std::string> paths;
    bool act = false;
    unsigned int workers = 0;
};

std::atomic<bool> interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free);

void printFind(const protocol::ScanFind& find) {
    const std::string what = find.infected  ? printable(find.signature) + " FOUND"
                             : find.skipped ? "SKIPPED"
                                            : "NOT FULLY SCANNED";
    print(printable(find.path) + ": " + what + (find.detail.empty() ? "" : " (" + printable(find.detail) + ")"));
}

/// Prints the finds from number `from` on; returns the number after the last one.
std::size_t printFinds(const std::string& id, std::size_t from) {
    for (;;) {
        const auto answer = ask(protocol::GetScanFinds{id, from});
        const auto& finds = answer.reply.finds;
        if (!answer || finds.empty()) return from;
        if (jsonWanted())
            print(lowerJson(finds));
        else
            std::for_each(finds.begin(), finds.end(), printFind);
        from += finds.size();
    }
}

/// Whether only the file for trying out can be found; then no file counts as clean.
bool lacksSignatures() {
    const auto answer = ask(protocol::GetServiceStatus());
    const auto& reasons = answer.reply.reasons;
    return answer && std::any_of(reasons.begin(), reasons.end(), [](const protocol::VerdictReason& reason) {
               return reason.reason == "no_signatures";
           });
}

/// As the history lists it.
protocol::ScanSummary summaryOf(const std::string& id, const protocol::ScanProgress& scan) {
    return {.id = id,
            .kind = scan.kind,
            .state = scan.state,
            .total = static_cast<uint64_t>(scan.total),
            .scanned = static_cast<uint64_t>(scan.scanned),
            .found = static_cast<uint64_t>(scan.found),
            .notFullyScanned = scan.notFullyScanned,
            .skipped = scan.skipped,
            .bytes = scan.bytes,
            .started = scan.started,
            .ended = scan.ended,
            .message = scan.message,
            .outcome = scan.outcome,
            .lastFile = scan.lastFile,
            .saved = scan.saved};
}

int printSummary(const std::string& id, const protocol::ScanProgress& scan) {
    const int missing =
        scan.state == ScanState::COMPLETED && lacksSignatures()
            ? fail({FAULT_NO_SIGNATURES, "There are no virus signatures, so nothing but the test file can be found."})
            : 0;
    if (jsonWanted()) {
        print(lowerJson(summaryOf(id, scan)));
    } else {
        print("Scanned " + std::to_string(scan.scanned) + ", infected " + std::to_string(scan.found) +
              ", not fully scanned " + std::to_string(scan.notFullyScanned) + ", skipped " +
              std::to_string(scan.skipped));
    }
    if (scan.state != ScanState::COMPLETED)
        return fail({FAULT_INCOMPLETE, "The scan did not run to its end. " + scan.message});
    if (scan.found > 0) return STATUS_FOUND;
    if (missing != 0) return missing;
    return scan.notFullyScanned + scan.skipped > 0 ? STATUS_ERROR : STATUS_DONE;
}

/// By bytes: a big file is not a hundredth of as many small ones.
void showScan(ProgressBar& bar, const protocol::ScanProgress& scan) {
    std::string remark = sizeText(scan.bytesDone) + " of " + sizeText(scan.bytesTotal) + ", ";
    if (!scan.paused.empty()) remark = "paused, " + remark;
    if (scan.secondsLeft >= 0) remark += durationText(scan.secondsLeft) + " left, ";
    remark += std::to_string(scan.scanned) + " of " + counted(static_cast<uint64_t>(scan.total), "file", "files") +
              ", " + std::to_string(scan.found) + " infected, " + printable(scan.currentFile);
    bar.show(scan.bytesDone, scan.counting ? 0 : scan.bytesTotal, remark);
}

int follow(const std::string& id) {
    ProgressBar bar;
    std::size_t printed = 0;
    bool stopped = false;
    for (;;) {
        if (interrupted && !std::exchange(stopped, true)) ask(protocol::StopPathScan{id});
        const auto answer = ask(protocol::GetScanProgress{id});
        if (!answer) return fail(faultOf(answer));
        bar.clear();
        printed = printFinds(id, printed);
        if (answer.reply.state != ScanState::RUNNING) return printSummary(id, answer.reply);
        showScan(bar, answer.reply);
        std::this_thread::sleep_for(POLL_INTERVAL);
    }
}

int runScan(const ScanOptions& line) {
    std::vector<std::string> paths;
    for (const std::string& path : line.paths) paths.push_back(std::filesystem::absolute(path).lexically_normal());
    const auto answer =
        ask(protocol::StartPathScan{.paths = joinPathList(paths), .act = line.act, .workers = line.workers});
    if (!answer) return fail(faultOf(answer));
    std::signal(SIGINT, [](int) { interrupted = true; });
    return follow(answer.reply.requestId);
}

}  // namespace

void describeScan(CLI::App& app, Run& run) {
    ScanOptions* options = nullptr;
    CLI::App* const scan =
        addCommand(app, run, "scan",
                   "Scan files and folders. Status 0: all clean, 1: something found, 2: an error, or not all could be "
                   "scanned",
                   options, runScan);
    scan->add_option("path", options->paths, "Files and folders")->required();
    scan->add_flag("--act", options->act,
                   "Do to finds what the manual scan's settings say; else they are only reported");
    scan->add_option("--workers", options->workers, "Files scanned at a time; 0: the service decides")
        ->check(CLI::Range(0U, protocol::MAX_WORKERS))
        ->capture_default_str();
}

}  // namespace keldra
