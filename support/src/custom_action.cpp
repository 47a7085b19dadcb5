#include "norv/custom_action.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string_view>
#include <utility>

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

bool isTypeCharacter(char c) {
    return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == '-' || c == ' ';
}

bool isType(std::string_view text) { return !text.empty() && std::all_of(text.begin(), text.end(), isTypeCharacter); }

bool isAction(std::string_view text) { return !text.empty() && std::all_of(text.begin(), text.end(), isDigit); }

/// Takes the part after the last "-" off `text`; nothing when there is no "-".
std::optional<std::string_view> takeLastField(std::string_view& text) {
    const std::size_t dash = text.rfind('-');
    if (dash == std::string_view::npos) return std::nullopt;
    const std::string_view field = text.substr(dash + 1);
    text = text.substr(0, dash);
    return field;
}

/// "Type-first-second" as type and action.
std::optional<std::pair<std::string, CustomAction>> parsePiece(std::string_view piece) {
    const auto second = takeLastField(piece);
    const auto first = second ? takeLastField(piece) : std::nullopt;
    if (!first || !isAction(*first) || !isAction(*second) || !isType(piece)) return std::nullopt;
    return std::pair(std::string(piece), CustomAction{std::string(*first), std::string(*second)});
}

}  // namespace

CustomAction recommendedAction(const std::string& type) {
    struct Row {
        std::string_view type;
        const char* first;
        const char* second;
    };
    static constexpr std::array ROWS{Row{"Joke", "2", "0"}, Row{"Trojan", "2", "0"}, Row{"Virus", "3", "2"},
                                     Row{"Test_Virus", "0", "0"}, Row{"Spyware", "2", "0"}};
    for (const Row& row : ROWS) {
        if (row.type == type) return {row.first, row.second};
    }
    return {"3", "2"};
}

std::string CustomAction::actionString() const { return first + "-" + second; }

CustomActionList::CustomActionList(const std::string& text) {
    std::string_view rest = text;
    while (!rest.empty()) {
        const std::string_view piece = rest.substr(0, rest.find(','));
        rest.remove_prefix(std::min(rest.size(), piece.size() + 1));
        auto parsed = parsePiece(piece);
        if (!parsed) continue;
        const bool known = std::any_of(entries_.begin(), entries_.end(),
                                       [&](const Entry& entry) { return entry.type == parsed->first; });
        if (!known) entries_.push_back({std::move(parsed->first), std::move(parsed->second)});
    }
}

CustomAction CustomActionList::action(const std::string& type, int defaultFirst, int defaultSecond) const {
    const auto found =
        std::find_if(entries_.begin(), entries_.end(), [&](const Entry& entry) { return entry.type == type; });
    if (found != entries_.end()) return found->action;
    return {std::to_string(defaultFirst), std::to_string(defaultSecond)};
}

void CustomActionList::removeCustomAction(const std::string& type) {
    std::erase_if(entries_, [&](const Entry& entry) { return entry.type == type; });
}

std::string CustomActionList::toString() const {
    std::string text;
    for (const Entry& entry : entries_) {
        if (!text.empty()) text += ',';
        text += entry.type + "-" + entry.action.actionString();
    }
    return text;
}
