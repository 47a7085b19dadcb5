#pragma once

#include <algorithm>
#include <cstddef>
#include <utility>

namespace keldra {

/// Bytes that several may hold together, at most so many. For one thread.
class ByteBudget {
public:
    explicit ByteBudget(std::size_t limit) : limit_(limit) {}

    /// False, and nothing is taken, when that many are not left.
    bool take(std::size_t bytes) {
        if (bytes > limit_ - std::min(taken_, limit_)) return false;
        taken_ += bytes;
        return true;
    }
    void giveBack(std::size_t bytes) { taken_ -= std::min(bytes, taken_); }

private:
    const std::size_t limit_;
    std::size_t taken_ = 0;
};

/// What one of them holds; given back when it goes.
class ByteShare {
public:
    explicit ByteShare(ByteBudget& budget) : budget_(budget) {}
    ~ByteShare() { giveBack(); }
    ByteShare(const ByteShare&) = delete;
    ByteShare& operator=(const ByteShare&) = delete;

    bool take(std::size_t bytes) {
        if (!budget_.take(bytes)) return false;
        held_ += bytes;
        return true;
    }
    void giveBack() { budget_.giveBack(std::exchange(held_, 0)); }

private:
    ByteBudget& budget_;
    std::size_t held_ = 0;
};

}  // namespace keldra
