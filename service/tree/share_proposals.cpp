#include "service/tree/share_proposals.h"

#include "service/base/paths.h"
#include "service/tree/kernel_file_systems.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <fstream>
#include <sstream>
#include <string_view>
#include <system_error>

namespace keldra {

namespace {

constexpr std::string_view BLANKS = " \t\r";

std::string trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(BLANKS);
    if (first == std::string_view::npos) return {};
    return std::string(text.substr(first, text.find_last_not_of(BLANKS) - first + 1));
}

std::string lowered(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

/// The lines of a text file that end without a backslash, those that do joined with the next.
std::vector<std::string> linesOf(const std::filesystem::path& path) {
    std::vector<std::string> lines;
    std::ifstream file(path);
    std::string whole;
    for (std::string line; std::getline(file, line);) {
        whole += line;
        if (whole.ends_with('\\')) {
            whole.pop_back();
            continue;
        }
        lines.push_back(trimmed(whole));
        whole.clear();
    }
    return lines;
}

/// "\040" and the like, as mounts and exports write blanks, become what they stand for.
std::string unescaped(const std::string& text) {
    constexpr std::size_t DIGITS = 3;
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const std::string digits = text[i] == '\\' ? text.substr(i + 1, DIGITS) : "";
        if (digits.size() == DIGITS && digits.find_first_not_of("01234567") == std::string::npos) {
            result += static_cast<char>(std::stoi(digits, nullptr, 8));
            i += DIGITS;
        } else {
            result += text[i];
        }
    }
    return result;
}

/// The folder in front of the first part that stands for something else.
std::string withoutVariables(const std::string& path) {
    const std::size_t variable = path.find('%');
    return variable == std::string::npos ? path : path.substr(0, path.rfind('/', variable) + 1);
}

bool isSambaShare(const std::string& section) {
    return !section.empty() && section != "global" && section != "printers" && section != "print$" &&
           section != "homes";
}

void addSamba(const std::filesystem::path& path, std::vector<ShareProposal>& found) {
    std::string section;
    for (const std::string& line : linesOf(path)) {
        if (line.empty() || line.front() == '#' || line.front() == ';') continue;
        if (line.front() == '[') {
            section = trimmed(line.substr(1, line.find(']') - 1));
            continue;
        }
        const std::size_t equals = line.find('=');
        if (equals == std::string::npos || !isSambaShare(lowered(section))) continue;
        const std::string key = lowered(trimmed(line.substr(0, equals)));
        if (key != "path" && key != "directory") continue;
        found.push_back({withoutVariables(trimmed(line.substr(equals + 1))), "smb", section});
    }
}

void addExports(const std::filesystem::path& path, std::vector<ShareProposal>& found) {
    for (const std::string& line : linesOf(path)) {
        if (line.empty() || line.front() == '#') continue;
        const bool quoted = line.front() == '"';
        const std::size_t end = quoted ? line.find('"', 1) : line.find_first_of(BLANKS);
        const std::string folder = line.substr(quoted ? 1 : 0, quoted ? end - 1 : end);
        const std::string clients = end == std::string::npos ? "" : trimmed(line.substr(end + (quoted ? 1 : 0)));
        found.push_back({unescaped(folder), "nfs", clients});
    }
}

/// Where the system itself lies, and what programs put up for themselves.
bool belongsToSystem(const std::string& path) {
    static const std::vector<std::string> FOLDERS{"/boot", "/dev", "/etc", "/proc",    "/run", "/snap",
                                                  "/sys",  "/tmp", "/usr", "/var/lib", "/efi"};
    return path == "/" || liesBelow(path, FOLDERS);
}

void addMounts(const std::filesystem::path& path, std::vector<ShareProposal>& found) {
    constexpr std::array<std::string_view, 7> NOT_FILES{"tmpfs",   "devtmpfs", "ramfs",    "squashfs",
                                                        "overlay", "autofs",   "hugetlbfs"};
    for (const std::string& line : linesOf(path)) {
        std::istringstream words(line);
        std::string device;
        std::string folder;
        std::string type;
        if (!(words >> device >> folder >> type)) continue;
        folder = unescaped(folder);
        const bool files = std::find(NOT_FILES.begin(), NOT_FILES.end(), type) == NOT_FILES.end();
        if (files && !isKernelFileSystem(type) && !belongsToSystem(folder)) found.push_back({folder, "mount", type});
    }
}

}  // namespace

std::vector<ShareProposal> proposeShares(const ShareOrigins& origins) {
    std::vector<ShareProposal> found;
    addSamba(origins.samba, found);
    addExports(origins.exports, found);
    addMounts(origins.mounts, found);
    std::vector<ShareProposal> proposals;
    for (ShareProposal& proposal : found) {
        const std::vector<std::string> normal = normalPaths({proposal.path});
        std::error_code error;
        if (normal.empty() || !normal.front().starts_with('/') || normal.front() == "/") continue;
        proposal.path = normal.front();
        const bool known = std::any_of(proposals.begin(), proposals.end(),
                                       [&proposal](const ShareProposal& other) { return other.path == proposal.path; });
        if (!known && std::filesystem::is_directory(proposal.path, error)) proposals.push_back(std::move(proposal));
    }
    return proposals;
}

}  // namespace keldra
