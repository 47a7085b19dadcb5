#include "service/scanning/scan_report.h"

#include "norv/log.h"

#include <algorithm>
#include <utility>

namespace keldra {

namespace {

constexpr std::int64_t SAVE_EVERY = 5000;  // milliseconds

}  // namespace

ScanReport::ScanReport(ScanStatus first, const ScanHistory& history, const Clock& clock, std::size_t limit,
                       ScanFindListener listener)
    : history_(history),
      clock_(clock),
      limit_(limit),
      listener_(std::move(listener)),
      findsFile_(history.openFinds(first.id)),
      status_(std::move(first)),
      remaining_(clock.steadyMilliseconds()),
      savedAt_(clock.steadyMilliseconds()),
      findsSaved_(static_cast<bool>(findsFile_)),
      statusSaved_(history.save(status_)) {}

void ScanReport::counted(std::uint64_t bytes) {
    ++countedFiles_;
    countedBytes_ += bytes;
}

void ScanReport::begin(const std::string& path) {
    const std::lock_guard lock(mutex_);
    status_.currentFile = path;
}

void ScanReport::scanned(const ScanResult& result, std::uint64_t bytes, ScanFind find) {
    if (result.verdict != Verdict::CLEAN) report(std::move(find));
    const std::lock_guard lock(mutex_);
    ++status_.scanned;
    status_.bytesDone += bytes;
    if (result.verdict != Verdict::NOT_FULLY_SCANNED) status_.bytes += bytes;
    if (result.verdict == Verdict::INFECTED) ++status_.found;
    if (result.verdict == Verdict::NOT_FULLY_SCANNED) ++status_.notFullyScanned;
    measure();
}

void ScanReport::skipped(const std::string& path, const std::string& reason, std::uint64_t bytes) {
    NORV_LOG(NORV_LOG_WARNING, "%s was skipped: %s", path.c_str(), reason.c_str());
    ScanFind find;
    find.path = path;
    find.infected = false;
    find.skipped = true;
    find.detail = reason;
    report(std::move(find));
    const std::lock_guard lock(mutex_);
    ++status_.skipped;
    status_.bytesDone += bytes;
    measure();
}

void ScanReport::paused(std::int64_t milliseconds) {
    const std::lock_guard lock(mutex_);
    remaining_.leaveOut(milliseconds - pausedFor_);
    pausedFor_ = milliseconds;
}

/// A guess from totals that still grow would only be wrong.
void ScanReport::measure() {
    if (countingDone_)
        remaining_.measure(clock_.steadyMilliseconds(), status_.bytesDone, status_.scanned + status_.skipped,
                           countedBytes_, countedFiles_);
}

void ScanReport::report(ScanFind find) {
    const std::lock_guard lock(mutex_);
    if (listener_) listener_(status_, find);
    // Half of the room is for what is infected: nobody hides that behind any number of encrypted files.
    if (finds_.size() >= limit_ || (!find.infected && unsureReports_ >= limit_ / 2)) return;
    if (!find.infected) ++unsureReports_;
    findsSaved_ = ScanHistory::append(findsFile_, find) && findsSaved_;
    finds_.push_back(std::move(find));
}

ScanStatus ScanReport::status() const {
    const std::lock_guard lock(mutex_);
    ScanStatus copy = status_;
    copy.saved = findsSaved_ && statusSaved_;
    if (copy.state != ScanState::RUNNING) return copy;
    copy.total = std::max(countedFiles_.load(), copy.scanned + copy.skipped);
    copy.totalBytes = std::max(countedBytes_.load(), copy.bytesDone);
    copy.counting = !countingDone_;
    copy.secondsLeft = remaining_.seconds().value_or(-1);
    return copy;
}

std::vector<ScanFind> ScanReport::finds(std::size_t from, std::size_t count) const {
    const std::lock_guard lock(mutex_);
    if (from >= finds_.size()) return {};
    const auto begin = finds_.begin() + static_cast<std::ptrdiff_t>(from);
    return {begin, begin + static_cast<std::ptrdiff_t>(std::min(count, finds_.size() - from))};
}

std::vector<ScanFind> ScanReport::leftFinds(std::size_t count) const {
    std::vector<ScanFind> left;
    const std::lock_guard lock(mutex_);
    for (auto find = finds_.begin(); find != finds_.end() && left.size() < count; ++find)
        if (find->left) left.push_back(*find);
    return left;
}

bool ScanReport::save(const ScanStatus& status) {
    const bool saved = history_.save(status);
    const std::lock_guard lock(mutex_);
    statusSaved_ = saved;
    return saved;
}

void ScanReport::saveNowAndThen() {
    const std::int64_t now = clock_.steadyMilliseconds();
    {
        const std::lock_guard lock(mutex_);
        if (now - savedAt_ < SAVE_EVERY) return;
        savedAt_ = now;
    }
    save(status());
}

void ScanReport::tellEnd() {
    const std::uint64_t event = history_.tellEnd(status());
    const std::lock_guard lock(mutex_);
    end_ = event;
}

bool ScanReport::settle() {
    const ScanStatus last = status();
    if (!last.saved && !saveAgain()) return false;
    std::uint64_t event = 0;
    {
        const std::lock_guard lock(mutex_);
        event = end_;
    }
    if (event == 0) tellEnd();
    return event != 0 && history_.settle(last.id, event);
}

bool ScanReport::saveAgain() {
    const ScanStatus last = status();
    std::vector<ScanFind> all;
    bool rewrite = false;
    {
        const std::lock_guard lock(mutex_);
        rewrite = !findsSaved_;
        if (rewrite) all = finds_;
    }
    const bool rewritten = !rewrite || history_.saveFinds(last.id, all);
    {
        const std::lock_guard lock(mutex_);
        findsSaved_ = rewritten;
    }
    return save(last) && rewritten;
}

/// The result is on disk before anybody is told that the scan has ended.
void ScanReport::finish(ScanState state, const std::string& message) {
    ScanStatus last = status();
    last.state = state;
    last.message = message;
    last.ended = clock_.now();
    last.secondsLeft = state == ScanState::COMPLETED ? 0 : -1;
    last.counting = false;
    if (state == ScanState::COMPLETED) {
        last.total = last.scanned + last.skipped;
        last.totalBytes = last.bytesDone;
    } else {
        last.lastFile = last.currentFile;
    }
    last.currentFile.clear();
    save(last);
    NORV_LOG(NORV_LOG_INFO, "%s scan %s ended: %s %llu scanned, %llu infected, %llu not fully scanned, %llu skipped",
             scanKindName(last.kind).c_str(), last.id.c_str(), message.c_str(),
             static_cast<unsigned long long>(last.scanned), static_cast<unsigned long long>(last.found),
             static_cast<unsigned long long>(last.notFullyScanned), static_cast<unsigned long long>(last.skipped));
    const std::lock_guard lock(mutex_);
    status_ = std::move(last);
}

}  // namespace keldra
