#include "service/clients/clamd_command.h"

#include <algorithm>
#include <array>

namespace keldra {

namespace {

using Kind = ClamdCommand::Kind;

struct Row {
    std::string_view name;
    Kind kind;
    bool path = false;       ///< takes a path
    bool prefixed = false;   ///< known with a prefix only
    bool inSession = false;  ///< may stand in a session
};

constexpr std::array ROWS{
    Row{"SCAN", Kind::SCAN, true, false, true},
    Row{"RELOAD", Kind::RELOAD},
    Row{"PING", Kind::PING, false, false, true},
    Row{"CONTSCAN", Kind::CONT_SCAN, true},
    Row{"VERSIONCOMMANDS", Kind::VERSION_COMMANDS, false, false, true},
    Row{"VERSION", Kind::VERSION, false, false, true},
    Row{"END", Kind::END, false, true, true},
    Row{"SHUTDOWN", Kind::SHUTDOWN},
    Row{"MULTISCAN", Kind::MULTI_SCAN, true},
    Row{"FILDES", Kind::DESCRIPTOR, false, true, true},
    Row{"STATS", Kind::STATS, false, true, true},
    Row{"IDSESSION", Kind::SESSION, false, true},
    Row{"INSTREAM", Kind::STREAM, false, true, true},
    Row{"ALLMATCHSCAN", Kind::ALL_MATCH, true},
};

}  // namespace

ClamdCommand parseClamdCommand(std::string_view text, bool prefixed) {
    const std::size_t blank = text.find(' ');
    const std::string_view name = text.substr(0, blank);
    const auto* const row = std::find_if(ROWS.begin(), ROWS.end(), [&](const Row& one) { return one.name == name; });
    if (row == ROWS.end() || (row->prefixed && !prefixed)) return {};
    if (!row->path) return blank == std::string_view::npos ? ClamdCommand{row->kind, {}} : ClamdCommand{};
    if (blank == std::string_view::npos || blank + 1 == text.size()) return {};
    return {row->kind, std::string(text.substr(blank + 1))};
}

bool allowedInSession(Kind kind) {
    return std::any_of(ROWS.begin(), ROWS.end(), [kind](const Row& row) { return row.kind == kind && row.inSession; });
}

std::string clamdCommandNames() {
    std::string names;
    for (const Row& row : ROWS) names.append(" ").append(row.name);
    return names;
}

}  // namespace keldra
