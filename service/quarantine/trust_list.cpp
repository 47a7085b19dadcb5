#include "service/quarantine/trust_list.h"

#include "norv/json_text.h"
#include "norv/json_value.h"
#include "norv/log.h"
#include "service/base/files.h"
#include "service/tree/file_transfer.h"

#include <cerrno>
#include <sstream>

namespace keldra {

namespace {
constexpr std::size_t LARGEST_FILE = std::size_t{64} << 20U;
/// More than is ever scanned; who makes a file longer meanwhile keeps nobody busy with it.
constexpr std::uint64_t LARGEST_TRUSTED = std::uint64_t{4} << 30U;
}  // namespace

bool TrustList::read() {
    const std::lock_guard lock(mutex_);
    return readLocked();
}

/// To be called under the lock.
bool TrustList::readLocked() {
    if (read_) return true;
    const std::optional<std::string> text = readFile(file_, LARGEST_FILE, error_);
    if (!text && error_ != ENOENT) {
        NORV_LOG(NORV_LOG_ERROR, "cannot read %s: %s; no file counts as trusted until it can be read", file_.c_str(),
                 errorText(error_).c_str());
        return false;
    }
    std::istringstream lines(text.value_or(""));
    for (std::string line; std::getline(lines, line);) {
        const JsonDocument entry = parseJson(line);
        if (textOf(entry, "sha256").empty()) {
            otherLines_ += line + "\n";
        } else {
            entries_[textOf(entry, "sha256")] = textOf(entry, "path");
        }
    }
    return read_ = true;
}

bool TrustList::contains(int fd) {
    {
        const std::lock_guard lock(mutex_);
        if (!readLocked() || entries_.empty()) return false;
    }
    const std::string hash = sha256Of(fd, LARGEST_TRUSTED);
    const std::lock_guard lock(mutex_);
    return !hash.empty() && entries_.count(hash) != 0;
}

std::map<std::string, std::string> TrustList::all() {
    const std::lock_guard lock(mutex_);
    readLocked();
    return entries_;
}

std::string TrustList::add(const std::string& sha256, const std::string& path) {
    const std::lock_guard lock(mutex_);
    if (!readLocked()) return "The list of trusted files cannot be read: " + errorText(error_);
    std::map<std::string, std::string> entries = entries_;
    entries[sha256] = path;
    return replace(std::move(entries));
}

std::string TrustList::remove(const std::string& sha256) {
    const std::lock_guard lock(mutex_);
    if (!readLocked()) return "The list of trusted files cannot be read: " + errorText(error_);
    std::map<std::string, std::string> entries = entries_;
    if (entries.erase(sha256) == 0) return "No such file is trusted.";
    return replace(std::move(entries));
}

/// To be called under the lock.
std::string TrustList::replace(std::map<std::string, std::string> entries) {
    std::string text = otherLines_;
    for (const auto& [sha256, path] : entries) {
        JsonText entry;
        entry.object([&, &sha256 = sha256, &path = path] { entry.member("sha256", sha256).member("path", path); });
        text += entry.text() + "\n";
    }
    const WriteResult written = writeFileAtomically(file_, text, 0600);
    if (!written) {
        NORV_LOG(NORV_LOG_ERROR, "cannot write %s: %s", file_.c_str(), errorText(written.error).c_str());
        return "The list of trusted files cannot be written: " + errorText(written.error);
    }
    entries_ = std::move(entries);
    return "";
}

}  // namespace keldra
