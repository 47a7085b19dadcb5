#pragma once

#include "norv/protocol/call.h"

#include <cstddef>
#include <string>

namespace protocol {

/// Bytes of the longest password that the log-on page sends.
inline constexpr std::size_t MAX_PASSWORD_LENGTH = 32;

/// A session that was opened.
struct Session {
    std::string id;

    static void visit(auto& record, auto&& field) { field("SessionID", record.id); }
};

struct LogOn {
    static constexpr auto KIND = IPCMessage::SESSION;
    static constexpr auto COMMAND = IPCMessage::PASSWORD_LOGON;
    using Reply = Session;
    std::string user;
    std::string password;       ///< enciphered by dm_encryptString
    std::string remoteAddress;  ///< of the browser

    static void visit(auto& record, auto&& field) {
        field("User", record.user);
        field("Password", record.password);
        field("RemoteAddr", record.remoteAddress);
    }
};

/// What a request of the browser brings to show that it belongs to a session.
struct SessionProof {
    std::string id;
    std::string remoteAddress;
    std::string requestMethod;  ///< "GET", "POST"
    std::string formToken;      ///< the token that came with the form; empty: none came
    std::string cookieToken;    ///< the one that came as a cookie

    static void visit(auto& record, auto&& field) {
        field("SessionID", record.id);
        field("RemoteAddr", record.remoteAddress);
        field("RequestMethod", record.requestMethod);
        field("CsrfTokenHeader", record.formToken);
        field("CsrfTokenCookie", record.cookieToken);
    }
};

struct LogOff : SessionProof {
    static constexpr auto KIND = IPCMessage::SESSION;
    static constexpr auto COMMAND = IPCMessage::SESSION_LOGOFF;
    using Reply = Nothing;
};

struct CheckSession : SessionProof {
    static constexpr auto KIND = IPCMessage::SESSION;
    static constexpr auto COMMAND = IPCMessage::SESSION_CHECK;
    using Reply = Nothing;
};

}  // namespace protocol
