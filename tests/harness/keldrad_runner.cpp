#include "tests/harness/keldrad_runner.h"

#include "norv/crypto.h"
#include "tests/harness/service_client.h"

#include <array>
#include <csignal>
#include <cstdlib>
#include <thread>
#include <utility>

using Clock = std::chrono::steady_clock;

KeldradRunner::KeldradRunner(std::filesystem::path keldrad, std::filesystem::path keldractl)
    : keldrad_(std::move(keldrad)), keldractl_(std::move(keldractl)) {
    writeFile(file("config.xml"), "<Document><Group Type=\"Configuration\"><P Name=\"VarPath\" Value=\"" +
                                      file("var").string() + "\"/></Group></Document>\n");
    writeFile(file("key"), std::string(64, '7') + "\n");
    std::filesystem::permissions(file("key"), std::filesystem::perms(0640));
    std::filesystem::create_directories(file("var"));
    std::filesystem::create_directories(file("state"));
    std::filesystem::permissions(file("state"), std::filesystem::perms(0700));
    setenv("KELDRA_KEY_FILE", file("key").c_str(), 1);
}

std::map<std::string, std::string> KeldradRunner::fullEnvironment() const {
    std::map<std::string, std::string> result = environment;
    for (const char* const sanitizer : {"ASAN_OPTIONS", "UBSAN_OPTIONS"})
        if (const char* const value = std::getenv(sanitizer)) result.emplace(sanitizer, value);
    result.emplace("PATH", "/usr/sbin:/usr/bin:/sbin:/bin");
    result.emplace("KELDRA_SOCKET", socket());
    result.emplace("KELDRA_KEY_FILE", file("key"));
    result.emplace("KELDRA_LOG", file("log"));
    return result;
}

bool KeldradRunner::start(std::chrono::milliseconds timeout) {
    Command command{.argv = {keldrad_.string(), "--config", file("config.xml"), "--state", file("state"), "--socket",
                             socket(), "--key", file("key")},
                    .environment = fullEnvironment(),
                    .workingDirectory = root_.path()};
    command.argv.insert(command.argv.end(), arguments.begin(), arguments.end());
    process_ = std::make_unique<BackgroundProcess>(command, file("printed"));
    const auto end = Clock::now() + timeout;
    while (Clock::now() < end && process_->running()) {
        if (ask(IPCMessage(IPCMessage::GET, IPCMessage::CONFIG_FILE_CHECK), std::chrono::seconds(2))) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

std::optional<int> KeldradRunner::stop(std::chrono::milliseconds timeout) {
    if (!process_) return std::nullopt;
    process_->sendSignal(SIGTERM);
    const std::optional<int> status = process_->wait(timeout);
    process_.reset();
    return status;
}

void KeldradRunner::leave() {
    process_->sendSignal(SIGTERM);
    left_ = std::move(process_);
}

void KeldradRunner::crash() {
    if (!process_) return;
    process_->sendSignal(SIGKILL);
    process_->wait(std::chrono::seconds(10));
    process_.reset();
}

std::optional<IPCMessage> KeldradRunner::ask(const IPCMessage& request, std::chrono::milliseconds timeout) const {
    return askService(socket(), request, timeout);
}

std::string KeldradRunner::logOn(const std::string& password, const std::string& address) const {
    std::array<char, 512> encrypted{};
    if (dm_encryptString(password.c_str(), encrypted.data(), encrypted.size()) < 1) return {};
    IPCMessage request(IPCMessage::SESSION, IPCMessage::PASSWORD_LOGON);
    request.addParam("Password", encrypted.data());
    request.addParam("User", "admin");
    request.addParam("RemoteAddr", address);
    const std::optional<IPCMessage> reply = ask(request);
    if (!reply || reply->result != IPCMessage::RESULT_OK) return {};
    return reply->value<std::string>("SessionID");
}

bool KeldradRunner::setPassword(const std::string& password) const {
    return control({"passwd", "--state", file("state"), "--stdin"}, password + "\n").status == 0;
}

ProcessResult KeldradRunner::control(const std::vector<std::string>& arguments, const std::string& input) const {
    Command command{.argv = {keldractl_.string()},
                    .environment = fullEnvironment(),
                    .input = input,
                    .workingDirectory = root_.path()};
    command.argv.insert(command.argv.end(), arguments.begin(), arguments.end());
    return runProgram(command);
}
