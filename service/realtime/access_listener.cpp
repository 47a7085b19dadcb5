#include "service/realtime/access_listener.h"

#include "norv/log.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace keldra {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds TICK{100};        // between two looks at readers, workers and those who wait
constexpr milliseconds TICK_PRESSED{5};  // the same while readers are held up
constexpr milliseconds END_TIME{1000};   // for all threads to end
constexpr milliseconds END_LOOK{10};
constexpr std::chrono::seconds WATCH_PATIENCE{10};
constexpr std::uint64_t LARGE = std::uint64_t{32} << 20U;  // bytes of a file that never goes the quick way

unsigned slowWorkers(const OnAccessSettings& settings) { return std::max(2U, settings.workers); }

AccessQueue::Limits limitsOf(const OnAccessSettings& settings) {
    return {.waiting = settings.queueLimit,
            .background = settings.backgroundLimit,
            .slowAtOnce = slowWorkers(settings) - 1};
}

/// Writes are always listened to: they end what is remembered as clean.
std::uint64_t maskOf(const OnAccessSettings& settings) {
    return FAN_CLOSE_WRITE | (settings.incoming ? FAN_OPEN_PERM : 0);
}

}  // namespace

AccessListener::AccessListener(std::shared_ptr<const OnAccessHooks> hooks, OnAccessSettings settings,
                               std::shared_ptr<RecentFinds> finds)
    : settings_(std::move(settings)),
      scan_(
          std::move(hooks), [this] { return follower_->places(); }, std::move(finds), settings_.incoming),
      queue_(limitsOf(settings_)),
      groups_(maskOf(settings_), threads_,
              {.receive = [this](const fanotify_event_metadata& event, FileDescriptor file,
                                 const AccessGroups::Source& source) { receive(event, std::move(file), source); },
               .note = [this](std::string text) { log_->note(std::move(text)); },
               .failed = [this] { fail(); }}),
      workers_(std::make_shared<ScanWorkers>(
          queue_, threads_, settings_.scanTimes,
          ScanWorkers::Hooks{
              .scan = [this](Lane lane, const Item& item, const std::stop_token& stop) { scan(lane, item, stop); },
              .note = [this](std::string text) { log_->note(std::move(text)); }})),
      follower_(std::make_shared<PlacesFollower>(
          settings_, threads_,
          [this](const std::vector<PlaceToMark>& places, bool report) { return groups_.mark(places, report); })) {}

bool AccessListener::start(std::string& problem) {
    if (settings_.folders.empty()) return problem = "There is no folder to watch.", false;
    alive_ = true;
    const auto self = shared_from_this();
    if (!groups_.open(self))
        return problem = "The system does not let files be watched: " + errorText(errno), end(), false;
    if (!startThreads()) return problem = "There are not enough threads.", end(), false;
    return true;
}

bool AccessListener::startThreads() {
    const auto self = shared_from_this();
    const unsigned workers = std::max(1U, settings_.workers);
    const bool waited = settings_.incoming;
    return log_->start(threads_) && (!waited || workers_->start(Lane::QUICK, workers, self)) &&
           (!waited || workers_->start(Lane::SLOW, slowWorkers(settings_), self)) &&
           workers_->start(Lane::BACKGROUND, waited ? 1 : workers, self) && threads_.start([self] { self->watch(); }) &&
           follower_->start(self);
}

void AccessListener::end() {
    {
        const std::lock_guard lock(mutex_);
        ended_ = true;
        alive_ = false;
    }
    ending_.notify_all();
    scan_.end();
    follower_->end();
    queue_.end();
    workers_->end();
    log_->end();
    for (const auto& opener : openers_.takeOverdue(SteadyTime::max())) opener->answer(false);
    groups_.close();
    const SteadyTime until = std::chrono::steady_clock::now() + END_TIME;
    // A reader may be held up again by the file of its next event.
    do groups_.end();
    while (!threads_.awaitEnd(std::min(until, std::chrono::steady_clock::now() + END_LOOK)) &&
           std::chrono::steady_clock::now() < until);
}

std::string AccessListener::problem() const {
    if (!alive_) return "The listener has failed, see the log.";
    if (workers_->exhausted()) return "Too many files hang in file systems that do not answer.";
    return follower_->problem();
}

bool AccessListener::watched() const {
    const SteadyTime last = lastLook_;
    return ended_ || last == SteadyTime::max() || std::chrono::steady_clock::now() - last < WATCH_PATIENCE;
}

void AccessListener::forgetClean() {
    scan_.forget();
    groups_.forgetClean();
}

void AccessListener::forgetClean(int fd) {
    scan_.forget();
    groups_.forgetClean(fd);
}

