#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace keldra {

/// What one day brought.
struct DayFigures {
    std::string day;  ///< local, "2026-03-31"
    std::uint64_t scanned = 0;
    std::uint64_t found = 0;
    std::uint64_t failed = 0;  ///< files that were skipped or not fully scanned
};

/// Counts per local day, for as many days as are kept.
class DailyFigures {
public:
    void add(std::int64_t now, std::uint64_t scanned, std::uint64_t found, std::uint64_t failed);
    /// The last `count` days up to the one of `now`, oldest first; a day without anything has zeros.
    std::vector<DayFigures> last(std::int64_t now, std::size_t count) const;

    /// A line of JSON for each day.
    std::string text() const;
    void read(std::string_view text);

private:
    std::map<std::string, DayFigures> days_;
};

/// Where the figures are kept.
class FigureFile {
public:
    explicit FigureFile(std::filesystem::path path) : path_(std::move(path)) {}
    DailyFigures load() const;
    /// An errno, 0 when it is written.
    int save(const std::string& text) const;

private:
    std::filesystem::path path_;
};

}  // namespace keldra
