#include "norv/counted.h"
#include "norv/protocol/status.h"
#include "service/ctl/command_line.h"
#include "service/ctl/control_client.h"
#include "service/ctl/output.h"

#include <algorithm>
#include <optional>
#include <string>

namespace keldra {

namespace {

struct StatusOptions {};

std::string databaseLine(const protocol::ServiceStatus& status) {
    const std::string message = status.engineMessage.empty() ? "" : " (" + status.engineMessage + ")";
    if (status.database != protocol::DATABASE_LOADED) return status.database + message;
    return counted(status.signatures, "signature", "signatures") + ", version " + status.databaseVersion + " of " +
           timeText(status.databaseTime, "unknown date") + message;
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

std::string quarantineLine(const protocol::ServiceStatus& status) {
    std::string line = counted(status.quarantined, "file", "files") + ", " + sizeText(status.quarantineBytes);
    if (status.quarantineLimit != 0) line += " of " + sizeText(status.quarantineLimit);
    if (status.quarantineRoom) line += ", room for " + sizeText(*status.quarantineRoom);
    return status.quarantined == 0 ? line : line + ", the oldest of " + timeText(status.quarantineOldest);
}

/// 0 protected, 1 something wants attention, 2 not protected; 3 for a verdict that this version does not know.
int statusOf(const std::string& verdict) {
    if (verdict == protocol::VERDICT_PROTECTED) return 0;
    if (verdict == protocol::VERDICT_ATTENTION) return 1;
    return verdict == protocol::VERDICT_UNPROTECTED ? 2 : STATUS_UNKNOWN;
}

std::string countText(const protocol::VerdictReason& reason) {
    const std::string& unit = reason.unit;
    if (unit == "days") return counted(reason.count, "day", "days");
    if (unit == "files") return counted(reason.count, "file", "files");
    if (unit == "folders") return counted(reason.count, "folder", "folders");
    if (unit == "mib_free") return sizeText(reason.count << 20U) + " free";
    if (unit == "mib" && reason.count > 0) return sizeText(reason.count << 20U);
    return "";
}

void printVerdict(const protocol::ServiceStatus& status) {
    const int verdict = statusOf(status.verdict);
    print(std::string("This server ") + (verdict == 0   ? "is protected."
                                         : verdict == 1 ? "is protected, but something wants attention:"
                                                        : "is NOT protected:"));
    for (const protocol::VerdictReason& reason : status.reasons) {
        const std::string told = countText(reason);
        const std::string count = told.empty() ? "" : " [" + told + "]";
        const std::string detail = reason.detail.empty() ? "" : " (" + printable(reason.detail) + ")";
        std::string line = reason.severity == protocol::VERDICT_UNPROTECTED ? "  !! " : "  -  ";
        print(line.append(reason.text).append(count).append(detail));
    }
    print("");
}

void printLastScan(const protocol::ScanSummary& scan) {
    const std::string at = scan.lastFile.empty() ? "" : ", at " + printable(scan.lastFile);
    print("Last " + scan.kind + " scan: " + std::string(10 - std::min<std::size_t>(9, scan.kind.size()), ' ') +
          timeText(scan.ended != 0 ? scan.ended : scan.started) + ", " + scan.outcome + ", " +
          std::to_string(scan.scanned) + " scanned, " + std::to_string(scan.found) + " infected, " +
          std::to_string(scan.notFullyScanned + scan.skipped) + " not scanned wholly" + at);
}

void printDetails(const protocol::ServiceStatus& status) {
    const std::string& fault = status.configuration;
    print("Version:         " + status.version + ", up " + durationText(status.uptime));
    print("Configuration:   " + (fault.empty() ? "good" : "cannot be used: " + fault));
    print("Signatures:      " + databaseLine(status));
    print("Engine:          " + status.engineVersion);
    print("Real-time scan:  " + realtimeLine(status));
    print("Running scans:   " + scansLine(status));
    print("Next scan:       " + timeText(status.nextScan, "not scheduled"));
    print("Next update:     " + timeText(status.nextUpdate, "not scheduled"));
    for (const protocol::ScanSummary& scan : status.lastScans) printLastScan(scan);
    print("In quarantine:   " + quarantineLine(status));
    if (status.quarantineAnnounced > 0)
        print("To be removed:   " + std::to_string(status.quarantineAnnounced) + " of them, " +
              sizeText(status.quarantineAnnouncedBytes) + ", from " + timeText(status.quarantineRemoval) + " on");
    print("Log-on sessions: " + std::to_string(status.sessions));
}

int runStatus(const StatusOptions&) {
    const auto answer = ask(protocol::GetServiceStatus());
    if (!answer) return fail(faultOf(answer), STATUS_UNKNOWN);
    if (jsonWanted()) {
        print(lowerJson(answer.reply));
    } else {
        printVerdict(answer.reply);
        printDetails(answer.reply);
    }
    return statusOf(answer.reply.verdict);
}

}  // namespace

void describeStatus(CLI::App& app, Run& run) {
    StatusOptions* options = nullptr;
    addCommand(app, run, "status",
               "Say whether this server is protected, and how the service is doing. Status 0: protected, 1: something "
               "wants attention, 2: not protected, 3: no answer",
               options, runStatus);
}

}  // namespace keldra
