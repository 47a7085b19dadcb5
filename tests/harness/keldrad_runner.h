#pragma once

#include "norv/ipc_message.h"
#include "tests/harness/log_file.h"
#include "tests/harness/process.h"
#include "tests/harness/temp_dir.h"

#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// A real keldrad on files of its own in a temporary folder: config.xml, state/, var/, key, socket, log, quarantine and
/// all. Nothing runs until `start()`; what it left is there for the next `start()`, also after `crash()`.
class KeldradRunner {
public:
    /// `keldrad` and `keldractl`: the programs. A configuration that names only VarPath is written, and a key; the key
    /// file also becomes KELDRA_KEY_FILE of the test itself, so that dm_encryptString uses it.
    KeldradRunner(std::filesystem::path keldrad, std::filesystem::path keldractl);

    /// Arguments and variables for the next start, beside --config, --state, --socket and --key.
    std::vector<std::string> arguments;
    std::map<std::string, std::string> environment;

    /// Starts the service and waits until it answers. False when it does not within the time.
    bool start(std::chrono::milliseconds timeout = std::chrono::seconds(20));
    /// Ends it with SIGTERM. Its exit status, nothing when it had to be killed.
    std::optional<int> stop(std::chrono::milliseconds timeout = std::chrono::seconds(10));
    /// Asks it to end with SIGTERM and waits for it no longer, as where its process cannot go.
    void leave();
    /// Ends it with SIGKILL, as a power cut would.
    void crash();
    bool running() { return process_ && process_->running(); }
    pid_t pid() const { return process_ ? process_->pid() : -1; }

    /// One exchange over a connection of its own. Nothing when no reply came.
    std::optional<IPCMessage> ask(const IPCMessage& request,
                                  std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    /// Logs on as the console does. The session's id, empty when refused.
    std::string logOn(const std::string& password, const std::string& address = "192.0.2.7") const;
    /// Sets the console's password with keldractl. False when it refuses.
    bool setPassword(const std::string& password) const;
    /// Runs keldractl against this service's files and socket.
    ProcessResult control(const std::vector<std::string>& arguments, const std::string& input = {}) const;

    /// A file of the folder: "config.xml", "state", "var", "key", "service.sock", "log".
    std::filesystem::path file(std::string_view name) const { return root_ / name; }
    std::filesystem::path socket() const { return file("service.sock"); }
    std::vector<LogLine> log() const { return readLog(file("log")); }
    /// What the service printed on its standard streams.
    std::string printed() const { return readFile(file("printed")); }

private:
    std::map<std::string, std::string> fullEnvironment() const;

    TempDir root_;
    std::filesystem::path keldrad_;
    std::filesystem::path keldractl_;
    std::unique_ptr<BackgroundProcess> process_;
    std::unique_ptr<BackgroundProcess> left_;
};
