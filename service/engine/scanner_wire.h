#pragma once

#include "service/base/files.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

// What keldrad and its scanner processes say to each other: records of fixed shape, one a packet, with descriptors
// beside them. Both ends come from one build. What a scanner says is looked at like anything from outside.

namespace keldra::wire {

constexpr uint32_t MARK = 0x4b530002;
constexpr std::size_t MOST_FOLDERS = 16;
constexpr std::size_t MOST_DESCRIPTORS = MOST_FOLDERS + 1;

/// Descriptors of a scanner process: the socket to keldrad, and the folder for what is unpacked.
constexpr int CHANNEL = 3;
constexpr int TEMPORARY = 4;

using Text = std::array<char, 256>;

/// To a host.
struct HostOrder {
    enum class Kind : uint32_t {
        LOAD,  ///< with the folder for temporary files and the folders of signatures; the first order, and only once
        FORK,  ///< with the new worker's socket and its folder for temporary files
        KILL
    };

    uint32_t mark = MARK;
    Kind kind = Kind::LOAD;
    uint32_t worker = 0;      ///< its number
    uint32_t background = 0;  ///< 1: at a lower priority
    uint64_t memory = 0;      ///< bytes that a worker may take beyond what it shares with the host and the file
    uint64_t largest = 0;     ///< bytes of the largest file it is given
    uint64_t memberSize = 0;  ///< bytes of the largest file it may write
};

/// From a host.
struct HostNews {
    enum class Kind : uint32_t { LOADED, FORKED, EXITED };

    uint32_t mark = MARK;
    Kind kind = Kind::LOADED;
    uint32_t worker = 0;
    int32_t pid = 0;
    int32_t status = 0;                               ///< of a worker that ended, as wait gives it
    uint32_t tookMemory = 0;                          ///< 1: the worker that ended had taken nearly all it may
    uint32_t good = 0;                                ///< 1: the signatures are loaded
    int32_t failedFolder = -1;                        ///< number of the folder that cannot be loaded
    std::array<uint32_t, MOST_FOLDERS> signatures{};  ///< by folder
    uint64_t memory = 0;                              ///< bytes that the host holds in memory with its signatures
    uint32_t databaseVersion = 0;
    uint32_t confined = 0;  ///< 1: the kernel keeps the scanner to its folders
    std::array<char, 32> engineVersion{};
    Text text{};  ///< English
};

/// To a worker, with the file.
struct ScanOrder {
    uint32_t mark = MARK;
    uint32_t archives = 0;
    uint64_t number = 0;
    uint64_t size = 0;             ///< bytes of the file
    uint64_t memberSizeLimit = 0;  ///< see ScanOptions
    uint64_t fileSize = 0;         ///< bytes of the largest member that is unpacked
    uint64_t unpacked = 0;         ///< bytes unpacked in all
    uint32_t layers = 0;
    uint32_t members = 0;
    uint32_t milliseconds = 0;
    uint32_t reserved = 0;
    uint64_t memory = 0;  ///< bytes that it may take for this file, beyond the file itself
};

/// From a worker.
struct ScanAnswer {
    uint32_t mark = MARK;
    uint32_t verdict = 0;  ///< a Verdict
    uint64_t number = 0;   ///< the order's
    Text signature{};      ///< as the library names it
    Text detail{};
};

/// Puts as much of the text as fits, ended by a zero; anything that is not printable becomes a question mark.
void put(std::span<char> place, std::string_view text);

/// The text before the first zero; false when there is none or something in it is not printable.
bool take(std::span<const char> place, std::string& text);

/// Sends one record with descriptors. False, with errno set, when it cannot be sent at once and as a whole.
bool send(int channel, std::string_view bytes, std::span<const int> descriptors);

/// Receives one record of exactly that many bytes, with at most MOST_DESCRIPTORS descriptors; waits for it. 0 at the
/// other side's end, 1 for a record, -1, with errno set, for a failure (EBADMSG for a record of another size or mark).
int receive(int channel, std::span<char> bytes, std::vector<FileDescriptor>& descriptors);

template <typename Record>
bool send(int channel, const Record& record, std::span<const int> descriptors = {}) {
    static_assert(std::is_trivially_copyable_v<Record>);
    return send(channel, std::string_view(reinterpret_cast<const char*>(&record), sizeof record), descriptors);
}

template <typename Record>
int receive(int channel, Record& record, std::vector<FileDescriptor>& descriptors) {
    static_assert(std::is_trivially_copyable_v<Record>);
    return receive(channel, std::span<char>(reinterpret_cast<char*>(&record), sizeof record), descriptors);
}

}  // namespace keldra::wire
