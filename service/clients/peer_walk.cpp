#include "service/clients/peer_walk.h"

#include "service/base/files.h"
#include "service/tree/file_walk.h"

#include <sys/stat.h>

#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <exception>
#include <mutex>
#include <stop_token>
#include <thread>
#include <utility>

namespace keldra {

namespace {

/// Open files that wait to be scanned.
constexpr std::size_t READY = 4;

std::string realPathOf(const std::string& path) {
    const std::unique_ptr<char, decltype(&std::free)> real(::realpath(path.c_str(), nullptr), &std::free);
    return real ? real.get() : std::string();
}

}  // namespace

struct PeerWalk::State {
    State(Peer who, std::string where) : peer(std::move(who)), path(std::move(where)) {}

    void walk();
    void walkFrom(const std::string& real);
    void give(PeerFile file);
    void refuse(std::string fault);

    const Peer peer;
    const std::string path;
    std::stop_source stopping;
    std::mutex mutex;
    std::condition_variable_any changed;
    std::deque<PeerFile> ready;
    bool ended = false;
    std::string rootFault;
};

PeerWalk::PeerWalk(Peer peer, std::string path) : state_(std::make_shared<State>(std::move(peer), std::move(path))) {
    std::thread([state = state_] { state->walk(); }).detach();
}

PeerWalk::~PeerWalk() { state_->stopping.request_stop(); }

std::optional<PeerFile> PeerWalk::next(const std::stop_token& stop) {
    std::unique_lock lock(state_->mutex);
    const bool come = state_->changed.wait(lock, stop, [this] { return state_->ended || !state_->ready.empty(); });
    if (!come || state_->ready.empty()) return std::nullopt;
    PeerFile file = std::move(state_->ready.front());
    state_->ready.pop_front();
    state_->changed.notify_all();
    return file;
}

std::string PeerWalk::rootFault() const {
    const std::lock_guard lock(state_->mutex);
    return state_->rootFault;
}

void PeerWalk::State::refuse(std::string fault) {
    const std::lock_guard lock(mutex);
    rootFault = std::move(fault);
}

void PeerWalk::State::give(PeerFile file) {
    std::unique_lock lock(mutex);
    if (!changed.wait(lock, stopping.get_token(), [this] { return ready.size() < READY; })) return;
    ready.push_back(std::move(file));
    changed.notify_all();
}

void PeerWalk::State::walk() {
    try {
        // A path that is not absolute would be one in the service's own working folder.
        if (path.empty() || path.front() != '/') {
            refuse(errorText(ENOENT));
        } else if (!takeFileRightsOf(peer)) {
            refuse(errorText(EACCES));
        } else if (const std::string real = realPathOf(path); real.empty()) {
            refuse(errorText(errno));
        } else {
            walkFrom(real);
        }
    } catch (const std::exception& error) {
        refuse(error.what());
    }
    const std::lock_guard lock(mutex);
    ended = true;
    changed.notify_all();
}

void PeerWalk::State::walkFrom(const std::string& real) {
    const auto asNamed = [&](const std::string& found) {
        return found.compare(0, real.size(), real) == 0 ? path + found.substr(real.size()) : found;
    };
    WalkPlan plan;
    plan.roots = {real};
    FileWalk files(plan, [&](const std::string& found, const std::string& reason) {
        give({asNamed(found), std::nullopt, reason});
    });
    while (auto file = files.nextOpened(stopping.get_token())) {
        std::string name = asNamed(file->path);
        give({std::move(name), std::move(*file), {}});
    }
}

}  // namespace keldra
