#include "norv/protocol/metrics.h"
#include "service/ctl/command_line.h"
#include "service/ctl/control_client.h"

#include <cstdio>
#include <string>

namespace keldra {

namespace {

struct MetricsOptions {
    std::string format = protocol::FORMAT_OPENMETRICS;
};

int runMetrics(const MetricsOptions& options) {
    const auto answer = ask(protocol::GetMetrics{options.format});
    if (!answer) return fail(faultOf(answer));
    const std::string& text = answer.reply.text;
    if (jsonWanted()) return print(lowerJson(answer.reply)), STATUS_DONE;
    return std::fwrite(text.data(), 1, text.size(), stdout) == text.size() ? STATUS_DONE : STATUS_ERROR;
}

}  // namespace

void describeMetrics(CLI::App& app, Run& run) {
    MetricsOptions* options = nullptr;
    addCommand(app, run, "metrics", "Print what the service has counted and measured", options, runMetrics)
        ->add_option("--format", options->format, "openmetrics, or prometheus: its own older text")
        ->check(CLI::IsMember({protocol::FORMAT_OPENMETRICS, protocol::FORMAT_PROMETHEUS}))
        ->capture_default_str();
}

}  // namespace keldra
