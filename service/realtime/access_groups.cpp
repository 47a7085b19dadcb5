#include "service/realtime/access_groups.h"

#include "norv/log.h"

#include <fcntl.h>

#include <cerrno>
#include <utility>

namespace keldra {

namespace {

/// The kernel gives a user no more than 128; beyond this many the remote file systems share the one of the local ones.
constexpr std::size_t MOST_GROUPS = 48;
constexpr std::chrono::seconds HANGING{5};
/// On this machine whoever holds a lease may take his time: 45 seconds, unless the administrator chose otherwise.
constexpr std::chrono::seconds HANGING_LOCALLY{60};

}  // namespace

AccessGroups::AccessGroups(std::uint64_t mask, LooseThreads threads, Hooks hooks)
    : mask_(mask), threads_(std::move(threads)), hooks_(std::move(hooks)) {}

bool AccessGroups::open(const std::shared_ptr<void>& owner) {
    owner_ = owner;
    return add({}) != nullptr;
}

std::shared_ptr<FanotifyGroup> AccessGroups::add(const std::string& device) {
    auto group = std::make_shared<FanotifyGroup>();
    if (!group->open()) return nullptr;
    const Source source{group, !device.empty()};
    AccessReaders::Hooks hooks{
        .receive = [this, source](const fanotify_event_metadata& event,
                                  FileDescriptor file) { hooks_.receive(event, std::move(file), source); },
        .note = hooks_.note,
        .failed =
            [this, device, group] {
                group->close();
                if (device.empty()) hooks_.failed();
            }};
    const auto readers = std::make_shared<AccessReaders>(group, threads_, std::move(hooks));
    if (!readers->start(owner_)) return nullptr;
    const std::lock_guard lock(mutex_);
    groups_[device] = {group, readers};
    return group;
}

std::shared_ptr<FanotifyGroup> AccessGroups::groupOf(const std::string& device) {
    {
        const std::lock_guard lock(mutex_);
        auto found = groups_.find(device);
        if (found == groups_.end() && groups_.size() >= MOST_GROUPS) found = groups_.find({});
        if (found != groups_.end()) return found->second.group;
    }
    return add(device);
}

std::size_t AccessGroups::mark(const std::vector<PlaceToMark>& places, bool report) {
    std::size_t count = 0;
    for (const PlaceToMark& place : places) {
        const auto group = groupOf(place.remoteDevice);
        const bool marked =
            group && group->mark(FAN_MARK_ADD | FAN_MARK_FILESYSTEM, mask_, AT_FDCWD, place.path.c_str());
        if (marked) ++count;
        if (!marked && report)
            NORV_LOG(NORV_LOG_ERROR, "%s cannot be watched: %s", place.path.c_str(), errorText(errno).c_str());
    }
    return count;
}

std::vector<AccessGroups::Group> AccessGroups::all() const {
    const std::lock_guard lock(mutex_);
    std::vector<Group> groups;
    for (const auto& [device, group] : groups_) groups.push_back(group);
    return groups;
}

void AccessGroups::watch(SteadyTime now) {
    for (const Group& each : all()) each.readers->watch(now);
}

bool AccessGroups::pressed(SteadyTime now) const {
    for (const Group& each : all())
        if (each.readers->pressed(now)) return true;
    return false;
}

unsigned AccessGroups::hanging(SteadyTime now) const {
    const std::lock_guard lock(mutex_);
    unsigned count = 0;
    for (const auto& [device, group] : groups_)
        count += group.readers->heldUp(now, device.empty() ? HANGING_LOCALLY : HANGING);
    return count;
}

void AccessGroups::forgetClean() {
    for (const Group& each : all()) each.group->mark(FAN_MARK_FLUSH, 0, AT_FDCWD, "/");
}

void AccessGroups::forgetClean(int fd) {
    for (const Group& each : all())
        each.group->mark(FAN_MARK_REMOVE | FAN_MARK_IGNORED_MASK, FAN_OPEN_PERM, fd, nullptr);
}

void AccessGroups::end() {
    for (const Group& each : all()) each.readers->end();
}

void AccessGroups::close() {
    for (const Group& each : all()) each.group->close();
}

}  // namespace keldra
