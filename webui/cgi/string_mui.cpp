#include "webui/cgi/string_mui.h"

#include "norv/log.h"
#include "webui/cgi/text_file.h"

#include <algorithm>
#include <cstddef>

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
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        const std::size_t equals = text.find('=', start);
        if (equals < end) {
            texts_.insert_or_assign(text.substr(start, equals - start), text.substr(equals + 1, end - equals - 1));
        }
        start = end + 1;
    }
    return 0;
}

int CStringMUI::GetValue(const std::string& key, std::string& value) const {
    if (key.empty()) return 1;
    const auto found = texts_.find(key);
    if (found == texts_.end()) return 2;
    value = found->second;
    return 0;
}
