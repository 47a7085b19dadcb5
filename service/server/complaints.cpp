#include "service/server/complaints.h"

#include "norv/log.h"

namespace keldra {

namespace {

constexpr unsigned LINES_PER_SECOND = 10;

}  // namespace

void Complaints::note(std::string_view what, std::size_t number) noexcept try {
    const auto now = std::chrono::steady_clock::now();
    if (now - since_ > std::chrono::seconds(1)) {
        if (count_ > LINES_PER_SECOND)
            NORV_LOG(NORV_LOG_REFUSED, "Socket: %u more lines of this kind", count_ - LINES_PER_SECOND);
        since_ = now;
        count_ = 0;
    }
    if (++count_ > LINES_PER_SECOND) return;
    NORV_LOG(NORV_LOG_REFUSED, "Socket: %.*s %zu", static_cast<int>(what.size()), what.data(), number);
} catch (...) {
    // A line less, for want of memory.
    return;
}

}  // namespace keldra
