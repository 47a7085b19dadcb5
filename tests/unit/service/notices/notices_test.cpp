#include "service/notices/notices.h"

#include "service/notices/catalogue.h"
#include "tests/harness/process.h"
#include "tests/harness/temp_dir.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <sstream>
#include <thread>

namespace keldra {
namespace {

/// Listens on the loopback and speaks just enough SMTP or HTTP to take what is sent; keeps every byte.
class Sink {
public:
    explicit Sink(bool smtp) : smtp_(smtp), socket_(::socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        EXPECT_EQ(::bind(socket_, reinterpret_cast<sockaddr*>(&address), length), 0);
        EXPECT_EQ(::listen(socket_, 8), 0);
        ::getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { serve(); });
    }
    ~Sink() {
        ending_ = true;
        thread_.join();
        ::close(socket_);
    }
    std::string address() const { return "127.0.0.1:" + std::to_string(port_); }
    std::string taken() const {
        const std::lock_guard lock(mutex_);
        return taken_;
    }
    std::string await(const std::string& text) const {
        for (int i = 0; i < 1000 && taken().find(text) == std::string::npos; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return taken();
    }

    std::atomic<bool> refusing = false;
    std::atomic<int> messages = 0;

private:
    static bool readable(int fd, int milliseconds) {
        pollfd wait{fd, POLLIN, 0};
        return ::poll(&wait, 1, milliseconds) == 1;
    }
    void serve() {
        while (!ending_) {
            if (!readable(socket_, 20)) continue;
            const int connection = ::accept(socket_, nullptr, nullptr);
            smtp_ ? talkSmtp(connection) : talkHttp(connection);
            ::close(connection);
        }
    }
    std::string receive(int connection) {
        char block[65536];
        if (!readable(connection, 2000)) return {};
        const ssize_t count = ::recv(connection, block, sizeof block, 0);
        std::string bytes(block, static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        const std::lock_guard lock(mutex_);
        taken_ += bytes;
        return bytes;
    }
    static void say(int connection, const std::string& text) {
        ::send(connection, text.data(), text.size(), MSG_NOSIGNAL);
    }
    void talkSmtp(int connection) {
        say(connection, refusing ? "421 busy\r\n" : "220 sink\r\n");
        bool data = false;
        std::string mail;
        for (std::string bytes = receive(connection); !bytes.empty(); bytes = receive(connection)) {
            if (data) mail += bytes;
            if (data && mail.ends_with("\r\n.\r\n"))
                data = false, ++messages, say(connection, "250 taken\r\n");
            else if (bytes.starts_with("DATA"))
                data = true, say(connection, "354 go on\r\n");
            else if (!data)
                say(connection, "250 fine\r\n");
        }
    }
    void talkHttp(int connection) {
        std::string all;
        for (std::size_t wanted = std::string::npos; all.size() < wanted;) {
            const std::string bytes = receive(connection);
            if (bytes.empty()) return;
            all += bytes;
            const std::size_t head = all.find("\r\n\r\n");
            const std::size_t length = all.find("Content-Length: ");
            if (head != std::string::npos && length < head) wanted = head + 4 + std::stoul(all.substr(length + 16));
            if (all.find("Expect: 100") < head) say(connection, "HTTP/1.1 100 Continue\r\n\r\n");
        }
        ++messages;
        say(connection, std::string("HTTP/1.1 ") + (refusing ? "503 no" : "200 OK") +
                            "\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
    }

    const bool smtp_;
    const int socket_;
    int port_ = 0;
    std::atomic<bool> ending_ = false;
    mutable std::mutex mutex_;
    std::string taken_;
    std::thread thread_;
};

class NoticesTest : public testing::Test {
protected:
    NoticesTest() {
        settings_.folder = dir_ / "notices";
        settings_.host = "nas";
        settings_.retry = 50;
        ::unsetenv("LANG");
        settings_.texts = [] {
            return NoticeTexts{"attention",
                               {{"signatures_aging", "The virus signatures are more than 7 days old.", "", 9, "days"}},
                               {}};
        };
    }
    static Event find(int number) {
        return {.id = static_cast<std::uint64_t>(number + 1),
                .time = 1700000000,
                .kind = EventKind::FIND,
                .severity = EventSeverity::ALERT,
                .path = "/srv/\xff\r\nBcc: all " + std::to_string(number),
                .signature = "Win.Test"};
    }
    NoticeSettings mailTo(const Sink& sink) const {
        NoticeSettings settings;
        settings.mail = true;
        settings.mailTo = "anna@example.org, bob@example.org";
        settings.mailFrom = "keldra@example.org";
        settings.mailBy = protocol::MAIL_BY_SMTP;
        settings.smtpServer = sink.address();
        settings.smtpSecurity = protocol::SMTP_PLAIN;
        settings.bundleSeconds = 0;
        return settings;
    }
    static NoticeSettings hookTo(const Sink& sink, const char* kind) {
        NoticeSettings settings;
        settings.hook = true;
        settings.hookUrl = "http://" + sink.address() + "/topic";
        settings.hookKind = kind;
        settings.hookToken = "geheim";
        settings.bundleSeconds = 0;
        return settings;
    }
    static std::vector<Event> finds(int count) {
        std::vector<Event> all(static_cast<std::size_t>(count));
        std::generate(all.begin(), all.end(), [i = 0]() mutable { return find(i++); });
        return all;
    }

    TempDir dir_;
    NoticesSettings settings_;
};

TEST_F(NoticesTest, AThousandFindsAreOneMail) {
    Sink sink(true);
    Notices notices(settings_);
    ASSERT_EQ(notices.store(mailTo(sink)), "");
    notices.take(finds(1000));
    notices.take({{.kind = EventKind::SCAN, .severity = EventSeverity::INFO}});
    const std::string mail = sink.await("\r\n.\r\n");
    EXPECT_NE(mail.find("RCPT TO:<anna@example.org>"), std::string::npos);
    EXPECT_NE(mail.find("RCPT TO:<bob@example.org>"), std::string::npos);
    EXPECT_NE(mail.find("Subject: Keldra on nas: 50 finds, 950 more events\r\n"), std::string::npos) << mail;
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_EQ(sink.messages, 1);
    EXPECT_EQ(notices.state().waiting, 0U);
}

/// What the words of a mail's head line say, and its body.
std::string decoded(const std::string& mail) {
    const std::string program =
        "import email, email.policy, sys\n"
        "mail = email.message_from_bytes(sys.stdin.buffer.read(), policy=email.policy.default)\n"
        "raw = [line for line in mail.as_bytes().split(b'\\n') if len(line) > 78]\n"
        "print(mail['subject'], '|', mail.get_content(), '|', len(raw))\n";
    return runProgram({.argv = {"/usr/bin/python3", "-c", program}, .input = mail}).output;
}

TEST_F(NoticesTest, AMailIsInTheLanguageThatWasChosen) {
    const Event change{.time = 1700000000,
                       .kind = EventKind::SETTINGS,
                       .action = "saved",
                       .detail = "limits.seconds: \"300\" -> \"1\"; ManualScan.scanCompressed: \"1\" -> \"0\""};
    const std::vector<std::pair<const char*, std::vector<std::string>>> rows{
        {"de",
         {"Keldra auf nas: 1 Fund, 1 Änderung von Einstellungen |", "gespeichert",
          "Längste Prüfung einer Datei: 300 Sekunden → 1 Sekunde; "
          "Manuelle Prüfung, In Archive hineinsehen: Ein → Aus",
          "Auf diesem Server braucht etwas Ihre Aufmerksamkeit.", "(9 Tage)", "| 0"}},
        {"ja", {"nas の Keldra: 検出 1 件, 設定の変更 1 件 |", "300 秒 → 1 秒", "| 0"}},
        {"en", {"Keldra on nas: 1 find, 1 change of settings |", "Longest scan of one file: 300 seconds → 1 second"}}};
    for (const auto& [language, expected] : rows) {
        Sink sink(true);
        Notices notices(settings_);
        NoticeSettings settings = mailTo(sink);
        settings.language = language;
        settings.kinds = "find,settings";
        settings.severity = "info";
        ASSERT_EQ(notices.store(settings), "");
        notices.take({find(1), change});
        const std::string taken = sink.await("\r\n.\r\n");
        const std::string said = decoded(taken.substr(taken.find("Date: ")));
        for (const std::string& text : expected) EXPECT_NE(said.find(text), std::string::npos) << text << "\n" << said;
    }
    NoticeSettings settings;
    settings.language = "xx";
    EXPECT_EQ(Notices(settings_).store(settings), "There are no texts in that language.");
}

TEST(CatalogueTest, ADamagedCatalogueLeavesItsTextsEnglish) {
    const std::string whole(builtInCatalogues()[0].bytes);
    EXPECT_EQ(Catalogue(whole).text("Off"), "Aus");
    for (std::size_t length = 0; length < whole.size(); length += 997) {
        const std::string cut = whole.substr(0, length);
        EXPECT_EQ(Catalogue(cut).text("no such text"), "no such text");
        EXPECT_NE(Catalogue(cut).counted(2, "{n} day", "{n} days").find('2'), std::string::npos);
    }
}

TEST_F(NoticesTest, WhatTheOtherEndDoesNotTakeIsTriedAgainAlsoAfterARestart) {
    Sink sink(false);
    sink.refusing = true;
    {
        Notices notices(settings_);
        ASSERT_EQ(notices.store(hookTo(sink, protocol::HOOK_JSON)), "");
        notices.take(finds(3));
        for (int i = 0; i < 1000 && sink.messages < 2; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        // While they are on their way they do not wait.
        for (int i = 0; i < 1000 && notices.state().waiting != 3; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        EXPECT_EQ(notices.state().waiting, 3U);
        EXPECT_EQ(notices.state().problem, "The other end answered with status 503.");
        EXPECT_NE(notices.test().find("503"), std::string::npos);
    }
    sink.refusing = false;
    const int before = sink.messages;
    Notices notices(settings_);
    for (int i = 0; i < 1000 && notices.state().waiting > 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(notices.state().waiting, 0U);
    EXPECT_EQ(sink.messages, before + 1);
}

TEST_F(NoticesTest, WebHooksSpeakWhatTheOtherEndExpectsAndNamesOfFilesAddNoHeads) {
    const std::vector<std::pair<const char*, std::vector<std::string>>> rows{
        {protocol::HOOK_JSON,
         {"POST /topic HTTP", "Authorization: Bearer geheim", R"("verdict":"attention")",
          R"(/srv/\\xff\\x0d\\x0aBcc)"}},
        {protocol::HOOK_NTFY,
         {"Title: Keldra on nas: 1 find\r\n", "Priority: 5\r\n",
          "\n\nSomething on this server needs your attention.\n- The virus signatures are more than 7 days old. (9 "
          "days)"}},
        {protocol::HOOK_GOTIFY, {"POST /topic/message HTTP", "X-Gotify-Key: geheim", R"("priority":8)"}}};
    for (const auto& [kind, expected] : rows) {
        Sink sink(false);
        Notices notices(settings_);
        ASSERT_EQ(notices.store(hookTo(sink, kind)), "");
        notices.take(finds(1));
        for (const std::string& text : expected)
            EXPECT_NE(sink.await(text).find(text), std::string::npos) << sink.taken();
        EXPECT_EQ(sink.taken().find("\r\nBcc"), std::string::npos);
    }
}

TEST_F(NoticesTest, SecretsAreKeptFromEverybodyAndMistakesAreToldApart) {
    Sink sink(false);
    Notices notices(settings_);
    ASSERT_EQ(notices.store(hookTo(sink, protocol::HOOK_NTFY)), "");
    NoticeSettings served = notices.served();
    EXPECT_TRUE(served.hookTokenSet && !served.hookToken && !served.smtpPasswordSet);
    served.weeklyReport = true;
    EXPECT_EQ(notices.store(served), "");
    EXPECT_EQ(notices.settings().hookToken, "geheim") << "what is left out stays";
    struct stat status {};
    ASSERT_EQ(::stat((dir_ / "notices" / "settings.json").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
    const std::vector<std::function<void(NoticeSettings&)>> mistakes{[](auto& s) { s.hookUrl = "file:///etc/passwd"; },
                                                                     [](auto& s) { s.hookUrl.clear(); },
                                                                     [](auto& s) { s.mail = true; },
                                                                     [](auto& s) { s.mailTo = "-oQ/tmp@x"; },
                                                                     [](auto& s) { s.mailFrom = "a@b\r\nBcc: c@d"; },
                                                                     [](auto& s) { s.kinds = "find,bogus"; },
                                                                     [](auto& s) { s.hookToken = "a\nb"; },
                                                                     [](auto& s) { s.smtpSecurity = "maybe"; }};
    for (const auto& mistake : mistakes) {
        NoticeSettings wrong = notices.served();
        mistake(wrong);
        EXPECT_NE(notices.store(wrong), "");
    }
}

/// A server that speaks TLS with a certificate made here, and tells all that it took.
class SecureServer {
public:
    SecureServer(const std::filesystem::path& folder, const char* kind) {
        const char* const name = "IP:127.0.0.1";
        const std::string script = folder / "server.py";
        std::ofstream(script) << PROGRAM;
        const std::string make =
            "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj /CN=sink "
            "-addext subjectAltName=" +
            std::string(name) + " -keyout key.pem -out cert.pem 2>/dev/null";
        const std::string run = "cd '" + folder.string() + "' && " + make + " && exec python3 server.py " + kind;
        output_ = ::popen(run.c_str(), "r");
        port_ = line();
        std::stringstream text;
        text << std::ifstream(folder / "cert.pem").rdbuf();
        certificate = text.str();
    }
    ~SecureServer() { ::pclose(output_); }
    SecureServer(const SecureServer&) = delete;
    SecureServer& operator=(const SecureServer&) = delete;
    std::string address() const { return "127.0.0.1:" + port_; }
    /// All that was said until the other end hung up, in one line.
    std::string line() {
        std::array<char, 8192> text{};
        if (!std::fgets(text.data(), text.size(), output_)) return {};
        return {text.data(), std::strcspn(text.data(), "\n")};
    }

    std::string certificate;

private:
    static constexpr const char* PROGRAM = R"(
import socket, ssl, sys
kind = sys.argv[1]
tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
tls.load_cert_chain('cert.pem', 'key.pem')
listener = socket.create_server(('127.0.0.1', 0))
print(listener.getsockname()[1], flush=True)
listener.settimeout(20)
for _ in range(2):
    link, _ = listener.accept()
    link.settimeout(10)
    said = b''
    try:
        if kind != 'starttls':
            link = tls.wrap_socket(link, server_side=True)
        if kind != 'https':
            link.sendall(b'220 sink\r\n')
        data = False
        while True:
            got = link.recv(65536)
            if not got:
                break
            said += got
            if kind == 'https':
                if b'"events"' in said and said.endswith(b'}'):
                    link.sendall(b'HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n')
                    break
            elif data:
                if said.endswith(b'\r\n.\r\n'):
                    data = False
                    link.sendall(b'250 taken\r\n')
            elif got.startswith(b'EHLO'):
                more = b'AUTH PLAIN' if isinstance(link, ssl.SSLSocket) else b'STARTTLS'
                link.sendall(b'250-sink\r\n250 ' + more + b'\r\n')
            elif got.startswith(b'STARTTLS'):
                link.sendall(b'220 go\r\n')
                link = tls.wrap_socket(link, server_side=True)
            elif got.startswith(b'AUTH'):
                link.sendall(b'334 \r\n')
                said += link.recv(65536)
                link.sendall(b'235 fine\r\n')
            elif got.startswith(b'DATA'):
                data = True
                link.sendall(b'354 go on\r\n')
            elif got.startswith(b'QUIT'):
                break
            else:
                link.sendall(b'250 fine\r\n')
    except (ssl.SSLError, OSError):
        said += b' broken'
    print(repr(said)[:8000], flush=True)
    link.close()
)";

    std::FILE* output_ = nullptr;
    std::string port_;
};

TEST_F(NoticesTest, OverTlsNothingIsSaidToAServerWhoseCertificateIsNotTrusted) {
    const std::vector<std::pair<const char*, const char*>> rows{
        {"starttls", protocol::SMTP_STARTTLS}, {"smtps", protocol::SMTP_TLS}, {"https", ""}};
    for (const auto& [kind, security] : rows) {
        SCOPED_TRACE(kind);
        const std::filesystem::path folder = dir_ / kind;
        std::filesystem::create_directories(folder);
        SecureServer server(folder, kind);
        settings_.folder = folder / "notices";
        Notices notices(settings_);
        NoticeSettings settings;
        settings.mail = *security != '\0';
        settings.hook = !settings.mail;
        settings.mailTo = settings.mailFrom = "anna@example.org";
        settings.mailBy = protocol::MAIL_BY_SMTP;
        settings.smtpServer = server.address();
        settings.smtpSecurity = security + std::string(settings.mail ? "" : protocol::SMTP_TLS);
        settings.smtpUser = "anna";
        settings.smtpPassword = settings.hookToken = "geheim";
        settings.hookUrl = "https://" + server.address() + "/";
        ASSERT_EQ(notices.store(settings), "");
        EXPECT_NE(notices.test(), "");
        const std::string refused = server.line();
        EXPECT_EQ(refused.find("MAIL FROM"), std::string::npos) << refused;
        EXPECT_EQ(refused.find("AUTH"), std::string::npos) << refused;
        EXPECT_EQ(refused.find("POST"), std::string::npos) << refused;
        settings.authorities = server.certificate;
        ASSERT_EQ(notices.store(settings), "");
        EXPECT_EQ(notices.test(), "");
        const std::string taken = server.line();
        EXPECT_NE(taken.find(settings.mail ? "AUTH PLAIN" : "Bearer geheim"), std::string::npos) << taken;
        EXPECT_NE(taken.find(settings.mail ? "Subject: Keldra on nas" : "POST /"), std::string::npos) << taken;
    }
}

TEST_F(NoticesTest, ARealSendmailDeliversTheMailAndItsRefusalIsTold) {
    if (::access("/usr/bin/msmtp", X_OK) != 0) GTEST_SKIP() << "msmtp is missing; scripts/setup test installs it";
    Sink sink(true);
    const std::string port = sink.address().substr(sink.address().find(':') + 1);
    const std::filesystem::path program = dir_ / "sendmail";
    std::ofstream(dir_ / "msmtprc") << "account default\nhost 127.0.0.1\nport " << port << "\n";
    std::ofstream(program) << "#!/bin/sh\nexec msmtp -C '" << (dir_ / "msmtprc").string() << "' \"$@\"\n";
    std::filesystem::permissions(program, std::filesystem::perms::owner_all);
    settings_.sendmail = program;
    Notices notices(settings_);
    NoticeSettings settings;
    settings.mail = true;
    settings.mailTo = "anna@example.org, bert@example.org";
    settings.mailFrom = "keldra@example.org";
    ASSERT_EQ(notices.store(settings), "");
    ASSERT_EQ(notices.test(protocol::WAY_MAIL), "");
    const std::string mail = sink.await("\r\n.\r\n");
    for (const char* const part :
         {"MAIL FROM:<keldra@example.org>", "RCPT TO:<anna@example.org>", "RCPT TO:<bert@example.org>",
          "To: anna@example.org,\r\n bert@example.org\r\n", "Subject: Keldra on nas"})
        EXPECT_NE(mail.find(part), std::string::npos) << part << "\n" << mail;
    sink.refusing = true;
    const std::string refused = notices.test(protocol::WAY_MAIL);
    EXPECT_EQ(refused.find(program.string() + " refused the mail: "), 0U) << refused;
    EXPECT_NE(refused.find("421 busy"), std::string::npos) << refused;
    EXPECT_EQ(notices.test(protocol::WAY_HOOK), "It is not switched on.");
}

TEST_F(NoticesTest, ASecretGoesToNoOtherServerThanItWasGivenFor) {
    NoticeSettings settings;
    settings.hookUrl = "https://a.example.org/one";
    settings.hookToken = "geheim";
    settings.smtpServer = "mail.example.org";
    settings.smtpPassword = "geheim";
    Notices notices(settings_);
    ASSERT_EQ(notices.store(settings), "");
    const std::vector<std::pair<std::function<void(NoticeSettings&)>, bool>> rows{
        {[](auto& s) { s.hookUrl = "https://a.example.org/two"; }, true},
        {[](auto& s) { s.hookUrl = "https://b.example.org/one"; }, false},
        {[](auto& s) { s.hookUrl = "https://b.example.org/one", s.hookToken = "other"; }, true},
        {[](auto& s) { s.smtpServer = "mail.example.com"; }, false},
        {[](auto& s) { s.smtpSecurity = protocol::SMTP_PLAIN; }, false},
        {[](auto& s) { s.smtpServer = "mail.example.com", s.smtpPassword = ""; }, true}};
    for (const auto& [change, good] : rows) {
        NoticeSettings wanted = notices.served();
        change(wanted);
        EXPECT_EQ(notices.store(wanted).empty(), good);
    }
    const std::uint64_t revision = notices.revision();
    EXPECT_EQ(notices.store(notices.served(), revision), "");
    EXPECT_NE(notices.store(notices.served(), revision), "") << "somebody else has stored meanwhile";
}

}  // namespace
}  // namespace keldra
