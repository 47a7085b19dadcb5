#pragma once

#include "norv/protocol/call.h"

#include <cstdint>
#include <optional>
#include <string>

namespace protocol {

// What the fields of NoticeSettings may be.
inline constexpr const char* MAIL_BY_SENDMAIL = "sendmail";
inline constexpr const char* MAIL_BY_SMTP = "smtp";
inline constexpr const char* SMTP_TLS = "tls";            ///< from the first byte
inline constexpr const char* SMTP_STARTTLS = "starttls";  ///< or not at all
inline constexpr const char* SMTP_PLAIN = "none";
inline constexpr const char* HOOK_JSON = "json";
inline constexpr const char* HOOK_NTFY = "ntfy";
inline constexpr const char* HOOK_GOTIFY = "gotify";

/// Who is told of what happens, and how. The secrets are given to the service only; it never serves them.
struct NoticeSettings {
    std::string kinds = "find,update,scan,service";  ///< of events, joined by ","
    std::string severity = "warning";                ///< the least one
    uint32_t bundleSeconds = 60;                     ///< how long events are gathered for one message
    bool weeklyReport = false;
    std::string language;  ///< of the messages, "de"; empty: this system's

    bool mail = false;
    std::string mailTo;  ///< addresses, joined by ","
    std::string mailFrom;
    std::string mailBy = MAIL_BY_SENDMAIL;
    std::string smtpServer;  ///< "host" or "host:port"
    std::string smtpSecurity = SMTP_STARTTLS;
    std::string smtpUser;
    std::optional<std::string> smtpPassword;  ///< left out: as it is
    bool smtpPasswordSet = false;             ///< filled by the service

    bool hook = false;
    std::string hookUrl;
    std::string hookKind = HOOK_JSON;
    std::optional<std::string> hookToken;  ///< left out: as it is
    bool hookTokenSet = false;             ///< filled by the service

    std::string authorities;  ///< certificates in PEM that are trusted beside the system's own

    static void visit(auto& record, auto&& field) {
        field("Kinds", record.kinds);
        field("Severity", record.severity);
        field("BundleSeconds", record.bundleSeconds);
        field("WeeklyReport", record.weeklyReport);
        field("Language", record.language);
        field("Mail", record.mail);
        field("MailTo", record.mailTo);
        field("MailFrom", record.mailFrom);
        field("MailBy", record.mailBy);
        field("SmtpServer", record.smtpServer);
        field("SmtpSecurity", record.smtpSecurity);
        field("SmtpUser", record.smtpUser);
        field("SmtpPassword", record.smtpPassword);
        field("SmtpPasswordSet", record.smtpPasswordSet);
        field("Hook", record.hook);
        field("HookUrl", record.hookUrl);
        field("HookKind", record.hookKind);
        field("HookToken", record.hookToken);
        field("HookTokenSet", record.hookTokenSet);
        field("Authorities", record.authorities);
    }
};

/// The settings as they are served, and how the notices get on.
struct NoticeReport : NoticeSettings {
    uint64_t revision = 0;  ///< tells one state of the settings from the next
    uint64_t waiting = 0;   ///< events that nobody was told of yet
    std::string problem;    ///< of the last try, English; empty when it went well

    static void visit(auto& record, auto&& field) {
        NoticeSettings::visit(record, field);
        field("Revision", record.revision);
        field("Waiting", record.waiting);
        field("Problem", record.problem);
    }
};

struct GetNotices {
    static constexpr auto KIND = IPCMessage::GET;
    static constexpr auto COMMAND = IPCMessage::CommandID{123};
    using Reply = NoticeReport;
    bool secrets = false;  ///< also the secrets; only for root and the service's own user

    static void visit(auto& record, auto&& field) { field("Secrets", record.secrets); }
};

/// What is left out stays as it is.
struct SetNotices : NoticeSettings {
    static constexpr auto KIND = IPCMessage::SET;
    static constexpr auto COMMAND = IPCMessage::CommandID{123};
    using Reply = Nothing;
    std::optional<uint64_t> revision;  ///< the one that is to be changed; of another one nothing is stored

    static void visit(auto& record, auto&& field) {
        NoticeSettings::visit(record, field);
        field("Revision", record.revision);
    }
};

// The ways that can be tried.
inline constexpr const char* WAY_MAIL = "mail";
inline constexpr const char* WAY_HOOK = "hook";

/// Sends a message at once, as the settings stand; a refusal says what went wrong.
struct TestNotices {
    static constexpr auto KIND = IPCMessage::START;
    static constexpr auto COMMAND = IPCMessage::CommandID{123};
    using Reply = Nothing;
    std::string way;  ///< empty: every way that is switched on

    static void visit(auto& record, auto&& field) { field("Way", record.way); }
};

}  // namespace protocol
