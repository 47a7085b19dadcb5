#pragma once

#include "norv/protocol/call.h"
#include "norv/protocol/settings.h"

#include <utility>

/// Seconds that one exchange with the service may take in all.
inline constexpr unsigned int SERVICE_TIMEOUT = 10;

/// Asks the service for what `request` names.
template <typename Request>
auto askService(const Request& request, unsigned int timeout = SERVICE_TIMEOUT) {
    return protocol::ask(request, timeout);
}

/// Asks the service for a settings record. False, with the record untouched, when it does not answer, refuses, or sends
/// no such record.
template <typename Record>
bool fetchRecord(Record& record) {
    auto answer = askService(protocol::GetSettings<Record>());
    if (!answer || !answer.reply.settings) return false;
    record = std::move(*answer.reply.settings);
    return true;
}

/// Hands a settings record to the service to be stored; the answer is true when it accepted it.
template <typename Record>
auto sendRecord(const Record& record) {
    return askService(protocol::SetSettings<Record>{record});
}
