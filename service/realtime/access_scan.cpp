#include "service/realtime/access_scan.h"

#include "norv/log.h"
#include "service/base/paths.h"

#include <sys/fanotify.h>

#include <cerrno>
#include <ctime>
#include <utility>

namespace keldra {

namespace {

constexpr time_t SETTLED = 2;  // seconds after its last change from which a file's times can show the next one

struct stat statusOf(int fd) {
    struct stat status {};
    if (fstat(fd, &status) != 0) status = {};
    return status;
}

bool sameContent(const struct stat& a, const struct stat& b) {
    return a.st_size == b.st_size && a.st_ctim.tv_sec == b.st_ctim.tv_sec && a.st_ctim.tv_nsec == b.st_ctim.tv_nsec;
}

}  // namespace

AccessScan::AccessScan(std::shared_ptr<const OnAccessHooks> hooks, CurrentPlaces places,
                       std::shared_ptr<RecentFinds> finds, bool remembers)
    : hooks_(std::move(hooks)), places_(std::move(places)), finds_(std::move(finds)), remembers_(remembers) {}

/// What came through another system's mounts, or has no path that the kernel could tell, needs a closer look
/// (`pathToScan`).
bool AccessScan::mayConcern(const FileAccess& access) const {
    const auto where = places_();
    return where->concern(access.path()) || access.path().empty() || openedElsewhere(access.fd(), *where) ||
           foundBefore(access, *where) || finds_->isActedOn(access.glance().identity);
}

/// Where a file was found that is among the service's own or removed by now.
std::optional<std::string> AccessScan::foundBefore(const FileAccess& access, const Places& where) const {
    if (!liesBelow(access.path(), where.own) && !access.path().ends_with(" (deleted)")) return std::nullopt;
    return finds_->pathOf(access.glance().identity);
}

/// The file's path here; nothing when it is not to be scanned. What cannot be told may be a watched file: it is
/// scanned.
std::optional<std::string> AccessScan::pathToScan(const FileAccess& access) const {
    const auto where = places_();
    if (where->concern(access.path())) return access.path();
    std::string here = pathHere(access.fd(), *where);
    if (here.empty()) return access.path();
    return where->concern(here) ? std::optional(std::move(here)) : std::nullopt;
}

/// Some task has found something in it and is about to put it away.
bool AccessScan::refuseActedOn(const FileAccess& access) const {
    if (!access.waiting() || !finds_->isActedOn(access.glance().identity)) return false;
    if (access.answer(true))
        NORV_LOG(NORV_LOG_WARNING, "Refused the access to %s, which is being put away", access.path().c_str());
    return true;
}

AccessScan::Outcome AccessScan::scan(const FileAccess& access, const std::stop_token& stop, std::string& why) {
    if (refuseActedOn(access)) return Outcome::DONE;
    if (stop.stop_requested()) return Outcome::STOPPED;
    const unsigned generation = generation_;
    const bool local = !access.remote();
    // A file system that others answer for is not asked more than it must be.
    struct stat before {};
    if (local) before = statusOf(access.fd());
    if (local && (!S_ISREG(before.st_mode) || before.st_size == 0)) return Outcome::DONE;
    const auto path = pathToScan(access);
    const auto found = path ? std::nullopt : foundBefore(access, *places_());
    if (found) return scanMoved(access, *found, stop);
    if (!path) return Outcome::DONE;
    const OnAccessAnswer answer = hooks_->scan(access.fd(), *path, stop);
    if (!answer.deny && refuseActedOn(access)) return Outcome::DONE;
    if (stop.stop_requested() && !answer.deny && !answer.act && !answer.cacheable) return Outcome::STOPPED;
    if (!answer.unscanned.empty()) return why = answer.unscanned, Outcome::UNSCANNED;
    // What others change elsewhere is not seen here, and would not end what is remembered.
    if (answer.cacheable && !answer.deny && local) remember(access, before, generation);
    return follow(access, *path, answer);
}

/// A file that is being put away, or a new one that got its number: only its content tells.
AccessScan::Outcome AccessScan::scanMoved(const FileAccess& access, const std::string& path,
                                          const std::stop_token& stop) {
    const auto& scan = hooks_->scanFound ? hooks_->scanFound : hooks_->scan;
    const OnAccessAnswer answer = scan(access.fd(), path, stop);
    if (stop.stop_requested() && !answer.deny) return Outcome::STOPPED;
    if (access.answer(answer.deny) && answer.deny)
        NORV_LOG(NORV_LOG_WARNING, "Refused the access to what was %s: %s", path.c_str(), answer.find.c_str());
    return Outcome::DONE;
}

AccessScan::Outcome AccessScan::follow(const FileAccess& access, const std::string& path,
                                       const OnAccessAnswer& answer) {
    if (answer.deny) finds_->add(access.glance().identity, path);
    if (access.answer(answer.deny) && answer.deny)
        NORV_LOG(NORV_LOG_WARNING, "Refused the access to %s: %s", path.c_str(), answer.find.c_str());
    if (answer.act && hooks_->act && !ended_) hooks_->act(access.fd(), path, answer);
    return Outcome::DONE;
}

/// Tells the kernel that opening this file need not be asked about until it is written to. Its times must be able to
/// show a change since the scan began, or a change in between would go unnoticed.
void AccessScan::remember(const FileAccess& access, const struct stat& before, unsigned generation) {
    if (!remembers_ || time(nullptr) - before.st_ctim.tv_sec < SETTLED) return;
    constexpr unsigned FLAGS = FAN_MARK_ADD | FAN_MARK_IGNORED_MASK | FAN_MARK_EVICTABLE;
    if (!access.group().mark(FLAGS, FAN_OPEN_PERM, access.fd(), nullptr)) {
        if (errno == EINVAL) remembers_ = false;  // a kernel without marks that it may drop
        return;
    }
    // Signatures or settings may have changed since, and the kernel may have been told to forget before this.
    if (generation != generation_ || !sameContent(before, statusOf(access.fd())))
        access.group().mark(FAN_MARK_REMOVE | FAN_MARK_IGNORED_MASK, FAN_OPEN_PERM, access.fd(), nullptr);
}

}  // namespace keldra
