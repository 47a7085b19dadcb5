#pragma once

#include "norv/ipc_message.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

/// What a scripted service does with one request: after `delay` it sends `bytes`, then it cuts the connection or not.
struct Answer {
    std::string bytes{};
    bool cut = false;
    std::chrono::milliseconds delay{0};

    /// A reply with this result and these parameters.
    static Answer reply(int32_t result, const std::map<std::string, std::string>& params = {});
    /// A reply that says no, with whatever number.
    static Answer refuse(int32_t result) { return reply(result); }
    /// No answer at all; the connection stays open.
    static Answer silence() { return {}; }
    /// The connection is cut without an answer.
    static Answer hangUp() { return {.bytes = "", .cut = true}; }
    /// An accepting reply that is cut in the middle.
    static Answer halfFrame();
    /// A whole frame that holds no message.
    static Answer garbage();
    /// A length field that announces more than any frame may carry.
    static Answer oversized() { return raw("\xff\xff\xff\xff"); }
    /// These bytes, whatever they are.
    static Answer raw(std::string bytes) { return {.bytes = std::move(bytes)}; }
    /// The same, later.
    Answer after(std::chrono::milliseconds time) const;
};

/// A stand-in for the service: a Unix socket with a thread behind it that records every request and answers from a
/// script. A request that the script does not name is answered with result 2.
class ScriptedService {
public:
    using Key = std::pair<IPCMessage::Operation, IPCMessage::CommandID>;

    /// Listens on `socket` at once.
    explicit ScriptedService(const std::filesystem::path& socket);
    ~ScriptedService();
    ScriptedService(const ScriptedService&) = delete;
    ScriptedService& operator=(const ScriptedService&) = delete;

    /// Answers these requests one after the other as listed, the last one for ever.
    void on(IPCMessage::Operation operation, IPCMessage::CommandID command, std::deque<Answer> answers);
    void on(IPCMessage::Operation operation, IPCMessage::CommandID command, const Answer& answer) {
        on(operation, command, std::deque<Answer>{answer});
    }
    /// Every request so far, in the order of arrival, and forgets them.
    std::vector<IPCMessage> takeRequests();

private:
    void serve();
    void acceptConnection();
    /// False when the connection is done.
    bool readConnection(int fd, std::string& pending);
    bool answerFrames(int fd, std::string& pending);
    Answer answerTo(const IPCMessage& request);

    int listener_ = -1;
    int wakeUp_[2] = {-1, -1};
    std::map<int, std::string> connections_;
    std::mutex mutex_;
    std::map<Key, std::deque<Answer>> script_;
    std::vector<IPCMessage> requests_;
    std::thread thread_;
};

/// What the default script serves.
struct ServiceDefaults {
    std::string document;              ///< XML text of the configuration
    std::string stamp = "1700000000";  ///< its last modification
    std::string manualScan = R"({"NORVManualScanConfig":{}})";
    std::string realtimeScan = R"({"NORVRealtimeScanConfig":{"serviceRunning":true,"kernelHookModuleLoaded":true}})";
    std::string scheduledScan = R"({"NORVScheduledScanConfig":{}})";
    std::string scheduledUpdate = R"({"NORVScheduledAUConfig":{}})";
    std::string virusTypes = "Virus;Trojan;Joke";
};

/// A script for a service in good health: sessions are valid, the document and every record are served and can be
/// stored, a scan can be started ("17_1") and stopped, an update can be started.
void serveDefaults(ScriptedService& service, const ServiceDefaults& defaults);
