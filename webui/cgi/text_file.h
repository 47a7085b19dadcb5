#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

/// The bytes of a file.
class TextFile {
public:
    /// Reads the whole file, as far as it can be read. False, with the object as it was, when it cannot be opened.
    bool read(const std::string& path);
    /// Holds as long as the object is not read into again; moving the object leaves it where it is.
    std::string_view text() const { return {bytes_.get(), size_}; }

private:
    std::unique_ptr<char[]> bytes_;
    std::size_t size_ = 0;
};

/// Reads a whole file. False, with `text` untouched, when it cannot be opened.
bool readTextFile(const std::string& path, std::string& text);

/// The first line of a text, without its line feed.
std::string firstLine(const std::string& text);
