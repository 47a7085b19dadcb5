#include "service/events/daily_figures.h"

#include "norv/json_text.h"
#include "norv/json_value.h"
#include "norv/time_text.h"
#include "service/base/files.h"

#include <algorithm>
#include <ctime>
#include <optional>

namespace keldra {

namespace {

constexpr std::size_t DAYS_KEPT = 400;
constexpr std::size_t LARGEST_FILE = std::size_t{1} << 20U;
constexpr std::size_t DAY_LENGTH = 10;

std::tm localTime(std::int64_t time) {
    const auto seconds = static_cast<std::time_t>(time);
    std::tm local{};
    ::localtime_r(&seconds, &local);
    return local;
}

std::string dayText(std::int64_t time) { return timeText(time, "%F"); }

/// At noon, which no change of the clocks moves into another day.
std::string dayBefore(std::int64_t now, std::size_t days) {
    std::tm day = localTime(now);
    day.tm_hour = 12;
    day.tm_isdst = -1;
    day.tm_mday -= static_cast<int>(days);
    const std::time_t noon = std::mktime(&day);
    return dayText(noon);
}

}  // namespace

void DailyFigures::add(std::int64_t now, std::uint64_t scanned, std::uint64_t found, std::uint64_t failed) {
    DayFigures& today = days_[dayText(now)];
    today.scanned += scanned;
    today.found += found;
    today.failed += failed;
    while (days_.size() > DAYS_KEPT) days_.erase(days_.begin());
}

std::vector<DayFigures> DailyFigures::last(std::int64_t now, std::size_t count) const {
    std::vector<DayFigures> last;
    for (std::size_t i = count; i > 0; --i) {
        const std::string day = dayBefore(now, i - 1);
        const auto known = days_.find(day);
        last.push_back(known == days_.end() ? DayFigures{} : known->second);
        last.back().day = day;
    }
    return last;
}

std::string DailyFigures::text() const {
    std::string text;
    for (const auto& [day, figures] : days_) {
        JsonText json;
        json.object([&, &day = day, &figures = figures] {
            json.member("day", day).member("scanned", figures.scanned);
            json.member("found", figures.found).member("failed", figures.failed);
        });
        text += json.text() + "\n";
    }
    return text;
}

void DailyFigures::read(std::string_view text) {
    days_.clear();
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        const JsonDocument json = parseJson(text.substr(0, end));
        text.remove_prefix(std::min(text.size(), end + 1));
        const std::string day = textOf(json, "day");
        if (!json.IsObject() || day.size() != DAY_LENGTH) continue;
        days_[day] = {day, sizeOf(json, "scanned"), sizeOf(json, "found"), sizeOf(json, "failed")};
    }
}

DailyFigures FigureFile::load() const {
    DailyFigures figures;
    int error = 0;
    if (const std::optional<std::string> text = readFile(path_, LARGEST_FILE, error)) figures.read(*text);
    return figures;
}

int FigureFile::save(const std::string& text) const { return writeFileAtomically(path_, text, 0600).error; }

}  // namespace keldra
