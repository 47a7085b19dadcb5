#include "norv/scan_config.h"
#include "norv/time_text.h"
#include "tests/harness/clamd_client.h"
#include "tests/service/service_test.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

std::string testFile() {
    return std::string("X5O!P%@AP[4\\PZX54(P^)7CC)7}$") + "EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*";
}

/// What nobody has scanned before and costs the engine some time.
std::string newContent(std::size_t size, unsigned seed) {
    std::string text(size, '\0');
    for (char& letter : text) letter = static_cast<char>('a' + (seed = seed * 1664525U + 1013904223U) % 26);
    return text;
}

/// What a process holds.
struct Use {
    long descriptors = 0;
    long mebibytes = 0;
};

Use useOf(pid_t pid) {
    const std::filesystem::path place = "/proc/" + std::to_string(pid);
    Use use;
    use.descriptors = std::distance(std::filesystem::directory_iterator(place / "fd"), {});
    std::ifstream status(place / "status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("VmRSS:")) use.mebibytes = std::stol(line.substr(6)) / 1024;
    return use;
}

/// Times of something done again and again, in milliseconds.
class Times {
public:
    template <typename What>
    void take(int count, What what) {
        for (int i = 0; i < count; ++i) {
            const auto begun = Clock::now();
            what();
            all_.push_back(std::chrono::duration<double, std::milli>(Clock::now() - begun).count());
        }
    }
    double worstOfHundred() {
        std::sort(all_.begin(), all_.end());
        return all_.at(all_.size() * 99 / 100);
    }

private:
    std::vector<double> all_;
};

class ManyClientsTest : public ServiceTest {
protected:
    void SetUp() override {
        std::string text = readFile(service_.file("config.xml"));
        text.replace(text.rfind("</Document>"), std::string::npos,
                     "<Group Type=\"Clients\"><P Name=\"Enabled\" Value=\"1\"/><P Name=\"StreamLimit\" Value=\"8\"/>"
                     "<P Name=\"Connections\" Value=\"60\"/><P Name=\"ConnectionsEach\" Value=\"40\"/>"
                     "<P Name=\"Socket\" Value=\"" +
                         service_.file("clamd.sock").string() + "\"/></Group></Document>");
        writeFile(service_.file("config.xml"), text);
        // A file system of its own in a mount namespace of its own, where that is allowed: for the real-time scan.
        const std::string share = service_.file("samples");
        watched_ = ::unshare(CLONE_NEWNS) == 0 && ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                   ::mount("tmpfs", share.c_str(), "tmpfs", 0, "size=64m") == 0;
        writeFile(service_.file("samples") / "clean", "nothing");
        writeFile(service_.file("samples") / "bad", testFile());
        ASSERT_TRUE(service_.start());
        if (watched_) watch();
    }
    void TearDown() override {
        stop();
        service_.stop();
        ::umount2(service_.file("samples").c_str(), MNT_DETACH);
    }

    void watch() {
        auto record = read<NORVRealtimeScanConfig>(IPCMessage::REALTIME_SCAN_CONFIG, "RealtimeScanConfig");
        record.scanDirection = NORVRealtimeScanConfig::INCOMING;
        record.universeAction = "0-0";
        record.scanPaths = service_.file("samples");
        EXPECT_EQ(store(IPCMessage::REALTIME_SCAN_CONFIG, "RealtimeScanConfig", record).result, 1);
        watched_ = get(IPCMessage::SERVICE_STATUS).value<int>("RealtimeRunning") == 1;
    }
    /// Lets something be done again and again until `stop`.
    template <typename What>
    void keepDoing(What what) {
        threads_.emplace_back([this, what](const std::stop_token& stop) {
            for (unsigned i = 0; !stop.stop_requested(); ++i, ++done_) what(i);
        });
    }
    void stop() {
        for (std::jthread& thread : threads_) thread.request_stop();
        threads_.clear();
    }
    /// Asks what a page asks.
    void askAsPages() const {
        EXPECT_EQ(get(IPCMessage::CONFIG_FILE_STATE).result, 1);
        EXPECT_EQ(get(IPCMessage::SERVICE_STATUS).result, 1);
    }
    /// Has the shares scanned on schedule, in two seconds.
    void scanOnSchedule() const {
        auto record = read<NORVScheduledScanConfig>(IPCMessage::SCHEDULED_SCAN_CONFIG, "ScheduledScanConfig");
        record.frequency = NORVScheduledScanConfig::DAILY;
        record.time = timeText(std::time(nullptr) + 2, "%H:%M:%S");
        record.universeAction = "0-0";
        record.scanPaths = service_.file("samples");
        EXPECT_EQ(store(IPCMessage::SCHEDULED_SCAN_CONFIG, "ScheduledScanConfig", record).result, 1);
    }
    /// Writes a file that is new to the service and opens it, which waits for its scan.
    void openNew() {
        const std::filesystem::path file = service_.file("samples") / ("new" + std::to_string(++files_ % 50));
        writeFile(file, newContent(2000, files_));
        const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
        EXPECT_GE(fd, 0);
        ::close(fd);
    }
    /// An answer must end so.
    static void expectEnd(const std::string& answer, const std::string& end) {
        EXPECT_TRUE(answer.ends_with(end)) << "instead of " << end << ": " << answer;
    }
    /// A file server with files of its own asks, where one is installed.
    void throughSamba() const {
        const std::filesystem::path work = service_.file("samba");
        std::filesystem::remove_all(work);
        writeFile(work / "files" / "bad", testFile());
        writeFile(work / "files" / "clean", "nothing");
        const ProcessResult result = runProgram({.argv = {std::string(SOURCE_DIR) + "/tests/clients/drive", "samba",
                                                          service_.file("clamd.sock"), work / "files", work},
                                                 .environment = {{"PATH", "/usr/sbin:/usr/bin:/sbin:/bin"}},
                                                 .timeout = 120s});
        if (result.status == 77) return std::this_thread::sleep_for(1s);
        EXPECT_NE(result.output.find("read bad NT_STATUS_ACCESS_DENIED"), std::string::npos) << result.output;
        EXPECT_NE(result.output.find("written clean stays"), std::string::npos) << result.output << result.errors;
    }
    double pages() {
        Times times;
        times.take(150, [this] { askAsPages(); });
        return times.worstOfHundred();
    }
    double opens() {
        Times times;
        if (watched_) times.take(150, [this] { openNew(); });
        return watched_ ? times.worstOfHundred() : 0;
    }

    bool watched_ = false;
    unsigned files_ = 0;
    std::atomic<std::size_t> done_ = 0;
    std::vector<std::jthread> threads_;
};

/// Which is kept apart: what the service grants the one must not wait for the others. The bound is loose since the
/// machine that tests has but few processors; what clients really cost is measured by bench/run.
TEST_F(ManyClientsTest, WhoFloodsOrStallsDelaysNeitherPagesNorWhoeverOpensAFile) {
    const ClamdClient client(service_.file("clamd.sock"));
    const double quietPages = pages();
    const double quietOpens = opens();
    for (unsigned i = 0; i < 24; ++i)
        keepDoing([client, i](unsigned turn) { client.stream(newContent(400000, i * 1000 + turn)); });
    for (int i = 0; i < 24; ++i) keepDoing([client](unsigned) { client.stall(300); });
    std::this_thread::sleep_for(500ms);
    const double busyPages = pages();
    const double busyOpens = opens();
    stop();
    std::cout << "99th percentile, ms: pages " << quietPages << " quiet, " << busyPages << " busy; opens " << quietOpens
              << " quiet, " << busyOpens << " busy; " << (watched_ ? "" : "no real-time scan here; ") << done_
              << " clients served\n";
    EXPECT_LT(busyPages, 2 * quietPages + 400);
    EXPECT_LT(busyOpens, 2 * quietOpens + 400);
    EXPECT_TRUE(client.stream(testFile()).ends_with("FOUND"));
}

/// All at once: streams, descriptors, stalls, scans of the shares, pages and file accesses. KELDRA_SOAK_SECONDS makes
/// it as long as one likes.
TEST_F(ManyClientsTest, MemoryAndDescriptorsStayAsTheyAreUnderAllThatIsAskedAtOnce) {
    const char* const wanted = std::getenv("KELDRA_SOAK_SECONDS");
    const std::chrono::seconds length(wanted ? std::atoi(wanted) : 12);
    const ClamdClient client(service_.file("clamd.sock"));
    const std::filesystem::path samples = service_.file("samples");
    for (unsigned i = 0; i < 4; ++i) {
        keepDoing([&, i](unsigned turn) {
            expectEnd(client.stream(newContent(20000, i * 1000000 + turn)), "OK");
            expectEnd(client.stream(testFile()), "FOUND");
        });
        keepDoing([&](unsigned) {
            const int fd = ::open((samples / "clean").c_str(), O_RDONLY | O_CLOEXEC);
            expectEnd(client.descriptor(fd), "OK");
            ::close(fd);
        });
    }
    keepDoing([&](unsigned) { client.stall(50); });
    keepDoing([&](unsigned) { askAsPages(); });
    keepDoing([&](unsigned) {
        const ProcessResult result = service_.control({"scan", samples / "bad", samples / "clean"});
        expectEnd(result.errors + "status " + std::to_string(result.status), "status 1");
        std::this_thread::sleep_for(200ms);
    });
    if (watched_)
        keepDoing([&](unsigned) {
            openNew();
            std::this_thread::sleep_for(5ms);
        });
    keepDoing([&](unsigned turn) {
        if (turn % 30 == 0) scanOnSchedule();
        std::this_thread::sleep_for(1s);
    });
    if (wanted) keepDoing([&](unsigned) { throughSamba(); });
    std::this_thread::sleep_for(length / 3);
    const Use before = useOf(service_.pid());
    for (auto left = length - length / 3; left > 0s; left -= std::min<std::chrono::seconds>(left, 60s)) {
        std::this_thread::sleep_for(std::min<std::chrono::seconds>(left, 60s));
        const Use now = useOf(service_.pid());
        std::cout << done_ << " done, " << now.mebibytes << " MiB, " << now.descriptors << " descriptors" << std::endl;
    }
    stop();
    std::this_thread::sleep_for(1s);
    const Use after = useOf(service_.pid());
    std::cout << done_ << " done; before " << before.mebibytes << " MiB, " << before.descriptors
              << " descriptors; after " << after.mebibytes << " MiB, " << after.descriptors << " descriptors\n";
    EXPECT_GT(done_, 100U);
    EXPECT_NE(get(IPCMessage::SCAN_HISTORY).value<std::string>("Scans").find("scheduled"), std::string::npos);
    EXPECT_LE(after.mebibytes, before.mebibytes + 16);
    EXPECT_LE(after.descriptors, before.descriptors);
}

}  // namespace
