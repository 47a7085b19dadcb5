#pragma once

#include "webui/cgi/text_file.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// The texts of the console in one language, from a file "string.mui": lines `%[KEY]%=text`, nothing trimmed, lines
/// without "=" ignored, the last one of a key wins.
class CStringMUI {
public:
    /// What encloses a key in a page template. Keys are stored with these delimiters.
    static constexpr const char* start_tag = "%[";
    static constexpr const char* end_tag = "]%";

    /// Adds the entries of a file. 0: done; 1: the path is empty; 3: the file cannot be opened.
    int Initialize(const std::string& strPath);

    /// Looks a whole marker up. 0: found; 1: the key is empty; 2: no such key, and `value` is untouched.
    int GetValue(const std::string& key, std::string& value) const;
    /// The same without a copy; null when there is no such key. What is returned holds until the next `Initialize`.
    const std::string_view* find(std::string_view key) const;

private:
    struct Entry {
        std::string_view key;
        std::string_view value;
    };

    std::size_t slotOf(std::string_view key) const;
    void addEntries(std::string_view text);
    void index();

    /// A page asks for few of their entries, so none is copied.
    std::vector<TextFile> files_;
    std::vector<Entry> entries_;
    /// A hash table of places in `entries_`, counted from 1; 0 is free. Its size is a power of two.
    std::vector<uint32_t> slots_;
};
