#include "service/engine/scanner_host.h"

#include "norv/log.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <utility>

namespace keldra {

namespace {

constexpr std::chrono::milliseconds END_PATIENCE{1000};
constexpr std::chrono::milliseconds END_STEP{5};
constexpr std::size_t ENDS_KEPT = 64;

/// In the child, between fork and exec: nothing but plain calls. It begins when keldrad knows its number, or an access
/// of its own could be taken for anybody's. `other`: keldrad's end of the channel, whose copy here would keep it open
/// when keldrad is killed at this moment.
[[noreturn]] void becomeScanner(int channel, int other, const char* path, char* const* arguments) {
    ::close(other);
    char go = 0;
    if (::read(channel, &go, 1) != 1) ::_exit(EXIT_FAILURE);
    const int nothing = ::open("/dev/null", O_RDWR);
    // As high as need be, so that neither overwrites the other.
    const int high = ::fcntl(channel, F_DUPFD, wire::TEMPORARY + 4);
    ::dup2(nothing, STDIN_FILENO);
    ::dup2(nothing, STDOUT_FILENO);
    ::dup2(high, wire::CHANNEL);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::execve(path, arguments, environ);
    ::_exit(EXIT_FAILURE);
}

bool makePair(FileDescriptor& ours, FileDescriptor& theirs) {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) return false;
    ours = FileDescriptor(ends[0]);
    theirs = FileDescriptor(ends[1]);
    return true;
}

}  // namespace

ScannerHost::ScannerHost(ScannerProgram program) : program_(std::move(program)) {
    if (!start()) NORV_LOG(NORV_LOG_ERROR, "The scanner cannot be started: %s", errorText(errno).c_str());
}

ScannerHost::~ScannerHost() {
    end();
    if (listener_.joinable()) listener_.join();
}

bool ScannerHost::start() {
    if (::access(program_.path.c_str(), X_OK) != 0) return false;
    FileDescriptor theirs;
    if (!makePair(channel_, theirs)) return false;
    std::string user = std::to_string(program_.user);
    std::string group = std::to_string(program_.group);
    std::string name = "keldra-scanner";
    const std::array<char*, 4> arguments{name.data(), user.data(), group.data(), nullptr};
    pid_ = ::fork();
    if (pid_ == 0) becomeScanner(theirs.get(), channel_.get(), program_.path.c_str(), arguments.data());
    if (pid_ < 0) return false;
    alive_ = true;
    listener_ = std::thread([this] { listen(); });
    const char go = 1;
    return ::send(channel_.get(), &go, 1, MSG_NOSIGNAL) == 1;
}

void ScannerHost::listen() {
    try {
        wire::HostNews news;
        std::vector<FileDescriptor> none;
        while (wire::receive(channel_.get(), news, none) == 1 && none.empty() && hear(news)) {
        }
    } catch (const std::bad_alloc&) {
        // What was not heard would be missed for ever; another host takes its place.
        NORV_LOG(NORV_LOG_ERROR, "The scanner is given up: out of memory");
    }
    end();
    bury();
}

/// False for nonsense.
bool ScannerHost::hear(const wire::HostNews& news) {
    std::string text;
    if (!wire::take(news.text, text) || !wire::take(news.engineVersion, text)) return false;
    const std::lock_guard lock(mutex_);
    switch (news.kind) {
        case wire::HostNews::Kind::LOADED:
            if (loaded_) return false;
            loaded_ = news;
            break;
        case wire::HostNews::Kind::FORKED:
            workers_[news.worker] = news.pid;
            return true;
        case wire::HostNews::Kind::EXITED:
            workers_.erase(news.worker);
            // Most end as they should, and nobody asks.
            if (ends_.size() >= ENDS_KEPT) ends_.erase(ends_.begin());
            ends_[news.worker] = {news.status, news.tookMemory != 0};
            break;
        default:
            return false;
    }
    heard_.notify_all();
    return true;
}

/// The end of its channel ends it by itself. As another user it may not be ended by force; then it is left to that.
void ScannerHost::bury() {
    const auto until = std::chrono::steady_clock::now() + END_PATIENCE;
    while (::waitpid(pid_, nullptr, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() >= until) {
            if (::kill(pid_, SIGKILL) != 0) return;
            ::waitpid(pid_, nullptr, 0);
            return;
        }
        std::this_thread::sleep_for(END_STEP);
    }
}

void ScannerHost::end() {
    ::shutdown(channel_.get(), SHUT_RDWR);
    const std::lock_guard lock(mutex_);
    alive_ = false;
    heard_.notify_all();
}

std::optional<wire::HostNews> ScannerHost::load(const std::vector<SignatureFolder>& folders, int temporary) {
    std::vector<int> descriptors{temporary};
    for (const SignatureFolder& folder : folders) descriptors.push_back(folder.folder.get());
    if (descriptors.size() > wire::MOST_DESCRIPTORS || !wire::send(channel_.get(), wire::HostOrder{}, descriptors))
        return std::nullopt;
    std::unique_lock lock(mutex_);
    heard_.wait(lock, [this] { return loaded_ || !alive_; });
    return loaded_;
}

FileDescriptor ScannerHost::startWorker(uint32_t number, bool background, int temporary) {
    FileDescriptor ours;
    FileDescriptor theirs;
    if (!makePair(ours, theirs)) return {};
    wire::HostOrder order;
    order.kind = wire::HostOrder::Kind::FORK;
    order.worker = number;
    order.background = background ? 1 : 0;
    order.memory = program_.memory;
    order.largest = program_.fileSize;
    order.memberSize = program_.memberSize;
    const std::array<int, 2> descriptors{theirs.get(), temporary};
    if (!wire::send(channel_.get(), order, descriptors)) return {};
    return ours;
}

void ScannerHost::killWorker(uint32_t number) {
    wire::HostOrder order;
    order.kind = wire::HostOrder::Kind::KILL;
    order.worker = number;
    wire::send(channel_.get(), order);
}

std::optional<WorkerEnd> ScannerHost::endOf(uint32_t number, std::chrono::milliseconds patience) {
    std::unique_lock lock(mutex_);
    heard_.wait_for(lock, patience, [this, number] { return ends_.count(number) != 0 || !alive_; });
    const auto found = ends_.find(number);
    if (found == ends_.end()) return std::nullopt;
    const WorkerEnd end = found->second;
    ends_.erase(found);
    return end;
}

bool ScannerHost::alive() const {
    const std::lock_guard lock(mutex_);
    return alive_;
}

bool ScannerHost::owns(pid_t pid) const {
    const std::lock_guard lock(mutex_);
    return pid == pid_ ||
           std::any_of(workers_.begin(), workers_.end(), [pid](const auto& worker) { return worker.second == pid; });
}

bool ScannerHost::confined() const {
    const std::lock_guard lock(mutex_);
    return loaded_ && loaded_->confined != 0;
}

uint64_t ScannerHost::memory() const {
    const std::lock_guard lock(mutex_);
    return loaded_ ? loaded_->memory : 0;
}

}  // namespace keldra
