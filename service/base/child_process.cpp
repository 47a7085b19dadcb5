#include "service/base/child_process.h"

#include "norv/log.h"
#include "service/base/files.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <thread>

namespace keldra {

namespace {

using SteadyTime = std::chrono::steady_clock::time_point;

constexpr std::size_t LINE_LIMIT = 4096;

/// What the child is made of; prepared before the fork.
struct ChildPlan {
    char* const* arguments;
    char* const* environment;
    int output;
    pid_t parent;
    const Identity* identity;  ///< null: our own
};

bool become(const Identity& identity) {
    return setgroups(identity.groups.size(), identity.groups.data()) == 0 && setgid(identity.group) == 0 &&
           setuid(identity.user) == 0;
}

/// The child's way between fork and exec: only what is safe in the copy of a program with threads.
[[noreturn]] void becomeProgram(const ChildPlan& plan) {
    setpgid(0, 0);
    prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0);
    // Before the signal is asked for: a change of the user would cancel it.
    if (plan.identity && !become(*plan.identity)) _exit(127);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != plan.parent) _exit(127);
    const int input = open("/dev/null", O_RDONLY);
    if (input < 0 || dup2(input, 0) < 0 || dup2(plan.output, 1) < 0 || dup2(plan.output, 2) < 0) _exit(127);
    close_range(3, ~0U, 0);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (const int number : {SIGPIPE, SIGXFSZ, SIGHUP, SIGINT, SIGTERM, SIGCHLD}) signal(number, SIG_DFL);
    umask(027);
    execve(plan.arguments[0], plan.arguments, plan.environment);
    _exit(127);
}

std::vector<std::string> childEnvironment() {
    std::vector<std::string> environment = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C"};
    for (const char* name : {"CURL_CA_BUNDLE", "TZ"})
        if (const char* value = getenv(name)) environment.push_back(std::string(name) + '=' + value);
    return environment;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

/// A started program: its output, cut into lines, and its end.
class Child {
public:
    explicit Child(const ChildRun& run) : run_(run) {}
    ~Child() { end(); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    bool start();
    /// Waits a moment for output. False once the program has ended and all that it printed is read.
    bool step();
    /// Ends the whole process group and waits for the program. What it still prints is not read.
    void end() noexcept;
    int status() const { return status_; }
    /// The profile of the kernel that the program runs under; empty when there is none, or the program is not there yet
    /// or any more.
    std::string confinement() const;

private:
    bool readSome();
    void reap(int flags) noexcept;

    const ChildRun& run_;
    FileDescriptor output_;
    pid_t pid_ = -1;
    bool ended_ = false;
    int status_ = -1;
    std::string rest_;
};

bool Child::start() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) return false;
    output_ = FileDescriptor(ends[0]);
    const FileDescriptor input(ends[1]);
    fcntl(output_.get(), F_SETFL, O_NONBLOCK);
    std::vector<std::string> arguments = run_.arguments;
    std::vector<std::string> environment = childEnvironment();
    const std::vector<char*> argumentPointers = pointersTo(arguments);
    const std::vector<char*> environmentPointers = pointersTo(environment);
    const ChildPlan plan{argumentPointers.data(), environmentPointers.data(), input.get(), getpid(),
                         run_.identity ? &*run_.identity : nullptr};
    pid_ = fork();
    if (pid_ == 0) becomeProgram(plan);
    if (pid_ > 0) setpgid(pid_, pid_);
    return pid_ > 0;
}

bool Child::step() {
    pollfd file{output_.get(), POLLIN, 0};
    if (output_)
        poll(&file, 1, 200);
    else
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    reap(WNOHANG);
    while (output_ && readSome()) continue;
    return !ended_;
}

/// True when something was read; the output is closed at its end.
bool Child::readSome() {
    std::array<char, 4096> block{};
    const ssize_t count = ::read(output_.get(), block.data(), block.size());
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return false;
    if (count <= 0) {
        output_.reset();
        return false;
    }
    rest_.append(block.data(), static_cast<size_t>(count));
    size_t from = 0;
    for (size_t end = 0; (end = rest_.find_first_of("\r\n", from)) != std::string::npos; from = end + 1)
        if (end > from) run_.line(std::string_view(rest_).substr(from, end - from));
    rest_.erase(0, from);
    if (rest_.size() > LINE_LIMIT) rest_.clear();
    return true;
}

void Child::reap(int flags) noexcept {
    int status = 0;
    if (ended_ || pid_ <= 0 || waitpid(pid_, &status, flags) != pid_) return;
    ended_ = true;
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void Child::end() noexcept {
    if (pid_ <= 0) return;
    output_.reset();
    if (!ended_) {
        kill(-pid_, SIGTERM);
        constexpr timespec MOMENT{0, 20'000'000};
        for (int i = 0; i < 100 && !ended_; ++i) {
            nanosleep(&MOMENT, nullptr);
            reap(WNOHANG);
        }
    }
    kill(-pid_, SIGKILL);
    reap(0);
    pid_ = -1;
}

std::string Child::confinement() const {
    int error = 0;
    const auto text = readFile("/proc/" + std::to_string(pid_) + "/attr/current", LINE_LIMIT, error);
    if (!text || !text->ends_with(")\n")) return "";
    return text->substr(0, text->size() - 1);
}

}  // namespace

std::optional<Identity> identityOf(const std::string& user) {
    std::array<char, 4096> buffer{};
    passwd entry{};
    passwd* found = nullptr;
    if (getpwnam_r(user.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found) return std::nullopt;
    int count = 64;
    Identity identity{entry.pw_uid, entry.pw_gid, std::vector<gid_t>(static_cast<size_t>(count))};
    if (getgrouplist(user.c_str(), identity.group, identity.groups.data(), &count) < 0) return std::nullopt;
    identity.groups.resize(static_cast<size_t>(count));
    return identity;
}

ChildResult runChild(const ChildRun& run) {
    ChildResult result;
    Child child(run);
    if (!child.start()) {
        NORV_LOG(NORV_LOG_ERROR, "Cannot start %s: %s", run.arguments[0].c_str(), errorText(errno).c_str());
        return result;
    }
    const SteadyTime deadline = std::chrono::steady_clock::now() + std::chrono::seconds(run.timeLimit);
    SteadyTime lastPulse = std::chrono::steady_clock::now();
    while (child.step()) {
        if (result.confinement.empty()) result.confinement = child.confinement();
        const SteadyTime now = std::chrono::steady_clock::now();
        result.stopped = run.stopped();
        result.timedOut = now > deadline;
        if (result.stopped || result.timedOut) break;
        if (now - lastPulse < std::chrono::seconds(1)) continue;
        lastPulse = now;
        run.pulse();
    }
    child.end();
    result.status = child.status();
    return result;
}

}  // namespace keldra
