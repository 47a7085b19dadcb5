#include "service/server/slow_facts.h"

#include "norv/log.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <set>
#include <system_error>
#include <thread>
#include <utility>

namespace keldra {

namespace {

using std::chrono::steady_clock;

constexpr std::chrono::seconds FIRST_LOOK{1};

enum class FolderLook { THERE, EMPTY, MISSING };

FolderLook lookInto(const std::string& folder) {
    const std::unique_ptr<DIR, int (*)(DIR*)> open(::opendir(folder.c_str()), ::closedir);
    // A root may be a single file, and one that may not be read is there all the same; scans tell about that.
    struct stat status {};
    if (!open) return ::lstat(folder.c_str(), &status) == 0 ? FolderLook::THERE : FolderLook::MISSING;
    while (const dirent* const entry = ::readdir(open.get()))
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) return FolderLook::THERE;
    return FolderLook::EMPTY;
}

void lookAtRoots(const SlowQuestions& questions, const std::function<void(const std::string&)>& at, SlowFacts& facts) {
    facts.roots = questions.roots.size();
    for (const std::string& root : questions.roots) {
        at(root);
        const FolderLook look = lookInto(root);
        if (look == FolderLook::MISSING) facts.missingRoots.push_back(root);
        if (look == FolderLook::EMPTY) facts.emptyRoots.push_back(root);
    }
}

void lookAtLeft(const SlowQuestions& questions, const std::function<void(const std::string&)>& at, SlowFacts& facts) {
    std::set<std::string> seen;
    for (const LeftFind& find : questions.left) {
        if (!seen.insert(find.path).second) continue;
        at(find.path);
        struct stat status {};
        if (::lstat(find.path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) continue;
        if (facts.untreated++ > 0) continue;
        facts.untreatedExample = find.path;
        facts.untreatedScan = find.scan;
    }
}

}  // namespace

SlowFacts lookAtDisks(const SlowQuestions& questions, const std::function<void(const std::string& path)>& at) {
    SlowFacts facts;
    at(questions.stateFolder);
    struct statvfs room {};
    if (::statvfs(questions.stateFolder.c_str(), &room) == 0) {
        facts.stateFree = std::uint64_t{room.f_bavail} * room.f_frsize;
        facts.stateSize = std::uint64_t{room.f_blocks} * room.f_frsize;
    }
    lookAtRoots(questions, at, facts);
    lookAtLeft(questions, at, facts);
    return facts;
}

/// Shared with the thread, which may have to be left behind.
struct SlowFactsWatch::State {
    std::function<SlowQuestions()> ask;
    std::chrono::milliseconds interval;
    std::chrono::milliseconds patience;
    std::mutex mutex;
    std::condition_variable changed;
    bool stopping = false;
    bool wanted = true;
    bool looked = false;
    bool ended = false;
    SlowFacts facts;
    std::string current;  ///< empty while nothing is looked at
    steady_clock::time_point since;

    static void run(const std::shared_ptr<State>& state);
    void look(std::unique_lock<std::mutex>& lock);
};

void SlowFactsWatch::State::look(std::unique_lock<std::mutex>& lock) {
    wanted = false;
    const SlowQuestions questions = ask();
    lock.unlock();
    SlowFacts seen = lookAtDisks(questions, [this](const std::string& path) {
        const std::lock_guard now(mutex);
        current = path;
        since = steady_clock::now();
    });
    lock.lock();
    current.clear();
    facts = std::move(seen);
    looked = true;
    changed.notify_all();
}

void SlowFactsWatch::State::run(const std::shared_ptr<State>& state) {
    std::unique_lock lock(state->mutex);
    while (!state->stopping) {
        try {
            state->look(lock);
        } catch (const std::exception& error) {
            if (!lock.owns_lock()) lock.lock();
            NORV_LOG(NORV_LOG_ERROR, "The disks cannot be looked at: %s", error.what());
        }
        state->changed.wait_for(lock, state->interval, [&state] { return state->stopping || state->wanted; });
    }
    state->ended = true;
    state->changed.notify_all();
}

SlowFactsWatch::SlowFactsWatch(std::function<SlowQuestions()> ask, int intervalMilliseconds, int patienceMilliseconds)
    : state_(std::make_shared<State>()) {
    state_->ask = std::move(ask);
    state_->interval = std::chrono::milliseconds(intervalMilliseconds);
    state_->patience = std::chrono::milliseconds(patienceMilliseconds);
    std::thread([state = state_] { State::run(state); }).detach();
}

SlowFacts SlowFactsWatch::facts() const {
    std::unique_lock lock(state_->mutex);
    state_->changed.wait_for(lock, FIRST_LOOK, [this] { return state_->looked || state_->stopping; });
    SlowFacts facts = state_->facts;
    if (!state_->current.empty() && steady_clock::now() - state_->since > state_->patience)
        facts.hangingPath = state_->current;
    return facts;
}

void SlowFactsWatch::lookAgain() {
    const std::lock_guard lock(state_->mutex);
    state_->wanted = true;
    state_->changed.notify_all();
}

/// The thread is left behind where a disk does not answer; it holds nothing but its own state.
void SlowFactsWatch::stop() {
    std::unique_lock lock(state_->mutex);
    state_->stopping = true;
    state_->changed.notify_all();
    state_->changed.wait_for(lock, std::chrono::seconds(2), [this] { return state_->ended; });
}

}  // namespace keldra
