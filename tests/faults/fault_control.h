#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>

/// Lets the n-th call of chosen functions of the system fail, or ends the process there. Linked into a test program it
/// is driven in place; preloaded into the service through a file that both map (KELDRA_FAULT_CONTROL names it).
namespace faults {

enum class Call : uint32_t {
    OPEN,
    READ,
    WRITE,
    FSYNC,
    RENAME,
    LINK,
    UNLINK,
    ATTRIBUTE,
    LIST,
    MEMORY,
    MAP,
    THREAD,
    ACCEPT
};

constexpr uint32_t bit(Call call) { return 1U << static_cast<uint32_t>(call); }
/// All but what only reads, which changes nothing.
constexpr uint32_t CHANGES = bit(Call::OPEN) | bit(Call::WRITE) | bit(Call::FSYNC) | bit(Call::RENAME) |
                             bit(Call::LINK) | bit(Call::UNLINK) | bit(Call::ATTRIBUTE);
/// What gives something that there may be no more of.
constexpr uint32_t GETS = bit(Call::OPEN) | bit(Call::LIST) | bit(Call::MAP) | bit(Call::THREAD) | bit(Call::ACCEPT);
constexpr uint32_t FILES = CHANGES | bit(Call::READ) | bit(Call::LIST);

/// Ends the process instead of failing.
constexpr int DIE = -1;

struct Control {
    std::atomic<uint32_t> calls{0};  ///< which are counted; 0: nothing happens
    std::atomic<int> nth{0};         ///< which one of them, from 1
    std::atomic<int> times{1};       ///< how many from there on
    std::atomic<int> error{0};       ///< errno, or DIE
    std::atomic<int> seen{0};
    std::atomic<int> fired{0};

    void arm(uint32_t which, int number, int failure, int count = 1) {
        calls = 0;
        seen = fired = 0;
        nth = number;
        times = count;
        error = failure;
        calls = which;
    }
    /// Whether it came to the call.
    bool disarm() {
        calls = 0;
        return fired > 0;
    }
};

Control& control();

/// Counts a call; true, with errno set, when it is to fail.
bool fails(Call call);

/// How renames behave, as on other file systems.
enum class Renames { PLAIN, NO_FLAGS, NOT_BETWEEN_FOLDERS };
extern Renames renames;

/// Told before each call that changes something; only in a test program. For a rename it is called for both folders.
/// `folder`: a descriptor (AT_FDCWD with a whole path) or the file itself when `name` is null.
using Observer = std::function<void(Call call, int folder, const char* name)>;
extern Observer observer;

}  // namespace faults
