#include "norv/crypto.h"
#include "norv/json_value.h"
#include "norv/scan_config.h"
#include "service/base/sha256.h"
#include "tests/faults/own_disk.h"
#include "tests/service/service_test.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <map>
#include <optional>
#include <random>
#include <thread>
#include <vector>

// The service is killed, or its disk's power cut, again and again at random moments while clients do all that it can
// do. What it acknowledged must be there afterwards, and nothing half may be listed. In short a few times; KELDRA_KILLS
// says how many else.

namespace {

using enum IPCMessage::CommandID;
namespace fs = std::filesystem;

constexpr const char* PASSWORD = "right password";
constexpr int FILES = 6;
constexpr int LONGEST_LIFE = 600;  // milliseconds

/// What one client knows of its own thing; `unsure` while an answer is awaited or was lost.
struct Known {
    enum State { NONE, IN_PLACE, PUT_AWAY };
    State state = NONE;
    bool unsure = false;
};

class KillCampaign : public ServiceTest {
protected:
    KillCampaign() {
        const fs::path program = service_.file("freshclam");
        writeFile(program,
                  "#!/bin/sh\ncd $(sed -n 's/^DatabaseDirectory //p' \"${1#*=}\")\n"
                  "printf 'Keldra.%s:0:*:6b656c647261%08x\\n' $$ $$ > x && mv x $$-$(date +%N).ndb\n");
        fs::permissions(program, fs::perms::owner_all);
        service_.arguments.insert(service_.arguments.end(), {"--freshclam", program});
        EXPECT_TRUE(service_.setPassword(PASSWORD));
        EXPECT_TRUE(service_.start());
        EXPECT_EQ(ask(IPCMessage::SET, MANUAL_SCAN_CONFIG, "ManualScanConfig",
                      R"({"NORVManualScanConfig":{"universeAction":"2-2"}})")
                      .result,
                  1);
    }

    static int wantedKills(int usual, int many) {
        if (const char* const wanted = std::getenv("KELDRA_KILLS")) return std::atoi(wanted);
        return std::getenv("KELDRA_LONG_FAULTS") ? many : usual;
    }
    virtual void cut() { service_.crash(); }
    /// Once no client does anything any more.
    virtual void comeBack() {}
    /// Puts something that the service did not write on the disk for good. False when it may not be there.
    virtual bool settle(const fs::path&) { return true; }
    bool make(int file) try {
        writeFile(nameOf(file), contentOf(file));
        return settle(nameOf(file));
    } catch (const std::runtime_error&) {
        return false;
    }
    int random(int below) {
        const std::lock_guard lock(mutex_);
        return std::uniform_int_distribution<int>(0, below - 1)(random_);
    }
    /// 1 done, 2 refused, 0 nobody knows.
    int asked(const IPCMessage& request, IPCMessage& reply) {
        reply = service_.ask(request, std::chrono::seconds(20)).value_or(IPCMessage());
        return reply.result;
    }
    int asked(IPCMessage::Operation operation, IPCMessage::CommandID command, const std::string& name,
              const std::string& value) {
        IPCMessage request(operation, command);
        request.addParam(name, value);
        IPCMessage reply;
        return asked(request, reply);
    }

    // Saves: the number in the settings grows.
    void save() {
        const int number = ++tried_;
        const std::string text = R"({"NORVManualScanConfig":{"excludePatterns":"*.k)" + std::to_string(number) + "\"}}";
        if (asked(IPCMessage::SET, MANUAL_SCAN_CONFIG, "ManualScanConfig", text) == 1) saved_ = number, ++done_;
    }
    void checkSaves() {
        const std::string stored = read<NORVManualScanConfig>(MANUAL_SCAN_CONFIG, "ManualScanConfig").excludePatterns;
        const int number = stored.size() > 3 ? std::stoi(stored.substr(3)) : 0;
        EXPECT_GE(number, saved_) << "an acknowledged save is lost";
        EXPECT_LE(number, tried_);
        saved_ = number;
    }

