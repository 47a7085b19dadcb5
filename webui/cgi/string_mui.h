#pragma once

#include <map>
#include <string>

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

private:
    std::map<std::string, std::string> texts_;
};
