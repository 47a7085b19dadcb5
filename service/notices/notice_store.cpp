#include "service/notices/notice_store.h"

#include "norv/json_text.h"
#include "norv/json_value.h"
#include "norv/log.h"
#include "service/base/files.h"
#include "service/events/event.h"
#include "service/notices/catalogue.h"

#include <algorithm>
#include <sstream>

namespace keldra {

namespace {

constexpr std::size_t LARGEST_FILE = std::size_t{1} << 16U;
constexpr std::size_t LONGEST_TEXT = 1000;
constexpr std::size_t LONGEST_AUTHORITIES = std::size_t{1} << 15U;
constexpr uint32_t LONGEST_BUNDLE = 86400;

void visitPlain(auto& settings, auto&& field) {
    NoticeSettings::visit(settings, [&field](const char* name, auto& member) {
        if constexpr (requires { member.has_value(); })
            return;
        else
            field(name, member);
    });
}

std::string toText(const NoticeSettings& settings, std::uint64_t revision) {
    JsonText json;
    json.object([&] {
        visitPlain(settings, [&json](const char* name, const auto& member) { json.member(name, member); });
        json.member("SmtpPassword", settings.smtpPassword.value_or(""));
        json.member("HookToken", settings.hookToken.value_or(""));
        json.member("Revision", revision);
    });
    return json.text() + "\n";
}

NoticeSettings fromText(const std::string& text) {
    const JsonDocument json = parseJson(text);
    NoticeSettings settings;
    if (!json.IsObject()) return settings;
    visitPlain(settings, [&json](const char* name, auto& member) {
        if (json.HasMember(name)) readJson(json[name], member);
    });
    settings.smtpPassword = textOf(json, "SmtpPassword");
    settings.hookToken = textOf(json, "HookToken");
    return settings;
}

bool isPlain(const std::string& text) {
    const auto isControl = [](unsigned char c) { return c < ' ' || c == 0x7F; };
    return text.size() <= LONGEST_TEXT && std::none_of(text.begin(), text.end(), isControl);
}

bool isAddress(const std::string& text) {
    const std::size_t at = text.find('@');
    return at != std::string::npos && at > 0 && at + 1 < text.size() && text.front() != '-' &&
           text.find_first_of(" <>,;\"\\") == std::string::npos;
}

template <typename... Names>
bool isOneOf(const std::string& text, Names... names) {
    return ((text == names) || ...);
}

std::string checkTexts(const NoticeSettings& settings) {
    bool plain = isPlain(settings.smtpPassword.value_or("")) && isPlain(settings.hookToken.value_or(""));
    visitPlain(settings, [&](const char*, const auto& member) {
        if constexpr (requires { member.size(); })
            plain = plain && (&member == &settings.authorities || isPlain(member));
    });
    return plain ? "" : "A text is too long or holds control characters.";
}

std::string checkMail(const NoticeSettings& settings) {
    if (!isOneOf(settings.mailBy, protocol::MAIL_BY_SENDMAIL, protocol::MAIL_BY_SMTP)) return "Unknown way of mail.";
    if (!isOneOf(settings.smtpSecurity, protocol::SMTP_TLS, protocol::SMTP_STARTTLS, protocol::SMTP_PLAIN))
        return "Unknown kind of encryption.";
    constexpr const char* IN_A_SERVER = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_:[]";
    if (settings.smtpServer.find_first_not_of(IN_A_SERVER) != std::string::npos)
        return "The mail server must be a name or an address, with a port behind a colon if need be.";
    const std::vector<std::string> to = mailAddresses(settings.mailTo);
    if (!std::all_of(to.begin(), to.end(), isAddress)) return "A mail address is malformed.";
    if (!settings.mailFrom.empty() && !isAddress(settings.mailFrom)) return "The sender's mail address is malformed.";
    if (!settings.mail) return {};
    if (to.empty()) return "Mail needs an address to go to.";
    if (settings.mailFrom.empty()) return "Mail needs a sender's address.";
    const bool serverMissing = settings.mailBy == protocol::MAIL_BY_SMTP && settings.smtpServer.empty();
    return serverMissing ? "Mail over SMTP needs a server." : "";
}

/// The part of an address that says whom one talks to.
std::string serverOf(const std::string& url) {
    const std::size_t host = url.find("://");
    return host == std::string::npos ? url : url.substr(0, url.find_first_of("/?#", host + 3));
}

std::string checkHook(const NoticeSettings& settings) {
    if (!isOneOf(settings.hookKind, protocol::HOOK_JSON, protocol::HOOK_NTFY, protocol::HOOK_GOTIFY))
        return "Unknown kind of web hook.";
    const bool isUrl = settings.hookUrl.starts_with("https://") || settings.hookUrl.starts_with("http://");
    if (!settings.hookUrl.empty() && !isUrl) return "The web hook's address must begin with https:// or http://.";
    if (serverOf(settings.hookUrl).find('@') != std::string::npos)
        return "A name or password does not belong into the web hook's address; use the token.";
    return settings.hook && settings.hookUrl.empty() ? "A web hook needs an address." : "";
}

std::string checkAuthorities(const NoticeSettings& settings) {
    const std::string& text = settings.authorities;
    if (text.empty()) return {};
    const bool isPem = text.find("-----BEGIN CERTIFICATE-----") != std::string::npos &&
                       text.find("PRIVATE KEY") == std::string::npos && text.find('\0') == std::string::npos;
    return isPem && text.size() <= LONGEST_AUTHORITIES ? "" : "The certificates to trust must be a text in PEM form.";
}

std::string checkChoice(const NoticeSettings& settings) {
    std::istringstream kinds(settings.kinds);
    for (std::string name; std::getline(kinds, name, ',');)
        if (!eventKindOf(name)) return "There is no such kind of event.";
    const std::vector<std::string> languages = wordLanguages();
    const bool known = settings.language.empty() ||
                       std::find(languages.begin(), languages.end(), settings.language) != languages.end();
    if (!known) return "There are no texts in that language.";
    return eventSeverityOf(settings.severity) ? "" : "There is no such severity.";
}

/// A secret that was given for one server must not be had by naming another one.
std::string checkOldSecrets(const NoticeSettings& wanted, const NoticeSettings& stored) {
    const bool mailMoved = !wanted.smtpPassword && !stored.smtpPassword.value_or("").empty() &&
                           (wanted.smtpServer != stored.smtpServer || (wanted.smtpSecurity == protocol::SMTP_PLAIN &&
                                                                       wanted.smtpSecurity != stored.smtpSecurity));
    if (mailMoved)
        return "The password of the mail server must be given again, as the server or its encryption is another one.";
    const bool hookMoved = !wanted.hookToken && !stored.hookToken.value_or("").empty() &&
                           serverOf(wanted.hookUrl) != serverOf(stored.hookUrl);
    return hookMoved ? "The token of the web hook must be given again, as the server is another one." : "";
}

}  // namespace

std::vector<std::string> mailAddresses(const std::string& list) {
    std::vector<std::string> addresses;
    std::istringstream parts(list);
    for (std::string part; std::getline(parts, part, ',');) {
        std::erase(part, ' ');
        if (!part.empty()) addresses.push_back(part);
    }
    return addresses;
}

std::string checkNoticeSettings(const NoticeSettings& settings) {
    for (const auto check : {checkTexts, checkMail, checkHook, checkAuthorities, checkChoice})
        if (std::string fault = check(settings); !fault.empty()) return fault;
    return {};
}

NoticeStore::NoticeStore(std::filesystem::path file) : file_(std::move(file)) {
    int error = 0;
    if (const auto text = readFile(file_, LARGEST_FILE, error)) {
        settings_ = fromText(*text);
        const JsonDocument json = parseJson(*text);
        if (json.IsObject()) revision_ = static_cast<std::uint64_t>(numberOf(json, "Revision"));
    }
    if (error != 0 && error != ENOENT)
        NORV_LOG(NORV_LOG_ERROR, "%s cannot be read: %s", file_.c_str(), errorText(error).c_str());
}

NoticeSettings NoticeStore::settings() const {
    const std::lock_guard lock(mutex_);
    return settings_;
}

NoticeSettings NoticeStore::served() const {
    NoticeSettings copy = settings();
    copy.smtpPasswordSet = !copy.smtpPassword.value_or("").empty();
    copy.hookTokenSet = !copy.hookToken.value_or("").empty();
    copy.smtpPassword.reset();
    copy.hookToken.reset();
    return copy;
}

std::uint64_t NoticeStore::revision() const {
    const std::lock_guard lock(mutex_);
    return revision_;
}

std::string NoticeStore::store(NoticeSettings settings, std::optional<std::uint64_t> revision) {
    const std::lock_guard lock(mutex_);
    if (revision && *revision != revision_)
        return "Somebody else changed these settings meanwhile. Load the page again to see them.";
    if (std::string fault = checkOldSecrets(settings, settings_); !fault.empty()) return fault;
    if (!settings.smtpPassword) settings.smtpPassword = settings_.smtpPassword;
    if (!settings.hookToken) settings.hookToken = settings_.hookToken;
    settings.bundleSeconds = std::min(settings.bundleSeconds, LONGEST_BUNDLE);
    if (std::string fault = checkNoticeSettings(settings); !fault.empty()) return fault;
    const WriteResult written = writeFileAtomically(file_, toText(settings, revision_ + 1), 0600);
    if (!written) return "The settings cannot be written: " + errorText(written.error) + ".";
    settings_ = std::move(settings);
    ++revision_;
    return {};
}

}  // namespace keldra