    // Sessions: begun, and some of them ended.
    IPCMessage proof(IPCMessage::CommandID command, const std::string& id) const {
        IPCMessage request(IPCMessage::SESSION, command);
        request.addParam("SessionID", id);
        request.addParam("RemoteAddr", "192.0.2.7");
        request.addParam("RequestMethod", "GET");
        return request;
    }
    void logOnAndOff() {
        const std::string id = service_.logOn(PASSWORD);
        if (id.empty()) return;
        ++done_;
        sessions_[id] = true;
        if (random(2) == 0) return;
        IPCMessage reply;
        const int result = asked(proof(SESSION_LOGOFF, id), reply);
        if (result == 1) sessions_[id] = false, ++done_;
        if (result == 0) sessions_.erase(id);
    }
    void checkSessions() {
        for (const auto& [id, open] : sessions_) {
            IPCMessage reply;
            EXPECT_EQ(asked(proof(SESSION_CHECK, id), reply), open ? 1 : 2)
                << (open ? "an acknowledged log-on is lost" : "a session that was ended is back");
        }
        for (const auto& [id, open] : sessions_) {
            IPCMessage reply;
            if (open) asked(proof(SESSION_LOGOFF, id), reply);
        }
        sessions_.clear();
    }

    // Files: put away, and then given back or deleted for good. Each has a content of its own.
    std::string nameOf(int file) const { return service_.file("samples") / (std::to_string(file) + ".com"); }
    static std::string contentOf(int file) {
        return std::string("X5O!P%@AP[4\\PZX54(P^)7CC)7}$") + "EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*" +
               std::string(static_cast<std::size_t>(file), ' ');
    }
    std::string idOf(const std::string& path) {
        IPCMessage list;
        if (asked(IPCMessage(IPCMessage::GET, QUARANTINE), list) != 1) return {};
        const JsonDocument items = parseJson(list.value<std::string>("Items"));
        for (const auto& item : items.GetArray())
            if (item["path"].GetString() == path) return item["id"].GetString();
        return {};
    }
    bool scan(const std::string& path) {
        IPCMessage start(IPCMessage::START, PATH_SCAN);
        start.addParam("Paths", path);
        start.addParam("Act", 1);
        IPCMessage reply;
        if (asked(start, reply) != 1) return false;
        IPCMessage status(IPCMessage::GET, MANUAL_SCAN_STATUS);
        status.addParam("RequestID", reply.value<std::string>("RequestID"));
        for (;;) {
            if (asked(status, reply) != 1) return false;
            if (reply.value<int>("Status") != 4) return reply.value<int>("Status") == 3;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    static std::string hashOf(const std::string& content) {
        keldra::Sha256 hash;
        hash.add(content);
        return hash.hex();
    }
    void trustFor(int file, const std::string& id) {
        std::optional<bool>& trusted = trusted_.at(static_cast<std::size_t>(file));
        for (const bool wanted : {true, false}) {
            const int result = wanted ? asked(IPCMessage::START, QUARANTINE_TRUST, "Id", id)
                                      : asked(IPCMessage::STOP, QUARANTINE_TRUST, "Sha256", hashOf(contentOf(file)));
            trusted = result == 1 ? std::optional(wanted) : std::nullopt;
            if (result != 1) return;
            ++done_;
        }
    }
    void checkTrusted() {
        IPCMessage list;
        ASSERT_EQ(asked(IPCMessage(IPCMessage::GET, QUARANTINE_TRUST), list), 1);
        for (int file = 0; file < FILES; ++file) {
            const std::string hash = hashOf(contentOf(file));
            const bool listed = list.value<std::string>("Trusted").find(hash) != std::string::npos;
            auto& trusted = trusted_.at(static_cast<std::size_t>(file));
            EXPECT_EQ(trusted.value_or(listed), listed) << "what was acknowledged of trust is not so";
            if (listed) {
                EXPECT_EQ(asked(IPCMessage::STOP, QUARANTINE_TRUST, "Sha256", hash), 1);
            }
            trusted.reset();
        }
    }
    /// Beside the scans of single files, so that two tasks meet.
    void scanAll() {
        IPCMessage reply;
        asked(IPCMessage(IPCMessage::START, MANUAL_SCAN), reply);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    void useFile(int file) {
        Known& known = files_.at(static_cast<std::size_t>(file));
        const std::string path = nameOf(file);
        if (known.state == Known::NONE) {
            known.unsure = true;
            if (!make(file)) return;
            known = {Known::IN_PLACE, false};
        }
        if (known.state == Known::IN_PLACE) {
            known.unsure = true;
            if (!scan(path) || fs::exists(path)) return;
            known = {Known::PUT_AWAY, false};
            ++done_;
        }
        const std::string id = idOf(path);
        if (id.empty()) return;
        trustFor(file, id);
        const bool restore = random(2) == 0;
        known.unsure = true;
        const int result = asked(restore ? IPCMessage::START : IPCMessage::STOP, QUARANTINE_ITEM, "Id", id);
        if (result == 1) known = {restore ? Known::IN_PLACE : Known::NONE, false}, ++done_;
        if (result == 2) known.unsure = false;
    }
    void checkFiles() {
        IPCMessage list;
        ASSERT_EQ(asked(IPCMessage(IPCMessage::GET, QUARANTINE), list), 1);
        const JsonDocument items = parseJson(list.value<std::string>("Items"));
        std::map<std::string, int> listed;
        const fs::path store = service_.file("state") / "quarantine";
        for (const auto& item : items.GetArray()) {
            ++listed[item["path"].GetString()];
            const std::string content = readFile(store / (std::string(item["id"].GetString()) + ".data"));
            EXPECT_EQ(content.size(), item["size"].GetUint64()) << "half a file is listed";
            EXPECT_EQ(hashOf(content), item["sha256"].GetString());
        }
        std::size_t inStore = 0;
        for (const auto& entry : fs::directory_iterator(store))
            if (entry.path().filename() != "announced") ++inStore;
        EXPECT_EQ(inStore, 2 * items.Size()) << "something lies in quarantine that is not listed";
        std::size_t inPlace = 0;
        for (int file = 0; file < FILES; ++file) {
            SCOPED_TRACE(nameOf(file));
            Known& known = files_.at(static_cast<std::size_t>(file));
            if (known.state == Known::NONE && known.unsure && readFile(nameOf(file)) != contentOf(file))
                fs::remove(nameOf(file));
            const bool there = fs::exists(nameOf(file));
            inPlace += there ? 1 : 0;
            const int places = (there ? 1 : 0) + listed[nameOf(file)];
            const auto found = there ? Known::IN_PLACE : places == 1 ? Known::PUT_AWAY : Known::NONE;
            EXPECT_LE(places, 1) << "a file is doubled";
            if (there) {
                EXPECT_EQ(readFile(nameOf(file)), contentOf(file));
            }
            if (!known.unsure && !(known.state == Known::IN_PLACE && found == Known::PUT_AWAY)) {
                EXPECT_EQ(found, known.state) << "what was acknowledged is not so";
            }
            if (known.state == Known::IN_PLACE) {
                EXPECT_EQ(places, 1) << "a file is lost";
            }
            known = {found, false};
        }
        const auto samples =
            static_cast<std::size_t>(std::distance(fs::directory_iterator(service_.file("samples")), {}));
        EXPECT_EQ(samples, inPlace) << "something was set aside and forgotten";
    }

    void update() {
        IPCMessage request(IPCMessage::START, MANUAL_UPDATE);
        request.addParam("RequestID", std::to_string(++updates_));
        request.addParam("ManualAUConfig", R"({"NORVManualAUConfig":{"components":33}})");
        IPCMessage reply;
        if (asked(request, reply) != 1) return;
        do {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            if (asked(IPCMessage(IPCMessage::GET, UPDATE_STATUS), reply) != 1) return;
        } while (reply.value<int>("Running") != 0);
        if (reply.value<int>("Succeeded") == 1 && reply.value<int>("Installed") == 1) ++installed_, ++done_;
    }
    void checkSignatures() {
        const IPCMessage status = get(SERVICE_STATUS);
        EXPECT_EQ(status.value<std::string>("Database"), "loaded");
        EXPECT_GT(status.value<int>("Signatures"), installed_)
            << "an update that was told of is lost: " << status.value<std::string>("EngineMessage");
    }

    template <typename Work>
    std::jthread client(Work work) {
        return std::jthread([this, work] {
            while (!dead_) work();
        });
    }
    /// Lets all clients work for a while and kills the service in the middle of it.
    void killOnce() {
        dead_ = false;
        std::vector<std::jthread> clients;
        clients.reserve(FILES + 4);
        clients.push_back(client([this] { save(); }));
        clients.push_back(client([this] { logOnAndOff(); }));
        clients.push_back(client([this] { update(); }));
        clients.push_back(client([this] { scanAll(); }));
        for (int file = 0; file < FILES; ++file) clients.push_back(client([this, file] { useFile(file); }));
        std::this_thread::sleep_for(std::chrono::milliseconds(random(LONGEST_LIFE)));
        cut();
        dead_ = true;
    }
    void campaign(int cuts) {
        auto slowest = std::chrono::milliseconds(0);
        for (int cut = 1; cut <= cuts; ++cut) {
            SCOPED_TRACE("cut " + std::to_string(cut));
            killOnce();
            comeBack();
            const auto begin = std::chrono::steady_clock::now();
            ASSERT_TRUE(service_.start()) << service_.printed();
            slowest = std::max(slowest,
                               std::chrono::ceil<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin));
            checkSaves();
            checkSessions();
            checkTrusted();
            checkFiles();
            checkSignatures();
            if (HasFailure()) return;
        }
        std::cout << cuts << " cuts, " << done_ << " acknowledged actions, slowest start " << slowest.count()
                  << " ms\n";
    }

    std::mutex mutex_;
    std::mt19937 random_{std::random_device{}()};
    std::atomic<bool> dead_ = false;
    std::atomic<int> done_ = 0;
    int tried_ = 0;
    int saved_ = 0;
    int updates_ = 0;
    int installed_ = 0;
    std::map<std::string, bool> sessions_;
    std::array<Known, FILES> files_{};
    std::array<std::optional<bool>, FILES> trusted_{};  ///< nothing: nobody knows
};

TEST_F(KillCampaign, WhatWasAcknowledgedIsThereAndNothingHalfIsListed) { campaign(wantedKills(6, 200)); }

/// All that the service has lies on a disk of its own; `GetParam`: what it scans on another one.
class PowerCampaign : public OwnDisk, public KillCampaign, public testing::WithParamInterface<bool> {
protected:
    void SetUp() override {
        if (!mounted()) GTEST_SKIP() << "only root can mount a disk";
        service_.stop();
        if (GetParam()) samples_.emplace(service_.file("samples"));
        sync();
        ASSERT_TRUE(service_.start());
    }
    ~PowerCampaign() override { service_.stop(); }
    void cut() override {
        ::kill(service_.pid(), SIGSTOP);
        cutPower();
        if (samples_) samples_->cutPower();
        service_.crash();
    }
    void comeBack() override {
        EXPECT_TRUE(!samples_ || samples_->unmount());
        EXPECT_TRUE(unmount() && mount());
        EXPECT_TRUE(!samples_ || samples_->mount());
    }
    bool settle(const fs::path& path) override {
        bool settled = true;
        for (const fs::path& one : {path, path.parent_path()}) {
            const int fd = ::open(one.c_str(), O_RDONLY | O_CLOEXEC);
            settled = ::fsync(fd) == 0 && settled;
            ::close(fd);
        }
        return settled;
    }

    std::optional<OwnDisk> samples_;
};

TEST_P(PowerCampaign, WhatWasAcknowledgedIsThereWhenThePowerComesBack) { campaign(wantedKills(3, 100)); }

INSTANTIATE_TEST_SUITE_P(On, PowerCampaign, testing::Bool(),
                         [](const auto& info) { return info.param ? "TwoDisks" : "OneDisk"; });

}  // namespace
