#pragma once

#include "service/base/sha256.h"

#include <sys/stat.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace keldra {

/// Remembers which files were clean, by their identity and the time of their last change, across restarts. Only files
/// of this machine's own file systems whose change times tell each change count. Of bounded size: what is new displaces
/// what is old. May be used from any thread.
class CleanFiles {
public:
    /// A file as it was found clean, under one set of signatures.
    using Key = uint64_t;

    /// `file`: where it is kept; empty: only in memory.
    explicit CleanFiles(std::filesystem::path file = {});

    /// What is remembered counts for these signatures only; others make it forget all. To be called before any use.
    void useSignatures(const std::string& identity);

    /// The key of a file; nothing when it must not be remembered. `place`: an open file or folder of its file system.
    /// `archives`: whether the scan looks inside archives. `now`: seconds since the epoch; a change just before may not
    /// be the last one that the file's times can show.
    std::optional<Key> keyOf(int place, const struct stat& status, bool archives, int64_t now) const;

    /// The key of a content, wherever it lies. `content`: its SHA-256.
    Key keyOfContent(std::string_view content, bool archives) const;

    bool knows(Key key) const;
    /// `identity`: of the signatures that found it clean.
    void add(Key key, const std::string& identity);
    /// Stores it, when it has changed.
    void save();

private:
    static Key keyFrom(Sha256& hash);

    static constexpr std::size_t LEAST = std::size_t{1} << 12U;
    static constexpr std::size_t MOST = std::size_t{1} << 21U;  ///< 16 MiB

    void load();
    void grow();
    void put(Key key);

    const std::filesystem::path file_;
    mutable std::mutex mutex_;
    std::string identity_;
    std::array<char, 16> secret_{};  ///< nobody else can make files whose keys are alike
    std::vector<Key> table_;
    std::size_t count_ = 0;
    bool changed_ = false;
};

}  // namespace keldra
