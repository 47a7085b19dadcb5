#pragma once

#include <string_view>

namespace keldra {

/// Tenths of an update, 1 to 9, from the lines that freshclam prints.
class FreshclamProgress {
public:
    explicit FreshclamProgress(int expected) : expected_(expected > 0 ? expected : 1) {}
    void line(std::string_view text);
    int tenths() const;

private:
    int expected_;
    int done_ = 0;
    int percent_ = 0;  ///< of the database under way
};

}  // namespace keldra
