#include "service/server/dispatcher.h"

#include "norv/log.h"
#include "service/access/session_store.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <exception>
#include <memory>
#include <utility>

namespace keldra {

namespace {

constexpr std::chrono::milliseconds SWEEP_INTERVAL{100};
constexpr const char* TOO_LATE = "This takes too long: a file system does not answer.";

/// A reply that two may want to give: who does the work, and who tells that it takes too long. The first one does. When
/// neither could, for want of memory for instance, the client is refused all the same.
class OneReply {
public:
    explicit OneReply(Reply reply) : reply_(std::move(reply)) {}
    ~OneReply() {
        try {
            give({refusal({}, "")});
        } catch (const std::exception& error) {
            NORV_LOG(NORV_LOG_ERROR, "A client gets no reply: %s", error.what());
        }
    }
    OneReply(const OneReply&) = delete;
    OneReply& operator=(const OneReply&) = delete;

    void give(Answered answered) {
        if (!given_.exchange(true)) reply_(std::move(answered));
    }

private:
    const Reply reply_;
    std::atomic<bool> given_ = false;
};

WorkLane& laneOf(Lanes& lanes, Runs runs) {
    switch (runs) {
        case Runs::SAVING:
            return lanes.saving;
        case Runs::FOLDERS:
            return lanes.folders;
        case Runs::LOG_ON:
        case Runs::IN_TURN:
            return lanes.logOns;
        case Runs::AT_ONCE:
        case Runs::GENERAL:
            break;
    }
    return lanes.general;
}

}  // namespace

Dispatcher::Dispatcher(asio::io_context& io, Parts parts, Lanes& lanes, Chronicle& chronicle)
    : parts_(std::move(parts)),
      lanes_(lanes),
      chronicle_(chronicle),
      logonTurns_(io, std::get<LogonGuard&>(parts_), lanes.logOns, std::get<const Running&>(parts_).clock),
      sweeping_(io) {}

/// Answers and tells the journal of it; of a gate only what it refuses.
IPCMessage Dispatcher::told(Handler handler, const Command& command, const Caller& caller, const IPCMessage& request,
                            bool isGate) const {
    auto telling = Chronicle::begin(parts_, command, caller, request);
    IPCMessage reply = answerWith(handler, parts_, command, caller, request);
    if (!isGate || reply.result != IPCMessage::RESULT_OK) chronicle_.end(std::move(telling), reply);
    return reply;
}

/// What was proved by a command that was done becomes known of the connection.
Answered Dispatcher::done(const Command& command, const Caller& caller, const IPCMessage& request) const {
    Answered answered{told(command.handler, command, caller, request, false)};
    if (command.proves == Proves::NONE || answered.reply.result != IPCMessage::RESULT_OK) return answered;
    const IPCMessage& names = command.proves == Proves::NEW_SESSION ? answered.reply : request;
    answered.caller = caller;
    answered.caller->session = names.value<std::string>("SessionID");
    answered.caller->name = std::get<SessionStore&>(parts_).userOf(answered.caller->session);
    answered.caller->address = request.value<std::string>("RemoteAddr");
    return answered;
}

void Dispatcher::answer(IPCMessage request, const Caller& caller, Reply reply) {
    const Command* const command = findCommand(request);
    if (!command) return reply({refusal(request, "Unknown command.")});
    if (!mayUse(parts_, *command, caller)) {
        NORV_LOG(NORV_LOG_REFUSED, "User %u may not: %s", caller.user, command->name);
        return reply({refusal(request, "This needs a session.")});
    }
    if (command->gate) {
        IPCMessage refused = told(command->gate, *command, caller, request, true);
        if (refused.result != IPCMessage::RESULT_OK) return reply({std::move(refused)});
    }
    if (command->runs == Runs::AT_ONCE) return reply(done(*command, caller, request));
    if (command->runs == Runs::IN_TURN) return putInTurn(*command, std::move(request), caller, std::move(reply));
    postTo(laneOf(lanes_, command->runs), *command, std::move(request), caller, std::move(reply));
}

void Dispatcher::putInTurn(const Command& command, IPCMessage request, const Caller& caller, Reply reply) {
    const auto once = std::make_shared<OneReply>(std::move(reply));
    const auto asked = std::make_shared<const IPCMessage>(std::move(request));
    logonTurns_.put(
        asked->value<std::string>("RemoteAddr"),
        [this, once, asked, &command, caller] { once->give(done(command, caller, *asked)); },
        [once, asked] { once->give({refusal(*asked, TOO_MANY_LOGONS)}); });
}

void Dispatcher::postTo(WorkLane& lane, const Command& command, IPCMessage request, const Caller& caller, Reply reply) {
    const auto once = std::make_shared<OneReply>(std::move(reply));
    const auto asked = std::make_shared<const IPCMessage>(std::move(request));
    const auto work = [this, once, asked, &command, caller] { once->give(done(command, caller, *asked)); };
    WorkLane::Work late;
    // What only takes its time is done in the end; who asks about a folder has nothing of an answer that never comes.
    if (command.runs == Runs::FOLDERS) late = [once, asked] { once->give({refusal(*asked, TOO_LATE)}); };
    if (!lane.post(work, late)) return once->give({refusal(*asked, TOO_MUCH)});
    sweepLater();
}

void Dispatcher::stop() {
    sweeping_.cancel();
    logonTurns_.stop();
}

void Dispatcher::sweepLater() {
    if (swept_) return;
    sweeping_.expires_after(SWEEP_INTERVAL);
    sweeping_.async_wait([this](const asio::error_code& stopped) {
        swept_ = false;
        if (stopped) return;
        const auto lanes = lanes_.all();
        for (WorkLane* const lane : lanes) lane->sweep();
        if (std::any_of(lanes.begin(), lanes.end(), [](const WorkLane* lane) { return lane->busy(); })) sweepLater();
    });
    swept_ = true;
}

}  // namespace keldra
