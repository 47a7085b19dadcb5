#include "service/ctl/progress_bar.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace keldra {

namespace {

constexpr std::size_t BAR = 24;
constexpr std::size_t USUAL_WIDTH = 80;

std::size_t terminalWidth() {
    winsize size{};
    return ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : USUAL_WIDTH;
}

}  // namespace

std::string progressLine(std::uint64_t done, std::uint64_t total, const std::string& remark, std::size_t width) {
    const std::uint64_t percent = total == 0 ? 0 : std::min<std::uint64_t>(100, done * 100 / total);
    const std::size_t filled = BAR * static_cast<std::size_t>(percent) / 100;
    std::string number = total == 0 ? "--" : std::to_string(percent);
    number.insert(0, 3 - number.size(), ' ');
    const std::string line =
        "[" + std::string(filled, '#') + std::string(BAR - filled, '-') + "] " + number + " % " + remark;
    return line.substr(0, width);
}

ProgressBar::ProgressBar() : terminal_(::isatty(STDERR_FILENO) == 1) {}

void ProgressBar::show(std::uint64_t done, std::uint64_t total, const std::string& remark) {
    if (!terminal_) return;
    const std::string line = progressLine(done, total, remark, terminalWidth() - 1);
    std::fprintf(stderr, "\r\033[K%s", line.c_str());
    std::fflush(stderr);
    shown_ = true;
}

void ProgressBar::clear() {
    if (!shown_) return;
    std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
    shown_ = false;
}

}  // namespace keldra
