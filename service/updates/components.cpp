#include "service/updates/components.h"

#include "norv/json_text.h"
#include "norv/json_value.h"
#include "norv/log.h"
#include "norv/time_text.h"
#include "service/base/files.h"
#include "service/tree/file_transfer.h"
#include "service/updates/freshclam_plan.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <set>
#include <string_view>
#include <utility>

namespace keldra {

namespace {

constexpr std::size_t STATE_FILE_LIMIT = std::size_t{1} << 20U;

/// Official databases, the one whose version speaks for the others first.
constexpr std::array<std::string_view, 3> OFFICIAL = {"daily", "main", "bytecode"};

bool isOfficial(const std::string& name) {
    const std::filesystem::path file(name);
    const std::string stem = file.stem(), extension = file.extension();
    return (extension == ".cvd" || extension == ".cld") && std::ranges::find(OFFICIAL, stem) != OFFICIAL.end();
}

/// Whether a file of the database folder is a database at all and not the fetching program's own.
bool isDatabase(const std::filesystem::path& file) {
    const std::string name = file.filename();
    std::error_code error;
    return std::filesystem::is_regular_file(file, error) && !name.starts_with('.') && !name.ends_with(".dat") &&
           !name.ends_with(".tmp");
}

/// The version in the header of an official database, "ClamAV-VDB:time:version:…"; empty without such a header.
std::string headerVersion(int fd) {
    std::array<char, 512> header{};
    const ssize_t length = pread(fd, header.data(), header.size(), 0);
    const std::string_view text(header.data(), length > 0 ? static_cast<size_t>(length) : 0);
    constexpr std::string_view MAGIC = "ClamAV-VDB:";
    if (!text.starts_with(MAGIC)) return {};
    const size_t begin = text.find(':', MAGIC.size());
    const size_t end = begin == std::string_view::npos ? begin : text.find(':', begin + 1);
    if (end == std::string_view::npos || end - begin > 16) return {};
    const std::string_view version = text.substr(begin + 1, end - begin - 1);
    const bool digits = std::ranges::all_of(version, [](char c) { return c >= '0' && c <= '9'; });
    return digits ? std::string(version) : std::string();
}

std::string localTime(int64_t instant) { return instant > 0 ? timeText(instant) : std::string(); }

}  // namespace

Components::Components(std::filesystem::path stateFile, std::filesystem::path signatures, const Clock& clock)
    : stateFile_(std::move(stateFile)), signatures_(std::move(signatures)), clock_(clock) {
    load();
}

/// Whoever asks for the versions waits neither for the reading of databases nor for the disk.
FolderLook Components::noteFiles() {
    const std::lock_guard changing(changing_);
    Files found;
    const auto names = namesIn(signatures_);
    if (!names && errno == ENOENT) return FolderLook::SAME;
    bool whole = names.has_value();
    const int error = errno;
    for (const std::string& name : names.value_or(std::vector<std::string>())) {
        if (!isDatabase(signatures_ / name)) continue;
        FileRecord record = inspect(signatures_ / name);
        whole = whole && !record.identity.empty();
        const auto known = files_.find(name);
        if (known != files_.end() && known->second.identity == record.identity) record = known->second;
        found.emplace(name, std::move(record));
    }
    if (!whole) {
        NORV_LOG(NORV_LOG_ERROR, "Cannot read all of %s: %s", signatures_.c_str(),
                 names ? "a file cannot be read" : errorText(error).c_str());
        return FolderLook::FAILED;
    }
    if (found == files_) return FolderLook::SAME;
    {
        const std::lock_guard lock(mutex_);
        files_ = std::move(found);
    }
    save();
    return FolderLook::CHANGED;
}

/// Without an identity when it cannot be read.
Components::FileRecord Components::inspect(const std::filesystem::path& file) {
    const FileDescriptor descriptor(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status {};
    if (!descriptor || fstat(descriptor.get(), &status) != 0) return {};
    std::string identity = headerVersion(descriptor.get());
    if (identity.empty()) identity = sha256Of(descriptor.get());
    return {std::move(identity), status.st_mtim.tv_sec};
}

void Components::noteEngine(const std::string& version) {
    const std::lock_guard changing(changing_);
    if (version.empty() || version == engineVersion_) return;
    {
        const std::lock_guard lock(mutex_);
        engineVersion_ = version;
        engineChanged_ = clock_.now();
    }
    save();
}

ComponentVersions Components::versions() const {
    const std::lock_guard lock(mutex_);
    const bool separate = separateSpyware();
    return {engineVersion_,           localTime(engineChanged_),
            patternVersion(false),    localTime(patternTime(false)),
            patternVersion(separate), localTime(patternTime(separate))};
}

bool Components::separateSpyware() const {
    return std::ranges::any_of(files_, [](const auto& file) { return isSpywareSource(file.first); });
}

std::string Components::patternVersion(bool spyware) const {
    std::string official;
    size_t best = OFFICIAL.size();
    int64_t newest = 0;
    for (const auto& [name, record] : files_) {
        const auto rank = static_cast<size_t>(std::ranges::find(OFFICIAL, std::filesystem::path(name).stem().string()) -
                                              OFFICIAL.begin());
        if (!isOfficial(name) && isSpywareSource(name) == spyware) newest = std::max(newest, record.changed);
        if (!isOfficial(name) || rank >= best) continue;
        best = rank;
        official = record.identity;
    }
    const std::string custom = newest > 0 ? timeText(newest, "%Y%m%d.%H%M%S", TimeZone::UTC) : std::string();
    return official.empty() || custom.empty() ? official + custom : official + '+' + custom;
}

int64_t Components::patternTime(bool spyware) const {
    int64_t newest = 0;
    for (const auto& [name, record] : files_)
        if (isOfficial(name) || isSpywareSource(name) == spyware) newest = std::max(newest, record.changed);
    return newest;
}

void Components::load() {
    int error = 0;
    const auto text = readFile(stateFile_, STATE_FILE_LIMIT, error);
    if (!text) return;
    const JsonDocument root = parseJson(*text);
    engineVersion_ = textOf(root, "engineVersion");
    engineChanged_ = numberOf(root, "engineChanged");
    if (!root.IsObject()) return;
    const auto files = root.FindMember("files");
    if (files == root.MemberEnd() || !files->value.IsArray()) return;
    for (const JsonValue& file : files->value.GetArray())
        if (file.IsObject()) files_[textOf(file, "name")] = {textOf(file, "identity"), numberOf(file, "changed")};
}

void Components::save() const {
    JsonText text;
    text.object([&] {
        text.member("engineVersion", engineVersion_).member("engineChanged", engineChanged_).name("files").array([&] {
            for (const auto& [name, record] : files_)
                text.object([&, &name = name, &record = record] {
                    text.member("name", name).member("identity", record.identity).member("changed", record.changed);
                });
        });
    });
    const WriteResult result = writeFileAtomically(stateFile_, text.text(), 0600);
    if (!result) NORV_LOG(NORV_LOG_ERROR, "Cannot write %s: %s", stateFile_.c_str(), errorText(result.error).c_str());
}

}  // namespace keldra
