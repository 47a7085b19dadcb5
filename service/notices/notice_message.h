#pragma once

#include "norv/words.h"
#include "service/events/daily_figures.h"
#include "service/events/event.h"

#include <cstdint>
#include <string>
#include <vector>

namespace keldra {

/// Why a server is not protected.
struct NoticeReason {
    std::string code;
    std::string text;  ///< an English sentence
    std::string detail;
    std::uint64_t count = 0;
    std::string unit;  ///< of the count, as that of the verdict's reasons
};

/// What is said about the server beside the events.
struct NoticeTexts {
    std::string verdict;  ///< "protected", "attention" or "unprotected"
    std::vector<NoticeReason> reasons;
    std::vector<DayFigures> week;  ///< the last seven days
};

/// What is said to people and programs at one time.
struct NoticeMessage {
    std::string host;
    std::string verdict;  ///< "protected", "attention" or "unprotected"
    std::string subject;
    std::string text;  ///< lines of UTF-8
    EventSeverity severity = EventSeverity::INFO;
    std::vector<Event> events;
};

/// Events that are to be told together: some of them whole, of the others the number.
struct NoticeBundle {
    std::vector<Event> events;
    std::uint64_t further = 0;

    bool empty() const { return events.empty() && further == 0; }
    /// Takes one more.
    void add(const Event& event);
};

/// One message about all of a bundle, its subject and text in the language of `words`.
NoticeMessage messageOf(const NoticeBundle& bundle, const std::string& host, const NoticeTexts& said,
                        const Words& words);
/// The weekly report in that language.
NoticeMessage reportOf(const std::string& host, const NoticeTexts& said, const Words& words);

/// The message as a mail with its head, lines ended by CR LF.
std::string mailText(const NoticeMessage& message, const std::string& from, const std::vector<std::string>& to,
                     std::int64_t now);
/// The message as one JSON object.
std::string hookText(const NoticeMessage& message);
/// The same for Gotify.
std::string gotifyText(const NoticeMessage& message);

/// A text whose bytes are UTF-8 without control characters; others become \xNN.
std::string readable(const std::string& text);

}  // namespace keldra
