#include "norv/setting_words.h"

#include "norv/custom_action.h"
#include "norv/path_list.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <optional>
#include <string_view>
#include <vector>

namespace {

/// How a setting's stored text is read.
enum class Look {
    PLAIN,
    SWITCH,
    SECONDS,
    MEBIBYTES,
    DAYS,
    TIME,
    LIST,
    CHOICE,
    CHOICES,
    BITS,
    ACTION,
    ACTIONS,
    SCHEDULE
};
using enum Look;

/// A setting as people know it: the same English words as on its page.
struct Row {
    std::string_view name;  ///< as the service notes it; of a scan's setting without its group
    const char* label;
    Look look = PLAIN;
    const char* choices = "";  ///< "code=words" by "|"
};

constexpr const char* WEEK_DAYS = "0=Sunday|1=Monday|2=Tuesday|3=Wednesday|4=Thursday|5=Friday|6=Saturday";
constexpr const char* COMPONENTS = "1=Virus signatures|32=Spyware signatures|2=Scan engine";

constexpr std::array GROUPS{Row{"ManualScan", "Manual scan"}, Row{"RealtimeScan", "Real-time scan"},
                            Row{"ScheduledScan", "Scheduled scan"}, Row{"Varnel", "Updates"}};

constexpr std::array IN_GROUPS{
    Row{"includeExtList", "These extensions as well"},
    Row{"includeHVExtList", "The extensions of the default list", SWITCH},
    Row{"zelscan", "Let Keldra choose (Zelscan)", SWITCH},
    Row{"customActions", "Different actions for each kind", ACTIONS},
    Row{"universeAction", "The same actions for everything", ACTION},
    Row{"scanCompressed", "Look inside archives", SWITCH},
    Row{"compressionLayer", "Layers to open"},
    Row{"compressFileSizeLimit", "Largest file to unpack, in MiB"},
    Row{"backupBeforeClean", "Keep a copy before cleaning", SWITCH},
    Row{"scanPaths", "Folders to scan", LIST},
    Row{"excludePaths", "Folders left out", LIST},
    Row{"excludePatterns", "Leave out files by name", LIST},
    Row{"scanDirection", "When to check", BITS,
        "1=Incoming: before a file is opened|2=Outgoing: after a file was written"},
    Row{"frequency", "Schedule", CHOICE, "0=Off|2=Every day|3=Every week|4=Every month"},
    Row{"time", "Time", TIME},
    Row{"weekDay", "Day of the week", CHOICE, WEEK_DAYS},
    Row{"monthDay", "Day of the month"},
    Row{"ManualComponents", "What to update", BITS, COMPONENTS},
    Row{"ScheduledComponents", "What to update", BITS, COMPONENTS},
    Row{"Schedule", "Schedule", SCHEDULE},
    Row{"ScheduledTime", "Time", TIME},
    Row{"ScheduledWDay", "Day of the week", CHOICE, WEEK_DAYS},
};

constexpr std::array ALONE{
    Row{"shares.roots", "Shares", LIST},
    Row{"limits.manual_workers", "Files scanned at a time by a manual scan"},
    Row{"limits.realtime_wait", "Longest wait for a file that is being opened", SECONDS},
    Row{"limits.realtime_refuse", "Refuse files whose scan takes longer", SWITCH},
    Row{"limits.unpacked_megabytes", "Largest amount unpacked from one file", MEBIBYTES},
    Row{"limits.members", "Most files looked into within one file"},
    Row{"limits.seconds", "Longest scan of one file", SECONDS},
    Row{"limits.realtime_unpacked_megabytes", "Largest amount unpacked from one file in real time", MEBIBYTES},
    Row{"limits.realtime_members", "Most files looked into within one file in real time"},
    Row{"limits.realtime_seconds", "Longest real-time scan of one file", SECONDS},
    Row{"limits.scheduled_low_priority", "Scheduled scans let other programs go first", SWITCH},
    Row{"limits.scheduled_from", "Scheduled scans work only from"},
    Row{"limits.scheduled_until", "Scheduled scans work only until"},
    Row{"quarantine.megabytes", "Most room for all files", MEBIBYTES},
    Row{"quarantine.files", "Most files"},
    Row{"quarantine.days", "Remove files for good after", DAYS},
    Row{"quarantine.announce", "Announce a removal for", DAYS},
    Row{"clients.enabled", "Let other programs have files scanned", SWITCH},
    Row{"clients.every_user", "Every local user may connect", SWITCH},
    Row{"clients.group", "Group that may connect"},
    Row{"clients.refuse_incomplete", "Refuse what could not be scanned fully", SWITCH},
    Row{"clients.stream_limit", "Largest file that is sent", MEBIBYTES},
    Row{"updates.source", "Source", CHOICE, "official=Official|mirror=Mirror|custom=Own"},
    Row{"updates.mirror", "Address of the mirror"},
    Row{"updates.custom", "Files and addresses of your own", LIST},
    Row{"updates.random_minute", "Start scheduled updates at a random minute", SWITCH},
    Row{"updates.proxy_server", "Proxy"},
    Row{"updates.proxy_port", "Port of the proxy"},
    Row{"updates.proxy_user", "User name for the proxy"},
    Row{"updates.proxy_password", "Password for the proxy"},
};

constexpr Row NOTICES_GROUP{"", "Notices"};
constexpr std::array NOTICES{
    Row{"Kinds", "What you want to hear of", CHOICES,
        "find=Malware was found|not_scanned=Files could not be scanned|scan=A scan ended|"
        "update=An update of the signatures ended|service=Something concerns Keldra itself|"
        "quarantine=Files were restored or deleted for good|settings=Settings were changed|"
        "logon=Somebody logged on, or was refused"},
    Row{"Severity", "Of these, tell me", CHOICE, "alert=only alarms|warning=warnings and alarms|info=everything"},
    Row{"BundleSeconds", "Gather events for one message", SECONDS},
    Row{"WeeklyReport", "Send a report once a week", SWITCH},
    Row{"Language", "Language of the messages", CHOICE, "en=English|de=Deutsch|ja=日本語"},
    Row{"Mail", "Send mail", SWITCH},
    Row{"MailTo", "To", LIST},
    Row{"MailFrom", "Sender"},
    Row{"MailBy", "How", CHOICE, "smtp=a mail server|sendmail=sendmail of this server"},
    Row{"SmtpServer", "Mail server"},
    Row{"SmtpSecurity", "Encryption", CHOICE, "starttls=STARTTLS (port 587)|tls=TLS (port 465)|none=none (port 25)"},
    Row{"SmtpUser", "User name"},
    Row{"SmtpPasswordSet", "Password", CHOICE, "1=stored"},
    Row{"Hook", "Call a web address", SWITCH},
    Row{"HookUrl", "Address"},
    Row{"HookKind", "Kind", CHOICE, "json=other (JSON)|ntfy=ntfy|gotify=Gotify"},
    Row{"HookTokenSet", "Token", CHOICE, "1=stored"},
    Row{"Authorities", "Certificates to trust"},
};

template <std::size_t Count>
const Row* find(const std::array<Row, Count>& rows, std::string_view name) {
    const auto found = std::find_if(rows.begin(), rows.end(), [name](const Row& row) { return row.name == name; });
    return found == rows.end() ? nullptr : &*found;
}

std::optional<std::uint64_t> numberIn(std::string_view text) {
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

std::vector<std::string_view> split(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    while (!text.empty()) {
        const std::string_view part = text.substr(0, text.find(separator));
        parts.push_back(part);
        text.remove_prefix(std::min(text.size(), part.size() + 1));
    }
    return parts;
}

/// What the catalogues know is translated, what they do not is itself.
class ValueText {
public:
    ValueText(const Words& words, const Row& row) : words_(words), row_(row) {}

    std::string operator()(const std::string& value) const {
        if (value.empty()) return "–";
        const auto number = numberIn(value);
        switch (row_.look) {
            case SWITCH:
                return words_.text(value == "1" || value == "true" ? "On" : "Off");
            case SECONDS:
                return number ? words_.counted(*number, "{n} second", "{n} seconds") : value;
            case DAYS:
                return number ? words_.counted(*number, "{n} day", "{n} days") : value;
            case MEBIBYTES:
                return value + " MiB";
            case TIME:
                return value.substr(0, value.size() == 8 ? 5 : value.size());
            case LIST:
                return joined(splitPathList(value));
            case CHOICE:
                return choice(value);
            case CHOICES:
                return choices(value);
            case BITS:
                return number ? bits(*number) : value;
            case ACTION:
                return action(value);
            case ACTIONS:
                return actions(value);
            case SCHEDULE:
                return schedule(value);
            case PLAIN:
                break;
        }
        return value;
    }

private:
    static std::string joined(const std::vector<std::string>& parts) {
        std::string text;
        for (const std::string& part : parts) text += (text.empty() ? "" : ", ") + part;
        return text;
    }

    std::string choice(std::string_view value) const {
        for (const std::string_view one : split(row_.choices, '|'))
            if (one.substr(0, one.find('=')) == value) return words_.text(std::string(one.substr(one.find('=') + 1)));
        return value == "0" ? "–" : std::string(value);
    }

    std::string choices(std::string_view value) const {
        std::vector<std::string> parts;
        for (const std::string_view one : split(value, ',')) parts.push_back(choice(one));
        return joined(parts);
    }

    std::string bits(std::uint64_t value) const {
        std::vector<std::string> parts;
        for (const std::string_view one : split(row_.choices, '|'))
            if ((value & numberIn(one.substr(0, one.find('='))).value_or(0)) != 0)
                parts.push_back(words_.text(std::string(one.substr(one.find('=') + 1))));
        return parts.empty() ? words_.text("Off") : joined(parts);
    }

    /// "first-second" in stored digits. A second action is only for what can fail.
    std::string action(std::string_view value) const {
        static constexpr std::array NAMES{"Pass (file stays)", "Delete (for good)", "Quarantine", "Clean", "Rename"};
        const auto name = [this](std::string_view digit) {
            const auto number = numberIn(digit);
            return number && *number < NAMES.size() ? words_.text(NAMES.at(*number)) : std::string(digit);
        };
        const std::size_t dash = value.find('-');
        const std::string_view first = value.substr(0, dash);
        return dash == std::string_view::npos || first != "3" ? name(first)
                                                              : name(first) + " / " + name(value.substr(dash + 1));
    }

    std::string actions(std::string_view value) const {
        static constexpr const char* TYPES =
            "Virus=Viruses|Trojan=Trojans|Spyware=Spyware|Joke=Joke programs|Test_Virus=Test files|Other=Other";
        const Row types{"", "", CHOICE, TYPES};
        std::vector<std::string> parts;
        for (const std::string_view one : split(value, ',')) {
            const std::size_t second = one.rfind('-');
            const std::size_t first =
                second == std::string_view::npos || second == 0 ? second : one.rfind('-', second - 1);
            if (first == std::string_view::npos) return std::string(value);
            parts.push_back(ValueText(words_, types).choice(one.substr(0, first)) + " " +
                            action(one.substr(first + 1)));
        }
        return joined(parts);
    }

    /// "kind-period".
    std::string schedule(std::string_view value) const {
        const std::size_t dash = std::min(value.find('-'), value.size());
        const std::uint64_t period = numberIn(value.substr(std::min(dash + 1, value.size()))).value_or(0);
        switch (numberIn(value.substr(0, dash)).value_or(0)) {
            case 0:
                return words_.text("Off");
            case 1:
                return words_.text("Every hour");
            case 2:
                return period == 1 ? words_.text("Every day")
                                   : words_.counted(period, "Every {n} day", "Every {n} days");
            case 3:
                return period == 1 ? words_.text("Every week")
                                   : words_.counted(period, "Every {n} week", "Every {n} weeks");
            default:
                return std::string(value);
        }
    }

    const Words& words_;
    const Row& row_;
};

struct Change {
    std::string_view name;
    std::string from;
    std::string to;
    bool told = false;  ///< both values are there
};

/// Takes the next change off the front.
Change takeChange(std::string_view& rest) {
    constexpr std::string_view OLD = ": \"";
    constexpr std::string_view NEW = "\" -> \"";
    constexpr std::string_view NEXT = "; ";
    Change change;
    const std::size_t name = rest.find_first_of(": ;");
    const std::size_t middle = name == std::string_view::npos ? name : rest.find(NEW, name);
    if (middle != std::string_view::npos && rest.substr(name).starts_with(OLD)) {
        const std::size_t begin = middle + NEW.size();
        const std::size_t end = std::min(rest.find("\"; ", begin), rest.size() - 1);
        change = {rest.substr(0, name), std::string(rest.substr(name + OLD.size(), middle - name - OLD.size())),
                  std::string(rest.substr(begin, end - begin)), true};
        rest.remove_prefix(end + 1);
    } else {
        change.name = rest.substr(0, rest.find(NEXT));
        rest.remove_prefix(change.name.size());
    }
    if (rest.starts_with(NEXT)) rest.remove_prefix(NEXT.size());
    return change;
}

/// The row of a setting and what stands before its label.
struct Known {
    const Row* row = nullptr;
    std::string place;
};

Known knownSetting(const Words& words, std::string_view name) {
    if (const Row* const row = find(ALONE, name)) return {row, ""};
    if (const Row* const row = find(NOTICES, name)) return {row, words.text(NOTICES_GROUP.label) + ", "};
    const std::size_t dot = std::min(name.find('.'), name.size());
    const Row* const group = find(GROUPS, name.substr(0, dot));
    const Row* const row = group ? find(IN_GROUPS, name.substr(std::min(dot + 1, name.size()))) : nullptr;
    return row ? Known{row, words.text(group->label) + ", "} : Known{};
}

std::string changeText(const Words& words, const Change& change) {
    const std::size_t colon = change.told ? std::string_view::npos : change.name.find(": ");
    const Known known = knownSetting(words, change.name.substr(0, colon));
    std::string label =
        known.row ? known.place + words.text(known.row->label) : words.text(std::string(change.name.substr(0, colon)));
    if (!change.told && colon == std::string_view::npos) return label;
    const std::string between = label + words.text(": ");
    if (!change.told) return between + words.text(std::string(change.name.substr(colon + 2)));
    const Row plain{};
    const ValueText value(words, known.row ? *known.row : plain);
    return between + value(change.from) + " → " + value(change.to);
}

}  // namespace

std::string settingsText(const Words& words, const std::string& changes) {
    std::string text;
    for (std::string_view rest = changes; !rest.empty();)
        text += (text.empty() ? "" : words.text("; ")) + changeText(words, takeChange(rest));
    return text;
}
