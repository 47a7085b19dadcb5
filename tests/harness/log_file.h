#pragma once

#include <filesystem>
#include <ostream>
#include <string>
#include <vector>

/// One line of a log, taken apart.
struct LogLine {
    int severity = 0;
    std::string message{};
    std::string function{};  ///< empty when the line names no place
    std::string place{};     ///< "file:line", empty when the line names none
    std::string program{};   ///< base name of the program that wrote it

    friend std::ostream& operator<<(std::ostream& out, const LogLine& line) {
        return out << line.severity << " " << line.message << " (" << line.function << " " << line.place << ")";
    }
};

/// The lines of a log file in their order. A line that is not of the log's form comes back with severity -1 and its
/// whole text as the message.
std::vector<LogLine> readLog(const std::filesystem::path& file);
