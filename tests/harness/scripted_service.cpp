#include "tests/harness/scripted_service.h"

#include "norv/message_codec.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <span>
#include <stdexcept>
#include <string_view>

namespace {

std::string frame(const IPCMessage& message) {
    std::string payload;
    if (!encodeMessage(message, payload)) throw std::runtime_error("an answer that cannot be encoded");
    return frameHeader(payload.size()) + payload;
}

void sendAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count <= 0) return;
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
}

int listenOn(const std::filesystem::path& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.string().copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 || listen(fd, 16) != 0) {
        throw std::runtime_error("cannot listen on " + path.string());
    }
    return fd;
}

}  // namespace

Answer Answer::reply(int32_t result, const std::map<std::string, std::string>& params) {
    IPCMessage message;
    message.result = result;
    for (const auto& [name, value] : params) message.addParam(name, value);
    return raw(frame(message));
}

Answer Answer::halfFrame() {
    Answer answer = reply(IPCMessage::RESULT_OK);
    answer.bytes.resize(answer.bytes.size() / 2);
    answer.cut = true;
    return answer;
}

Answer Answer::garbage() {
    const std::string payload = "this is not a message";
    return raw(frameHeader(payload.size()) + payload);
}

Answer Answer::after(std::chrono::milliseconds time) const {
    Answer later = *this;
    later.delay = time;
    return later;
}

ScriptedService::ScriptedService(const std::filesystem::path& socket) : listener_(listenOn(socket)) {
    if (pipe2(wakeUp_, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    thread_ = std::thread([this] { serve(); });
}

ScriptedService::~ScriptedService() {
    close(wakeUp_[1]);
    thread_.join();
    for (const auto& [fd, pending] : connections_) close(fd);
    close(wakeUp_[0]);
    close(listener_);
}

void ScriptedService::on(IPCMessage::Operation operation, IPCMessage::CommandID command, std::deque<Answer> answers) {
    const std::lock_guard lock(mutex_);
    script_[{operation, command}] = std::move(answers);
}

std::vector<IPCMessage> ScriptedService::takeRequests() {
    const std::lock_guard lock(mutex_);
    return std::exchange(requests_, {});
}

void ScriptedService::serve() {
    while (true) {
        std::vector<pollfd> fds{{wakeUp_[0], POLLIN, 0}, {listener_, POLLIN, 0}};
        for (const auto& [fd, pending] : connections_) fds.push_back({fd, POLLIN, 0});
        if (poll(fds.data(), fds.size(), -1) < 0) continue;
        if (fds[0].revents != 0) return;
        if (fds[1].revents != 0) acceptConnection();
        for (std::size_t i = 2; i < fds.size(); ++i) {
            if (fds[i].revents == 0 || readConnection(fds[i].fd, connections_[fds[i].fd])) continue;
            close(fds[i].fd);
            connections_.erase(fds[i].fd);
        }
    }
}

void ScriptedService::acceptConnection() {
    const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) connections_[fd];
}

bool ScriptedService::readConnection(int fd, std::string& pending) {
    std::array<char, 65536> buffer{};
    const ssize_t count = recv(fd, buffer.data(), buffer.size(), 0);
    if (count <= 0) return false;
    pending.append(buffer.data(), static_cast<std::size_t>(count));
    return answerFrames(fd, pending);
}

bool ScriptedService::answerFrames(int fd, std::string& pending) {
    while (pending.size() >= FRAME_HEADER_SIZE) {
        const std::size_t length =
            frameLength(std::span<const char, FRAME_HEADER_SIZE>(pending.data(), FRAME_HEADER_SIZE));
        if (pending.size() < FRAME_HEADER_SIZE + length) break;
        IPCMessage request;
        if (!decodeMessage(std::span(pending).subspan(FRAME_HEADER_SIZE, length), request)) return false;
        pending.erase(0, FRAME_HEADER_SIZE + length);
        const Answer answer = answerTo(request);
        std::this_thread::sleep_for(answer.delay);
        sendAll(fd, answer.bytes);
        if (answer.cut) return false;
    }
    return true;
}

Answer ScriptedService::answerTo(const IPCMessage& request) {
    const std::lock_guard lock(mutex_);
    requests_.push_back(request);
    const Key key{static_cast<IPCMessage::Operation>(request.operation),
                  static_cast<IPCMessage::CommandID>(request.commandID)};
    const auto found = script_.find(key);
    if (found == script_.end() || found->second.empty()) return Answer::refuse(IPCMessage::RESULT_ERROR);
    Answer answer = found->second.front();
    if (found->second.size() > 1) found->second.pop_front();
    return answer;
}

void serveDefaults(ScriptedService& service, const ServiceDefaults& defaults) {
    using M = IPCMessage;
    const Answer accept = Answer::reply(M::RESULT_OK);
    const auto record = [&](M::CommandID command, const std::string& name, const std::string& text) {
        service.on(M::GET, command, Answer::reply(M::RESULT_OK, {{name, text}}));
        service.on(M::SET, command, accept);
    };
    service.on(M::GET, M::CONFIG_FILE_CHECK, accept);
    service.on(M::GET, M::CONFIG_FILE_STATE,
               Answer::reply(M::RESULT_OK, {{"Content", defaults.document}, {"LastModified", defaults.stamp}}));
    service.on(M::SESSION, M::SESSION_CHECK, accept);
    service.on(M::SESSION, M::SESSION_WATCH, accept);
    service.on(M::SESSION, M::SESSION_LOGOFF, accept);
    service.on(M::GET, M::VIRUS_TYPES, Answer::reply(M::RESULT_OK, {{"VirusTypes", defaults.virusTypes}}));
    record(M::MANUAL_SCAN_CONFIG, "ManualScanConfig", defaults.manualScan);
    record(M::REALTIME_SCAN_CONFIG, "RealtimeScanConfig", defaults.realtimeScan);
    record(M::SCHEDULED_SCAN_CONFIG, "ScheduledScanConfig", defaults.scheduledScan);
    record(M::SCHEDULED_UPDATE_CONFIG, "ScheduledAUConfig", defaults.scheduledUpdate);
    service.on(M::START, M::MANUAL_SCAN, Answer::reply(M::RESULT_OK, {{"RequestID", "17_1"}}));
    service.on(M::STOP, M::MANUAL_SCAN, accept);
    service.on(M::START, M::MANUAL_UPDATE, accept);
}
