#include "norv/protocol/metrics.h"
#include "webui/cgi/page_wrapper.h"
#include "webui/cgi/service_message.h"

#include <cstdlib>
#include <string>
#include <string_view>

namespace {

constexpr const char* OPENMETRICS_TYPE = "application/openmetrics-text; version=1.0.0; charset=utf-8";
constexpr const char* PROMETHEUS_TYPE = "text/plain; version=0.0.4; charset=utf-8";

std::string_view variable(const char* name) {
    const char* const value = std::getenv(name);
    return value ? value : "";
}

int answer(const std::string& status, const char* type, const std::string& text) {
    writeOut("Status: " + status + "\r\nContent-Type: " + type + "\r\n\r\n" + text);
    return status.starts_with("200") ? 0 : 1;
}

}  // namespace

/// What the service has counted and measured, for Prometheus. Nobody logs on for it, so it is reached at an address of
/// its own only, where the administrator gives it one.
int main() try {
    const std::string_view method = variable("REQUEST_METHOD");
    if (method != "GET" && method != "HEAD") return answer("405 Method Not Allowed", PROMETHEUS_TYPE, "GET only\n");
    const bool open = variable("HTTP_ACCEPT").find("application/openmetrics-text") != std::string_view::npos;
    const auto metrics =
        askService(protocol::GetMetrics{open ? protocol::FORMAT_OPENMETRICS : protocol::FORMAT_PROMETHEUS});
    if (!metrics) return answer("503 Service Unavailable", PROMETHEUS_TYPE, "The service does not answer.\n");
    return answer("200 OK", open ? OPENMETRICS_TYPE : PROMETHEUS_TYPE, metrics.reply.text);
} catch (...) {
    throw;  // still fatal, but what `main` owns is destroyed first
}
