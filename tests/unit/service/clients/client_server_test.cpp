#include "service/clients/client_server.h"

#include "service/base/files.h"
#include "tests/harness/clamd_client.h"
#include "tests/harness/temp_dir.h"
#include "tests/unit/service/scan_fixture.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <future>
#include <string>

namespace keldra {
namespace {

using std::string_literals::operator""s;

/// Finds what contains "virus", fails on "crash", is slow on "slow" until it is stopped.
ScanResult scanText(int fd, std::stop_token stop) {
    std::array<char, 64> text{};
    const ssize_t size = ::pread(fd, text.data(), text.size(), 0);
    const std::string content(text.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    while (content == "slow" && !stop.stop_requested()) ::usleep(1000);
    if (content.find("virus") != std::string::npos) return {Verdict::INFECTED, "Some.Name", {}};
    if (content == "crash") return {Verdict::FAILED, {}, "the scanner crashed"};
    return {content == "locked" ? Verdict::NOT_FULLY_SCANNED : Verdict::CLEAN, {}, "it is encrypted"};
}

std::string stream(const std::string& content) {
    const uint32_t size = htonl(static_cast<uint32_t>(content.size()));
    return std::string(reinterpret_cast<const char*>(&size), sizeof size) + content + std::string(4, '\0');
}

class ClientServerTest : public testing::Test {
protected:
    ClientServerTest() {
        settings_.enabled = true;
        settings_.socket = dir_ / "socket";
        settings_.everyUser = true;
        settings_.streamLimit = 1000;
        settings_.commandTime = std::chrono::seconds(1);
        settings_.readTime = std::chrono::seconds(1);
        ::chmod(dir_.path().c_str(), 0755);
        for (const auto& [name, content] : {std::pair{"clean", "fine"}, {"bad", "a virus"}, {"crash", "crash"}})
            writeFile(dir_ / "tree" / name, content);
        writeFile(dir_ / "one" / "bad", "a virus");
        writeFile(dir_ / "fine" / "clean", "");
        writeFile(dir_ / "secret", "a virus");
        ::chmod((dir_ / "secret").c_str(), 0600);
    }
    void start() {
        server_.configure(settings_);
        ASSERT_EQ(server_.state().problem, "");
    }
    FileDescriptor connect() const {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, settings_.socket.c_str(), sizeof address.sun_path - 1);
        FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        return socket;
    }
    static std::string rest(const FileDescriptor& socket) {
        std::string text;
        std::array<char, 4096> piece{};
        pollfd wanted{socket.get(), POLLIN, 0};
        while (::poll(&wanted, 1, 10'000) > 0) {
            const ssize_t got = ::recv(socket.get(), piece.data(), piece.size(), 0);
            if (got <= 0) return text;
            text.append(piece.data(), static_cast<std::size_t>(got));
        }
        return text + "<no end>";
    }
    std::string ask(const std::string& request) const {
        const FileDescriptor socket = connect();
        EXPECT_EQ(::send(socket.get(), request.data(), request.size(), MSG_NOSIGNAL), ssize_t(request.size()));
        return rest(socket);
    }

    TempDir dir_;
    ClientSettings settings_;
    std::vector<std::string> reports_;
    std::mutex mutex_;
    ClientServer server_{{.scan = [](int fd, const std::string&, const std::string&,
                                     std::stop_token stop) { return scanText(fd, std::move(stop)); },
                          .report =
                              [this](const ClientReport& report) {
                                  const std::lock_guard lock(mutex_);
                                  reports_.push_back(report.name);
                              },
                          .engine =
                              [] {
                                  EngineState state;
                                  state.engineVersion = "1.2.3";
                                  return state;
                              },
                          .reload = [] {}}};
};

// The replies are those that clamd 1.4.6 gave to the same requests.
TEST_F(ClientServerTest, ClientsGetTheTextsTheyKnow) {
    start();
    const std::string tree = dir_.path();
    const std::array<std::pair<std::string, std::string>, 25> exchanges{{
        {"PING\n", "PONG\n"},
        {"nPING\n", "PONG\n"},
        {"zPING\0"s, "PONG\0"s},
        {"zPING\0zPING\0"s, "PONG\0"s},
        {"zPING foo\0"s, "UNKNOWN COMMAND\0"s},
        {"zVERSION\0"s, "ClamAV 1.2.3\0"s},
        {"nfoo\n", "UNKNOWN COMMAND\n"},
        {"zEND\0"s, "UNKNOWN COMMAND\0"s},
        {"zSCAN\0"s, "UNKNOWN COMMAND\0"s},
        {"INSTREAM\n\0\0\0\0"s, "UNKNOWN COMMAND\n"},
        {"nRELOAD\n", "RELOADING\n"},
        {"zSHUTDOWN\0"s, "COMMAND UNAVAILABLE\0"s},
        {"zPING", "COMMAND READ TIMED OUT\n"},
        {"zFILDES\0"s, "COMMAND READ TIMED OUT\n"},
        {"nINSTREAM\n\0\0\0\x0a"s + "ab", "COMMAND READ TIMED OUT\n"},
        {"zSCAN " + tree + "/one\0"s, tree + "/one/bad: Some.Name FOUND\0"s},
        {"zSCAN " + tree + "/fine\0"s, tree + "/fine: OK\0"s},
        {"SCAN " + tree + "/tree/crash\n", tree + "/tree/crash: the scanner crashed ERROR\n"},
        {"zSCAN " + tree + "/none\0"s, tree + "/none: File path check failure: No such file or directory. ERROR\0"s},
        {"zSCAN relative\0"s, "relative: File path check failure: No such file or directory. ERROR\0"s},
        {"zINSTREAM\0"s + stream("a virus"), "stream: Some.Name FOUND\0"s},
        {"zINSTREAM\0"s + std::string(4, '\0'), "stream: OK\0"s},
        {"zINSTREAM\0"s + stream(std::string(1001, 'x')), "INSTREAM size limit exceeded. ERROR\0"s},
        {"zIDSESSION\0zPING\0nPING\nzEND\0"s, "1: PONG\0002: PONG\n"s},
        {"nIDSESSION\nnPING\nnfoo\nnPING\n", "1: PONG\n2: Command invalid inside IDSESSION. ERROR\n"},
    }};
    for (const auto& [request, reply] : exchanges) EXPECT_EQ(ask(request), reply) << request;
    for (const char* command : {"zCONTSCAN ", "zMULTISCAN "}) {
        const std::string text = ask(command + tree + "/tree\0"s);
        EXPECT_NE(text.find(tree + "/tree/bad: Some.Name FOUND\0"s), std::string::npos) << text;
        EXPECT_NE(text.find(tree + "/tree/crash: the scanner crashed ERROR\0"s), std::string::npos) << text;
        EXPECT_EQ(text.find("OK"), std::string::npos) << text;
    }
    EXPECT_FALSE(reports_.empty());
}

TEST_F(ClientServerTest, ADescriptorIsScannedAlsoInASession) {
    start();
    const FileDescriptor file(::open((dir_ / "one" / "bad").c_str(), O_RDONLY | O_CLOEXEC));
    for (const bool session : {false, true}) {
        const FileDescriptor socket = connect();
        const std::string command = session ? "zIDSESSION\0zFILDES\0"s : "zFILDES\0"s;
        ASSERT_GT(::send(socket.get(), command.data(), command.size(), 0), 0);
        ASSERT_TRUE(sendDescriptor(socket.get(), file.get()));
        // Without a session the connection ends with the answer.
        const std::string more = session ? "zPING\0zEND\0"s : ""s;
        if (session) {
            ASSERT_EQ(::send(socket.get(), more.data(), more.size(), MSG_NOSIGNAL), ssize_t(more.size()));
        }
        const std::string text = rest(socket);
        EXPECT_NE(text.find("]: Some.Name FOUND\0"s), std::string::npos) << text;
        EXPECT_EQ(text.find("2: PONG\0"s) != std::string::npos, session) << text;
    }
}

TEST_F(ClientServerTest, AUserHasOnlyThoseFilesScannedThatHeMayRead) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can be another user";
    start();
    const std::string secret = dir_ / "secret";
    EXPECT_EQ(ask("nSCAN " + secret + "\n"), secret + ": Some.Name FOUND\n");
    FileDescriptor socket;
    withoutPrivilege([&] { socket = connect(); });
    const std::string request = "nCONTSCAN " + secret + "\n";
    ASSERT_GT(::send(socket.get(), request.data(), request.size(), 0), 0);
    EXPECT_EQ(rest(socket), secret + ": Access denied. ERROR\n");
    EXPECT_EQ(::geteuid(), 0U);
}

TEST_F(ClientServerTest, WhoFloodsGetsNoMoreAndTheOthersTheirShare) {
    settings_.connectionsEach = 3;
    settings_.addresses = {"127.0.0.1:0"};
    start();
    std::vector<FileDescriptor> held;
    for (int i = 0; i < 3; ++i) held.push_back(connect());
    const FileDescriptor tooMany = connect();
    EXPECT_EQ(rest(tooMany), "");
    held.clear();
    for (int i = 0; i < 100 && server_.state().connections != 0; ++i) ::usleep(10'000);
    EXPECT_EQ(ask("nPING\n"), "PONG\n");
}

TEST_F(ClientServerTest, ItEndsAtOnceWhileFilesAreScanned) {
    writeFile(dir_ / "slow", "slow");
    settings_.scansEach = 1;
    start();
    auto first = std::async(std::launch::async, [this] { return ask("nSCAN " + (dir_ / "slow").string() + "\n"); });
    auto second = std::async(std::launch::async, [this] { return ask("nSCAN " + (dir_ / "slow").string() + "\n"); });
    ::usleep(200'000);
    const auto begin = std::chrono::steady_clock::now();
    server_.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
    first.wait();
    second.wait();
    EXPECT_FALSE(std::filesystem::exists(settings_.socket));
}

TEST_F(ClientServerTest, WhatCannotBeHadIsTold) {
    settings_.addresses = {"somewhere", "127.0.0.1:0"};
    server_.configure(settings_);
    EXPECT_EQ(server_.state().problem, "Not an address with a port: somewhere.");
    EXPECT_EQ(ask("nPING\n"), "PONG\n");
    writeFile(dir_ / "file", "");
    settings_.socket = dir_ / "file";
    server_.configure(settings_);
    EXPECT_NE(server_.state().problem.find("Cannot listen on"), std::string::npos);
}

}  // namespace
}  // namespace keldra
