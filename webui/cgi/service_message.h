#pragma once

#include "norv/ipc_message.h"

#include <string>

/// Seconds that one exchange with the service may take in all.
inline constexpr unsigned int SERVICE_TIMEOUT = 10;

/// Sends a request and waits for the reply. True when a reply arrived, whatever it says.
bool exchange(const IPCMessage& request, IPCMessage& reply);

/// Sends a request; true when a reply arrived and says that the service did what was asked.
bool exchangeAccepted(const IPCMessage& request, IPCMessage& reply);

/// Reads a settings record from the reply's parameter. False, with the record untouched, when the parameter is missing
/// or does not hold such a record.
template <typename Record>
bool readRecord(const IPCMessage& reply, const std::string& parameter, Record& record) {
    return reply.hasParam(parameter) && parseRecord(reply.value<std::string>(parameter), record);
}

/// Asks the service for a settings record. False when it does not answer, refuses, or sends no such record.
template <typename Record>
bool fetchRecord(IPCMessage::CommandID command, const std::string& parameter, Record& record) {
    IPCMessage reply;
    return exchangeAccepted(IPCMessage(IPCMessage::GET, command), reply) && readRecord(reply, parameter, record);
}

/// Hands a settings record to the service to be stored. True when it accepted it; `reply` holds what it said besides.
template <typename Record>
bool sendRecord(IPCMessage::CommandID command, const std::string& parameter, const Record& record, IPCMessage& reply) {
    IPCMessage request(IPCMessage::SET, command);
    request.addParam(parameter, record);
    return exchangeAccepted(request, reply);
}
