#include "tests/harness/process.h"

#include "norv/file_descriptor.h"
#include "tests/harness/temp_dir.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <stdexcept>

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace {

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

FileDescriptor openFile(const std::filesystem::path& file, int flags) {
    return FileDescriptor(open(file.c_str(), flags | O_CREAT | O_CLOEXEC, 0600));
}

/// Waits for the end of a process, at most `timeout`. What `waitpid` tells of it, nothing while it runs.
std::optional<int> endOf(pid_t pid, milliseconds timeout) {
    const FileDescriptor process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    pollfd ended{process.get(), POLLIN, 0};
    int state = 0;
    poll(&ended, 1, static_cast<int>(timeout.count()));
    return waitpid(pid, &state, WNOHANG) == pid ? std::optional(state) : std::nullopt;
}

}  // namespace

ProcessResult runProgram(const Command& command) {
    const TempDir streams;
    writeFile(streams / "in", command.input);
    const FileDescriptor in = openFile(streams / "in", O_RDONLY);
    const FileDescriptor out = openFile(streams / "out", O_WRONLY);
    const FileDescriptor err = openFile(streams / "err", O_WRONLY);
    const auto start = Clock::now();
    const pid_t pid = spawn(command, in.get(), out.get(), err.get());
    std::optional<int> state = endOf(pid, command.timeout);
    ProcessResult result;
    result.timedOut = !state.has_value();
    result.elapsed = std::chrono::duration_cast<milliseconds>(Clock::now() - start);
    if (result.timedOut) {
        kill(pid, SIGKILL);
        state = endOf(pid, milliseconds(-1));
    }
    if (state && WIFEXITED(*state)) result.status = WEXITSTATUS(*state);
    if (state && WIFSIGNALED(*state)) result.signal = WTERMSIG(*state);
    result.output = readFile(streams / "out");
    result.errors = readFile(streams / "err");
    return result;
}

BackgroundProcess::BackgroundProcess(const Command& command, const std::filesystem::path& outputFile) {
    const FileDescriptor in = openFile("/dev/null", O_RDONLY);
    const FileDescriptor out = openFile(outputFile, O_WRONLY | O_APPEND);
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
    if (status_) return status_;
    if (const auto state = endOf(pid_, timeout))
        status_ = WIFEXITED(*state) ? WEXITSTATUS(*state) : 128 + WTERMSIG(*state);
    return status_;
}
