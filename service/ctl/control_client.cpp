#include "service/ctl/control_client.h"

#include "norv/time_text.h"

#include <array>
#include <cstdio>

namespace keldra {

std::string faultOf(bool reached, const std::string& message) {
    if (!reached) return "The service does not answer. Is keldrad running, and may this user talk to it?";
    return message.empty() ? "The service refused." : message;
}

std::string printable(const std::string& text) {
    std::string result;
    unsigned char before = 0;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        // U+0080 to U+009F as UTF-8, for a terminal the same as ESC and a letter.
        const bool high = before == 0xC2 && byte >= 0x80 && byte <= 0x9F;
        before = byte;
        if (byte >= ' ' && byte != 0x7F && !high) {
            result += c;
            continue;
        }
        if (high) result.replace(result.size() - 1, 1, "\\xc2");
        std::array<char, 8> escaped{};
        std::snprintf(escaped.data(), escaped.size(), "\\x%02x", byte);
        result += escaped.data();
    }
    return result;
}

std::string timeText(std::int64_t time, const char* never) {
    if (time <= 0) return never;
    const std::string text = ::timeText(time);
    return text.empty() ? "?" : text;
}

}  // namespace keldra
