#include "service/notices/notices.h"

#include "norv/json_text.h"
#include "norv/json_value.h"
#include "norv/log.h"
#include "service/base/files.h"
#include "service/notices/catalogue.h"
#include "service/notices/notice_sender.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <sstream>
#include <utility>

namespace keldra {

namespace {

constexpr std::chrono::milliseconds LOOK_EVERY{200};
constexpr std::int64_t LONGEST_RETRY = std::int64_t{3600} * 1000;  // milliseconds
constexpr std::int64_t WEEK = std::int64_t{7} * 86400;
constexpr std::size_t LARGEST_FILE = std::size_t{4} << 20U;
constexpr const char* WAITING = "waiting";

EventFilter filterOf(const NoticeSettings& settings) {
    EventFilter filter;
    std::istringstream kinds(settings.kinds);
    for (std::string name; std::getline(kinds, name, ',');)
        if (const auto kind = eventKindOf(name)) filter.kinds.push_back(*kind);
    filter.leastSeverity = eventSeverityOf(settings.severity).value_or(EventSeverity::WARNING);
    return filter;
}

Event testEvent(std::int64_t now) {
    return {.time = now, .kind = EventKind::SERVICE, .detail = "This is a test; nothing has happened."};
}

}  // namespace

Notices::Notices(NoticesSettings settings, const Clock& clock)
    : settings_(std::move(settings)), clock_(clock), store_(settings_.folder / "settings.json") {
    makeFolder(settings_.folder, 0700);
    load();
    thread_ = std::thread([this] { run(); });
}

void Notices::stop() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    if (thread_.joinable()) thread_.join();
}

void Notices::take(const std::vector<Event>& events) {
    const NoticeSettings settings = store_.settings();
    if (!settings.mail && !settings.hook) return;
    const EventFilter filter = filterOf(settings);
    const std::lock_guard lock(mutex_);
    for (const Event& event : events) {
        if (filter.kinds.empty() || !matches(event, filter)) continue;
        for (const Way way : {MAIL, HOOK}) {
            Outbox& outbox = outboxes_.at(way);
            if (!wanted(settings, way)) continue;
            if (outbox.bundle.empty())
                outbox.due = clock_.steadyMilliseconds() + std::int64_t{settings.bundleSeconds} * 1000;
            outbox.bundle.add(event);
            unsaved_ = true;
        }
    }
}

std::string Notices::store(const NoticeSettings& settings, std::optional<std::uint64_t> revision) {
    std::string fault = store_.store(settings, revision);
    if (!fault.empty()) return fault;
    const std::lock_guard lock(mutex_);
    for (Outbox& outbox : outboxes_) outbox.due = std::min(outbox.due, clock_.steadyMilliseconds()), outbox.tries = 0;
    changed_.notify_all();
    return {};
}

NoticeTexts Notices::texts() const { return settings_.texts ? settings_.texts() : NoticeTexts{}; }

std::string Notices::send(Way way, const NoticeSettings& settings, const NoticeMessage& message) const {
    return way == MAIL ? sendMail(settings, message, settings_.sendmail, clock_.now(), stopping_)
                       : sendHook(settings, message, stopping_);
}

std::string Notices::test(const std::string& way) {
    NoticeSettings settings = store_.settings();
    if (!way.empty() && way != protocol::WAY_MAIL && way != protocol::WAY_HOOK) return "There is no such way.";
    settings.mail = settings.mail && way != protocol::WAY_HOOK;
    settings.hook = settings.hook && way != protocol::WAY_MAIL;
    if (!settings.mail && !settings.hook)
        return way.empty() ? "Neither mail nor a web hook is switched on." : "It is not switched on.";
    NoticeBundle bundle;
    bundle.add(testEvent(clock_.now()));
    const NoticeMessage message = messageOf(bundle, settings_.host, texts(), wordsIn(settings.language));
    std::string faults;
    for (const Way one : {MAIL, HOOK}) {
        if (!wanted(settings, one)) continue;
        std::string fault = send(one, settings, message);
        if (!fault.empty() && !way.empty()) return fault;
        if (!fault.empty())
            faults += (faults.empty() ? "" : " ") + std::string(one == MAIL ? "Mail: " : "Web hook: ") + fault;
    }
    return faults;
}

NoticeState Notices::state() const {
    const std::lock_guard lock(mutex_);
    NoticeState state;
    for (const Outbox& outbox : outboxes_) {
        state.waiting += outbox.bundle.events.size() + outbox.bundle.further;
        if (state.problem.empty()) state.problem = outbox.problem;
    }
    return state;
}

void Notices::run() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        try {
            attend(lock);
        } catch (const std::exception& error) {
            if (!lock.owns_lock()) lock.lock();
            NORV_LOG(NORV_LOG_ERROR, "Notices cannot be seen to: %s", error.what());
        }
        changed_.wait_for(lock, LOOK_EVERY, [this] { return stopping_.load(); });
    }
    if (unsaved_) save(lock);
}

