#include "service/ctl/control_client.h"

#include "norv/time_text.h"

#include <cstdio>

namespace keldra {

Fault faultOf(bool reached, const std::string& message) {
    if (!reached)
        return {FAULT_NO_ANSWER, "The service does not answer. Is keldrad running, and may this user talk to it?"};
    return {FAULT_REFUSED, message.empty() ? "The service refused." : message};
}

std::string timeText(std::int64_t time, const char* never) {
    if (time <= 0) return never;
    const std::string text = ::timeText(time);
    return text.empty() ? "?" : text;
}

}  // namespace keldra
