#include "webui/cgi/utils/configuration.h"

#include "norv/log.h"
#include "norv/protocol/configuration.h"
#include "webui/cgi/service_message.h"
#include "webui/cgi/text_file.h"

#include <sys/stat.h>

#include <cstddef>
#include <string_view>
#include <vector>

namespace {

/// Any result but an error is taken; others rely on it.
template <typename Reply>
bool taken(const protocol::Answer<Reply>& answer) {
    if (!answer.reached) {
        NORV_LOG(NORV_LOG_REFUSED, "sendMessage failed");
        return false;
    }
    if (answer.result == IPCMessage::RESULT_ERROR) {
        NORV_LOG(NORV_LOG_REFUSED, "CheckConfigFile retuned an error. result=%d", answer.result);
        return false;
    }
    return true;
}

}  // namespace

bool getNORVConfigFromEntity(NORVConfig& config) {
    if (!taken(askService(protocol::CheckConfiguration()))) return false;
    const auto answer = askService(protocol::GetConfiguration());
    if (!taken(answer)) return false;
    const std::string& content = answer.reply.content;
    config = NORVConfig({content.begin(), content.end()}, answer.reply.lastModified);
    return true;
}

bool ConfigGetVarPath(const NORVConfig& config, std::string& path) {
    if (getConfigValue(config, "Configuration", "VarPath", path)) return true;
    NORV_LOG(NORV_LOG_REFUSED, "Failed to get confg value");
    path = "/opt/Halvard/NorvLinux/NORV.tmp";
    return false;
}

std::string GetBuildNumber(const char* file) {
    std::string text;
    if (!readTextFile(file, text)) {
        NORV_LOG(NORV_LOG_ERROR, "failed to open %s", file);
    } else if (text.empty()) {
        NORV_LOG(NORV_LOG_ERROR, "failed to read");
    }
    return firstLine(text);
}

bool GetNORVRunningOrNot(const char* file) {
    std::string text;
    if (!readTextFile(file, text)) return false;
    for (std::string_view rest = text; !rest.empty();) {
        if (!rest.starts_with("norvmod")) return true;
        const std::size_t end = rest.find('\n');
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    }
    return false;
}

bool Exist(const char* path) {
    struct stat status {};
    return path && stat(path, &status) == 0;
}

std::string ParseData(const std::string& data, const std::string& id) {
    const std::string pattern = "ID=\"" + id + "\" Value=\"";
    const std::size_t found = data.find(pattern);
    if (found == std::string::npos) return "";
    const std::size_t start = found + pattern.size();
    const std::size_t end = data.find('"', start);
    return end == std::string::npos ? "" : data.substr(start, end - start);
}
