#include "webui/cgi/page_wrapper.h"

#include "norv/locale.h"
#include "norv/log.h"
#include "webui/cgi/text_file.h"

#include <libintl.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

namespace {

constexpr std::array<const char*, 3> CONTENT_TYPE_LINES = {"", "Content-type: text/html\n",
                                                           "Content-type: text/plain\n"};

/// Bytes of most pages of the console.
constexpr std::size_t USUAL_PAGE = std::size_t{24} * 1024;

/// Bytes of the console's pages, the most frequent first.
constexpr std::string_view FREQUENT = " eatis\"noldr<>=cphu/f-vmbgy.wkS1xT,O2C?qL4_PEAFDN0";

/// Where in a name the byte stands that pages have least often.
std::size_t rarestByte(std::string_view name) {
    std::size_t rarest = 0;
    std::size_t best = 0;
    for (std::size_t i = 0; i < name.size(); ++i) {
        const std::size_t rank = std::min(FREQUENT.find(name[i]), FREQUENT.size());
        if (rank > best) {
            best = rank;
            rarest = i;
        }
    }
    return rarest;
}

/// A name that is looked for in a page from one of its rare bytes to the next: for each page some thirty names are
/// looked for, most of them in vain or to be met once.
class Needle {
public:
    explicit Needle(std::string_view name) : name_(name), rare_(rarestByte(name)) {}

    /// Where the name stands next, from `start` on; npos when it does not. The name is not empty.
    std::size_t findIn(std::string_view text, std::size_t start) const {
        for (std::size_t at = start + rare_; at < text.size(); ++at) {
            at = text.find(name_[rare_], at);
            if (at == std::string_view::npos) break;
            if (text.compare(at - rare_, name_.size(), name_) == 0) return at - rare_;
        }
        return std::string_view::npos;
    }

private:
    std::string_view name_;
    std::size_t rare_;
};

/// Left to right, never inside a value just inserted.
void replaceAll(std::string& text, const std::string& name, const std::string& value) {
    if (name.empty()) return;
    const Needle needle(name);
    std::size_t found = needle.findIn(text, 0);
    if (found == std::string::npos) return;
    std::size_t next = needle.findIn(text, found + name.size());
    if (next == std::string::npos) {
        text.replace(found, name.size(), value);
        return;
    }
    std::string result(text, 0, found);
    for (; found != std::string::npos; found = next) {
        next = needle.findIn(text, found + name.size());
        result.append(value).append(text, found + name.size(), next - found - name.size());
    }
    text = std::move(result);
}

/// A text that is taken away from its front, where other text can be put back without moving all of it.
class Rest {
public:
    explicit Rest(std::string_view text) : size_(USUAL_PAGE + text.size()), start_(USUAL_PAGE) {
        buffer_ = std::make_unique_for_overwrite<char[]>(size_);
        text.copy(buffer_.get() + start_, text.size());
    }

    std::string_view view() const { return {buffer_.get() + start_, size_ - start_}; }
    /// Moves up to `count` bytes to the end of `out`.
    void moveTo(std::string& out, std::size_t count) {
        const std::string_view front = view().substr(0, count);
        out += front;
        start_ += front.size();
    }
    void drop(std::size_t count) { start_ += count; }
    void putBack(std::string_view text) {
        if (text.size() > start_) makeRoom(text.size());
        start_ -= text.size();
        text.copy(buffer_.get() + start_, text.size());
    }

private:
    void makeRoom(std::size_t wanted) {
        const std::size_t room = wanted + size_;
        auto larger = std::make_unique_for_overwrite<char[]>(room + size_);
        std::memcpy(larger.get() + room + start_, buffer_.get() + start_, size_ - start_);
        buffer_ = std::move(larger);
        size_ += room;
        start_ += room;
    }

    /// What is left are the last bytes, from `start_`. Those before it are room, never read.
    std::unique_ptr<char[]> buffer_;
    std::size_t size_;
    std::size_t start_;
};

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
    const std::string_view opening = CStringMUI::start_tag;
    const std::string_view closing = CStringMUI::end_tag;
    std::string done;
    done.reserve(USUAL_PAGE);
    Rest rest(text);
    for (;;) {
        const std::size_t start = rest.view().find(opening);
        if (start == std::string_view::npos) break;
        const std::size_t end = rest.view().find(closing, start + 1);
        if (end == std::string_view::npos) break;
        rest.moveTo(done, start);
        const std::size_t length = end + closing.size() - start;
        if (const std::string_view* const value = strings_.find(rest.view().substr(0, length))) {
            rest.drop(length);
            rest.putBack(*value);
        }
        // The marker's length, not the value's: texts of the string table rely on it.
        rest.moveTo(done, length);
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
