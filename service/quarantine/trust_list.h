#pragma once

#include <map>
#include <mutex>
#include <string>

namespace keldra {

/// Contents that are clean whatever the engine says, by their SHA-256, in a file of their own. May be used from any
/// thread.
class TrustList {
public:
    explicit TrustList(std::string file) : file_(std::move(file)) {}

    /// Reads the file unless that was done before; a missing one is an empty list. False, with a log line, when it
    /// cannot be read. All others try again then: a list that was not read is not overwritten.
    bool read();
    /// Whether the content of an open file is on the list.
    bool contains(int fd);
    /// The hashes, with the path each was trusted for.
    std::map<std::string, std::string> all();
    /// Both are on disk when they return nothing; otherwise nothing has changed and the text, English, says why. Lines
    /// of the file that are no entries stay.
    std::string add(const std::string& sha256, const std::string& path);
    std::string remove(const std::string& sha256);

private:
    bool readLocked();
    std::string replace(std::map<std::string, std::string> entries);

    std::string file_;
    std::mutex mutex_;
    bool read_ = false;
    int error_ = 0;  ///< why it could not be read
    std::map<std::string, std::string> entries_;
    std::string otherLines_;
};

}  // namespace keldra
