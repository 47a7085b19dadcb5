#pragma once

#include "norv/protocol/call.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace protocol {

/// Bytes of the longest password that the log-on page sends.
inline constexpr std::size_t MAX_PASSWORD_LENGTH = 32;

/// A session that was opened, or what leads to one.
struct Session {
    std::string id;                       ///< empty when a code is asked for first
    std::optional<std::string> ticket{};  ///< to be sent with that code

    static void visit(auto& record, auto&& field) {
        field("SessionID", record.id);
        field("Ticket", record.ticket);
    }
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

/// The second step of a log-on, after a password that was right.
struct SecondStep {
    static constexpr auto KIND = IPCMessage::SESSION;
    static constexpr auto COMMAND = IPCMessage::SECOND_STEP;
    using Reply = Session;
    std::string ticket;
    std::string code;           ///< of an app, or a recovery code
    std::string remoteAddress;  ///< of the browser

    static void visit(auto& record, auto&& field) {
        field("Ticket", record.ticket);
        field("Code", record.code);
        field("RemoteAddr", record.remoteAddress);
    }
};

/// What a check of a session tells.
struct SessionChecked {
    bool mustChange = false;  ///< the password must be changed before anything else is done

    static void visit(auto& record, auto&& field) { field("MustChange", record.mustChange); }
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

/// The same check by what a page asks by itself: no use of the session.
struct WatchSession : SessionProof {
    static constexpr auto KIND = IPCMessage::SESSION;
    static constexpr auto COMMAND = IPCMessage::SESSION_WATCH;
    using Reply = Nothing;
};

/// A session as those see it who may end it.
struct OpenSession {
    std::string id;  ///< gives nobody the session
    std::string user;
    std::string address;
    int64_t begun = 0;    ///< seconds since the epoch
    int64_t lastUse = 0;  ///< seconds since the epoch
    bool own = false;     ///< the one that asks

    static void visit(auto& record, auto&& field) {
        field("id", record.id);
        field("user", record.user);
        field("address", record.address);
        field("begun", record.begun);
        field("lastUse", record.lastUse);
        field("own", record.own);
    }
};

/// An address that must wait before its next attempt to log on.
struct BlockedAddress {
    std::string address;  ///< of IPv6 the network
    uint32_t failures = 0;
    int64_t seconds = 0;  ///< still to wait

    static void visit(auto& record, auto&& field) {
        field("address", record.address);
        field("failures", record.failures);
        field("seconds", record.seconds);
    }
};

struct SessionList {
    std::vector<OpenSession> sessions;
    std::vector<BlockedAddress> blocked;

    static void visit(auto& record, auto&& field) {
        field("Sessions", record.sessions);
        field("Blocked", record.blocked);
    }
};

struct GetSessions {
    static constexpr auto KIND = IPCMessage::GET;
    static constexpr auto COMMAND = IPCMessage::SESSIONS;
    using Reply = SessionList;

    static void visit(auto& /*record*/, auto&& /*field*/) {}
};

struct SessionEnded {
    std::string message;  ///< why that could not be stored yet, English; empty: it is

    static void visit(auto& record, auto&& field) { field("Message", record.message); }
};

struct EndSession {
    static constexpr auto KIND = IPCMessage::STOP;
    static constexpr auto COMMAND = IPCMessage::SESSIONS;
    using Reply = SessionEnded;
    std::string id;

    static void visit(auto& record, auto&& field) { field("Id", record.id); }
};

struct LiftBlock {
    static constexpr auto KIND = IPCMessage::STOP;
    static constexpr auto COMMAND = IPCMessage::LOGON_BLOCK;
    using Reply = Nothing;
    std::string address;

    static void visit(auto& record, auto&& field) { field("Address", record.address); }
};

struct ChangePassword {
    static constexpr auto KIND = IPCMessage::SET;
    static constexpr auto COMMAND = IPCMessage::CONSOLE_PASSWORD;
    using Reply = Session;  ///< the one that takes the place of the present one
    std::string password;   ///< the present one; both enciphered by dm_encryptString
    std::string newPassword;

    static void visit(auto& record, auto&& field) {
        field("Password", record.password);
        field("NewPassword", record.newPassword);
    }
};

/// Tells that the password in a service's state folder was set beside the service.
struct NotePassword {
    static constexpr auto KIND = IPCMessage::START;
    static constexpr auto COMMAND = IPCMessage::CONSOLE_PASSWORD;
    using Reply = Nothing;
    std::string folder;

    static void visit(auto& record, auto&& field) { field("Folder", record.folder); }
};

/// How things stand with the second step of the log-on.
struct SecondFactorState {
    bool on = false;
    uint64_t recoveryCodes = 0;  ///< that are left
    bool mustChange = false;     ///< the password must be changed first

    static void visit(auto& record, auto&& field) {
        field("On", record.on);
        field("RecoveryCodes", record.recoveryCodes);
        field("MustChange", record.mustChange);
    }
};

struct GetSecondFactor {
    static constexpr auto KIND = IPCMessage::GET;
    static constexpr auto COMMAND = IPCMessage::SECOND_FACTOR;
    using Reply = SecondFactorState;

    static void visit(auto& /*record*/, auto&& /*field*/) {}
};

/// The secret for an authenticator app, told this once.
struct SecondFactorSecret {
    std::string secret;  ///< base32

    static void visit(auto& record, auto&& field) { field("Secret", record.secret); }
};

struct BeginSecondFactor {
    static constexpr auto KIND = IPCMessage::START;
    static constexpr auto COMMAND = IPCMessage::SECOND_FACTOR;
    using Reply = SecondFactorSecret;
    std::string password;  ///< enciphered by dm_encryptString

    static void visit(auto& record, auto&& field) { field("Password", record.password); }
};

struct RecoveryCode {
    std::string code;

    static void visit(auto& record, auto&& field) { field("code", record.code); }
};

/// Told this once.
struct RecoveryCodes {
    std::vector<RecoveryCode> codes;

    static void visit(auto& record, auto&& field) { field("Codes", record.codes); }
};

/// Switches the second step on.
struct ConfirmSecondFactor {
    static constexpr auto KIND = IPCMessage::SET;
    static constexpr auto COMMAND = IPCMessage::SECOND_FACTOR;
    using Reply = RecoveryCodes;
    std::string code;

    static void visit(auto& record, auto&& field) { field("Code", record.code); }
};

struct RemoveSecondFactor {
    static constexpr auto KIND = IPCMessage::STOP;
    static constexpr auto COMMAND = IPCMessage::SECOND_FACTOR;
    using Reply = Nothing;
    std::string password;  ///< enciphered by dm_encryptString

    static void visit(auto& record, auto&& field) { field("Password", record.password); }
};

}  // namespace protocol
