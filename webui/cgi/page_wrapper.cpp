#include "webui/cgi/page_wrapper.h"

#include "norv/locale.h"
#include "norv/log.h"
#include "webui/cgi/text_file.h"

#include <libintl.h>

#include <array>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string_view>
#include <utility>

namespace {

constexpr std::array<const char*, 3> CONTENT_TYPE_LINES = {"", "Content-type: text/html\n",
                                                           "Content-type: text/plain\n"};

/// Bytes of most pages of the console.
constexpr std::size_t USUAL_PAGE = std::size_t{16} * 1024;

/// `std::string::find`, which goes from one occurrence of the first character to the next, takes longer.
std::size_t findFrom(const std::string& text, const std::string& name, std::size_t start) {
    const void* const found = ::memmem(text.data() + start, text.size() - start, name.data(), name.size());
    return found ? static_cast<std::size_t>(static_cast<const char*>(found) - text.data()) : std::string::npos;
}

/// Left to right, never inside a value just inserted.
void replaceAll(std::string& text, const std::string& name, const std::string& value) {
    std::size_t found = name.empty() ? std::string::npos : findFrom(text, name, 0);
    if (found == std::string::npos) return;
    std::size_t next = findFrom(text, name, found + name.size());
    if (next == std::string::npos) {
        text.replace(found, name.size(), value);
        return;
    }
    std::string result(text, 0, found);
    for (; found != std::string::npos; found = next) {
        next = findFrom(text, name, found + name.size());
        result.append(value).append(text, found + name.size(), next - found - name.size());
    }
    text = std::move(result);
}

/// A text that is taken away from its front, where other text can be put back without moving all of it.
class Rest {
public:
    explicit Rest(std::string text) : buffer_(std::move(text)) {}

    std::string_view view() const { return std::string_view(buffer_).substr(start_); }
    /// Moves up to `count` bytes to the end of `out`.
    void moveTo(std::string& out, std::size_t count) {
        const std::string_view front = view().substr(0, count);
        out += front;
        start_ += front.size();
    }
    void drop(std::size_t count) { start_ += count; }
    void putBack(std::string_view text) {
        if (text.size() > start_) {
            const std::size_t room = text.size() + buffer_.size();
            buffer_.insert(0, room, '\0');
            start_ += room;
        }
        start_ -= text.size();
        text.copy(buffer_.data() + start_, text.size());
    }

private:
    std::string buffer_;
    std::size_t start_ = 0;
};

std::string translated(const std::string& text) {
    // The catalogue answers the empty text with its own header, and sees nothing behind a NUL byte.
    if (text.empty() || text.find('\0') != std::string::npos) return text;
    return gettext(text.c_str());
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
    const std::string_view opening = CStringMUI::start_tag;
    const std::string_view closing = CStringMUI::end_tag;
    std::string done;
    done.reserve(USUAL_PAGE);
    std::string value;
    Rest rest(std::move(text));
    for (;;) {
        const std::size_t start = rest.view().find(opening);
        if (start == std::string_view::npos) break;
        const std::size_t end = rest.view().find(closing, start + 1);
        if (end == std::string_view::npos) break;
        rest.moveTo(done, start);
        const std::string marker(rest.view().substr(0, end + closing.size() - start));
        if (strings_.GetValue(marker, value) == 0) {
            rest.drop(marker.size());
            rest.putBack(value);
        }
        // The marker's length, not the value's: texts of the string table rely on it.
        rest.moveTo(done, marker.size());
    }
    text = std::move(done.append(rest.view()));
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
