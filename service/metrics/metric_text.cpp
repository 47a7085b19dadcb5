#include "service/metrics/metric_text.h"

#include <prometheus/text_serializer.h>

#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <string_view>

namespace keldra {

namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

constexpr std::string_view TOTAL = "_total";

std::string numberText(double number) {
    if (std::isnan(number)) return "NaN";
    if (std::isinf(number)) return number > 0 ? "+Inf" : "-Inf";
    std::array<char, 32> text{};
    const auto end = std::to_chars(text.data(), text.data() + text.size(), number, std::chars_format::general).ptr;
    return {text.data(), end};
}

std::string escaped(std::string_view text) {
    std::string result;
    for (const char letter : text) {
        if (letter == '\n') {
            result += "\\n";
            continue;
        }
        if (letter == '\\' || letter == '"') result += '\\';
        result += letter;
    }
    return result;
}

/// `more`: a label beside the metric's own, or nothing.
std::string labelsText(const ClientMetric& metric, const std::string& more = {}) {
    std::string text;
    const auto add = [&text](const std::string& label) { text += (text.empty() ? "" : ",") + label; };
    for (const ClientMetric::Label& label : metric.label) add(label.name + "=\"" + escaped(label.value) + "\"");
    if (!more.empty()) add(more);
    return text.empty() ? text : "{" + text + "}";
}

/// Bounds of buckets are written as numbers with a fraction, so that all who read them see the same text.
std::string boundText(double bound) {
    std::string text = numberText(bound);
    if (text.find_first_of(".eIN") == std::string::npos) text += ".0";
    return "le=\"" + text + "\"";
}

void addHistogram(const std::string& name, const ClientMetric& metric, std::string& text) {
    for (const ClientMetric::Bucket& bucket : metric.histogram.bucket)
        text += name + "_bucket" + labelsText(metric, boundText(bucket.upper_bound)) + " " +
                std::to_string(bucket.cumulative_count) + "\n";
    text += name + "_count" + labelsText(metric) + " " + std::to_string(metric.histogram.sample_count) + "\n";
    text += name + "_sum" + labelsText(metric) + " " + numberText(metric.histogram.sample_sum) + "\n";
}

const char* typeName(MetricType type) {
    if (type == MetricType::Counter) return "counter";
    return type == MetricType::Histogram ? "histogram" : "gauge";
}

void addFamily(const MetricFamily& family, std::string& text) {
    std::string name = family.name;
    const bool counter = family.type == MetricType::Counter;
    if (counter && name.ends_with(TOTAL)) name.resize(name.size() - TOTAL.size());
    text += "# TYPE " + name + " " + typeName(family.type) + "\n";
    text += "# HELP " + name + " " + escaped(family.help) + "\n";
    for (const ClientMetric& metric : family.metric) {
        if (family.type == MetricType::Histogram)
            addHistogram(name, metric, text);
        else if (counter)
            text += name + "_total" + labelsText(metric) + " " + numberText(metric.counter.value) + "\n";
        else
            text += name + labelsText(metric) + " " + numberText(metric.gauge.value) + "\n";
    }
}

}  // namespace

std::string openMetricsText(const std::vector<MetricFamily>& families) {
    std::string text;
    for (const MetricFamily& family : families)
        if (!family.metric.empty()) addFamily(family, text);
    return text + "# EOF\n";
}

std::string prometheusText(const std::vector<MetricFamily>& families) {
    return prometheus::TextSerializer().Serialize(families);
}

}  // namespace keldra
