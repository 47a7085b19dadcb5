#pragma once

#include "norv/text_form.h"

#include <cstdint>
#include <map>
#include <string>

/// One request to the service or its reply. `docs/protocol.md` lists the commands and describes the bytes.
class IPCMessage {
public:
    /// What to do with the object that the command names.
    enum Operation : int32_t { GET = 0, SET = 1, START = 3, STOP = 4, SESSION = 5 };

    /// The object or service addressed. Numbers are never reused; any number is a legal value.
    enum CommandID : int32_t {
        CONFIG_FILE_CHECK = 1,
        CONFIG_FILE_STATE = 2,
        REALTIME_SCAN_CONFIG = 3,
        MANUAL_SCAN_CONFIG = 4,
        SCHEDULED_SCAN_CONFIG = 5,
        MANUAL_SCAN_STATUS = 6,
        VIRUS_TYPES = 22,
        SCHEDULED_UPDATE_CONFIG = 23,
        MANUAL_UPDATE = 24,
        MANUAL_SCAN = 26,
        PASSWORD_LOGON = 31,
        SESSION_LOGOFF = 32,
        SESSION_CHECK = 33,
        SERVICE_STATUS = 100,
        PATH_SCAN = 101,
        SCAN_FINDS = 102,
        SCAN_HISTORY = 103,
        QUARANTINE = 104,
        QUARANTINE_ITEM = 105,
        QUARANTINE_TRUST = 106,
        FOLDER_LIST = 107,
        EXCLUDE_PREVIEW = 108,
        UPDATE_STATUS = 109,
        SESSIONS = 110,
        LOGON_BLOCK = 111,
        CONSOLE_PASSWORD = 112,
        SESSION_WATCH = 113,
        SECOND_STEP = 114,
        SECOND_FACTOR = 115,
        EVENTS = 120,
        DAILY_FIGURES = 121,
    };

    /// What the result field of a reply says.
    enum Result : int32_t { RESULT_NONE = 0, RESULT_OK = 1, RESULT_ERROR = 2 };

    /// A named argument: its text form and a type tag, "text" for all that is written today.
    struct IPCParameter {
        std::string value;
        std::string type;
    };

    IPCMessage() = default;
    IPCMessage(Operation kind, CommandID command) : operation(kind), commandID(command) {}
    IPCMessage(const IPCMessage&) = default;
    IPCMessage(IPCMessage&&) = default;
    IPCMessage& operator=(const IPCMessage&) = default;
    IPCMessage& operator=(IPCMessage&&) = default;
    virtual ~IPCMessage() = default;

    /// Adds a parameter in the text form that stream insertion gives it. A name that is there already keeps its first
    /// value.
    template <typename T>
    void addParam(const std::string& name, const T& value) {
        params.emplace(name, IPCParameter{textForm(value), "text"});
    }
    /// The same for a C string; a null pointer gives an empty text.
    void addParam(const std::string& name, const char* value) {
        params.emplace(name, IPCParameter{value ? value : "", "text"});
    }

    bool hasParam(const std::string& name) const { return params.count(name) != 0; }

    /// The text of a parameter, empty when it is missing; for a number type, read by stream extraction (0 when it
    /// does not begin with one).
    template <typename T>
    T value(const std::string& name) const;

    int32_t operation = GET;
    int32_t commandID = 0;
    int32_t result = RESULT_NONE;
    std::map<std::string, IPCParameter> params;
};

template <>
inline std::string IPCMessage::value<std::string>(const std::string& name) const {
    const auto found = params.find(name);
    return found == params.end() ? std::string() : found->second.value;
}

template <typename T>
T IPCMessage::value(const std::string& name) const {
    T number{};
    readNumber(value<std::string>(name), number);
    return number;
}

/// Sends a request to the service and waits for its reply, at most `timeout` seconds in all. The reply is replaced
/// wholly, also on failure (then it is empty). True when a reply arrived; whether the service did what was asked is
/// told by the reply. A request is never sent twice; after a failure the next call connects anew. Throws nothing.
/// The socket is KELDRA_SOCKET, "/run/keldra/keldrad.sock" when unset.
bool sendMessage(const IPCMessage& request, IPCMessage& reply, unsigned int timeout) noexcept;
