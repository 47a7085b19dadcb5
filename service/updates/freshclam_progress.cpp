#include "service/updates/freshclam_progress.h"

#include "service/updates/contains_word.h"

#include <algorithm>
#include <charconv>

namespace keldra {

namespace {

/// The number in front of "%]", as in "Downloading x [ 40%]".
int percentIn(std::string_view text) {
    const size_t end = text.rfind("%]");
    const size_t open = end == std::string_view::npos ? end : text.rfind('[', end);
    if (open == std::string_view::npos) return -1;
    std::string_view digits = text.substr(open + 1, end - open - 1);
    digits.remove_prefix(std::min(digits.find_first_not_of(' '), digits.size()));
    int percent = -1;
    std::from_chars(digits.data(), digits.data() + digits.size(), percent);
    return percent;
}

}  // namespace

void FreshclamProgress::line(std::string_view text) {
    if (containsWord(text, " updated (") || containsWord(text, " is up-to-date") ||
        containsWord(text, " is up to date")) {
        done_ = std::min(done_ + 1, expected_);
        percent_ = 0;
    } else if (const int percent = percentIn(text); percent >= 0) {
        percent_ = std::min(percent, 100);
    }
}

int FreshclamProgress::tenths() const {
    const int whole = done_ >= expected_ ? 0 : percent_;
    return 1 + 8 * (done_ * 100 + whole) / (expected_ * 100);
}

}  // namespace keldra
