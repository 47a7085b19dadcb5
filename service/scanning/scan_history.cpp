#include "service/scanning/scan_history.h"

#include "norv/json_text.h"
#include "norv/json_value.h"
#include "norv/log.h"
#include "service/scanning/scan_events.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <limits>
#include <optional>
#include <utility>

namespace keldra {

namespace {

constexpr std::size_t LARGEST_STATUS = std::size_t{1} << 20U;
constexpr std::size_t ALL = std::numeric_limits<std::size_t>::max();
constexpr int JOURNAL_PATIENCE = 5000;  // milliseconds
constexpr std::array<const char*, 3> KINDS{"manual", "scheduled", "path"};

std::string toText(const ScanStatus& status) {
    JsonText json;
    json.object([&] {
        json.member("id", status.id).member("kind", scanKindName(status.kind)).member("state", status.state);
        json.member("total", status.total).member("scanned", status.scanned).member("found", status.found);
        json.member("notFullyScanned", status.notFullyScanned).member("skipped", status.skipped);
        json.member("bytes", status.bytes).member("started", status.started).member("ended", status.ended);
        json.member("bytesDone", status.bytesDone).member("totalBytes", status.totalBytes);
        json.member("lastFile", status.state == ScanState::RUNNING ? status.currentFile : status.lastFile);
        json.member("message", status.message);
    });
    return json.text();
}

bool isId(const std::string& id) { return !id.empty() && id.find_first_not_of("0123456789_") == std::string::npos; }

std::optional<ScanStatus> statusFromText(const std::string& text) {
    const JsonDocument json = parseJson(text);
    const auto* const kind = std::find(KINDS.begin(), KINDS.end(), textOf(json, "kind"));
    const int64_t state = numberOf(json, "state");
    if (!json.IsObject() || kind == KINDS.end() || !isId(textOf(json, "id")) || state < 1 || state > 4)
        return std::nullopt;
    ScanStatus status;
    status.id = textOf(json, "id");
    status.kind = static_cast<ScanKind>(kind - KINDS.begin());
    status.state = static_cast<ScanState>(state);
    status.total = sizeOf(json, "total");
    status.scanned = sizeOf(json, "scanned");
    status.found = sizeOf(json, "found");
    status.notFullyScanned = sizeOf(json, "notFullyScanned");
    status.skipped = sizeOf(json, "skipped");
    status.bytes = sizeOf(json, "bytes");
    status.started = numberOf(json, "started");
    status.ended = numberOf(json, "ended");
    status.bytesDone = sizeOf(json, "bytesDone");
    status.totalBytes = sizeOf(json, "totalBytes");
    status.lastFile = textOf(json, "lastFile");
    status.message = textOf(json, "message");
    return status;
}

ScanFind findFromText(const std::string& line) {
    ScanFind find;
    readJsonText(line, find);
    return find;
}

std::string toLine(const ScanFind& find) { return jsonText(find) + "\n"; }

/// What came of it: "why; files scanned: 7; infected: 0". That it was completed its action says.
std::string storyOf(const ScanStatus& status) {
    std::string story = status.state == ScanState::COMPLETED ? "" : status.message;
    const auto say = [&story](const char* what, uint64_t number) {
        story.append(story.empty() ? "" : "; ").append(what).append(": ").append(std::to_string(number));
    };
    say("files scanned", status.scanned);
    say("infected", status.found);
    if (status.notFullyScanned > 0) say("not fully scanned", status.notFullyScanned);
    if (status.skipped > 0) say("skipped", status.skipped);
    return story;
}

Event endOf(const ScanStatus& status) {
    const bool good = status.state == ScanState::COMPLETED && status.found == 0;
    return {.time = status.ended,
            .kind = EventKind::SCAN,
            .severity = good ? EventSeverity::INFO : EventSeverity::WARNING,
            .task = scanKindName(status.kind),
            .path = status.lastFile,
            .action = scanOutcome(status),
            .detail = storyOf(status),
            .record = toText(status)};
}

}  // namespace

std::string scanKindName(ScanKind kind) { return KINDS.at(static_cast<std::size_t>(kind)); }

std::string scanOutcome(const ScanStatus& status) {
    switch (status.state) {
        case ScanState::RUNNING:
            return "running";
        case ScanState::COMPLETED:
            return "completed";
        case ScanState::FAILED:
            return "failed";
        case ScanState::STOPPED:
            return status.message == SCAN_STOPPED ? "stopped" : "interrupted";
        case ScanState::NOT_RUNNING:
            break;
    }
    return "none";
}

const std::vector<std::string>& scanMessages() {
    static const std::vector<std::string> MESSAGES{SCAN_COMPLETE,    SCAN_STOPPED,         SCAN_SHUT_DOWN,
                                                   SCAN_INTERRUPTED, SCAN_BROKEN,          SCAN_NO_SIGNATURES,
                                                   SCAN_NO_FOLDER,   SCAN_NOTHING_READABLE};
    return MESSAGES;
}

bool ScanHistory::open() const {
    const bool made = makeFolder(folder_, 0700);
    if (!made) NORV_LOG(NORV_LOG_ERROR, "cannot make %s: %s", folder_.c_str(), errorText(errno).c_str());
    return made;
}

std::map<std::string, ScanStatus> ScanHistory::fromJournal() const {
    std::map<std::string, ScanStatus> all;
    for (const Event& event : journal_.query({.kinds = {EventKind::SCAN}}, 0, ALL).events) {
        if (event.record.empty()) continue;
        if (auto status = statusFromText(event.record)) all.try_emplace(status->id, std::move(*status));
    }
    return all;
}

/// Those of which there is a file still, in the order of their ends.
std::vector<ScanStatus> ScanHistory::unsettled() const {
    std::vector<ScanStatus> all;
    std::error_code failed;
    for (std::filesystem::directory_iterator entry(folder_, failed), end; !failed && entry != end;
         entry.increment(failed)) {
        if (entry->path().extension() != ".json") continue;
        int error = 0;
        const std::optional<std::string> text = readFile(entry->path(), LARGEST_STATUS, error);
        std::optional<ScanStatus> status = text ? statusFromText(*text) : std::nullopt;
        if (status && status->id == entry->path().stem().string())
            all.push_back(std::move(*status));
        else
            NORV_LOG(NORV_LOG_ERROR, "%s is no result of a scan; left alone", entry->path().c_str());
    }
    std::sort(all.begin(), all.end(), [](const ScanStatus& a, const ScanStatus& b) {
        return std::pair(a.ended, a.id) < std::pair(b.ended, b.id);
    });
    return all;
}

/// What a scan reported before there was a journal: with it events and daily figures reach as far back as the history.
void ScanHistory::tellReports(const ScanStatus& status) const {
    constexpr std::size_t MOST = 200;
    std::map<EventKind, std::uint64_t> left{{EventKind::FIND, status.found},
                                            {EventKind::NOT_SCANNED, status.notFullyScanned + status.skipped}};
    const auto tell = [&](Event event) {
        event.time = status.ended;
        event.untold = true;
        left[event.kind] -= std::min(left[event.kind], event.count);
        journal_.add(std::move(event));
    };
    for (const ScanFind& find : finds(status.id, 0, MOST)) tell(eventOfFind(find, status));
    for (const EventKind kind : {EventKind::FIND, EventKind::NOT_SCANNED})
        if (left[kind] > 0) tell(eventOfFurther(kind, status, left[kind]));
    journal_.countScanned(status.scanned, status.ended);
    journal_.flush(JOURNAL_PATIENCE);
}

std::map<std::string, ScanStatus> ScanHistory::readAll() const {
    const bool journalIsNew = journal_.query({}, 0, 1).total == 0;
    std::map<std::string, ScanStatus> all = fromJournal();
    std::map<std::string, std::uint64_t> told;
    for (ScanStatus& status : unsettled()) {
        if (all.count(status.id) != 0) {
            removeFile(status.id, ".json");
            continue;
        }
        const bool wasRunning = status.state == ScanState::RUNNING;
        if (wasRunning) status = closed(std::move(status));
        if (journalIsNew) tellReports(status);
        Event event = endOf(status);
        event.untold = !wasRunning;
        told[status.id] = journal_.add(std::move(event));
        all.emplace(status.id, std::move(status));
    }
    if (!told.empty()) journal_.flush(JOURNAL_PATIENCE);
    for (const auto& [id, event] : told) settle(id, event);
    return all;
}

std::uint64_t ScanHistory::tellEnd(const ScanStatus& status) const { return journal_.add(endOf(status)); }

bool ScanHistory::settle(const std::string& id, std::uint64_t event) const {
    if (!journal_.onDisk(event)) return false;
    removeFile(id, ".json");
    return true;
}

void ScanHistory::removeOthers(const std::set<std::string>& ids) const {
    if (!journal_.problem().empty()) return;
    std::error_code failed;
    for (std::filesystem::directory_iterator entry(folder_, failed), end; !failed && entry != end;
         entry.increment(failed)) {
        const std::string id = entry->path().stem().string();
        if (entry->path().extension() == ".finds" && isId(id) && ids.count(id) == 0) removeFile(id, ".finds");
    }
}

/// What is known of a scan that the service did not live to end: its reports are complete, its counts nearly.
ScanStatus ScanHistory::closed(ScanStatus status) const {
    const std::vector<ScanFind> reports = finds(status.id, 0, ALL);
    const auto infected =
        std::count_if(reports.begin(), reports.end(), [](const ScanFind& find) { return find.infected; });
    status.found = std::max(status.found, static_cast<uint64_t>(infected));
    status.state = ScanState::STOPPED;
    status.message = SCAN_INTERRUPTED;
    std::error_code error;
    const auto touched = std::filesystem::last_write_time(pathOf(status.id, ".json"), error);
    const auto age =
        std::chrono::duration_cast<std::chrono::seconds>(std::filesystem::file_time_type::clock::now() - touched);
    status.ended = std::max(status.started, static_cast<int64_t>(std::time(nullptr)) - (error ? 0 : age.count()));
    save(status);
    return status;
}

bool ScanHistory::save(const ScanStatus& status) const {
    const std::string path = pathOf(status.id, ".json");
    const WriteResult written = writeFileAtomically(path, toText(status) + "\n", 0600);
    if (!written) NORV_LOG(NORV_LOG_ERROR, "cannot write %s: %s", path.c_str(), errorText(written.error).c_str());
    return written.written;
}

FileDescriptor ScanHistory::openFinds(const std::string& id) const {
    const std::string path = pathOf(id, ".finds");
    FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    if (!file) NORV_LOG(NORV_LOG_ERROR, "cannot write %s: %s", path.c_str(), errorText(errno).c_str());
    return file;
}

bool ScanHistory::append(const FileDescriptor& finds, const ScanFind& find) {
    if (!finds) return false;
    const std::string line = toLine(find);
    const off_t end = ::lseek(finds.get(), 0, SEEK_END);
    if (::write(finds.get(), line.data(), line.size()) == static_cast<ssize_t>(line.size())) return true;
    NORV_LOG(NORV_LOG_ERROR, "a report of a scan cannot be stored: %s", errorText(errno).c_str());
    // Half a line would spoil the next one.
    if (end < 0 || ::ftruncate(finds.get(), end) != 0)
        NORV_LOG(NORV_LOG_ERROR, "the reports of a scan cannot be cut to whole lines: %s", errorText(errno).c_str());
    return false;
}

bool ScanHistory::saveFinds(const std::string& id, const std::vector<ScanFind>& finds) const {
    std::string lines;
    for (const ScanFind& find : finds) lines += toLine(find);
    const std::string path = pathOf(id, ".finds");
    const WriteResult written = writeFileAtomically(path, lines, 0600);
    if (!written) NORV_LOG(NORV_LOG_ERROR, "cannot write %s: %s", path.c_str(), errorText(written.error).c_str());
    return written.written;
}

std::vector<ScanFind> ScanHistory::finds(const std::string& id, std::size_t from, std::size_t count) const {
    std::vector<ScanFind> found;
    std::ifstream file(pathOf(id, ".finds"));
    std::string line;
    for (std::size_t i = 0; found.size() < count && std::getline(file, line); ++i) {
        if (i >= from) found.push_back(findFromText(line));
    }
    return found;
}

std::vector<ScanFind> ScanHistory::leftFinds(const std::string& id, std::size_t count) const {
    std::vector<ScanFind> left;
    std::ifstream file(pathOf(id, ".finds"));
    for (std::string line; left.size() < count && std::getline(file, line);) {
        if (line.find("\"left\":true") == std::string::npos) continue;  // spares reading all the others
        ScanFind find = findFromText(line);
        if (find.left) left.push_back(std::move(find));
    }
    return left;
}

void ScanHistory::forget(const std::string& id) const {
    removeFile(id, ".finds");
    removeFile(id, ".json");
}

void ScanHistory::removeFile(const std::string& id, const char* extension) const {
    ::unlink(pathOf(id, extension).c_str());
}

}  // namespace keldra
