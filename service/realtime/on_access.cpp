#include "service/realtime/on_access.h"

#include "norv/log.h"
#include "norv/path_list.h"
#include "service/base/files.h"
#include "service/realtime/access_queue.h"
#include "service/realtime/fanotify_group.h"
#include "service/realtime/watched_places.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <deque>
#include <optional>
#include <span>
#include <thread>
#include <utility>

namespace keldra {

namespace {

using Time = FileAccess::Time;

constexpr auto LOOK_INTERVAL = std::chrono::seconds(2);  // how often folders that came or went are looked for
constexpr const char* NO_FOLDER = "There is no folder to watch.";
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

/// One group with its threads. The reader answers the service's own accesses and everything outside of the folders at
/// once, and whatever has waited too long. It must not wait for anything that may open a file, so it does not even log:
/// the clerk writes its notes, and looks where the folders are. Workers scan what is waited for; what takes too long
/// for that, and what was written, is left to those in the background, so that whoever keeps some of them busy with
/// large files does not keep all files from being scanned.
class OnAccess::Listener {
public:
    Listener(const OnAccessHooks& hooks, OnAccessSettings settings);
    ~Listener() { end(); }

    /// Begins to listen; what there is not to watch yet is looked for again and again. False, with the reason in words,
    /// when it cannot listen at all.
    bool start(std::string& problem);
    /// Allows what waits, ends the threads and waits for them.
    void end();
    bool running() const { return alive_ && watching_; }
    std::string problem();
    void forgetClean() { group_->mark(FAN_MARK_FLUSH, 0, AT_FDCWD, "/"); }

private:
    using Item = AccessQueue::Item;
    using Lane = AccessQueue::Lane;

    void look(bool mountsChanged);
    bool mark(const std::vector<std::string>& places, bool report);
    std::shared_ptr<const Places> places();
    void read();
    void readUntilStopped();
    void noteFailure();
    void lookLater(bool mountsChanged);
    int pollTimeout();
    bool readEvents();
    void receive(const fanotify_event_metadata& event);
    void admit(const fanotify_event_metadata& event, FileDescriptor file, bool waiting);
    bool mayConcern(const FileAccess& access);
    void enqueue(Lane lane, const Item& item);
    void answerUnscanned(FileAccess& access, const char* why);
    void expire(bool all);
    void note(std::string text);

    void keepHouse();
    bool takeNotes(std::unique_lock<std::mutex>& lock);
    bool takeLook(std::unique_lock<std::mutex>& lock);
    void work(Lane lane);
    void scan(Lane lane, const Item& item);
    bool scanFile(FileAccess& access, const std::stop_token& stop);
    std::optional<std::string> pathToScan(const FileAccess& access);
    void remember(const FileAccess& access, const struct stat& before);

    const OnAccessHooks& hooks_;
    const OnAccessSettings settings_;
    const std::shared_ptr<FanotifyGroup> group_ = std::make_shared<FanotifyGroup>();
    FileDescriptor wake_{eventfd(0, EFD_CLOEXEC)};
    FileDescriptor mounts_{::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC)};
    std::stop_source stop_;
    std::atomic<bool> alive_{false};
    std::atomic<bool> watching_{false};  ///< there is something to watch
    std::atomic<bool> remembers_{true};
    AccessQueue queue_;
    std::thread reader_;
    std::thread clerk_;
    std::vector<std::thread> workers_;
    std::deque<std::weak_ptr<FileAccess>> waiting_;  ///< the reader's, by deadline
    Time nextLook_;                                  ///< the reader's

