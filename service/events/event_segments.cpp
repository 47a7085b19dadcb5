#include "service/events/event_segments.h"

#include "norv/log.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <system_error>
#include <utility>

namespace keldra {

namespace {

constexpr std::string_view EXTENSION = ".events";
/// A file is a little larger than its limit when one line crosses it.
constexpr std::size_t LARGEST_FILE = std::size_t{64} << 20U;
/// Events of a task with a record that are kept of dropped files, beside the newest with each action.
constexpr std::size_t MOST_KEPT = 200;

std::optional<std::uint64_t> numberOf(const std::filesystem::path& path) {
    const std::string stem = path.stem().string();
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(stem.data(), stem.data() + stem.size(), number);
    const bool whole = error == std::errc() && end == stem.data() + stem.size();
    return whole && path.extension() == EXTENSION ? std::optional(number) : std::nullopt;
}

/// Calls `each` for the lines from the last to the first, until it returns false; so does this then.
bool backwards(std::string_view text, const std::function<bool(std::string_view)>& each) {
    while (!text.empty()) {
        if (text.back() == '\n') text.remove_suffix(1);
        const std::size_t before = text.rfind('\n');
        const std::size_t begin = before == std::string_view::npos ? 0 : before + 1;
        if (!each(text.substr(begin))) return false;
        text = text.substr(0, begin);
    }
    return true;
}

std::optional<Event> lastEvent(std::string_view content) {
    std::optional<Event> last;
    backwards(content, [&last](std::string_view line) {
        last = eventFromLine(line);
        return !last;
    });
    return last;
}

/// What is kept of two files, the older one first: lines in their order.
std::string keptOf(const std::string& older, const std::string& newer) {
    std::vector<std::string> newestFirst;
    std::set<std::pair<std::string, std::string>> seen;
    std::map<std::string, std::size_t> ofTask;
    std::uint64_t lowest = std::numeric_limits<std::uint64_t>::max();
    for (const std::string* const text : {&newer, &older})
        backwards(*text, [&](std::string_view line) {
            const std::optional<Event> event = eventFromLine(line);
            // One that a crash left in both is taken once.
            if (!event || event->record.empty() || event->id >= lowest) return true;
            lowest = event->id;
            const bool first = seen.insert({event->task, event->action}).second;
            if (++ofTask[event->task] <= MOST_KEPT || first) newestFirst.emplace_back(line);
            return true;
        });
    std::string lines;
    for (auto line = newestFirst.rbegin(); line != newestFirst.rend(); ++line) lines += *line + "\n";
    return lines;
}

}  // namespace

EventSegments::EventSegments(std::filesystem::path folder, std::size_t bytes, std::size_t segments)
    : folder_(std::move(folder)), bytes_(bytes), segments_(std::max<std::size_t>(segments, 1)) {}

std::filesystem::path EventSegments::pathOf(std::uint64_t number) const {
    return folder_ / (std::to_string(number) + std::string(EXTENSION));
}

std::string EventSegments::contentOf(std::uint64_t number) const {
    int error = 0;
    return readFile(pathOf(number), LARGEST_FILE, error).value_or("");
}

std::vector<std::uint64_t> EventSegments::numbers() const {
    const std::lock_guard lock(mutex_);
    return numbers_;
}

void EventSegments::setNumbers(std::vector<std::uint64_t> numbers) {
    const std::lock_guard lock(mutex_);
    numbers_ = std::move(numbers);
}

std::uint64_t EventSegments::open(bool& usable) {
    usable = makeFolder(folder_, 0700);
    std::vector<std::uint64_t> found;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(folder_, error), end; !error && entry != end; entry.increment(error))
        if (const auto number = numberOf(entry->path())) found.push_back(*number);
    std::sort(found.begin(), found.end());
    setNumbers(found);
    std::uint64_t lastId = 0;
    for (auto number = found.rbegin(); number != found.rend() && lastId == 0; ++number) {
        const std::string content = contentOf(*number);
        const std::size_t whole = content.rfind('\n') + 1;
        if (whole < content.size() && ::truncate(pathOf(*number).c_str(), static_cast<off_t>(whole)) != 0)
            NORV_LOG(NORV_LOG_WARNING, "%s: %s", pathOf(*number).c_str(), errorText(errno).c_str());
        if (const auto last = lastEvent(content)) lastId = last->id;
    }
    return lastId;
}

int EventSegments::append(const std::string& lines) {
    if (!newest_ || newestSize_ >= bytes_) {
        std::vector<std::uint64_t> all = numbers();
        const bool goesOn = !newest_ && !all.empty() && contentOf(all.back()).size() < bytes_;
        const std::uint64_t number = all.empty() ? 1 : all.back() + (goesOn ? 0 : 1);
        FileDescriptor file(::open(pathOf(number).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
        if (!file) return errno;
        newestSize_ = static_cast<std::size_t>(std::max<off_t>(0, ::lseek(file.get(), 0, SEEK_END)));
        newest_ = std::move(file);
        if (!goesOn) all.push_back(number);
        setNumbers(std::move(all));
        dropSuperfluous();
    }
    const bool written = writeAll(newest_.get(), lines) && ::fdatasync(newest_.get()) == 0;
    if (written) return newestSize_ += lines.size(), 0;
    const int error = errno;
    if (::ftruncate(newest_.get(), static_cast<off_t>(newestSize_)) != 0) newest_.reset();
    return error;
}

/// What is kept of a file is on disk before it goes. False when it has to stay.
bool EventSegments::drop(std::uint64_t number) {
    int error = 0;
    const std::optional<std::string> known = readFile(keptPath(), LARGEST_FILE, error);
    if (!known && error != ENOENT) return false;
    const std::string before = known.value_or("");
    const std::string kept = keptOf(before, contentOf(number));
    if (kept != before && !writeFileAtomically(keptPath(), kept, 0600)) return false;
    ::unlink(pathOf(number).c_str());
    return true;
}

void EventSegments::dropSuperfluous() {
    std::vector<std::uint64_t> all = numbers();
    while (all.size() > segments_ && drop(all.front())) all.erase(all.begin());
    setNumbers(std::move(all));
}

void EventSegments::dropOlderThan(std::int64_t oldest) {
    std::vector<std::uint64_t> all = numbers();
    while (all.size() > 1) {
        const auto last = lastEvent(contentOf(all.front()));
        if ((last && last->time >= oldest) || !drop(all.front())) break;
        all.erase(all.begin());
    }
    setNumbers(std::move(all));
}

void EventSegments::forEach(const std::function<bool(Event&&)>& each) const {
    const std::vector<std::uint64_t> all = numbers();
    std::uint64_t lowest = std::numeric_limits<std::uint64_t>::max();
    const auto pass = [&](std::string_view line) {
        std::optional<Event> event = eventFromLine(line);
        if (!event || event->id >= lowest) return true;
        lowest = event->id;
        return each(std::move(*event));
    };
    for (auto number = all.rbegin(); number != all.rend(); ++number)
        if (!backwards(contentOf(*number), pass)) return;
    int error = 0;
    backwards(readFile(keptPath(), LARGEST_FILE, error).value_or(""), pass);
}

}  // namespace keldra
