#include "service/clients/client_session.h"

#include "norv/time_text.h"
#include "service/base/sha256.h"
#include "service/clients/peer_walk.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <deque>
#include <exception>
#include <filesystem>
#include <thread>
#include <utility>
#include <vector>

namespace keldra {

namespace {

using Kind = ClamdCommand::Kind;

/// Files of one session, or of one MULTISCAN, that are scanned at a time.
constexpr std::size_t AT_A_TIME = 4;
constexpr std::uint64_t STREAM_STEP = std::uint64_t{1} << 20U;  ///< in which memory is asked for
constexpr const char* NO_MEMORY = "stream: Can't allocate memory ERROR";

std::string versionText(const EngineState& engine) {
    std::string text = "ClamAV " + engine.engineVersion;
    const bool official = !engine.databaseVersion.empty() && engine.databaseVersion.find('.') == std::string::npos;
    if (!official) return text;
    const std::string date = timeText(engine.databaseTime, "%a %b %e %H:%M:%S %Y", TimeZone::UTC);
    return date.empty() ? text : text + "/" + engine.databaseVersion + "/" + date;
}

std::string statistics(const ClientCommons& commons) {
    const std::string scans = std::to_string(commons.scans.taken());
    return "POOLS: 1\n\nSTATE: VALID PRIMARY\nTHREADS: live " + scans + "  idle 0 max " +
           std::to_string(commons.settings.connections) + " idle-timeout 30\nQUEUE: " + scans +
           " items\n\tSTATS 0.000000 \n\nMEMSTATS: heap N/A mmap N/A used N/A free N/A releasable N/A pools 1 "
           "pools_used "
           "0.000M pools_total 0.000M\nEND";
}

std::string faultText(const std::string& fault) {
    if (fault == errorText(EACCES)) return "Access denied. ERROR";
    if (fault == "it is neither a folder nor a regular file") return "Not supported file type ERROR";
    return fault + ". ERROR";
}

/// Empty for a stream, and for a file that has no name any more.
std::string pathOf(int fd) {
    std::error_code error;
    const std::string path = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), error);
    return path.starts_with("/memfd:") || path.ends_with(" (deleted)") ? std::string() : path;
}

bool isFind(const std::string& text) { return text.ends_with(" FOUND"); }

}  // namespace

/// What a client sent of its own; nothing when it did not come.
struct ClientSession::Stream {
    FileDescriptor file;
    std::optional<ClientLimits::Share> memory{};
    std::string content{};  ///< SHA-256 of a stream, hexadecimal
};

/// Does pieces of work on a few threads, and waits for all of them at its end.
class ClientSession::Parallel {
public:
    Parallel() = default;
    Parallel(const Parallel&) = delete;
    Parallel& operator=(const Parallel&) = delete;
    ~Parallel() {
        {
            const std::lock_guard lock(mutex_);
            ended_ = true;
        }
        changed_.notify_all();
    }

    /// Waits while enough is waiting already: so what a client may pile up is bounded.
    void add(std::function<void()> work) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return waiting_.size() < AT_A_TIME; });
        waiting_.push_back(std::move(work));
        if (idle_ == 0 && threads_.size() < AT_A_TIME) threads_.emplace_back([this] { loop(); });
        changed_.notify_all();
    }

