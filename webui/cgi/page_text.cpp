#include "webui/cgi/page_text.h"

#include <libintl.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <utility>

namespace {

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

}  // namespace

void replaceAll(std::string& text, std::string_view name, std::string_view value) {
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

std::string withTexts(std::string_view text, const CStringMUI& strings) {
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
        if (const std::string_view* const value = strings.find(rest.view().substr(0, length))) {
            rest.drop(length);
            rest.putBack(*value);
        }
        // The marker's length, not the value's: texts of the string table rely on it.
        rest.moveTo(done, length);
    }
    done.append(rest.view());
    return done;
}

std::string translated(const std::string& text) {
    // The catalogue answers the empty text with its own header, and sees nothing behind a NUL byte.
    if (text.empty() || text.find('\0') != std::string::npos) return text;
    return gettext(text.c_str());
}
