#pragma once

#include "norv/printable.h"
#include "norv/protocol/call.h"
#include "service/ctl/fault.h"

#include <cstdint>
#include <string>

namespace keldra {

/// Seconds that the service may take for an answer.
inline constexpr unsigned int CONTROL_TIMEOUT = 30;

/// Asks the running service.
template <typename Request>
auto ask(const Request& request) {
    return protocol::ask(request, CONTROL_TIMEOUT);
}

/// Why a request is not done. `reached` and `message`: as in its answer.
Fault faultOf(bool reached, const std::string& message);
template <typename Reply>
Fault faultOf(const protocol::Answer<Reply>& answer) {
    if (answer.done) return {FAULT_UNREADABLE, "What the service answered cannot be read."};
    return faultOf(answer.reached, answer.message);
}

using ::printable;

/// A time (seconds since the epoch) as people write it, local; `never` for 0.
std::string timeText(std::int64_t time, const char* never = "never");

}  // namespace keldra
