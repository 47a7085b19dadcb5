#include "tests/harness/process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <utility>

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace {

/// A file descriptor, closed at the end of the scope.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Descriptor() { close(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return fd_; }
    bool open() const { return fd_ >= 0; }
    void close() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

private:
    int fd_ = -1;
};

struct Pipe {
    Pipe() {
        std::array<int, 2> ends{};
        if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
        read = Descriptor(ends[0]);
        write = Descriptor(ends[1]);
    }
    Descriptor read;
    Descriptor write;
};

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    result.reserve(texts.size() + 1);
    for (std::string& text : texts) result.push_back(text.data());
    result.push_back(nullptr);
    return result;
}

pid_t spawn(const Command& command, int in, int out, int err) {
    std::vector<std::string> argv = command.argv;
    std::vector<std::string> environment;
    for (const auto& [name, value] : command.environment) environment.emplace_back(name).append("=").append(value);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addchdir_np(&actions, command.workingDirectory.c_str());
    posix_spawn_file_actions_adddup2(&actions, in, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err, STDERR_FILENO);
    pid_t pid = -1;
    const int error =
        posix_spawn(&pid, argv.at(0).c_str(), &actions, nullptr, pointers(argv).data(), pointers(environment).data());
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) throw std::runtime_error("cannot start " + argv.at(0) + ": " + std::strerror(error));
    return pid;
}

/// Reads what is there; at the end of the stream the descriptor is closed.
void drain(Descriptor& from, std::string& into) {
    std::array<char, 65536> buffer{};
    const ssize_t count = ::read(from.get(), buffer.data(), buffer.size());
    if (count > 0) into.append(buffer.data(), static_cast<std::size_t>(count));
    if (count == 0 || (count < 0 && errno != EINTR)) from.close();
}

/// Writes the next piece of the input; when all is written or nobody reads, the descriptor is closed.
void feed(Descriptor& to, std::string_view& rest) {
    const ssize_t count = ::write(to.get(), rest.data(), rest.size());
    if (count > 0) rest.remove_prefix(static_cast<std::size_t>(count));
    if (rest.empty() || (count < 0 && errno != EINTR && errno != EAGAIN)) to.close();
}

/// Carries the three streams until the program has closed its ends. False when the time ran out.
bool carryStreams(Pipe& in, Pipe& out, Pipe& err, std::string_view input, ProcessResult& result,
                  Clock::time_point end) {
    while (out.read.open() || err.read.open()) {
        std::array<pollfd, 3> fds{pollfd{in.write.get(), POLLOUT, 0}, pollfd{out.read.get(), POLLIN, 0},
                                  pollfd{err.read.get(), POLLIN, 0}};
        const auto left = std::chrono::duration_cast<milliseconds>(end - Clock::now()).count();
        if (left <= 0) return false;
        if (poll(fds.data(), fds.size(), static_cast<int>(left)) < 0) continue;
        if (fds[0].revents != 0) feed(in.write, input);
        if (fds[1].revents != 0) drain(out.read, result.output);
        if (fds[2].revents != 0) drain(err.read, result.errors);
    }
    return true;
}

void recordEnd(int state, ProcessResult& result) {
    if (WIFEXITED(state)) result.status = WEXITSTATUS(state);
    if (WIFSIGNALED(state)) result.signal = WTERMSIG(state);
}

}  // namespace

ProcessResult runProgram(const Command& command) {
    // A program that ends without reading its input must not end the test.
    std::signal(SIGPIPE, SIG_IGN);
    Pipe in;
    Pipe out;
    Pipe err;
    const auto start = Clock::now();
    const pid_t pid = spawn(command, in.read.get(), out.write.get(), err.write.get());
    in.read.close();
    out.write.close();
    err.write.close();
    fcntl(in.write.get(), F_SETFL, O_NONBLOCK);
    if (command.input.empty()) in.write.close();

    ProcessResult result;
    result.timedOut = !carryStreams(in, out, err, command.input, result, start + command.timeout);
    if (result.timedOut) kill(pid, SIGKILL);
    int state = 0;
    waitpid(pid, &state, 0);
    recordEnd(state, result);
    result.elapsed = std::chrono::duration_cast<milliseconds>(Clock::now() - start);
    return result;
}

BackgroundProcess::BackgroundProcess(const Command& command, const std::filesystem::path& outputFile) {
    const Descriptor in(open("/dev/null", O_RDONLY | O_CLOEXEC));
    const Descriptor out(open(outputFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    pid_ = spawn(command, in.get(), out.get(), out.get());
}

BackgroundProcess::~BackgroundProcess() {
    if (!running()) return;
    sendSignal(SIGKILL);
    wait(std::chrono::seconds(10));
}

void BackgroundProcess::sendSignal(int signal) const {
    if (!status_) kill(pid_, signal);
}

std::optional<int> BackgroundProcess::wait(milliseconds timeout) {
    const auto end = Clock::now() + timeout;
    while (!status_) {
        int state = 0;
        const pid_t ended = waitpid(pid_, &state, WNOHANG);
        if (ended == pid_) status_ = WIFEXITED(state) ? WEXITSTATUS(state) : 128 + WTERMSIG(state);
        if (ended < 0) status_ = -1;
        if (status_ || Clock::now() >= end) break;
        std::this_thread::sleep_for(milliseconds(5));
    }
    return status_;
}
