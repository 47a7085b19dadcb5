#include "norv/au_config.h"
#include "norv/crypto.h"
#include "norv/scan_config.h"
#include "tests/faults/fault_control.h"
#include "tests/service/service_test.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <thread>
#include <vector>

// The n-th call of the system fails while the whole service works. In short for
// n = 1, 2, 3, 5, 8 …; with KELDRA_LONG_FAULTS for every n.

namespace {

using enum IPCMessage::CommandID;
namespace fs = std::filesystem;

class ServiceFaults : public ServiceTest {
protected:
    ServiceFaults() {
        const fs::path file = service_.file("faults");
        writeFile(file, std::string(sizeof(faults::Control), '\0'));
        const int fd = ::open(file.c_str(), O_RDWR | O_CLOEXEC);
        control_ = static_cast<faults::Control*>(
            ::mmap(nullptr, sizeof(faults::Control), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
        ::close(fd);
        service_.environment["LD_PRELOAD"] = FAULT_LIBRARY;
        service_.environment["KELDRA_FAULT_CONTROL"] = file;
        EXPECT_TRUE(service_.setPassword(PASSWORD));
        EXPECT_TRUE(service_.start());
    }
    ~ServiceFaults() override { ::munmap(control_, sizeof(faults::Control)); }

    static int next(int n) { return std::getenv("KELDRA_LONG_FAULTS") ? n + 1 : std::max(n + 1, n * 8 / 5); }

    /// Does `work` again and again, with each call of the system failing once;
    /// `check` looks after each.
    void sweep(const std::function<void()>& work, const std::function<void()>& check) {
        struct Kind {
            uint32_t calls;
            int error;
        };
        std::vector<Kind> kinds{{faults::FILES, EIO}, {faults::FILES, ENOSPC}};
        if (std::getenv("KELDRA_LONG_FAULTS")) kinds.push_back({faults::bit(faults::Call::MEMORY), ENOMEM});
        for (const Kind kind : kinds) {
            bool fired = true;
            for (int n = 1; fired && n < MOST_CALLS; n = next(n)) {
                SCOPED_TRACE("call " + std::to_string(n) + ", error " + std::to_string(kind.error));
                control_->arm(kind.calls, n, kind.error);
                work();
                fired = control_->disarm();
                ASSERT_TRUE(service_.running()) << service_.printed();
                ASSERT_EQ(get(SERVICE_STATUS).result, 1);
                // What was begun goes on although its reply found no memory.
                if (kind.error == ENOMEM) std::this_thread::sleep_for(std::chrono::milliseconds(300));
                check();
                if (HasFailure()) return;
            }
        }
    }
    /// From a new address each time, for the failures count.
    std::string logOn(const std::string& network) {
        std::array<char, 512> encrypted{};
        EXPECT_GT(dm_encryptString(PASSWORD, encrypted.data(), encrypted.size()), 0);
        IPCMessage request(IPCMessage::SESSION, PASSWORD_LOGON);
        request.addParam("Password", encrypted.data());
        request.addParam("User", std::string("admin"));
        request.addParam("RemoteAddr", network + std::to_string(++address_ % 250));
        return service_.ask(request).value_or(IPCMessage()).value<std::string>("SessionID");
    }
    std::size_t quarantined() const { return get(SERVICE_STATUS).value<std::size_t>("Quarantined"); }
    std::string firstId() const {
        const std::string list = service_.control({"quarantine", "list"}).output;
        return list.substr(0, 32);
    }
    void scan() const { service_.control({"scan", "--act", service_.file("samples")}); }
    static std::size_t filesIn(const fs::path& folder) {
        return static_cast<std::size_t>(std::distance(fs::directory_iterator(folder), {}));
    }

    static constexpr int MOST_CALLS = 3000;
    static constexpr const char* PASSWORD = "right password";
    faults::Control* control_ = nullptr;
    int address_ = 0;
};

TEST_F(ServiceFaults, ASettingThatWasAcknowledgedIsStoredAndOneThatWasNotIsNot) {
    const auto read = [this] { return this->read<NORVManualScanConfig>(MANUAL_SCAN_CONFIG, "ManualScanConfig"); };
    auto record = read();
    int number = 0;
    std::string stored = record.excludePatterns;
    bool saved = false;
    sweep(
        [&] {
            record.excludePatterns = "*." + std::to_string(++number);
            saved = store(MANUAL_SCAN_CONFIG, "ManualScanConfig", record).result == 1;
        },
        [&] {
            const std::string now = read().excludePatterns;
            EXPECT_EQ(saved ? record.excludePatterns : stored, saved || now == stored ? now : stored);
            stored = now;
        });
    service_.crash();
    ASSERT_TRUE(service_.start());
    EXPECT_EQ(read().excludePatterns, stored);
}

TEST_F(ServiceFaults, ALogOnWorksAfterOneThatFailed) {
    sweep([this] { logOn("192.0.2."); }, [this] { EXPECT_NE(logOn("198.51.100."), ""); });
}

TEST_F(ServiceFaults, AFindIsInOnePlaceAndComesBackOrGoesInTheEnd) {
    auto record = read<NORVManualScanConfig>(MANUAL_SCAN_CONFIG, "ManualScanConfig");
    record.universeAction = "2-2";
    ASSERT_EQ(store(MANUAL_SCAN_CONFIG, "ManualScanConfig", record).result, 1);
    const fs::path bad = service_.file("samples") / "bad.com";
    const auto make = [&] {
        writeFile(bad, std::string("X5O!P%@AP[4\\PZX54(P^)7CC)7}$") + "EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*");
    };
    make();
    sweep([this] { scan(); },
          [&] {
              // For want of room it was renamed instead.
              if (fs::exists(bad.string() + ".infected")) fs::rename(bad.string() + ".infected", bad);
              EXPECT_EQ(quarantined(), fs::exists(bad) ? 0U : 1U);
              if (fs::exists(bad)) scan();
              ASSERT_EQ(quarantined(), 1U);
              ASSERT_EQ(ask(IPCMessage::START, QUARANTINE_ITEM, "Id", firstId()).result, 1);
              EXPECT_EQ(filesIn(service_.file("samples")), 1U);
          });
    scan();
    sweep([this] { ask(IPCMessage::START, QUARANTINE_ITEM, "Id", firstId()); },
          [&] {
              EXPECT_EQ(filesIn(service_.file("samples")), fs::exists(bad) ? 1U : 0U);
              if (quarantined() == 1 && !fs::exists(bad)) {
                  EXPECT_EQ(ask(IPCMessage::START, QUARANTINE_ITEM, "Id", firstId()).result, 1);
              }
              ASSERT_TRUE(fs::exists(bad));
              scan();
          });
    sweep([this] { ask(IPCMessage::START, QUARANTINE_TRUST, "Id", firstId()); }, [] {});
    sweep([this] { ask(IPCMessage::STOP, QUARANTINE_ITEM, "Id", firstId()); },
          [&] {
              if (quarantined() == 1) {
                  EXPECT_EQ(ask(IPCMessage::STOP, QUARANTINE_ITEM, "Id", firstId()).result, 1);
              }
              ask(IPCMessage::STOP, QUARANTINE_TRUST, "Sha256",
                  "275a021bbfb6489e54d471899f7db9d1663fc695ec2fe2a2c4538aabf651fd0f");
              make();
              scan();
          });
    service_.crash();
    ASSERT_TRUE(service_.start());
    EXPECT_LE(filesIn(service_.file("state") / "quarantine"), 2 * quarantined());
}

TEST_F(ServiceFaults, AnUpdateThatFailsSaysSoAndTheNextOneGoesThrough) {
    service_.stop();
    const fs::path program = service_.file("freshclam");
    const fs::path signatures = service_.file("state") / "signatures";
    writeFile(program,
              "#!/bin/sh\nprintf 'Keldra.%s:0:*:6b656c64726120\\n' $$ > " + (signatures / "x.ndb").string() + "\n");
    fs::permissions(program, fs::perms::owner_all);
    service_.arguments.insert(service_.arguments.end(), {"--freshclam", program});
    ASSERT_TRUE(service_.start());
    int id = 0;
    const auto update = [&] {
        IPCMessage request(IPCMessage::START, MANUAL_UPDATE);
        request.addParam("RequestID", std::to_string(++id));
        request.addParam("ManualAUConfig", R"({"NORVManualAUConfig":{"components":33}})");
        service_.ask(request);
        for (int i = 0; i < 500 && get(UPDATE_STATUS).value<int>("Running") != 0; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    };
    sweep(update, [&] {
        EXPECT_EQ(get(UPDATE_STATUS).value<int>("Running"), 0);
        update();
        EXPECT_EQ(get(UPDATE_STATUS).value<int>("Succeeded"), 1) << get(UPDATE_STATUS).value<std::string>("Message");
    });
}

TEST_F(ServiceFaults, AReloadThatFailsKeepsTheSignatures) {
    const fs::path more = service_.file("state") / "signatures" / "more.ndb";
    writeFile(more, "Keldra.More:0:*:6b656c64726121\n");
    ::kill(service_.pid(), SIGHUP);
    const auto inUse = [this] { return get(SERVICE_STATUS).value<int>("Signatures"); };
    for (int i = 0; i < 500 && inUse() < 2; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_EQ(inUse(), 2);
    sweep(
        [this] {
            ::kill(service_.pid(), SIGHUP);
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        },
        [&] { EXPECT_EQ(inUse(), 2); });
}

}  // namespace
