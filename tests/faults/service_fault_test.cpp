#include "norv/au_config.h"
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
#include <iostream>
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
        std::vector<Kind> kinds{{faults::FILES, EIO}, {faults::FILES, ENOSPC}, {faults::GETS, EMFILE}};
        if (std::getenv("KELDRA_LONG_FAULTS")) kinds.push_back({faults::bit(faults::Call::MEMORY), ENOMEM});
        for (const Kind kind : kinds) {
            int unheard = 0;  // how many calls there are is not always the same
            int n = 1;
            for (; unheard < 3 && n < MOST_CALLS; n = next(n)) {
                SCOPED_TRACE("call " + std::to_string(n) + ", error " + std::to_string(kind.error));
                control_->arm(kind.calls, n, kind.error);
                work();
                unheard = control_->disarm() ? 0 : unheard + 1;
                ASSERT_TRUE(service_.running()) << service_.printed();
                ASSERT_EQ(get(SERVICE_STATUS).result, 1);
                // What was begun goes on although its reply found no memory.
                if (kind.error == ENOMEM) std::this_thread::sleep_for(std::chrono::milliseconds(300));
                check();
                if (HasFailure()) return;
            }
            std::cout << "calls up to " << n << " failed with " << kind.error << "\n";
        }
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
    static constexpr const char* HASH = "275a021bbfb6489e54d471899f7db9d1663fc695ec2fe2a2c4538aabf651fd0f";
    faults::Control* control_ = nullptr;
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
    // From an address that is known, which nobody else's failures touch.
    const auto logOn = [this] { return service_.logOn(PASSWORD); };
    ASSERT_NE(logOn(), "");
    sweep(logOn, [&] { EXPECT_NE(logOn(), ""); });
}

TEST_F(ServiceFaults, ALogOffThatWasAcknowledgedHoldsForGood) {
    const auto session = [this](IPCMessage::CommandID command, const std::string& id) {
        IPCMessage request(IPCMessage::SESSION, command);
        request.addParam("SessionID", id);
        request.addParam("RemoteAddr", "192.0.2.7");
        request.addParam("RequestMethod", "GET");
        return service_.ask(request).value_or(IPCMessage()).result;
    };
    std::vector<std::string> ended;
    std::string id = service_.logOn(PASSWORD);
    bool done = false;
    sweep([&] { done = session(SESSION_LOGOFF, id) == 1; },
          [&] {
              if (done) {
                  EXPECT_EQ(session(SESSION_CHECK, id), 2);
                  ended.push_back(id);
              }
              id = service_.logOn(PASSWORD);
              ASSERT_NE(id, "");
          });
    EXPECT_GT(ended.size(), 2U);
    // And on a full disk.
    constexpr int EVERY = 100000;
    control_->arm(faults::bit(faults::Call::WRITE) | faults::bit(faults::Call::FSYNC), 1, ENOSPC, EVERY);
    EXPECT_EQ(session(SESSION_LOGOFF, id), 1);
    ended.push_back(id);
    service_.crash();
    control_->disarm();
    ASSERT_TRUE(service_.start());
    for (const std::string& one : ended) EXPECT_EQ(session(SESSION_CHECK, one), 2);
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
    bool trusted = false;
    sweep([&] { trusted = ask(IPCMessage::START, QUARANTINE_TRUST, "Id", firstId()).result == 1; },
          [&] {
              const bool listed = get(QUARANTINE_TRUST).value<std::string>("Trusted").find(HASH) != std::string::npos;
              EXPECT_TRUE(listed || !trusted);
              EXPECT_EQ(ask(IPCMessage::STOP, QUARANTINE_TRUST, "Sha256", HASH).result, listed ? 1 : 2);
          });
    sweep([this] { ask(IPCMessage::STOP, QUARANTINE_ITEM, "Id", firstId()); },
          [&] {
              if (quarantined() == 1) {
                  EXPECT_EQ(ask(IPCMessage::STOP, QUARANTINE_ITEM, "Id", firstId()).result, 1);
              }
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
    const auto running = [this] {
        const IPCMessage status = get(UPDATE_STATUS);
        return status.result != 1 || status.value<int>("Running") != 0;
    };
    int id = 0;
    const auto update = [&] {
        IPCMessage request(IPCMessage::START, MANUAL_UPDATE);
        request.addParam("RequestID", std::to_string(++id));
        request.addParam("ManualAUConfig", R"({"NORVManualAUConfig":{"components":33}})");
        service_.ask(request);
        // Seldom: each question is some sixty calls more.
        int patience = 100;
        for (bool ended = false; !ended; ended = !running() || --patience == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
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
    const auto loading = [this] {
        const IPCMessage status = get(SERVICE_STATUS);
        return status.result != 1 || status.value<int>("Reloading") != 0;
    };
    sweep(
        [&] {
            ::kill(service_.pid(), SIGHUP);
            std::this_thread::sleep_for(std::chrono::milliseconds(60));
            for (int i = 0; i < 100 && loading(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(20));
        },
        [&] { EXPECT_EQ(inUse(), 2); });
}

}  // namespace
