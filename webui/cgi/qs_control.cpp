#include "webui/cgi/qs_control.h"

#include "norv/log.h"
#include "norv/text_form.h"

#include <regex.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <utility>

namespace {

/// The pattern of mark-up that a request must not hold, compiled when a text first holds what every match begins with.
class MarkupFilter {
public:
    MarkupFilter() = default;
    ~MarkupFilter() {
        if (state_ == State::COMPILED) regfree(&pattern_);
    }
    MarkupFilter(const MarkupFilter&) = delete;
    MarkupFilter& operator=(const MarkupFilter&) = delete;

    /// Whether the text matches anywhere, also behind a NUL byte. A matcher that fails counts as a match.
    bool matches(const std::string& text) {
        if (text.find('<') == std::string::npos) return false;
        if (!compiled()) return true;
        regmatch_t whole = {.rm_so = 0, .rm_eo = static_cast<regoff_t>(text.size())};
        return regexec(&pattern_, text.c_str(), 0, &whole, REG_STARTEND) != REG_NOMATCH;
    }

private:
    enum class State { NEW, COMPILED, FAILED };

    bool compiled() {
        if (state_ == State::NEW) {
            const bool done = regcomp(&pattern_, PATTERN, REG_EXTENDED | REG_ICASE | REG_NOSUB) == 0;
            if (!done) NORV_TRACE("Failed to compile the regular expression");
            state_ = done ? State::COMPILED : State::FAILED;
        }
        return state_ == State::COMPILED;
    }

    static constexpr const char* PATTERN =
        "<( |/)*(a "
        "|base|bgsound|body|div|embed|iframe|img|input|isindex|link|meta|object|script|style|svg|table|video)";
    regex_t pattern_{};
    State state_ = State::NEW;
};

std::string readFirstLine() {
    std::string line;
    for (int byte = getc_unlocked(stdin); byte != EOF && byte != '\n'; byte = getc_unlocked(stdin)) {
        line += static_cast<char>(byte);
    }
    return line;
}

/// The next piece up to `separator`, taken off the front of `text`, as a line reader does it.
std::string_view takePiece(std::string_view& text, char separator) {
    const std::size_t end = text.find(separator);
    const std::string_view piece = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return piece;
}

int digitValue(char digit) {
    const auto value = static_cast<signed char>(digit);  // plain char is unsigned on some machines
    return value < 'A' ? value - '0' : (value & ~0x20) - 55;
}

bool refuse() {
    NORV_TRACE("Query String matchs invalid regular expression");
    return false;
}

}  // namespace

bool CQSControl::initialize() {
    NORV_TRACE("ENTER");
    method_ = GET;
    const char* const value = std::getenv("REQUEST_METHOD");
    const std::string_view method = value ? value : "";
    if (method == "GET") {
        NORV_TRACE("Detected GET method request");
        const char* const query = std::getenv("QUERY_STRING");
        return parse(query ? query : "");
    }
    if (method == "POST") {
        NORV_TRACE("Detected POST method request");
        method_ = POST;
        return parse(readFirstLine());
    }
    NORV_LOG(NORV_LOG_ERROR, "Proper HTTP request method is not detected");
    return true;
}

bool CQSControl::parse(std::string text) {
    text.resize(std::min(text.find('\0'), text.size()));
    MarkupFilter filter;
    if (filter.matches(unescape_url(text))) return refuse();
    for (std::string_view rest = text; !rest.empty();) {
        std::string_view piece = takePiece(rest, '&');
        std::string name = unescape_url(std::string(takePiece(piece, '=')));
        std::string value = unescape_url(std::string(takePiece(piece, '\n')));
        // Escapes that straddle a separator decode differently piece by piece, so the pieces are matched as well.
        if (filter.matches(name) || filter.matches(value)) return refuse();
        NORV_TRACE("name=%s   value=%s", name.c_str(), value.c_str());
        parameters_.emplace(std::move(name), std::move(value));
    }
    return true;
}

template <>
std::string CQSControl::getEnv<std::string>(const std::string& name) const {
    const auto found = parameters_.find(name);
    return found == parameters_.end() ? std::string() : found->second;
}

template <>
int CQSControl::getEnv<int>(const std::string& name) const {
    return nearestNumber(getEnv<std::string>(name));
}

std::string CQSControl::unescape_url(const std::string& s) {
    const std::size_t end = std::min(s.find('\0'), s.size());
    std::string result;
    result.reserve(end);
    for (std::size_t i = 0; i < end; ++i) {
        if (s[i] == '%' && i + 2 < s.size()) {
            result += x2c(s[i + 1], s[i + 2]);
            i += 2;
        } else {
            result += s[i] == '+' ? ' ' : s[i];
        }
    }
    return result;
}

char CQSControl::x2c(char hi, char lo) {
    return static_cast<char>(static_cast<unsigned char>(digitValue(hi) * 16 + digitValue(lo)));
}
