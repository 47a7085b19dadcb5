#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

/// A program to start. The environment is exactly `environment`: nothing is inherited.
struct Command {
    std::vector<std::string> argv{};  ///< argv[0] is the path of the program
    std::map<std::string, std::string> environment{};
    std::string input{};                                          ///< standard input
    std::filesystem::path workingDirectory = "/";                 ///< where it starts
    std::chrono::milliseconds timeout{std::chrono::seconds(30)};  ///< after that it is killed
};

/// What came of a program that has ended.
struct ProcessResult {
    std::string output;  ///< standard output, byte by byte
    std::string errors;  ///< standard error
    int status = -1;     ///< exit status, -1 when a signal ended it
    int signal = 0;      ///< the signal that ended it
    bool timedOut = false;
    std::chrono::milliseconds elapsed{0};
};

/// Runs a program to its end. Throws when it cannot be started.
ProcessResult runProgram(const Command& command);

/// A program in the background. It is killed at the end of the scope.
class BackgroundProcess {
public:
    /// Starts the program; standard output and standard error go to `outputFile` (`Command::input` and `timeout` are
    /// not used).
    BackgroundProcess(const Command& command, const std::filesystem::path& outputFile);
    ~BackgroundProcess();
    BackgroundProcess(const BackgroundProcess&) = delete;
    BackgroundProcess& operator=(const BackgroundProcess&) = delete;

    pid_t pid() const { return pid_; }
    void sendSignal(int signal) const;
    /// Waits for the end, at most `timeout`. The exit status, 128 + the signal that ended it, nothing while it runs.
    std::optional<int> wait(std::chrono::milliseconds timeout);
    bool running() { return !wait(std::chrono::milliseconds(0)).has_value(); }

private:
    pid_t pid_ = -1;
    std::optional<int> status_;
};
