#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

namespace keldra {

/// Whether a text may name an update: digits and underscores, 1 to 241 of them (longer names would not fit the progress
/// file's name).
bool isUpdateId(std::string_view id);

/// The files "progress_<id>.txt" through which the console follows manual updates. The console writes some itself.
class ProgressFiles {
public:
    /// `folder`: asked for at each use, for the setting may change.
    explicit ProgressFiles(std::function<std::string()> folder) : folder_(std::move(folder)) {}

    /// Replaces a file as a whole, so that no reader sees a part of it; mode 0660. `text` is one line without its end.
    void write(const std::string& id, std::string_view text) const;
    /// Gives the files that still say how far an update is the closing text `text`.
    void close(std::string_view text) const;
    /// Removes files last written before `oldest` (seconds since the epoch) and all but the newest `count`; never the
    /// one of `keep`.
    void cleanUp(int64_t oldest, std::size_t count, const std::string& keep) const;

private:
    std::function<std::string()> folder_;
};

}  // namespace keldra
