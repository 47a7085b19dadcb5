#pragma once

#include "norv/protocol/parameters.h"

#include <string>

namespace protocol {

/// A reply that carries nothing but its result.
struct Nothing {
    static void visit(auto& /*record*/, auto&& /*field*/) {}
};

/// What became of a request.
template <typename Reply>
struct Answer {
    bool reached = false;   ///< the service answered, whatever it said
    bool done = false;      ///< it did what was asked
    bool readable = false;  ///< and `reply` holds all that it said
    int32_t result = IPCMessage::RESULT_NONE;
    std::string message;  ///< why it refused, in English; may be empty
    Reply reply;          ///< as a fresh one when it refused; when not readable, as far as it could be read

    explicit operator bool() const { return done && readable; }
};

/// The message that asks for this. A request is a record of its parameters that names its `KIND`, its `COMMAND` and the
/// type of its `Reply`.
template <typename Request>
IPCMessage toMessage(const Request& request) {
    IPCMessage message(Request::KIND, Request::COMMAND);
    write(message, request);
    return message;
}

/// Asks the service for what `request` names and waits for the answer, at most `timeout` seconds in all.
template <typename Request>
Answer<typename Request::Reply> ask(const Request& request, unsigned int timeout) {
    Answer<typename Request::Reply> answer;
    IPCMessage reply;
    answer.reached = sendMessage(toMessage(request), reply, timeout);
    if (!answer.reached) return answer;
    answer.result = reply.result;
    answer.done = reply.result == IPCMessage::RESULT_OK;
    if (!answer.done) answer.message = reply.value<std::string>(MESSAGE);
    // Some requests take any result but an error for a reply.
    if (answer.result != IPCMessage::RESULT_ERROR) answer.readable = read(reply, answer.reply);
    return answer;
}

}  // namespace protocol
