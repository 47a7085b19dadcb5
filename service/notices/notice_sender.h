#pragma once

#include "service/notices/notice_message.h"
#include "service/notices/notice_store.h"

#include <atomic>
#include <cstdint>
#include <string>

namespace keldra {

/// Seconds that one message may take.
inline constexpr long NOTICE_TIME = 30;

/// Sends a message as mail, by the program `sendmail` (its path) or over SMTP. Returns what went wrong, English and
/// without any secret; empty when the other end took it. Gives up soon after `ending` becomes true.
std::string sendMail(const NoticeSettings& settings, const NoticeMessage& message, const std::string& sendmail,
                     std::int64_t now, const std::atomic<bool>& ending);
/// Sends it to the web hook. The same.
std::string sendHook(const NoticeSettings& settings, const NoticeMessage& message, const std::atomic<bool>& ending);

}  // namespace keldra
