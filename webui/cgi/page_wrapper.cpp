#include "webui/cgi/page_wrapper.h"

#include "norv/locale.h"
#include "norv/log.h"
#include "webui/cgi/page_text.h"
#include "webui/cgi/text_file.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <string_view>

namespace {

constexpr std::array<const char*, 3> CONTENT_TYPE_LINES = {"", "Content-type: text/html\n",
                                                           "Content-type: text/plain\n"};

/// The next word of a text, up to white space; empty at the text's end.
std::string_view takeWord(std::string_view& text) {
    constexpr std::string_view BLANKS = " \t\n\v\f\r";
    text.remove_prefix(std::min(text.find_first_not_of(BLANKS), text.size()));
    const std::string_view word = text.substr(0, text.find_first_of(BLANKS));
    text.remove_prefix(word.size());
    return word;
}

void dropLine(std::string_view& text) {
    const std::size_t end = text.find('\n');
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
}

}  // namespace

CPageWrapper::CPageWrapper(ContentType type) : contentType_(type) {
    addDStringItem("__LOCALE__", get_norv_locale());
    addTexts("string.mui");
}

void CPageWrapper::addTexts(const std::string& table) {
    strings_.Initialize("../templates/" + get_norv_locale() + "/" + table);
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
    for (std::string_view rest = content; !rest.empty(); dropLine(rest)) {
        const std::string name(takeWord(rest));
        if (name.empty()) break;
        if (name.front() == ';') continue;
        const std::string value(takeWord(rest));
        if (value.empty()) break;
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
    body.insert(0, responseHead());
    writeOut(body);
    return true;
}

std::string CPageWrapper::replace(const std::string& text, const std::string& name) {
    std::string result = text;
    replaceAll(result, name, dstrings_[name]);
    return result;
}

int CPageWrapper::ReplaceWithMUIString(std::string& text) {
    text = withTexts(text, strings_);
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

void writeOut(const std::string& bytes) {
    // Without a buffer of its own a whole page is one write.
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    std::fwrite(bytes.data(), 1, bytes.size(), stdout);
}

void redirectTo(const std::string& url) {
    CPageWrapper page(CPageWrapper::CONTENT_TYPE_HTML);
    page.addHeader("Status", "307 Temporary Redirect");
    page.addHeader("Location", url);
    page.outputPage("");
}

void goTo(const std::string& url) {
    CPageWrapper page(CPageWrapper::CONTENT_TYPE_HTML);
    page.addHeader("Status", "303 See Other");
    page.addHeader("Location", url);
    page.outputPage("");
}
