#include "norv/service_text.h"

#include "norv/setting_words.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <span>

namespace {

constexpr std::string_view NEXT_STEP = "; ";
constexpr std::string_view REASON = ": ";
constexpr std::string_view NEW_NAME = "renamed to ";

struct Code {
    std::string_view code;
    const char* words;
};

constexpr std::array KINDS{Code{"find", "Find"},
                           Code{"not_scanned", "Not scanned"},
                           Code{"scan", "Scan"},
                           Code{"update", "Update"},
                           Code{"settings", "Settings"},
                           Code{"logon", "Log-on"},
                           Code{"quarantine", "Quarantine"},
                           Code{"service", "Service"}};
constexpr std::array SEVERITIES{Code{"info", "information"}, Code{"warning", "warning"}, Code{"alert", "alarm"}};
constexpr std::array TASKS{Code{"manual", "Manual scan"}, Code{"scheduled", "Scheduled scan"},
                           Code{"path", "Scan from the command line"}, Code{"realtime", "Real-time scan"}};

std::string wordsOf(const Words& words, std::span<const Code> codes, const std::string& code) {
    const auto found = std::find_if(codes.begin(), codes.end(), [&code](const Code& one) { return one.code == code; });
    return found == codes.end() ? code : words.text(found->words);
}

struct Plural {
    const char* one;
    const char* many;
};

/// Sentences with a number in them.
constexpr std::array SENTENCES{Plural{"In {n} day.", "In {n} days."}};

/// The sentence in whose place of "{n}" the text has a number; else an empty text.
std::string countedSentence(const Words& words, std::string_view text) {
    for (const Plural& sentence : SENTENCES) {
        for (const std::string_view form : {sentence.one, sentence.many}) {
            const std::size_t at = form.find("{n}");
            const std::string_view behind = form.substr(at + 3);
            if (!text.starts_with(form.substr(0, at)) || !text.ends_with(behind)) continue;
            std::uint64_t number = 0;
            const char* const end = text.data() + text.size() - behind.size();
            const auto [rest, error] = std::from_chars(text.data() + at, end, number);
            if (error == std::errc() && rest == end) return words.counted(number, sentence.one, sentence.many);
        }
    }
    return {};
}

/// "what (remark)", both translated.
std::string remarkText(const Words& words, const std::string& step) {
    const std::size_t remark = step.find(" (");
    if (remark == std::string::npos || !step.ends_with(')')) return step;
    return words.text(step.substr(0, remark)) + " (" + words.text(step.substr(remark + 2, step.size() - remark - 3)) +
           ")";
}

/// "what: why", both translated; a reason may itself have one.
std::string stepText(const Words& words, const std::string& step) {
    if (std::string known = words.text(step); known != step) return known;
    if (step.starts_with(NEW_NAME))
        return words.text(std::string(NEW_NAME.substr(0, NEW_NAME.size() - 1))) + " " + step.substr(NEW_NAME.size());
    const std::size_t reason = step.find(REASON);
    if (reason == std::string::npos) return remarkText(words, step);
    return words.text(step.substr(0, reason)) + words.text(std::string(REASON)) +
           stepText(words, step.substr(reason + REASON.size()));
}

}  // namespace

std::string serviceText(const Words& words, const std::string& text) {
    if (std::string known = words.text(text); known != text) return known;
    if (std::string sentence = countedSentence(words, text); !sentence.empty()) return sentence;
    std::string result;
    for (std::size_t from = 0;;) {
        const std::size_t end = text.find(NEXT_STEP, from);
        result += stepText(words, text.substr(from, end - from));
        if (end == std::string::npos) return result;
        result += words.text(std::string(NEXT_STEP));
        from = end + NEXT_STEP.size();
    }
}

std::string eventKindText(const Words& words, const std::string& kind) { return wordsOf(words, KINDS, kind); }

std::string eventSeverityText(const Words& words, const std::string& severity) {
    return wordsOf(words, SEVERITIES, severity);
}

std::string eventTaskText(const Words& words, const std::string& kind, const std::string& task) {
    const bool isNumber = !task.empty() && task.find_first_not_of("0123456789_") == std::string::npos;
    return isNumber || kind == "update" ? "" : wordsOf(words, TASKS, task);
}

std::string eventDetailText(const Words& words, const std::string& kind, const std::string& detail) {
    return kind == "settings" ? settingsText(words, detail) : serviceText(words, detail);
}

std::string reasonDetailText(const Words& words, std::string_view reason, const std::string& detail) {
    // Of all others a part could be that of a file's name.
    const bool sentence = reason == "not_saved" || reason.starts_with("realtime_");
    return sentence ? serviceText(words, detail) : words.text(detail);
}

std::string countText(const Words& words, std::uint64_t count, std::string_view unit) {
    if (unit == "days") return words.counted(count, "{n} day", "{n} days");
    if (unit == "files") return words.counted(count, "{n} file", "{n} files");
    if (unit == "folders") return words.counted(count, "{n} folder", "{n} folders");
    if (unit == "mib" && count > 0) return words.counted(count, "{n} MiB", "{n} MiB");
    if (unit == "mib_free") return words.counted(count, "{n} MiB free", "{n} MiB free");
    return {};
}