private:
    void loop() {
        std::unique_lock lock(mutex_);
        while (true) {
            ++idle_;
            changed_.wait(lock, [this] { return ended_ || !waiting_.empty(); });
            --idle_;
            if (waiting_.empty()) return;
            const auto work = std::move(waiting_.front());
            waiting_.pop_front();
            changed_.notify_all();
            lock.unlock();
            work();
            lock.lock();
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::function<void()>> waiting_;
    std::size_t idle_ = 0;
    bool ended_ = false;
    std::vector<std::jthread> threads_;  ///< joined first, while the rest is still there
};

bool ClientSession::reply(const std::string& prefix, std::string text, char end) {
    return connection_.send(prefix + std::move(text) + end);
}

void ClientSession::run() {
    const auto line = connection_.line(ClientConnection::Clock::now() + commons_.settings.commandTime);
    if (!line) {
        if (connection_.timedOut()) connection_.send("COMMAND READ TIMED OUT\n");
        return;
    }
    const ClamdCommand command = parseClamdCommand(line->text, line->prefixed);
    if (command.kind == Kind::SESSION) return session(line->end);
    once(*line, command);
}

/// What needs no file; nothing for the kinds that scan.
std::optional<std::string> ClientSession::plainAnswer(Kind kind) {
    switch (kind) {
        case Kind::PING:
            return "PONG";
        case Kind::VERSION:
            return versionText(commons_.hooks.engine());
        case Kind::VERSION_COMMANDS:
            return versionText(commons_.hooks.engine()) + "| COMMANDS:" + clamdCommandNames();
        case Kind::STATS:
            return statistics(commons_);
        case Kind::RELOAD:
            return commons_.hooks.reload(), "RELOADING";
        case Kind::SHUTDOWN:
            return "COMMAND UNAVAILABLE";
        case Kind::UNKNOWN:
        case Kind::END:
            return "UNKNOWN COMMAND";
        default:
            return std::nullopt;
    }
}

/// A command outside of a session: one, then the connection ends.
void ClientSession::once(const ClientLine& line, const ClamdCommand& command) {
    if (const auto answer = plainAnswer(command.kind)) {
        reply("", *answer, line.end);
    } else if (command.kind == Kind::STREAM) {
        std::string fault;
        const Stream stream = receiveStream(fault);
        if (stream.file || !fault.empty())
            reply("", stream.file ? "stream: " + scanned(stream.file.get(), "stream", stream.content) : fault,
                  line.end);
        if (!stream.file && fault.empty() && connection_.timedOut()) connection_.send("COMMAND READ TIMED OUT\n");
    } else if (command.kind == Kind::DESCRIPTOR) {
        const auto deadline = ClientConnection::Clock::now() + commons_.settings.commandTime;
        const FileDescriptor file = connection_.descriptor(deadline);
        const std::string name = "fd[" + std::to_string(file.get()) + "]";
        if (file)
            reply("", name + ": " + scanned(file.get(), name), line.end);
        else if (connection_.timedOut())
            connection_.send("COMMAND READ TIMED OUT\n");
    } else if (command.kind == Kind::MULTI_SCAN) {
        scanInParallel(command.path, line.end);
    } else {
        scanPath(command, "", line.end);
    }
}

void ClientSession::session(char /*end*/) {
    Parallel parallel;
    for (unsigned number = 1; !stop_.stop_requested(); ++number) {
        const auto line = connection_.line(ClientConnection::Clock::now() + commons_.settings.commandTime);
        if (!line) {
            if (connection_.timedOut()) connection_.send("COMMAND READ TIMED OUT\n");
            return;
        }
        if (!sessionCommand(parallel, number, *line)) return;
    }
}

/// One command of a session; files are scanned beside the next ones. False when the session ends.
bool ClientSession::sessionCommand(Parallel& parallel, unsigned number, const ClientLine& line) {
    const std::string prefix = std::to_string(number) + ": ";
    const ClamdCommand command = parseClamdCommand(line.text, line.prefixed);
    if (command.kind == Kind::END) return false;
    if (!allowedInSession(command.kind))
        return reply(prefix, "Command invalid inside IDSESSION. ERROR", line.end), false;
    if (const auto answer = plainAnswer(command.kind)) return reply(prefix, *answer, line.end);
    if (command.kind == Kind::SCAN) {
        parallel.add([this, command, prefix, end = line.end] { scanPath(command, prefix, end); });
        return true;
    }
    std::string fault;
    const bool stream = command.kind == Kind::STREAM;
    const auto deadline = ClientConnection::Clock::now() + commons_.settings.commandTime;
    auto file = std::make_shared<Stream>(stream ? receiveStream(fault) : Stream{connection_.descriptor(deadline)});
    if (!file->file && !fault.empty()) reply(prefix, fault, line.end);
    if (!file->file) return false;
    const std::string name = stream ? "stream" : "fd[" + std::to_string(file->file.get()) + "]";
    parallel.add([this, file, name, prefix, end = line.end] {
        reply(prefix, name + ": " + scanned(file->file.get(), name, file->content), end);
    });
    return true;
}

/// Takes a stream into memory. None, with the reply in `fault`, when it is too large; with none when it breaks off.
ClientSession::Stream ClientSession::receiveStream(std::string& fault) {
    const auto patience = commons_.settings.readTime;
    Stream stream{FileDescriptor(::memfd_create("keldra-stream", MFD_CLOEXEC))};
    std::uint64_t size = 0;
    std::uint64_t reserved = 0;
    Sha256 hash;
    const auto store = [&](std::string_view piece) { return hash.add(piece), writeAll(stream.file.get(), piece); };
    const auto refuse = [&](const char* why) { return fault = why, Stream{}; };
    while (stream.file) {
        std::string header;
        const bool came = connection_.read(4, patience, [&](std::string_view piece) { return header += piece, true; });
        if (!came) return {};
        std::uint64_t length = 0;
        for (const char byte : header) length = length << 8U | static_cast<unsigned char>(byte);
        if (length == 0) return stream.content = hash.hex(), std::move(stream);
        size += length;
        if (size > commons_.settings.streamLimit) return refuse("INSTREAM size limit exceeded. ERROR");
        if (size > reserved) {
            reserved = (size + STREAM_STEP - 1) / STREAM_STEP * STREAM_STEP;
            stream.memory.reset();
            if (auto share = commons_.streams.take(peer_.key, reserved)) stream.memory.emplace(std::move(*share));
        }
        if (!stream.memory) return refuse(NO_MEMORY);
        if (!connection_.read(length, patience, store)) return {};
    }
    return refuse(NO_MEMORY);
}

/// A stream is told by its content, a descriptor by the file it leads to.
void ClientSession::report(int fd, const std::string& name, const std::string& content,
                           const ScanResult& result) const {
    const ClientReport told{.client = peer_.name,
                            .user = peer_.user,
                            .address = peer_.uid ? "local" : peer_.name,
                            .process = peer_.process,
                            .name = name,
                            .path = name.starts_with('/') ? name : pathOf(fd),
                            .content = content,
                            .result = result};
    commons_.hooks.report(told);
}

/// What is said of one open file.
std::string ClientSession::scanned(int fd, const std::string& name, const std::string& content) try {
    struct stat status {};
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return "Not a regular file ERROR";
    const auto share = commons_.scans.wait(peer_.key, stop_);
    if (!share) return "the service ends ERROR";
    const ScanResult result = commons_.hooks.scan(fd, name, content, stop_);
    if (result.verdict != Verdict::CLEAN) report(fd, name, content, result);
    if (result.verdict == Verdict::INFECTED)
        return (result.engineName.empty() ? result.signature : result.engineName) + " FOUND";
    const bool incomplete = result.verdict == Verdict::NOT_FULLY_SCANNED;
    if (result.verdict == Verdict::CLEAN || (incomplete && !commons_.settings.refuseIncomplete)) return "OK";
    return result.detail + " ERROR";
} catch (const std::exception& error) {
    return std::string(error.what()) + " ERROR";
}

/// Clean files of a folder are not listed one by one; when there is nothing else to say, one line tells that.
void ClientSession::scanPath(const ClamdCommand& command, const std::string& prefix, char end) {
    PeerWalk walk(peer_, command.path);
    bool quiet = true;
    while (auto file = walk.next(stop_)) {
        const std::string text = file->file ? scanned(file->file->file.get(), file->path) : faultText(file->fault);
        if (text == "OK") continue;
        quiet = false;
        if (!reply(prefix, file->path + ": " + text, end)) return;
        if (isFind(text) && command.kind != Kind::CONT_SCAN) return;
    }
    const std::string fault = walk.rootFault();
    if (!fault.empty()) reply(prefix, command.path + ": File path check failure: " + fault + ". ERROR", end);
    if (fault.empty() && quiet) reply(prefix, command.path + ": OK", end);
}

void ClientSession::scanInParallel(const std::string& path, char end) {
    PeerWalk walk(peer_, path);
    std::atomic<bool> quiet = true;
    {
        std::vector<std::jthread> threads;
        for (std::size_t i = 0; i < AT_A_TIME; ++i) {
            threads.emplace_back([&] {
                while (auto file = walk.next(stop_)) {
                    const std::string text =
                        file->file ? scanned(file->file->file.get(), file->path) : faultText(file->fault);
                    if (text == "OK") continue;
                    quiet = false;
                    if (!reply("", file->path + ": " + text, end)) return;
                }
            });
        }
    }
    const std::string fault = walk.rootFault();
    if (!fault.empty()) reply("", path + ": File path check failure: " + fault + ". ERROR", end);
    if (fault.empty() && quiet) reply("", path + ": OK", end);
}

}  // namespace keldra
