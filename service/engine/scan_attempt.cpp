#include "service/engine/scan_attempt.h"

#include <poll.h>
#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace keldra {

namespace {

using namespace std::chrono_literals;
using Steady = std::chrono::steady_clock;

constexpr auto STOP_STEP = 50ms;
constexpr auto END_PATIENCE = 500ms;

constexpr const char* TOO_LONG = "the scan took too long";
constexpr const char* TOO_MUCH_ROOM = "what it holds takes too much room unpacked";

/// A name of a signature of our own ends in this.
std::string withoutSuffix(std::string name) {
    constexpr std::string_view SUFFIX = ".UNOFFICIAL";
    if (name.size() > SUFFIX.size() && name.ends_with(SUFFIX)) name.resize(name.size() - SUFFIX.size());
    return name;
}

/// What the answer says; nothing when it makes no sense.
std::optional<ScanResult> resultOf(const wire::ScanAnswer& answer, uint64_t number) {
    ScanResult result;
    if (answer.number != number || answer.verdict > static_cast<uint32_t>(Verdict::FAILED) ||
        !wire::take(answer.signature, result.engineName) || !wire::take(answer.detail, result.detail))
        return std::nullopt;
    result.verdict = static_cast<Verdict>(answer.verdict);
    result.signature = withoutSuffix(result.engineName);
    const bool infected = result.verdict == Verdict::INFECTED;
    const bool explained = result.verdict != Verdict::CLEAN && !infected;
    if (result.signature.empty() == infected || result.detail.empty() == explained) return std::nullopt;
    return result;
}

std::string reasonOfEnd(const ScannerWorker& worker) {
    const auto end = worker.host->endOf(worker.number, END_PATIENCE);
    if (!end) return "the scanner ended";
    const int signal = WIFSIGNALED(end->status) ? WTERMSIG(end->status) : 0;
    if (signal == SIGXCPU) return TOO_LONG;
    // Nobody but the kernel, for want of memory, ends a worker in this way that is not overdue.
    if (end->tookMemory || signal == SIGKILL) return "the scanner took too much memory";
    return "the scanner crashed";
}

ScanAttempt ended(const ScannerWorker& worker) {
    if (worker.tookRoom) return {ScanAttempt::Kind::ENDED, notFullyScanned(TOO_MUCH_ROOM)};
    return {ScanAttempt::Kind::ENDED, lastingFailure(reasonOfEnd(worker))};
}

}  // namespace

ScanResult lastingFailure(std::string reason) {
    return {.verdict = Verdict::FAILED, .signature = {}, .detail = std::move(reason), .lasting = true};
}

ScanAttempt scanAt(ScannerWorker& worker, int fd, const wire::ScanOrder& order, std::chrono::milliseconds limit,
                   const std::stop_token& stop) {
    using Kind = ScanAttempt::Kind;
    const auto until = Steady::now() + limit;
    if (!wire::send(worker.channel.get(), order, std::array<int, 1>{fd})) return ended(worker);
    pollfd channel{worker.channel.get(), POLLIN, 0};
    while (::poll(&channel, 1, static_cast<int>(STOP_STEP / 1ms)) <= 0) {
        const bool overdue = Steady::now() >= until;
        if (!stop.stop_requested() && !overdue) continue;
        worker.host->killWorker(worker.number);
        if (!overdue) return {Kind::STOPPED, notFullyScanned(STOPPED)};
        return {Kind::OVERDUE, lastingFailure(TOO_LONG)};
    }
    wire::ScanAnswer answer;
    std::vector<FileDescriptor> descriptors;
    const int heard = wire::receive(worker.channel.get(), answer, descriptors);
    if (heard == 0 || (heard < 0 && errno == ECONNRESET)) return ended(worker);
    if (heard == 1 && descriptors.empty())
        if (auto result = resultOf(answer, order.number)) return {Kind::ANSWERED, std::move(*result)};
    worker.host->killWorker(worker.number);
    return {Kind::NONSENSE, lastingFailure("the scanner answered nonsense")};
}

}  // namespace keldra
