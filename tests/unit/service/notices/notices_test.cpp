#include "service/notices/notices.h"

#include "tests/harness/temp_dir.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
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
        const std::string bytes(block, static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
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
        settings_.texts = [] { return NoticeTexts{"attention", "The disk is nearly full.\n", ""}; };
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
        std::vector<Event> all;
        for (int i = 0; i < count; ++i) all.push_back(find(i));
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
         {"Title: Keldra on nas: 1 find\r\n", "Priority: 5\r\n", "\n\nThis server is protected, but"}},
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

}  // namespace
}  // namespace keldra
