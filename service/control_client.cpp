#include "service/control_client.h"

#include <array>
#include <cstdio>
#include <ctime>

namespace keldra {

namespace {

constexpr unsigned TIMEOUT_SECONDS = 30;

}  // namespace

std::string ControlReply::fault() const {
    if (!reached) return "The service does not answer. Is keldrad running, and may this user talk to it?";
    const std::string message = text("Message");
    return message.empty() ? "The service refused." : message;
}

ControlReply ask(IPCMessage::Operation operation, IPCMessage::CommandID command,
                 const std::vector<std::pair<std::string, std::string>>& parameters) {
    IPCMessage request(operation, command);
    for (const auto& [name, value] : parameters) request.addParam(name, value);
    ControlReply reply;
    reply.reached = sendMessage(request, reply.message, TIMEOUT_SECONDS);
    reply.done = reply.reached && reply.message.result == IPCMessage::RESULT_OK;
    return reply;
}

std::string printable(const std::string& text) {
    std::string result;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= ' ' && byte != 0x7F) {
            result += c;
            continue;
        }
        std::array<char, 8> escaped{};
        std::snprintf(escaped.data(), escaped.size(), "\\x%02x", byte);
        result += escaped.data();
    }
    return result;
}

std::string timeText(std::int64_t time, const char* never) {
    if (time <= 0) return never;
    const auto seconds = static_cast<std::time_t>(time);
    std::tm local{};
    std::array<char, 64> text{};
    if (!::localtime_r(&seconds, &local) || std::strftime(text.data(), text.size(), "%F %T", &local) == 0) return "?";
    return text.data();
}

}  // namespace keldra
