#include "webui/cgi/page_wrapper.h"

#include "norv/locale.h"
#include "norv/log.h"
#include "webui/cgi/text_file.h"

#include <libintl.h>

#include <array>
#include <cstddef>
#include <cstdio>
#include <string_view>
#include <utility>

namespace {

constexpr std::array<const char*, 3> CONTENT_TYPE_LINES = {"", "Content-type: text/html\n",
                                                           "Content-type: text/plain\n"};

/// Left to right, never inside a value just inserted.
void replaceAll(std::string& text, const std::string& name, const std::string& value) {
    if (name.empty()) return;
    std::size_t found = text.find(name);
    if (found == std::string::npos) return;
    std::string result;
    std::size_t copied = 0;
    for (; found != std::string::npos; found = text.find(name, copied)) {
        result.append(text, copied, found - copied).append(value);
        copied = found + name.size();
    }
    text = std::move(result.append(text, copied));
}

std::string translated(const std::string& text) {
    // The catalogue answers the empty text with its own header, and sees nothing behind a NUL byte.
    if (text.empty() || text.find('\0') != std::string::npos) return text;
    return gettext(text.c_str());
}

}  // namespace

CPageWrapper::CPageWrapper(ContentType type) : contentType_(type) {
    const std::string locale = get_norv_locale();
    addDStringItem("__LOCALE__", locale);
    strings_.Initialize("../templates/" + locale + "/string.mui");
}

void CPageWrapper::addHeader(const std::string& name, const std::string& value) {
    headers_.insert_or_assign(name, value);
}

void CPageWrapper::addCookie(const std::string& name, const std::string& value) {
    cookies_.insert_or_assign(name, value);
}

void CPageWrapper::addDStringItem(const std::string& name, const std::string& value) {
    dstrings_.insert_or_assign(name, translated(value));
}

bool CPageWrapper::setDString(const std::string& strDStringFile) {
    NORV_TRACE("ENTER");
    NORV_TRACE("strDStringFile=%s", strDStringFile.c_str());
    std::string content;
    if (!readTextFile(strDStringFile, content)) {
        NORV_LOG(NORV_LOG_ERROR, "Failed to open %s", strDStringFile.c_str());
        return false;
    }
    std::istringstream words(content);
    std::string name;
    std::string value;
    for (std::string rest; words >> name; std::getline(words, rest)) {
        if (name.front() == ';' || !(words >> value)) continue;
        dstrings_.insert_or_assign(name, value);
        NORV_TRACE("DString added. name=%s value=%s", name.c_str(), value.c_str());
    }
    return true;
}

bool CPageWrapper::outputPage(const std::string& strPageName) {
    NORV_TRACE("ENTER");
    NORV_TRACE("strPageName=%s", strPageName.c_str());
    std::string body;
    if (!strPageName.empty()) {
        if (!loadTemplate(strPageName, body)) {
            NORV_LOG(NORV_LOG_ERROR, "Failed to load a page");
            return false;
        }
        ReplaceWithMUIString(body);
        for (const auto& [name, value] : dstrings_) replaceAll(body, name, value);
    }
    const std::string response = responseHead() + body;
    std::fwrite(response.data(), 1, response.size(), stdout);
    std::fflush(stdout);
    return true;
}

std::string CPageWrapper::replace(const std::string& text, const std::string& name) {
    std::string result = text;
    replaceAll(result, name, dstrings_[name]);
    return result;
}

int CPageWrapper::ReplaceWithMUIString(std::string& text) {
    const std::string_view opening = CStringMUI::start_tag;
    const std::string_view closing = CStringMUI::end_tag;
    std::string value;
    for (std::size_t start = text.find(opening); start != std::string::npos;) {
        const std::size_t end = text.find(closing, start + 1);
        if (end == std::string::npos) break;
        const std::string marker = text.substr(start, end + closing.size() - start);
        if (strings_.GetValue(marker, value) == 0) text.replace(start, marker.size(), value);
        // The marker's length, not the value's: texts of the string table rely on it.
        start = text.find(opening, start + marker.size());
    }
    return 1;
}

bool CPageWrapper::loadTemplate(const std::string& strPageName, std::string& body) {
    if (strPageName.find("..") == std::string::npos) return readTextFile("../templates/" + strPageName, body);
    NORV_LOG(NORV_LOG_ERROR, "Illigal page name detected. strPageName=%s", strPageName.c_str());
    contentType_ = CONTENT_TYPE_HTML;
    return readTextFile("error.html", body);
}

std::string CPageWrapper::responseHead() const {
    const auto type = static_cast<std::size_t>(contentType_);
    std::string head = type < CONTENT_TYPE_LINES.size() ? CONTENT_TYPE_LINES[type] : "";
    for (const auto& [name, value] : headers_) {
        NORV_TRACE("[Header] %s: %s", name.c_str(), value.c_str());
        head.append(name).append(": ").append(value).append("\n");
    }
    for (const auto& [name, value] : cookies_) {
        NORV_TRACE("[Cookie] Set-Cookie : %s=%s", name.c_str(), value.c_str());
        head.append("Set-Cookie: ").append(name).append("=").append(value).append("\n");
    }
    return head.append("\n");
}

void redirectTo(const std::string& url) {
    CPageWrapper page(CPageWrapper::CONTENT_TYPE_HTML);
    page.addHeader("Status", "307 Temporary Redirect");
    page.addHeader("Location", url);
    page.outputPage("");
}
