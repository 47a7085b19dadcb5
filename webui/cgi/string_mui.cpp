#include "webui/cgi/string_mui.h"

#include "norv/log.h"
#include "webui/cgi/text_file.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>
#include <utility>

namespace {

/// Bytes of a line of the console's own tables, at least: what to take memory for.
constexpr std::size_t USUAL_LINE = 64;

/// A page's program lives for a millisecond and enters hundreds of keys: their length and sixteen of their bytes tell
/// them apart well enough.
std::size_t hashOf(std::string_view key) {
    uint64_t first = 0;
    uint64_t last = 0;
    constexpr std::size_t MARK = 2;  // the delimiters, which all keys share
    if (key.size() >= sizeof last + MARK) {
        std::memcpy(&first, key.data() + MARK, sizeof first);
        std::memcpy(&last, key.data() + key.size() - MARK - sizeof last, sizeof last);
    } else {
        std::memcpy(&last, key.data(), std::min(key.size(), sizeof last));
    }
    const uint64_t mixed = ((first * 0x9E3779B97F4A7C15U) ^ last ^ key.size()) * 0xC2B2AE3D27D4EB4FU;
    return static_cast<std::size_t>(mixed >> 32U);
}

}  // namespace

int CStringMUI::Initialize(const std::string& strPath) {
    NORV_TRACE("ENTER strPath=%s", strPath.c_str());
    if (strPath.empty()) {
        NORV_LOG(NORV_LOG_REFUSED, "Invalid argument.");
        return 1;
    }
    std::string text;
    if (!readTextFile(strPath, text)) {
        NORV_LOG(NORV_LOG_REFUSED, "Failed to open file.");
        return 3;
    }
    const std::size_t start = text_.size();
    text_ = start == 0 ? std::move(text) : text_ + text;
    addEntries(start);
    return 0;
}

void CStringMUI::addEntries(std::size_t start) {
    entries_.reserve(entries_.size() + (text_.size() - start) / USUAL_LINE);
    while (start < text_.size()) {
        const std::size_t end = std::min(text_.find('\n', start), text_.size());
        const std::size_t equals = std::string_view(text_).substr(start, end - start).find('=');
        if (equals != std::string_view::npos) {
            entries_.push_back(
                {static_cast<uint32_t>(start), static_cast<uint32_t>(start + equals), static_cast<uint32_t>(end)});
        }
        start = end + 1;
    }
    index();
}

/// A later entry takes the place of an earlier one of its key.
void CStringMUI::index() {
    slots_.assign(std::bit_ceil(2 * entries_.size() + 1), 0);
    for (std::size_t i = 0; i < entries_.size(); ++i) slots_[slotOf(keyOf(entries_[i]))] = static_cast<uint32_t>(i + 1);
}

/// Where the key stands in the table, or would stand.
std::size_t CStringMUI::slotOf(std::string_view key) const {
    const std::size_t mask = slots_.size() - 1;
    std::size_t slot = hashOf(key) & mask;
    while (slots_[slot] != 0 && keyOf(entries_[slots_[slot] - 1]) != key) slot = (slot + 1) & mask;
    return slot;
}

std::string_view CStringMUI::keyOf(const Entry& entry) const {
    return std::string_view(text_).substr(entry.start, entry.equals - entry.start);
}

int CStringMUI::GetValue(const std::string& key, std::string& value) const {
    if (key.empty()) return 1;
    const uint32_t place = slots_.empty() ? 0 : slots_[slotOf(key)];
    if (place == 0) return 2;
    const Entry& entry = entries_[place - 1];
    value.assign(text_, entry.equals + 1, entry.end - entry.equals - 1);
    return 0;
}
