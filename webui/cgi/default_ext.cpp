#include "webui/cgi/default_ext.h"

#include "norv/log.h"
#include "webui/cgi/page_wrapper.h"
#include "webui/cgi/utils/configuration.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

namespace {

constexpr int LINE_SIZE = 1024;
constexpr int COLUMNS = 5;

/// One byte more than a line may take, so that there always is an end behind the last token.
using LineBuffer = std::array<char, LINE_SIZE + 1>;

void readLine(std::FILE* file, LineBuffer& line) {
    if (!std::fgets(line.data(), LINE_SIZE, file)) NORV_LOG(NORV_LOG_ERROR, "fgets failed");
}

/// Cuts the line into tokens, each ended by a NUL byte; nothing of an earlier, longer line stays behind.
void splitTokens(LineBuffer& line) {
    const auto end = line.begin() + static_cast<std::ptrdiff_t>(std::strlen(line.data()));
    std::replace_if(
        line.begin(), end, [](char byte) { return std::string_view("\n\r:;").find(byte) != std::string_view::npos; },
        '\0');
    std::fill(end, line.end(), '\0');
}

std::string cell(const char* style, const char* content) {
    return std::string("<td class=\"").append(style).append("\">").append(content).append("</td>\n");
}

/// The tokens as table rows of five cells; an empty token ends the list. Without any token there is a row of fillers
/// that nothing opened: the page relies on it.
std::string tableRows(const LineBuffer& line) {
    std::string rows;
    const char* style = "";
    int last = 0;
    for (const char* token = line.data(); *token != '\0';) {
        const int column = last % COLUMNS;
        if (column == 0) {
            rows += "<tr>\n";
            style = last / COLUMNS % 2 == 0 ? "data1b" : "data2b";
        }
        rows += cell(style, token);
        token += std::strlen(token) + 1;
        if (column == COLUMNS - 1) rows += "</tr>\n";
        if (*token != '\0') ++last;
    }
    if (last % COLUMNS == COLUMNS - 1) return rows;
    for (; last % COLUMNS != COLUMNS - 1; ++last) rows += cell(style, " &nbsp; ");
    return rows + "</tr>\n";
}

void addExtensionList(CPageWrapper& page, const std::string& path) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "re"), std::fclose);
    if (!file) {
        page.addDStringItem("..p..", "Unknown");
        page.addDStringItem("__HV_EXT_LIST__", "");
        return;
    }
    LineBuffer line{};
    readLine(file.get(), line);
    page.addDStringItem("..p..", line.data());
    readLine(file.get(), line);
    splitTokens(line);
    page.addDStringItem("__HV_EXT_LIST__", tableRows(line));
}

}  // namespace

int GetHVDefaultExt(const NORVConfig& config) {
    NORV_TRACE("ENTER");
    std::string path;
    ConfigGetVarPath(config, path);
    CPageWrapper page(CPageWrapper::CONTENT_TYPE_HTML);
    addExtensionList(page, path + "/HVDefaultExt.txt");
    page.outputPage("ScanOptions/HVDefaultExt.html");
    return 1;
}
