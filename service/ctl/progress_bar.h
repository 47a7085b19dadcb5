#pragma once

#include <cstdint>
#include <string>

namespace keldra {

/// One line on a terminal that says how far something is, drawn over itself. It goes to standard error and only when
/// that is a terminal, so that it never gets into what a script reads.
class ProgressBar {
public:
    ProgressBar();
    /// Takes the line away.
    ~ProgressBar() { clear(); }
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    /// Draws `done` of `total` (0: not known yet) with a remark behind it, printable text.
    void show(std::uint64_t done, std::uint64_t total, const std::string& remark);
    /// Takes the line away, before something else is printed.
    void clear();

private:
    const bool terminal_;
    bool shown_ = false;
};

/// The line, at most `width` columns: "[#####-----]  50 % remark".
std::string progressLine(std::uint64_t done, std::uint64_t total, const std::string& remark, std::size_t width);

}  // namespace keldra
