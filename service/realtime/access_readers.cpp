#include "service/realtime/access_readers.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <thread>
#include <utility>

namespace keldra {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds HELD_UP{100};         // busy with one event for so long counts as held up
constexpr milliseconds HELD_UP_PRESSED{5};   // the same when others are held up as well
constexpr std::chrono::seconds PRESSED{10};  // how long it counts after the last one that was
constexpr std::size_t FREE = 1;              // readers that are to be free at any time
constexpr std::size_t FREE_PRESSED = 16;     // the same when others are held up
constexpr std::size_t MOST = 80;             // of them all

/// What interrupts a reader.
int interruption() { return SIGRTMIN + 1; }

void admitInterruptions() {
    static const bool once = [] {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        return sigaction(interruption(), &action, nullptr) == 0;
    }();
    static_cast<void>(once);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, interruption());
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

}  // namespace

struct AccessReaders::Reader {
    std::atomic<SteadyTime> busySince{SteadyTime::max()};
    pthread_t thread{};    // under the lock, as long as it is
    bool running = false;  // entered in the list

    bool heldUp(SteadyTime now, milliseconds limit) const {
        const SteadyTime since = busySince;
        return since != SteadyTime::max() && now - since >= limit;
    }
};

AccessReaders::AccessReaders(std::shared_ptr<const FanotifyGroup> group, LooseThreads threads, Hooks hooks)
    : group_(std::move(group)),
      threads_(std::move(threads)),
      hooks_(std::move(hooks)),
      wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

bool AccessReaders::start(std::weak_ptr<void> owner) {
    owner_ = std::move(owner);
    const std::lock_guard lock(mutex_);
    return wake_ && add();
}

/// Under the lock.
bool AccessReaders::add() {
    const auto owner = owner_.lock();
    if (!owner) return false;
    auto reader = std::make_shared<Reader>();
    readers_.push_back(reader);
    if (threads_.start([self = shared_from_this(), owner, reader] { self->read(*reader); })) return true;
    readers_.pop_back();
    return false;
}

void AccessReaders::watch(SteadyTime now) {
    const std::lock_guard lock(mutex_);
    if (ended_) return;
    const milliseconds limit = now < pressedUntil_ ? HELD_UP_PRESSED : HELD_UP;
    const std::size_t heldUp = countHeldUp(now, limit);
    if (heldUp > 0) pressedUntil_ = now + PRESSED;
    const std::size_t wanted = heldUp + (now < pressedUntil_ ? FREE_PRESSED : FREE);
    while (readers_.size() < std::min(wanted, MOST))
        if (!add()) break;
    if (wanted > readers_.size()) interrupt(wanted - readers_.size(), now);
}

/// Under the lock: those that are held up longest.
void AccessReaders::interrupt(std::size_t count, SteadyTime now) {
    std::vector<Reader*> heldUp;
    for (const auto& reader : readers_)
        if (reader->running && reader->heldUp(now, HELD_UP_PRESSED)) heldUp.push_back(reader.get());
    std::sort(heldUp.begin(), heldUp.end(),
              [](const Reader* a, const Reader* b) { return a->busySince.load() < b->busySince.load(); });
    if (heldUp.size() > count) heldUp.resize(count);
    for (const Reader* reader : heldUp) pthread_kill(reader->thread, interruption());
    if (!ended_ && !heldUp.empty())
        hooks_.note("Too many files are held by leases of other programs; accesses to some of them were refused");
}

unsigned AccessReaders::heldUp(SteadyTime now, milliseconds time) const {
    const std::lock_guard lock(mutex_);
    return static_cast<unsigned>(countHeldUp(now, time));
}

/// Under the lock.
std::size_t AccessReaders::countHeldUp(SteadyTime now, milliseconds time) const {
    return static_cast<std::size_t>(
        std::count_if(readers_.begin(), readers_.end(), [&](const auto& each) { return each->heldUp(now, time); }));
}

bool AccessReaders::pressed(SteadyTime now) const {
    const std::lock_guard lock(mutex_);
    return now < pressedUntil_;
}

void AccessReaders::end() {
    ended_ = true;
    const std::uint64_t one = 1;
    // It can only fail for a counter that is full, and then they are awake.
    if (::write(wake_.get(), &one, sizeof one) < 0) return;
    const std::lock_guard lock(mutex_);
    interrupt(readers_.size(), SteadyTime::max());
}

void AccessReaders::read(Reader& reader) {
    admitInterruptions();
    {
        const std::lock_guard lock(mutex_);
        reader.thread = pthread_self();
        reader.running = true;
    }
    bool failed = false;
    try {
        while (!failed && !leave(reader)) {
            // Held for one event only: closing the group takes effect when the last one lets go.
            const auto group = group_->descriptor();
            if (!group) break;
            std::array<pollfd, 2> files = {pollfd{group->get(), POLLIN, 0}, pollfd{wake_.get(), POLLIN, 0}};
            failed = poll(files.data(), files.size(), -1) < 0 && errno != EINTR;
            if (!failed && (files[0].revents & POLLIN) != 0) failed = !readOne(reader, group->get());
        }
    } catch (const std::exception&) {
        failed = true;  // out of memory: ended like any other failure, so that nobody is left waiting
    }
    {
        const std::lock_guard lock(mutex_);
        std::erase_if(readers_, [&](const auto& each) { return each.get() == &reader; });
    }
    if (failed && !ended_) hooks_.failed();
}

/// True when it is not needed: the others suffice, or all end.
bool AccessReaders::leave(Reader& reader) {
    if (ended_) return true;
    const SteadyTime now = std::chrono::steady_clock::now();
    const std::lock_guard lock(mutex_);
    const auto free = static_cast<std::size_t>(std::count_if(
        readers_.begin(), readers_.end(), [&](const auto& each) { return !each->heldUp(now, HELD_UP_PRESSED); }));
    if (free <= (now < pressedUntil_ ? FREE_PRESSED : FREE)) return false;
    reader.running = false;
    std::erase_if(readers_, [&](const auto& each) { return each.get() == &reader; });
    return true;
}

/// One event at a time, so that none that was read already waits for the file of the next. False when the group cannot
/// be read any more.
bool AccessReaders::readOne(Reader& reader, int group) {
    fanotify_event_metadata event{};
    reader.busySince = std::chrono::steady_clock::now();
    const ssize_t length = ::read(group, &event, sizeof event);
    const int error = errno;
    const bool sane = length <= 0 || (length == sizeof event && event.vers == FANOTIFY_METADATA_VERSION);
    if (length <= 0)
        takeFailure(error);
    else if (sane && event.fd >= 0)
        hooks_.receive(event, FileDescriptor(event.fd));
    reader.busySince = SteadyTime::max();
    return sane;
}

/// The file of one event could not be opened, for whatever reason its file system gives; the kernel has refused the
/// access, and the next can be read.
void AccessReaders::takeFailure(int error) {
    if (error != EMFILE && error != ENFILE) return;
    hooks_.note("Too many open files: an access could not be scanned");
    std::this_thread::sleep_for(milliseconds(10));  // the scans under way free some
}

}  // namespace keldra
