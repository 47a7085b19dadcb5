#include "service/ctl/control_client.h"

#include "norv/time_text.h"

#include <cstdio>

namespace keldra {

std::string faultOf(bool reached, const std::string& message) {
    if (!reached) return "The service does not answer. Is keldrad running, and may this user talk to it?";
    return message.empty() ? "The service refused." : message;
}

std::string timeText(std::int64_t time, const char* never) {
    if (time <= 0) return never;
    const std::string text = ::timeText(time);
    return text.empty() ? "?" : text;
}

}  // namespace keldra
