#include "webui/console/service_text.h"

#include <libintl.h>

#include <cstddef>
#include <string_view>

namespace {

constexpr std::string_view NEXT_STEP = "; ";
constexpr std::string_view REASON = ": ";
constexpr std::string_view NEW_NAME = "renamed to ";

/// The catalogue answers the empty text with its own header.
std::string translate(const std::string& text) { return text.empty() ? text : gettext(text.c_str()); }

bool known(const std::string& text) { return translate(text) != text; }

/// "what (remark)", both translated.
std::string translateRemark(const std::string& step) {
    const std::size_t remark = step.find(" (");
    if (remark == std::string::npos || !step.ends_with(')')) return step;
    return translate(step.substr(0, remark)) + " (" + translate(step.substr(remark + 2, step.size() - remark - 3)) +
           ")";
}

/// "what: why", both translated; a reason may itself have one.
std::string translateStep(const std::string& step) {
    if (known(step)) return translate(step);
    if (step.starts_with(NEW_NAME)) {
        return translate(std::string(NEW_NAME.substr(0, NEW_NAME.size() - 1))) + " " + step.substr(NEW_NAME.size());
    }
    const std::size_t reason = step.find(REASON);
    if (reason == std::string::npos) return translateRemark(step);
    return translate(step.substr(0, reason)) + translate(std::string(REASON)) +
           translateStep(step.substr(reason + REASON.size()));
}

}  // namespace

std::string translateServiceText(const std::string& text) {
    if (known(text)) return translate(text);
    std::string result;
    for (std::size_t from = 0;;) {
        const std::size_t end = text.find(NEXT_STEP, from);
        result += translateStep(text.substr(from, end - from));
        if (end == std::string::npos) return result;
        result += translate(std::string(NEXT_STEP));
        from = end + NEXT_STEP.size();
    }
}
