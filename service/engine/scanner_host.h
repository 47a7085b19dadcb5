#pragma once

#include "service/base/files.h"
#include "service/engine/scanner_wire.h"
#include "service/engine/signature_files.h"

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace keldra {

/// How scanner processes are started.
struct ScannerProgram {
    std::string path;
    uid_t user = 0;  ///< whom they run as
    gid_t group = 0;
    uint64_t fileSize = 0;    ///< bytes of the largest file that is scanned
    uint64_t memory = 0;      ///< bytes that a worker may take beyond the signatures and the file
    uint64_t memberSize = 0;  ///< bytes of the largest file it may write
};

/// How a worker ended.
struct WorkerEnd {
    int status = 0;  ///< as wait gives it
    bool tookMemory = false;
};

/// A process that holds one set of signatures, and starts workers that share them. What it says is not trusted; a host
/// that talks nonsense is ended. May be used from any thread.
class ScannerHost {
public:
    /// Starts it, without signatures. `alive()` is false when that fails.
    explicit ScannerHost(ScannerProgram program);
    /// Ends the process and its workers, and waits for it, for a second at most.
    ~ScannerHost();
    ScannerHost(const ScannerHost&) = delete;
    ScannerHost& operator=(const ScannerHost&) = delete;

    /// Makes it load these folders, with `temporary` for what it unpacks, and waits for the outcome. Nothing when it
    /// ended meanwhile. Only once.
    std::optional<wire::HostNews> load(const std::vector<SignatureFolder>& folders, int temporary);

    /// A new worker's channel, which may be written to at once; none, with errno set, when it cannot be asked for.
    FileDescriptor startWorker(uint32_t number, bool background, int temporary);
    void killWorker(uint32_t number);
    /// How the worker ended, once it has; nothing when it has not within the time.
    std::optional<WorkerEnd> endOf(uint32_t number, std::chrono::milliseconds patience);

    bool alive() const;
    /// Whether `pid` is this process or one of its workers.
    bool owns(pid_t pid) const;
    /// Bytes of memory that it held when it had loaded its signatures.
    uint64_t memory() const;
    /// Whether the kernel keeps it from other files than those it needs.
    bool confined() const;
    /// Makes it end, without waiting for it.
    void end();

private:
    bool start();
    void listen();
    bool hear(const wire::HostNews& news);
    void bury();

    const ScannerProgram program_;
    FileDescriptor channel_;
    pid_t pid_ = -1;
    mutable std::mutex mutex_;
    std::condition_variable heard_;
    bool alive_ = false;
    std::optional<wire::HostNews> loaded_;
    std::map<uint32_t, pid_t> workers_;
    std::map<uint32_t, WorkerEnd> ends_;
    std::thread listener_;
};

}  // namespace keldra
