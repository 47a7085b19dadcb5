#pragma once

#include <filesystem>
#include <set>
#include <string>

namespace keldra {

struct Identity;

/// Where databases are fetched to, a folder inside that of the databases in use, so that a power cut in the middle of
/// an update costs none of those. It begins with a link to each of them, as whoever fetches looks at what is there
/// already.
class FetchFolder {
public:
    static constexpr const char* NAME = "fetched";

    explicit FetchFolder(const std::filesystem::path& databases);
    /// Removes the folder.
    ~FetchFolder();
    FetchFolder(const FetchFolder&) = delete;
    FetchFolder& operator=(const FetchFolder&) = delete;

    const std::filesystem::path& path() const { return path_; }
    /// Makes the folder, for `owner` where it is not null. False, with errno set, when that fails.
    bool make(const Identity* owner);
    /// Takes what was fetched into use, once it is on disk, and removes what is replaced. False, with errno set, when
    /// that fails; what is in use is then whole all the same.
    bool adopt() const;

private:
    const std::filesystem::path databases_;
    const std::filesystem::path path_;
    std::set<std::string> linked_;
};

}  // namespace keldra