    std::mutex mutex_;
    std::condition_variable ready_;
    std::vector<std::string> notes_;
    std::size_t lostNotes_ = 0;
    std::shared_ptr<const Places> places_ = std::make_shared<const Places>();
    bool marked_ = false;  ///< all of these places; the clerk's
    bool lookDue_ = false;
    bool mountsChanged_ = false;
    std::vector<Mount> seenMounts_;  ///< the clerk's
};

OnAccess::Listener::Listener(const OnAccessHooks& hooks, OnAccessSettings settings)
    : hooks_(hooks),
      settings_(std::move(settings)),
      // One worker at least is there for small files.
      queue_(settings_.queueLimit, std::max(2U, settings_.workers) - 1) {}

void OnAccess::Listener::end() {
    stop_.request_stop();
    const uint64_t one = 1;
    if (::write(wake_.get(), &one, sizeof one) < 0) NORV_LOG(NORV_LOG_ERROR, "Cannot wake the real-time scan");
    if (reader_.joinable()) reader_.join();
    // Closed before the workers are waited for: one of them may wait for an access that nobody answers any more.
    group_->close();
    queue_.end();
    {
        const std::lock_guard lock(mutex_);  // or the clerk, about to wait, would miss it
    }
    ready_.notify_all();
    for (std::thread& worker : workers_) worker.join();
    workers_.clear();
    if (clerk_.joinable()) clerk_.join();
}

bool OnAccess::Listener::start(std::string& problem) {
    if (settings_.folders.empty()) return problem = NO_FOLDER, false;
    if (!wake_ || !group_->open()) return problem = "fanotify: " + errorText(errno), false;
    look(true);
    alive_ = true;
    const unsigned workers = std::max(1U, settings_.workers);
    for (unsigned i = 0; settings_.incoming && i < workers; ++i)
        workers_.emplace_back([this] { work(Lane::WAITED_FOR); });
    for (unsigned i = 0; i < (settings_.incoming ? 1 : workers); ++i)
        workers_.emplace_back([this] { work(Lane::BACKGROUND); });
    clerk_ = std::thread([this] { keepHouse(); });
    reader_ = std::thread([this] { read(); });
    return true;
}

std::string OnAccess::Listener::problem() {
    if (!alive_) return "The listener has failed, see the log.";
    if (watching_) return {};
    return places()->watched.empty() ? NO_FOLDER : "None of the folders can be watched.";
}

std::shared_ptr<const Places> OnAccess::Listener::places() {
    const std::lock_guard lock(mutex_);
    return places_;
}

/// Follows folders that came, went or lead elsewhere now, and file systems mounted since.
void OnAccess::Listener::look(bool mountsChanged) {
    if (mountsChanged) seenMounts_ = currentMounts();
    auto now = std::make_shared<const Places>(placesOf(settings_, seenMounts_));
    const auto before = places();
    const bool moved = *now != *before;
    if (!moved && !mountsChanged && marked_) return;
    if (now->troubles != before->troubles)
        for (const std::string& trouble : now->troubles) NORV_LOG(NORV_LOG_WARNING, "%s", trouble.c_str());
    marked_ = mark(now->toMark, moved || mountsChanged);
    const std::lock_guard lock(mutex_);
    places_ = std::move(now);
}

/// False when some of the file systems cannot be watched.
bool OnAccess::Listener::mark(const std::vector<std::string>& places, bool report) {
    // Writes are always listened to: they end what is remembered as clean.
    const uint64_t mask = FAN_CLOSE_WRITE | (settings_.incoming ? FAN_OPEN_PERM : 0);
    std::size_t count = 0;
    for (const std::string& place : places) {
        const bool marked = group_->mark(FAN_MARK_ADD | FAN_MARK_FILESYSTEM, mask, AT_FDCWD, place.c_str());
        if (marked) ++count;
        if (!marked && report)
            NORV_LOG(NORV_LOG_ERROR, "%s cannot be watched: %s", place.c_str(), errorText(errno).c_str());
    }
    watching_ = count > 0;
    return count == places.size();
}

void OnAccess::Listener::read() {
    try {
        readUntilStopped();
    } catch (const std::exception&) {
        // Out of memory: ended like any other failure, so that nobody is left waiting.
    }
    expire(true);
    alive_ = false;
    if (!stop_.stop_requested()) noteFailure();
}

void OnAccess::Listener::noteFailure() try {
    group_->close();
    note("The real-time scan has ended by a failure of its listener; accesses are allowed unscanned");
} catch (const std::exception&) {
    // `problem()` tells as well.
}

void OnAccess::Listener::readUntilStopped() {
    std::array<pollfd, 3> files = {pollfd{group_->get(), POLLIN, 0}, pollfd{wake_.get(), POLLIN, 0},
                                   pollfd{mounts_.get(), POLLPRI, 0}};
    nextLook_ = std::chrono::steady_clock::now() + LOOK_INTERVAL;
    while (!stop_.stop_requested()) {
        if (poll(files.data(), files.size(), pollTimeout()) < 0 && errno != EINTR) break;
        expire(false);
        if ((files[0].revents & POLLIN) != 0 && !readEvents()) break;
        const bool mountsChanged = (files[2].revents & (POLLPRI | POLLERR)) != 0;
        if (mountsChanged || std::chrono::steady_clock::now() >= nextLook_) lookLater(mountsChanged);
    }
}

void OnAccess::Listener::lookLater(bool mountsChanged) {
    nextLook_ = std::chrono::steady_clock::now() + LOOK_INTERVAL;
    const std::lock_guard lock(mutex_);
    lookDue_ = true;
    mountsChanged_ = mountsChanged_ || mountsChanged;
    ready_.notify_one();
}

/// Milliseconds until somebody has waited too long or the folders are to be looked at again.
int OnAccess::Listener::pollTimeout() {
    Time until = nextLook_;
    while (!waiting_.empty()) {
        const Item item = waiting_.front().lock();
        if (item && item->waiting()) {
            until = std::min(until, item->deadline());
            break;
        }
        waiting_.pop_front();
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
    return static_cast<int>(std::clamp<int64_t>(left.count(), 0, 60000));
}

/// Answers for the scans that take too long, or for all that wait when the listener ends.
void OnAccess::Listener::expire(bool all) {
    const Time now = std::chrono::steady_clock::now();
    while (!waiting_.empty()) {
        const Item item = waiting_.front().lock();
        if (item && item->waiting() && !all && item->deadline() > now) return;
        waiting_.pop_front();
        if (!item || !item->waiting()) continue;
        item->scanStop().request_stop();
        if (all)
            item->answer(false);
        else
            answerUnscanned(*item, "the scan takes too long");
    }
}

void OnAccess::Listener::answerUnscanned(FileAccess& access, const char* why) {
    if (!access.answer(settings_.denyOnTimeout)) return;
    note(std::string(settings_.denyOnTimeout ? "Refused" : "Allowed") + " unscanned, " + why + ": " + access.path());
}

/// False when the group cannot be read any more.
bool OnAccess::Listener::readEvents() {
    alignas(fanotify_event_metadata) std::array<char, 4096> buffer;
    const ssize_t length = ::read(group_->get(), buffer.data(), buffer.size());
    if (length < 0 && (errno == EAGAIN || errno == EINTR)) return true;
    if (length < 0 && (errno == EMFILE || errno == ENFILE)) {
        // The kernel has refused the access whose descriptor it could not make; the scans under way will free some.
        note("Too many open files: an access could not be scanned");
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return true;
    }
    if (length <= 0) return false;
    auto left = static_cast<size_t>(length);
    size_t at = 0;
    while (left >= FAN_EVENT_METADATA_LEN) {
        fanotify_event_metadata event{};
        std::memcpy(&event, buffer.data() + at, sizeof event);
        if (event.vers != FANOTIFY_METADATA_VERSION || event.event_len < FAN_EVENT_METADATA_LEN ||
            event.event_len > left)
            return false;
        receive(event);
        at += event.event_len;
        left -= event.event_len;
    }
    return true;
}

void OnAccess::Listener::receive(const fanotify_event_metadata& event) {
    if ((event.mask & FAN_Q_OVERFLOW) != 0) note("Accesses came faster than they could be taken; some are unscanned");
    if (event.fd < 0) return;
    FileDescriptor file(event.fd);
    const bool waiting = (event.mask & FAN_OPEN_PERM) != 0;
    if ((event.mask & FAN_CLOSE_WRITE) != 0 && settings_.incoming)
        group_->mark(FAN_MARK_REMOVE | FAN_MARK_IGNORED_MASK, FAN_OPEN_PERM, event.fd, nullptr);
    const bool ours = event.pid == getpid();
    if (!ours && (waiting || settings_.outgoing)) return admit(event, std::move(file), waiting);
    if (waiting) group_->answer(event.fd, false);
}

void OnAccess::Listener::admit(const fanotify_event_metadata& event, FileDescriptor file, bool waiting) {
    const Time deadline = std::chrono::steady_clock::now() + settings_.timeLimit;
    std::string path = descriptorPath(event.fd);
    const auto item = std::make_shared<FileAccess>(group_, std::move(file), std::move(path), waiting, deadline);
    if (!mayConcern(*item) || !item->glance().mayHoldSomething) return;  // its end answers it
    if (!waiting) return enqueue(Lane::BACKGROUND, item);
    if (queue_.isSlow(*item)) return answerUnscanned(*item, "its scan goes on in the background");
    waiting_.push_back(item);
    enqueue(Lane::WAITED_FOR, item);
}

/// What is plainly none of ours is answered at once. What came through another system's mounts, or has no path that the
/// kernel could tell, needs a closer look (`pathToScan`).
bool OnAccess::Listener::mayConcern(const FileAccess& access) {
    const auto where = places();
    return where->concern(access.path()) || access.path().empty() || openedElsewhere(access.fd(), *where);
}

/// The file's path here; nothing when it is not to be scanned. What cannot be told may be a watched file: it is
/// scanned.
std::optional<std::string> OnAccess::Listener::pathToScan(const FileAccess& access) {
    const auto where = places();
    if (where->concern(access.path())) return access.path();
    std::string here = pathHere(access.fd(), *where);
    if (here.empty()) return access.path();
    return where->concern(here) ? std::optional(std::move(here)) : std::nullopt;
}

void OnAccess::Listener::enqueue(Lane lane, const Item& item) {
    if (queue_.push(lane, item)) return;
    if (item->waiting()) return answerUnscanned(*item, "too many files wait for their scan");
    note("Left unscanned, too many files wait for their scan: " + item->path());
}

void OnAccess::Listener::note(std::string text) {
    constexpr std::size_t NOTE_LIMIT = 100;
    const std::lock_guard lock(mutex_);
    if (notes_.size() < NOTE_LIMIT)
        notes_.push_back(std::move(text));
    else
        ++lostNotes_;
    ready_.notify_one();
}

void OnAccess::Listener::keepHouse() {
    std::unique_lock lock(mutex_);
    while (true) {
        ready_.wait(lock, [this] { return stop_.stop_requested() || !notes_.empty() || lookDue_; });
        if (takeNotes(lock) || takeLook(lock)) continue;
        if (stop_.stop_requested()) return;
    }
}

/// What the reader has to say, logged without the lock. True when there was something.
bool OnAccess::Listener::takeNotes(std::unique_lock<std::mutex>& lock) {
    const auto notes = std::exchange(notes_, {});
    const auto lost = std::exchange(lostNotes_, 0);
    if (notes.empty()) return false;
    lock.unlock();
    for (const std::string& text : notes) NORV_LOG(NORV_LOG_WARNING, "%s", text.c_str());
    if (lost > 0) NORV_LOG(NORV_LOG_WARNING, "%zu more such lines of the real-time scan were left out", lost);
    lock.lock();
    return true;
}

/// Looks for the folders, if that is due, without the lock. True when it did.
bool OnAccess::Listener::takeLook(std::unique_lock<std::mutex>& lock) {
    if (!std::exchange(lookDue_, false)) return false;
    const bool mounts = std::exchange(mountsChanged_, false);
    if (stop_.stop_requested() || !alive_) return false;
    lock.unlock();
    try {
        look(mounts);
    } catch (const std::exception& error) {
        NORV_LOG(NORV_LOG_ERROR, "The watched folders could not be looked for: %s", error.what());
    }
    lock.lock();
    return true;
}

void OnAccess::Listener::work(Lane lane) {
    while (const Item item = queue_.pop(lane)) {
        scan(lane, item);
        queue_.done(lane, *item);
    }
}

void OnAccess::Listener::scan(Lane lane, const Item& item) {
    try {
        if (lane == Lane::BACKGROUND) {
            scanFile(*item, stop_.get_token());
            return;
        }
        const std::stop_callback ending(stop_.get_token(), [&] { item->scanStop().request_stop(); });
        // Whoever opened it has his answer, but nothing was found out about the file yet.
        if (!scanFile(*item, item->scanStop().get_token()) && !stop_.stop_requested()) enqueue(Lane::BACKGROUND, item);
    } catch (const std::exception& error) {
        // The access is answered by its end.
        NORV_LOG(NORV_LOG_ERROR, "The real-time scan of %s failed: %s", item->path().c_str(), error.what());
    }
}

/// False when the scan was stopped before anything could be said about the file.
bool OnAccess::Listener::scanFile(FileAccess& access, const std::stop_token& stop) {
    if (stop.stop_requested()) return false;
    const struct stat before = statusOf(access.fd());
    if (!S_ISREG(before.st_mode) || before.st_size == 0) return true;
    const auto path = pathToScan(access);
    if (!path) return true;
    const OnAccessAnswer answer = hooks_.scan(access.fd(), *path, stop);
    if (stop.stop_requested() && !answer.deny && !answer.act && !answer.cacheable) return false;
    if (settings_.incoming && answer.cacheable && !answer.deny) remember(access, before);
    const bool answered = access.answer(answer.deny);
    if (answer.deny && answered)
        NORV_LOG(NORV_LOG_WARNING, "Refused the access to %s: %s", path->c_str(), answer.find.c_str());
    if (answer.act && hooks_.act && !stop_.stop_requested()) hooks_.act(access.fd(), *path, answer);
    return true;
}

/// Tells the kernel that opening this file need not be asked about until it is written to. Its times must be able to
/// show a change since the scan began, or a change in between would go unnoticed.
void OnAccess::Listener::remember(const FileAccess& access, const struct stat& before) {
    if (!remembers_ || time(nullptr) - before.st_ctim.tv_sec < SETTLED) return;
    constexpr unsigned FLAGS = FAN_MARK_ADD | FAN_MARK_IGNORED_MASK | FAN_MARK_EVICTABLE;
    if (!group_->mark(FLAGS, FAN_OPEN_PERM, access.fd(), nullptr)) {
        if (errno == EINVAL) remembers_ = false;  // a kernel without marks that it may drop
        return;
    }
    if (!sameContent(before, statusOf(access.fd())))
        group_->mark(FAN_MARK_REMOVE | FAN_MARK_IGNORED_MASK, FAN_OPEN_PERM, access.fd(), nullptr);
}

OnAccess::OnAccess(OnAccessHooks hooks) : hooks_(std::move(hooks)) {}

OnAccess::~OnAccess() { stop(); }

bool OnAccess::kernelAllows(std::string* reason) {
    // Neither the kernel nor the process's rights change, and taking a mark away waits for all of the kernel's readers.
    static const std::string refusal = FanotifyGroup::refusal();
    if (reason && !refusal.empty()) *reason = refusal;
    return refusal.empty();
}

bool OnAccess::configure(const OnAccessSettings& settings) {
    const std::lock_guard configuring(configureMutex_);
    const bool wanted = settings.incoming || settings.outgoing;
    if (wanted && running() && settings_ == settings) return true;
    replace(nullptr, {});
    settings_ = settings;
    if (!wanted) return true;
    std::string problem;
    auto listener = std::make_shared<Listener>(hooks_, settings);
    if (!kernelAllows(&problem) || !listener->start(problem)) listener.reset();
    if (!listener) NORV_LOG(NORV_LOG_ERROR, "The real-time scan does not run: %s", problem.c_str());
    replace(std::move(listener), problem);
    return running();
}

void OnAccess::stop() { configure({}); }

/// The old listener ends outside of the lock: its workers may be in a hook that asks for `running()`.
void OnAccess::replace(std::shared_ptr<Listener> listener, std::string problem) {
    {
        const std::lock_guard lock(mutex_);
        listener_.swap(listener);
        problem_ = std::move(problem);
    }
    if (listener) listener->end();
}

std::shared_ptr<OnAccess::Listener> OnAccess::listener() const {
    const std::lock_guard lock(mutex_);
    return listener_;
}

bool OnAccess::running() const {
    const auto current = listener();
    return current && current->running();
}

std::string OnAccess::problem() const {
    const std::lock_guard lock(mutex_);
    return problem_.empty() && listener_ ? listener_->problem() : problem_;
}

void OnAccess::forgetClean() {
    if (const auto current = listener()) current->forgetClean();
}

}  // namespace keldra
