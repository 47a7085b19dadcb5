#include "service/notices/notice_sender.h"

#include "service/base/files.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <memory>
#include <string_view>
#include <thread>
#include <vector>

namespace keldra {

namespace {

constexpr long CONNECT_TIME = 10;  // seconds
constexpr long REFUSED = 400;      // the first HTTP status that is none of success
constexpr auto POLL = std::chrono::milliseconds(20);

/// A transfer and what belongs to it.
class Transfer {
public:
    explicit Transfer(const std::atomic<bool>& ending)
        : ending_(ending), curl_(::curl_easy_init(), ::curl_easy_cleanup) {
        static const CURLcode READY = ::curl_global_init(CURL_GLOBAL_DEFAULT);
        if (READY != CURLE_OK) curl_.reset();
    }
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;
    ~Transfer() { ::curl_slist_free_all(list_); }

    template <typename T>
    void set(CURLoption option, T value) {
        if (curl_) ::curl_easy_setopt(curl_.get(), option, value);
    }
    void append(const std::string& line) { list_ = ::curl_slist_append(list_, line.c_str()); }
    curl_slist* list() const { return list_; }

    /// What went wrong, or nothing.
    std::string perform() {
        if (!curl_) return "The transfer cannot be prepared.";
        std::array<char, CURL_ERROR_SIZE> words{};
        set(CURLOPT_ERRORBUFFER, words.data());
        set(CURLOPT_NOSIGNAL, 1L);
        set(CURLOPT_CONNECTTIMEOUT, CONNECT_TIME);
        set(CURLOPT_TIMEOUT, NOTICE_TIME);
        set(CURLOPT_WRITEFUNCTION, &Transfer::ignore);
        set(CURLOPT_NOPROGRESS, 0L);
        set(CURLOPT_XFERINFOFUNCTION, &Transfer::goOn);
        set(CURLOPT_XFERINFODATA, this);
        set(CURLOPT_QUICK_EXIT, 1L);
        const CURLcode code = ::curl_easy_perform(curl_.get());
        long status = 0;
        ::curl_easy_getinfo(curl_.get(), CURLINFO_RESPONSE_CODE, &status);
        if (code != CURLE_OK) return words[0] != '\0' ? words.data() : ::curl_easy_strerror(code);
        return status >= REFUSED ? "The other end answered with status " + std::to_string(status) + "." : "";
    }

private:
    static std::size_t ignore(char*, std::size_t size, std::size_t count, void*) { return size * count; }

    static int goOn(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
        return static_cast<Transfer*>(self)->ending_ ? 1 : 0;
    }

