#include "norv/log.h"

#include "norv/file_descriptor.h"
#include "norv/printable.h"
#include "norv/time_text.h"

#include <fcntl.h>
#include <sys/time.h>
#include <syslog.h>

#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <limits>
#include <mutex>
#include <string_view>
#include <vector>

namespace {

/// What may wait for `initLog`.
constexpr std::size_t MAX_KEPT_LINES = 1000;
constexpr std::size_t MAX_KEPT_BYTES = std::size_t{1024} * 1024;

struct Line {
    int32_t severity = 0;
    timeval time{};
    std::string text;  ///< message and place, escaped
};

class Log {
public:
    static Log& instance() {
        static Log log;
        return log;
    }

    bool wants(int32_t severity) const { return severity <= threshold_.load(std::memory_order_relaxed); }
    void setLevel(int32_t level);
    void open(const std::string& program, int facility, int32_t level);
    void add(Line line);

private:
    enum class Route { NONE, SYSLOG, STDERR, FILE };

    void openRoute(const char* target);
    void write(const Line& line);

    std::mutex mutex_;
    std::atomic<int32_t> threshold_ = std::numeric_limits<int32_t>::max();  ///< nothing is dropped before `open`
    Route route_ = Route::NONE;
    FileDescriptor file_;
    std::string program_;
    int facility_ = LOG_USER;
    std::vector<Line> kept_;
    std::size_t keptBytes_ = 0;
};

std::string formatted(const char* format, va_list arguments) {
    std::array<char, 512> small{};
    va_list again;
    va_copy(again, arguments);
    // The analyzer does not see that the caller started the list.
    const int length = std::vsnprintf(small.data(), small.size(), format, arguments);  // NOLINT(clang-analyzer-valist*)
    std::string text;
    if (length >= 0 && static_cast<std::size_t>(length) < small.size()) {
        text.assign(small.data(), static_cast<std::size_t>(length));
    } else if (length >= 0) {
        text.resize(static_cast<std::size_t>(length) + 1);
        std::vsnprintf(text.data(), text.size(), format, again);
        text.pop_back();
    }
    va_end(again);
    return text;
}

/// " (function file:line)", or what of it is known.
std::string place(const char* function, const char* file, int line) {
    const std::string_view functionText = function ? function : "";
    const std::string_view fileText = file ? file : "";
    if (functionText.empty() && fileText.empty()) return {};
    std::string text = " (" + printable(functionText);
    if (!fileText.empty()) {
        if (!functionText.empty()) text += ' ';
        text += printable(fileText) + ":" + std::to_string(line);
    }
    return text + ")";
}

std::string stamp(const timeval& time) {
    std::array<char, 8> fraction{};
    std::snprintf(fraction.data(), fraction.size(), ".%03dZ", static_cast<int>(time.tv_usec / 1000));
    return timeText(time.tv_sec, "%Y-%m-%dT%H:%M:%S", TimeZone::UTC) + fraction.data();
}

int syslogPriority(int32_t severity) {
    if (severity <= NORV_LOG_ERROR) return LOG_ERR;
    if (severity == NORV_LOG_WARNING) return LOG_WARNING;
    return severity == NORV_LOG_INFO ? LOG_INFO : LOG_DEBUG;
}

std::string baseName(const std::string& path) { return path.substr(path.rfind('/') + 1); }

void Log::setLevel(int32_t level) {
    const std::lock_guard lock(mutex_);
    if (route_ != Route::NONE) threshold_ = level;
}

void Log::open(const std::string& program, int facility, int32_t level) {
    const std::lock_guard lock(mutex_);
    program_ = baseName(program);
    facility_ = facility;
    openRoute(std::getenv("KELDRA_LOG"));
    threshold_ = level;
    for (const Line& line : kept_) {
        if (line.severity <= level) write(line);
    }
    kept_.clear();
    keptBytes_ = 0;
}

void Log::openRoute(const char* target) {
    const std::string_view name = target ? target : "";
    file_.reset();
    if (name.empty() || name == "syslog") {
        route_ = Route::SYSLOG;
        ::openlog(program_.c_str(), LOG_PID, facility_);
        return;
    }
    if (name != "stderr") file_.reset(::open(target, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY, 0600));
    // A log file that cannot be opened must not silence the program: the web server keeps what comes on stderr.
    route_ = file_ ? Route::FILE : Route::STDERR;
}

void Log::add(Line line) {
    const std::lock_guard lock(mutex_);
    if (route_ != Route::NONE) {
        write(line);
    } else if (kept_.size() < MAX_KEPT_LINES && keptBytes_ + line.text.size() <= MAX_KEPT_BYTES) {
        keptBytes_ += line.text.size();
        kept_.push_back(std::move(line));
    }
}

void Log::write(const Line& line) {
    if (route_ == Route::SYSLOG) {
        ::syslog(syslogPriority(line.severity), "%d %s", static_cast<int>(line.severity), line.text.c_str());
        return;
    }
    const std::string record = stamp(line.time) + " " + program_ + "[" + std::to_string(::getpid()) + "] " +
                               std::to_string(line.severity) + " " + line.text + "\n";
    writeAll(route_ == Route::FILE ? file_.get() : STDERR_FILENO, record);
}

}  // namespace

void initLog(const std::string& program, int facility, NORV_LOG_SEVERITY level) {
    Log::instance().open(program, facility, level);
}

void setLogLevel(NORV_LOG_SEVERITY level) { Log::instance().setLevel(level); }

void writeLog(int32_t severity, const char* function, const char* file, int line, const char* format, ...) try {
    Log& log = Log::instance();
    if (!log.wants(severity)) return;
    Line record{severity, {}, {}};
    gettimeofday(&record.time, nullptr);
    va_list arguments;
    va_start(arguments, format);
    std::string message = formatted(format, arguments);
    va_end(arguments);
    if (!message.empty() && message.back() == '\n') message.pop_back();
    record.text = printable(message) + place(function, file, line);
    log.add(std::move(record));
} catch (const std::exception&) {  // NOLINT(bugprone-empty-catch)
    // Memory ran out: whoever tells of a failure must not fail by that.
}
