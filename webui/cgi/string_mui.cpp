#include "webui/cgi/string_mui.h"

#include "norv/log.h"

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
    TextFile file;
    if (!file.read(strPath)) {
        NORV_LOG(NORV_LOG_REFUSED, "Failed to open file.");
        return 3;
    }
    files_.push_back(std::move(file));
    addEntries(files_.back().text());
    return 0;
}

void CStringMUI::addEntries(std::string_view text) {
    entries_.reserve(entries_.size() + text.size() / USUAL_LINE);
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        const std::size_t equals = line.find('=');
        if (equals != std::string_view::npos) entries_.push_back({line.substr(0, equals), line.substr(equals + 1)});
        text.remove_prefix(std::min(line.size() + 1, text.size()));
    }
    index();
}

/// A later entry takes the place of an earlier one of its key.
void CStringMUI::index() {
    slots_.assign(std::bit_ceil(2 * entries_.size() + 1), 0);
    for (std::size_t i = 0; i < entries_.size(); ++i) slots_[slotOf(entries_[i].key)] = static_cast<uint32_t>(i + 1);
}

/// Where the key stands in the table, or would stand.
std::size_t CStringMUI::slotOf(std::string_view key) const {
    const std::size_t mask = slots_.size() - 1;
    std::size_t slot = hashOf(key) & mask;
    while (slots_[slot] != 0 && entries_[slots_[slot] - 1].key != key) slot = (slot + 1) & mask;
    return slot;
}

const std::string_view* CStringMUI::find(std::string_view key) const {
    const uint32_t place = slots_.empty() ? 0 : slots_[slotOf(key)];
    return place == 0 ? nullptr : &entries_[place - 1].value;
}

int CStringMUI::GetValue(const std::string& key, std::string& value) const {
    if (key.empty()) return 1;
    const std::string_view* const found = find(key);
    if (!found) return 2;
    value = *found;
    return 0;
}