    const std::atomic<bool>& ending_;
    std::unique_ptr<CURL, void (*)(CURL*)> curl_;
    curl_slist* list_ = nullptr;
};

/// Certificates that are trusted beside those of the system.
void trust(Transfer& transfer, const NoticeSettings& settings) {
    if (settings.authorities.empty()) return;
    std::string text = settings.authorities;
    curl_blob blob{text.data(), text.size(), CURL_BLOB_COPY};
    transfer.set(CURLOPT_CAINFO_BLOB, &blob);
    transfer.set(CURLOPT_CAPATH, "/etc/ssl/certs");
}

/// The server with the port that its kind of encryption is usual at, unless it names one.
std::string mailServer(const NoticeSettings& settings) {
    const std::string& server = settings.smtpServer;
    const bool named =
        server.find(':', server.rfind(']') == std::string::npos ? 0 : server.rfind(']')) != std::string::npos;
    return named || settings.smtpSecurity != protocol::SMTP_STARTTLS ? server : server + ":587";
}

std::size_t readPart(char* buffer, std::size_t size, std::size_t count, void* source) {
    auto& rest = *static_cast<std::string_view*>(source);
    const std::size_t length = std::min(rest.size(), size * count);
    std::memcpy(buffer, rest.data(), length);
    rest.remove_prefix(length);
    return length;
}

std::string sendBySmtp(const NoticeSettings& settings, const std::vector<std::string>& to, const std::string& mail,
                       const std::atomic<bool>& ending) {
    const bool tls = settings.smtpSecurity == protocol::SMTP_TLS;
    const std::string url = (tls ? "smtps://" : "smtp://") + mailServer(settings);
    std::string_view rest = mail;
    Transfer transfer(ending);
    trust(transfer, settings);
    for (const std::string& address : to) transfer.append("<" + address + ">");
    transfer.set(CURLOPT_URL, url.c_str());
    transfer.set(CURLOPT_PROTOCOLS_STR, "smtp,smtps");
    transfer.set(CURLOPT_USE_SSL,
                 settings.smtpSecurity == protocol::SMTP_PLAIN ? long{CURLUSESSL_NONE} : long{CURLUSESSL_ALL});
    if (!settings.smtpUser.empty()) {
        transfer.set(CURLOPT_USERNAME, settings.smtpUser.c_str());
        transfer.set(CURLOPT_PASSWORD, settings.smtpPassword.value_or("").c_str());
    }
    transfer.set(CURLOPT_MAIL_FROM, ("<" + settings.mailFrom + ">").c_str());
    transfer.set(CURLOPT_MAIL_RCPT, transfer.list());
    transfer.set(CURLOPT_READFUNCTION, readPart);
    transfer.set(CURLOPT_READDATA, &rest);
    transfer.set(CURLOPT_UPLOAD, 1L);
    return transfer.perform();
}

/// What a program said, in one line.
std::string saidIn(int file) {
    constexpr std::size_t MOST = 400;  // bytes
    std::array<char, MOST> said{};
    const ssize_t count = ::pread(file, said.data(), said.size(), 0);
    std::string text(said.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    while (!text.empty() && text.back() == '\n') text.pop_back();
    std::replace(text.begin(), text.end(), '\n', ' ');
    return readable(text);
}

/// Waits for a child, at most as long as a message may take. `errors`: file that holds what it complains of.
std::string awaitChild(pid_t child, const std::string& program, int errors, const std::atomic<bool>& ending) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(NOTICE_TIME);
    int status = 0;
    while (::waitpid(child, &status, WNOHANG) == 0) {
        if (ending || std::chrono::steady_clock::now() > end) {
            ::kill(child, SIGKILL);
            ::waitpid(child, &status, 0);
            return program + " took too long.";
        }
        std::this_thread::sleep_for(POLL);
    }
    const bool good = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (good) return "";
    const std::string why = saidIn(errors);
    return program + " refused the mail" + (why.empty() ? "." : ": " + why);
}

/// The mail goes by a file without a name, which the program can read at its leisure.
std::string sendByProgram(const std::string& program, const std::string& from, const std::vector<std::string>& to,
                          std::string mail, const std::atomic<bool>& ending) {
    std::erase(mail, '\r');
    const FileDescriptor file(::memfd_create("mail", MFD_CLOEXEC));
    const FileDescriptor errors(::memfd_create("errors", MFD_CLOEXEC));
    if (!file || !errors || !writeAll(file.get(), mail) || ::lseek(file.get(), 0, SEEK_SET) != 0)
        return "The mail cannot be prepared: " + errorText(errno) + ".";
    std::vector<std::string> words{program, "-i", "-f", from, "--"};
    words.insert(words.end(), to.begin(), to.end());
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    std::string path = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
    std::array<char*, 2> environment{path.data(), nullptr};
    posix_spawn_file_actions_t actions{};
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, file.get(), STDIN_FILENO);
    ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    ::posix_spawn_file_actions_adddup2(&actions, errors.get(), STDERR_FILENO);
    pid_t child = -1;
    const int error = ::posix_spawn(&child, program.c_str(), &actions, nullptr, arguments.data(), environment.data());
    ::posix_spawn_file_actions_destroy(&actions);
    return error == 0 ? awaitChild(child, program, errors.get(), ending) : program + ": " + errorText(error) + ".";
}

}  // namespace

std::string sendMail(const NoticeSettings& settings, const NoticeMessage& message, const std::string& sendmail,
                     std::int64_t now, const std::atomic<bool>& ending) {
    const std::vector<std::string> to = mailAddresses(settings.mailTo);
    const std::string mail = mailText(message, settings.mailFrom, to, now);
    return settings.mailBy == protocol::MAIL_BY_SMTP ? sendBySmtp(settings, to, mail, ending)
                                                     : sendByProgram(sendmail, settings.mailFrom, to, mail, ending);
}

std::string sendHook(const NoticeSettings& settings, const NoticeMessage& message, const std::atomic<bool>& ending) {
    constexpr std::array<const char*, 3> NTFY_PRIORITIES{"2", "3", "5"};
    const std::string token = settings.hookToken.value_or("");
    const bool gotify = settings.hookKind == protocol::HOOK_GOTIFY;
    const bool ntfy = settings.hookKind == protocol::HOOK_NTFY;
    std::string url = settings.hookUrl;
    if (gotify && !url.ends_with("/message")) url += url.ends_with('/') ? "message" : "/message";
    const std::string body = gotify ? gotifyText(message) : ntfy ? message.text : hookText(message);
    Transfer transfer(ending);
    trust(transfer, settings);
    transfer.append(ntfy ? "Content-Type: text/plain; charset=utf-8" : "Content-Type: application/json");
    if (ntfy) transfer.append("Title: " + message.subject);
    if (ntfy)
        transfer.append(std::string("Priority: ") + NTFY_PRIORITIES.at(static_cast<std::size_t>(message.severity)));
    if (!token.empty()) transfer.append((gotify ? "X-Gotify-Key: " : "Authorization: Bearer ") + token);
    transfer.set(CURLOPT_URL, url.c_str());
    transfer.set(CURLOPT_PROTOCOLS_STR, "http,https");
    transfer.set(CURLOPT_HTTPHEADER, transfer.list());
    transfer.set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    transfer.set(CURLOPT_POSTFIELDS, body.c_str());
    return transfer.perform();
}

}  // namespace keldra