void Notices::attend(std::unique_lock<std::mutex>& lock) {
    for (const Way way : {MAIL, HOOK}) {
        const Outbox& outbox = outboxes_.at(way);
        if (!outbox.bundle.empty() && clock_.steadyMilliseconds() >= outbox.due && !stopping_) deliver(lock, way);
    }
    deliverReport(lock);
    if (unsaved_) save(lock);
}

/// What went wrong; nothing when it went well or is not wanted any more.
std::string Notices::tryToSend(Way way, const NoticeBundle& bundle) try {
    const NoticeSettings settings = store_.settings();
    if (!wanted(settings, way)) return "";
    return send(way, settings, messageOf(bundle, settings_.host, texts(), wordsIn(settings.language)));
} catch (const std::exception& error) {
    return error.what();
}

/// What comes in meanwhile waits for the next message.
void Notices::deliver(std::unique_lock<std::mutex>& lock, Way way) {
    Outbox& outbox = outboxes_.at(way);
    NoticeBundle bundle = std::exchange(outbox.bundle, {});
    lock.unlock();
    const std::string fault = tryToSend(way, bundle);
    if (!fault.empty()) NORV_LOG(NORV_LOG_WARNING, "A notice was not taken: %s", fault.c_str());
    lock.lock();
    unsaved_ = true;
    outbox.problem = fault;
    outbox.tries = fault.empty() ? 0 : outbox.tries + 1;
    if (fault.empty()) return;
    const NoticeBundle since = std::exchange(outbox.bundle, std::move(bundle));
    for (const Event& event : since.events) outbox.bundle.add(event);
    outbox.bundle.further += since.further;
    const std::int64_t wait = std::int64_t{settings_.retry} << std::min(outbox.tries - 1, 10);
    outbox.due = clock_.steadyMilliseconds() + std::min(wait, std::max<std::int64_t>(LONGEST_RETRY, settings_.retry));
}

/// A report that does not get through is tried again with the next look of the following hour.
void Notices::deliverReport(std::unique_lock<std::mutex>& lock) {
    const NoticeSettings settings = store_.settings();
    const std::int64_t now = clock_.now();
    if (!settings.weeklyReport || (!settings.mail && !settings.hook)) return;
    if (reported_ == 0 || reported_ > now) reported_ = now, unsaved_ = true;
    if (now - reported_ < WEEK) return;
    lock.unlock();
    const NoticeMessage message = reportOf(settings_.host, texts(), wordsIn(settings.language));
    std::string faults;
    for (const Way way : {MAIL, HOOK})
        if (wanted(settings, way)) faults += send(way, settings, message);
    lock.lock();
    reported_ = faults.empty() ? now : now - WEEK + LONGEST_RETRY / 1000;
    unsaved_ = true;
}

void Notices::load() {
    int error = 0;
    const auto text = readFile(settings_.folder / WAITING, LARGEST_FILE, error);
    std::istringstream lines(text.value_or(""));
    for (std::string line; std::getline(lines, line);) {
        const JsonDocument json = parseJson(line);
        if (!json.IsObject()) continue;
        const auto way = numberOf(json, "way");
        if (const auto event = eventFromLine(textOf(json, "event")); event && (way == MAIL || way == HOOK))
            outboxes_.at(static_cast<std::size_t>(way)).bundle.add(*event);
        if (json.HasMember("further") && (way == MAIL || way == HOOK))
            outboxes_.at(static_cast<std::size_t>(way)).bundle.further +=
                static_cast<std::uint64_t>(numberOf(json, "further"));
        if (json.HasMember("reported")) reported_ = numberOf(json, "reported");
    }
}

void Notices::save(std::unique_lock<std::mutex>& lock) {
    std::string text;
    for (const Way way : {MAIL, HOOK}) {
        const NoticeBundle& bundle = outboxes_.at(way).bundle;
        for (const Event& event : bundle.events) {
            JsonText json;
            json.object([&] { json.member("way", static_cast<int>(way)).member("event", eventToLine(event)); });
            text += json.text() + "\n";
        }
        JsonText json;
        json.object([&] { json.member("way", static_cast<int>(way)).member("further", bundle.further); });
        text += json.text() + "\n";
    }
    JsonText json;
    json.object([&] { json.member("reported", reported_); });
    text += json.text() + "\n";
    unsaved_ = false;
    lock.unlock();
    const WriteResult written = writeFileAtomically(settings_.folder / WAITING, text, 0600);
    if (!written) NORV_LOG(NORV_LOG_ERROR, "Notices that wait cannot be kept: %s", errorText(written.error).c_str());
    lock.lock();
}

}  // namespace keldra
