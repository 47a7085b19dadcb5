#pragma once

#include <chrono>
#include <cstddef>
#include <string_view>

namespace keldra {

/// Log lines about clients that misbehave: at most some a second, so that nobody fills the log. For one thread.
class Complaints {
public:
    /// Logs `what` and a number. Throws nothing.
    void note(std::string_view what, std::size_t number) noexcept;

private:
    std::chrono::steady_clock::time_point since_;
    unsigned count_ = 0;
};

}  // namespace keldra