void AccessListener::receive(const fanotify_event_metadata& event, FileDescriptor file,
                             const AccessGroups::Source& source) {
    const bool waiting = (event.mask & FAN_OPEN_PERM) != 0;
    if ((event.mask & FAN_CLOSE_WRITE) != 0 && settings_.incoming)
        source.group->mark(FAN_MARK_REMOVE | FAN_MARK_IGNORED_MASK, FAN_OPEN_PERM, event.fd, nullptr);
    const bool ours = scan_.isOwn(event.pid);
    if (!ours && !ended_ && (waiting || settings_.outgoing)) return admit(event, std::move(file), source);
    if (waiting) source.group->answer(event.fd, false);
}

void AccessListener::admit(const fanotify_event_metadata& event, FileDescriptor file,
                           const AccessGroups::Source& source) {
    std::string path = descriptorPath(event.fd);
    const auto item = std::make_shared<FileAccess>(source.group, std::move(file), std::move(path), source.remote);
    const bool waiting = (event.mask & FAN_OPEN_PERM) != 0;
    const SteadyTime deadline = std::chrono::steady_clock::now() + settings_.timeLimit;
    if (waiting) item->setOpener(std::make_shared<WaitingOpener>(source.group, event.fd, item->path(), deadline));
    if (!item->glance().mayHoldSomething || !scan_.mayConcern(*item)) return;  // its end answers it
    item->setUser(userOf(event.pid, item->glance().owner));
    if (workers_->shuns(*item)) return answerShunned(*item);
    if (!waiting) return enqueue(Lane::BACKGROUND, item);
    if (queue_.isSlow(*item))
        return answerUnscanned(item->opener().get(), item->path(), "its scan goes on in the background");
    openers_.add(item->opener());
    enqueue(item->glance().size >= LARGE ? Lane::SLOW : Lane::QUICK, item);
}

void AccessListener::enqueue(Lane lane, const Item& item) {
    if (!queue_.push(lane, item))
        answerUnscanned(item->opener().get(), item->path(), "too many files wait for their scan");
}

void AccessListener::answerShunned(const FileAccess& access) {
    answerUnscanned(access.opener().get(), access.path(), "its file system does not answer");
}

/// Without an opener only the log is told.
void AccessListener::answerUnscanned(WaitingOpener* opener, const std::string& path, const std::string& why) {
    if (ended_ || (opener && !opener->answer(settings_.denyOnTimeout))) return;
    const char* const what = !opener ? "Left" : settings_.denyOnTimeout ? "Refused" : "Allowed";
    log_->note(std::string(what) + " unscanned, " + why + ": " + path);
}

void AccessListener::scan(Lane lane, const Item& item, const std::stop_token& stop) {
    if (workers_->shuns(*item)) return answerShunned(*item);
    try {
        std::string why;
        // Whoever opened it has had his answer while it was queued.
        const bool late = lane != Lane::BACKGROUND && !item->waiting();
        const auto outcome = late ? AccessScan::Outcome::STOPPED : scan_.scan(*item, stop, why);
        if (outcome == AccessScan::Outcome::UNSCANNED) answerUnscanned(item->opener().get(), item->path(), why);
        if (outcome == AccessScan::Outcome::STOPPED) goOn(lane, item);
    } catch (const std::exception& error) {
        // The access is answered by its end.
        NORV_LOG(NORV_LOG_ERROR, "The real-time scan of %s failed: %s", item->path().c_str(), error.what());
    }
}

/// Nothing was found out about the file in the time that it had.
void AccessListener::goOn(Lane lane, const Item& item) {
    if (ended_ || workers_->shuns(*item)) return;
    if (lane == Lane::QUICK && item->waiting()) return enqueue(Lane::SLOW, item);
    if (lane != Lane::BACKGROUND) return enqueue(Lane::BACKGROUND, item);
    log_->note("Left unscanned, its scan takes too long: " + item->path());
}

void AccessListener::watch() {
    while (!ended_) {
        const SteadyTime now = std::chrono::steady_clock::now();
        lastLook_ = now;
        try {
            watchOnce(now);
        } catch (const std::exception&) {
            // Out of memory: the next look is soon.
        }
        std::unique_lock lock(mutex_);
        ending_.wait_for(lock, groups_.pressed(now) ? TICK_PRESSED : TICK, [this] { return ended_.load(); });
    }
}

void AccessListener::watchOnce(SteadyTime now) {
    groups_.watch(now);
    for (const auto& opener : openers_.takeOverdue(now))
        answerUnscanned(opener.get(), opener->path(), "the scan takes too long");
    workers_->watch(now);
}

void AccessListener::fail() {
    alive_ = false;
    for (const auto& opener : openers_.takeOverdue(SteadyTime::max())) opener->answer(false);
    log_->note("The real-time scan has ended by a failure of its listener; accesses are allowed unscanned");
}

}  // namespace keldra
