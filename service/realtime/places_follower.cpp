#include "service/realtime/places_follower.h"

#include "norv/log.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <utility>

namespace keldra {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int LOOK_INTERVAL = 2000;  // milliseconds between two looks for folders that came or went
constexpr std::chrono::seconds FIRST_LOOK{1};
constexpr std::chrono::seconds HANGING{5};  // a look that takes so long waits for something that does not answer

}  // namespace

PlacesFollower::PlacesFollower(const OnAccessSettings& settings, LooseThreads threads, Mark mark)
    : settings_(settings),
      threads_(std::move(threads)),
      mark_(std::move(mark)),
      wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      mountTable_(::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC)) {}

bool PlacesFollower::start(std::shared_ptr<void> owner) {
    if (!wake_) return false;
    if (!threads_.start([self = shared_from_this(), owner = std::move(owner)] { self->follow(); })) return false;
    std::unique_lock lock(mutex_);
    looked_.wait_for(lock, FIRST_LOOK, [this] { return looks_ > 0; });
    return true;
}

void PlacesFollower::end() {
    ended_ = true;
    const std::uint64_t one = 1;
    // It can only fail for a counter that is full, and then the thread is awake.
    if (::write(wake_.get(), &one, sizeof one) < 0) return;
}

std::shared_ptr<const Places> PlacesFollower::places() const {
    const std::lock_guard lock(mutex_);
    return places_;
}

std::string PlacesFollower::problem() const {
    const std::lock_guard lock(mutex_);
    if (lookingSince_ < Clock::now() - HANGING) return "A watched folder lies on a file system that does not answer.";
    if (watching_) return {};
    return places_->watched.empty() ? "There is no folder to watch." : "None of the folders can be watched.";
}

void PlacesFollower::follow() {
    // What lies on this machine is watched before anything that may not answer is asked.
    mounts_ = currentMounts();
    const OnAccessSettings local = withoutRemoteFolders(settings_, mounts_);
    if (local.folders != settings_.folders && !local.folders.empty()) lookGuarded(local, true);
    for (bool mountsChanged = true; !ended_; mountsChanged = awaitChange()) lookGuarded(settings_, mountsChanged);
}

/// Whether it was the mounts that changed.
bool PlacesFollower::awaitChange() {
    std::array<pollfd, 2> files = {pollfd{mountTable_.get(), POLLPRI, 0}, pollfd{wake_.get(), POLLIN, 0}};
    return poll(files.data(), files.size(), LOOK_INTERVAL) > 0 && (files[0].revents & (POLLPRI | POLLERR)) != 0;
}

void PlacesFollower::lookGuarded(const OnAccessSettings& settings, bool mountsChanged) {
    {
        const std::lock_guard lock(mutex_);
        lookingSince_ = Clock::now();
    }
    try {
        look(settings, mountsChanged);
    } catch (const std::exception& error) {
        NORV_LOG(NORV_LOG_ERROR, "The watched folders could not be looked for: %s", error.what());
    }
    const std::lock_guard lock(mutex_);
    lookingSince_ = Clock::time_point::max();
    ++looks_;
    looked_.notify_all();
}

void PlacesFollower::look(const OnAccessSettings& settings, bool mountsChanged) {
    if (mountsChanged) mounts_ = currentMounts();
    auto now = std::make_shared<const Places>(placesOf(settings, mounts_));
    const auto before = places();
    const bool moved = *now != *before;
    if (!moved && !mountsChanged && marked_) return;
    if (now->troubles != before->troubles)
        for (const std::string& trouble : now->troubles) NORV_LOG(NORV_LOG_WARNING, "%s", trouble.c_str());
    {
        const std::lock_guard lock(mutex_);
        places_ = now;
    }
    const std::size_t count = mark_(now->toMark, moved || mountsChanged);
    marked_ = count == now->toMark.size();
    watching_ = count > 0;
}

}  // namespace keldra
