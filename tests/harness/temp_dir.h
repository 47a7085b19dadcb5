#pragma once

#include <filesystem>
#include <string>
#include <string_view>

/// A folder of its own under the system's temporary folder, removed with all it holds at the end of the scope.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    /// A path inside the folder.
    std::filesystem::path operator/(std::string_view name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

/// Writes a whole file; folders on the way are made. Throws when it cannot: a test has no use for going on.
void writeFile(const std::filesystem::path& path, std::string_view content);

/// The whole file, empty when there is none.
std::string readFile(const std::filesystem::path& path);
