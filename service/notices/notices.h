#pragma once

#include "service/base/clock.h"
#include "service/events/event.h"
#include "service/notices/notice_message.h"
#include "service/notices/notice_store.h"

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace keldra {

struct NoticesSettings {
    std::filesystem::path folder;  ///< settings and what waits; made when missing, 0700
    std::string host;
    /// What is said about the server beside the events, asked for from the notices' own thread.
    std::function<NoticeTexts()> texts;
    std::string sendmail = "/usr/sbin/sendmail";
    int retry = 60000;  ///< milliseconds before the first further try; doubled after each, up to an hour
};

/// What is said of notices that do not get through.
struct NoticeState {
    std::uint64_t waiting = 0;  ///< events
    std::string problem;        ///< of the last try, English; empty when it went well
};

/// Tells people and programs what happened: bundled, so that a thousand finds make one message, tried again until the
/// other end takes it, across restarts. Works on a thread of its own. May be used from any thread.
class Notices {
public:
    explicit Notices(NoticesSettings settings, const Clock& clock = systemClock());
    ~Notices() { stop(); }
    Notices(const Notices&) = delete;
    Notices& operator=(const Notices&) = delete;

    /// Takes events in; never waits.
    void take(const std::vector<Event>& events);
    NoticeSettings served() const { return store_.served(); }
    /// With the secrets that are stored, for a change that leaves fields out.
    NoticeSettings settings() const { return store_.settings(); }
    /// Checks and stores. Returns what is wrong, or nothing.
    std::string store(const NoticeSettings& settings, std::optional<std::uint64_t> revision = {});
    std::uint64_t revision() const { return store_.revision(); }
    /// Sends a message at once on the way that is named, or on every one that is switched on. Returns what went wrong,
    /// or nothing. Takes up to half a minute for each.
    std::string test(const std::string& way = {});
    NoticeState state() const;
    /// Ends the thread; what waits is kept for the next start. A transfer under way is given up.
    void stop();

private:
    enum Way { MAIL, HOOK };
    /// What waits for one way.
    struct Outbox {
        NoticeBundle bundle;
        std::int64_t due = 0;  ///< steady milliseconds
        int tries = 0;
        std::string problem;
    };

    void run();
    void attend(std::unique_lock<std::mutex>& lock);
    std::string tryToSend(Way way, const NoticeBundle& bundle);
    void deliver(std::unique_lock<std::mutex>& lock, Way way);
    void deliverReport(std::unique_lock<std::mutex>& lock);
    std::string send(Way way, const NoticeSettings& settings, const NoticeMessage& message) const;
    NoticeTexts texts() const;
    void load();
    void save(std::unique_lock<std::mutex>& lock);
    static bool wanted(const NoticeSettings& settings, Way way) { return way == MAIL ? settings.mail : settings.hook; }

    const NoticesSettings settings_;
    const Clock& clock_;
    NoticeStore store_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::array<Outbox, 2> outboxes_;
    std::int64_t reported_ = 0;  ///< when the last weekly report was sent
    bool unsaved_ = false;
    std::atomic<bool> stopping_ = false;
    std::thread thread_;  ///< last: it uses all of the above
};

}  // namespace keldra
