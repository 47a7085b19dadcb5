#pragma once

#include "service/engine/scan_result.h"
#include "service/engine/scanner_host.h"
#include "service/engine/unpack_folder.h"

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string>
#include <vector>

namespace keldra {

/// A scanner process that takes one file at a time.
struct ScannerWorker {
    ScannerWorker(std::shared_ptr<ScannerHost> its, uint32_t itsNumber, const std::string& parent, uid_t user,
                  gid_t group)
        : host(std::move(its)), number(itsNumber), folder(parent, "scan-" + std::to_string(number), user, group) {}

    const std::shared_ptr<ScannerHost> host;
    const uint32_t number;
    UnpackFolder folder;
    FileDescriptor channel;
    std::chrono::steady_clock::time_point since;  ///< when its file was given to it
    std::atomic<bool> tookRoom = false;           ///< ended because it took too much room
};

/// The workers: so many for the real-time scan alone, at the usual priority, so many at a lower one for all others,
/// among which each lane gets its fair share. May be used from any thread.
class ScannerTeam {
public:
    using Worker = std::shared_ptr<ScannerWorker>;

    struct Settings {
        std::string temporaryFolder;  ///< holds the workers' folders
        uid_t user = 0;               ///< whom they run as
        gid_t group = 0;
        unsigned realtime = 4;    ///< workers at most
        unsigned background = 2;  ///< workers at most
        uint64_t room = 0;        ///< bytes that all that is unpacked may take at a time
    };

    explicit ScannerTeam(Settings settings);

    /// A worker for one file; waits until the lane is due. None when a stop is asked for or, with the reason in
    /// `fault`, when none can be started.
    Worker take(ScanLane lane, const std::shared_ptr<ScannerHost>& host, const std::stop_token& stop,
                std::string& fault);
    /// Takes it back after its file; its folder is emptied.
    void giveBack(ScanLane lane, Worker worker);
    /// The same for one that is not to be used again.
    void discard(ScanLane lane, const Worker& worker);

    /// Lets go all workers but those of `host`, the busy ones after their file.
    void keepOnly(const std::shared_ptr<ScannerHost>& host);
    /// Whether any is at work.
    bool busy() const;
    /// Ends the one that takes most room, when all together take too much.
    void watchRoom();

private:
    struct Group {
        unsigned limit = 0;
        unsigned count = 0;  ///< workers there are, or are being made
        std::vector<Worker> idle;
        std::array<unsigned, 5> running{};  ///< by lane
        /// By lane, who came first in front. Each is woken by himself: to wake all costs more than many a scan.
        std::array<std::deque<std::condition_variable_any*>, 5> waiting{};
    };

    Group& groupOf(ScanLane lane) { return lane == ScanLane::REALTIME ? realtime_ : background_; }
    static bool isDue(const Group& group, ScanLane lane);
    static void wakeFirst(const Group& group);
    static void keepIdle(Group& group, Worker worker) noexcept;
    Worker idleOf(Group& group, const std::shared_ptr<ScannerHost>& host);
    Worker make(ScanLane lane, const std::shared_ptr<ScannerHost>& host, std::string& fault);
    void keepSpare(const std::shared_ptr<ScannerHost>& host);

    const Settings settings_;
    mutable std::mutex mutex_;
    Group realtime_;
    Group background_;
    std::vector<Worker> busy_;
    std::shared_ptr<ScannerHost> current_;
    std::atomic<uint32_t> next_ = 0;
};

}  // namespace keldra
