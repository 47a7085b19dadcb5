#include "service/scanner/host.h"

#include "service/engine/scanner_wire.h"
#include "service/scanner/content_scan.h"
#include "service/scanner/sandbox.h"
#include "service/scanner/worker.h"

#include <clamav.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace keldra {

namespace {

/// Of what a worker may take, the part from which on its end counts as one for want of memory.
constexpr double NEARLY_ALL = 0.7;

std::string ownPath(int descriptor) { return "/proc/self/fd/" + std::to_string(descriptor); }

/// Bytes: all that is mapped, and what of it is in memory.
struct Size {
    uint64_t mapped = 0;
    uint64_t resident = 0;
};

/// Of the process that opened `statm`.
Size sizeOf(const FileDescriptor& statm) {
    std::array<char, 128> text{};
    if (::pread(statm.get(), text.data(), text.size() - 1, 0) <= 0) return {};
    const auto page = static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
    char* rest = nullptr;
    const uint64_t mapped = std::strtoull(text.data(), &rest, 10);
    return {mapped * page, std::strtoull(rest, nullptr, 10) * page};
}

/// Ends the process when keldrad goes while the library works and nobody else listens.
class Watch {
public:
    Watch() : thread_([this] { watch(); }) {}
    ~Watch() {
        const uint64_t one = 1;
        if (::write(done_.get(), &one, sizeof one) < 0) ::_exit(EXIT_FAILURE);
        thread_.join();
    }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

private:
    void watch() const {
        std::array<pollfd, 2> both{pollfd{wire::CHANNEL, 0, 0}, pollfd{done_.get(), POLLIN, 0}};
        while (both[1].revents == 0) {
            ::poll(both.data(), both.size(), -1);
            if ((both[0].revents & (POLLHUP | POLLERR)) != 0) ::_exit(EXIT_SUCCESS);
        }
    }

    const FileDescriptor done_{::eventfd(0, EFD_CLOEXEC)};
    std::thread thread_;
};

struct FreeEngine {
    void operator()(cl_engine* old) const { cl_engine_free(old); }
};

struct Worker {
    uint32_t number;
    uint64_t enough;  ///< bytes: a worker that took so much died of it
};

class Host {
public:
    int serve();

private:
    void load(std::vector<FileDescriptor> descriptors);
    std::string loadFolders(wire::HostNews& news, const std::vector<FileDescriptor>& folders);
    bool confine(const std::vector<FileDescriptor>& descriptors, wire::HostNews& news);
    void fork(const wire::HostOrder& order, const std::vector<FileDescriptor>& descriptors);
    [[noreturn]] void becomeWorker(const wire::HostOrder& order, const std::vector<FileDescriptor>& descriptors,
                                   uint64_t mapped);
    void end(uint32_t worker) const;
    void bury();
    bool obey();

    /// Opened before the folder that it stands in is out of reach.
    const FileDescriptor statm_{::open("/proc/self/statm", O_RDONLY | O_CLOEXEC)};
    std::unique_ptr<cl_engine, FreeEngine> engine_;
    FileDescriptor deaths_;
    std::map<pid_t, Worker> workers_;
    bool confined_ = false;
};

bool Host::confine(const std::vector<FileDescriptor>& descriptors, wire::HostNews& news) {
    std::vector<int> folders;
    for (std::size_t i = 1; i < descriptors.size(); ++i) folders.push_back(descriptors[i].get());
    // The workers' folders lie beside its own.
    const FileDescriptor around(::openat(descriptors.front().get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
    confined_ = confineToFolders(folders, around.get());
    news.confined = confined_ ? 1 : 0;
    return allowOnly(Calls::HOST);
}

/// What is wrong, in words.
std::string Host::loadFolders(wire::HostNews& news, const std::vector<FileDescriptor>& folders) {
    cl_engine* const engine = engine_.get();
    for (std::size_t i = 1; i < folders.size(); ++i) {
        const cl_error_t code =
            cl_load(ownPath(folders[i].get()).c_str(), engine, &news.signatures.at(i - 1), CL_DB_STDOPT);
        if (code == CL_SUCCESS) continue;
        news.failedFolder = static_cast<int32_t>(i - 1);
        return cl_strerror(code);
    }
    const cl_error_t code = cl_engine_compile(engine);
    if (code != CL_SUCCESS) return cl_strerror(code);
    news.databaseVersion = static_cast<uint32_t>(cl_engine_get_num(engine, CL_ENGINE_DB_VERSION, nullptr));
    return {};
}

void Host::load(std::vector<FileDescriptor> descriptors) {
    wire::HostNews news;
    news.kind = wire::HostNews::Kind::LOADED;
    wire::put(news.engineVersion, cl_retver());
    ::dup2(descriptors.front().get(), wire::TEMPORARY);
    const bool held = confine(descriptors, news);
    const Watch watch;
    if (held && initLibrary()) engine_.reset(cl_engine_new());
    std::string fault = held ? "the engine cannot be started" : "the kernel does not hold it to what it needs";
    if (engine_) {
        // The library's own memory of clean files does not know with which options they were found clean.
        cl_engine_set_num(engine_.get(), CL_ENGINE_DISABLE_CACHE, 1);
        cl_engine_set_num(engine_.get(), CL_ENGINE_MAX_RECURSION, ENGINE_RECURSION);
        cl_engine_set_str(engine_.get(), CL_ENGINE_TMPDIR, ownPath(wire::TEMPORARY).c_str());
        askAboutLayers(*engine_);
        fault = loadFolders(news, descriptors);
    }
    news.good = fault.empty() ? 1 : 0;
    news.memory = sizeOf(statm_).resident;
    wire::put(news.text, fault);
    wire::send(wire::CHANNEL, news);
}

void Host::becomeWorker(const wire::HostOrder& order, const std::vector<FileDescriptor>& descriptors, uint64_t mapped) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
    ::dup2(descriptors[0].get(), wire::CHANNEL);
    ::dup2(descriptors[1].get(), wire::TEMPORARY);
    ::close_range(wire::TEMPORARY + 1, ~0U, 0);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    if (confined_ && !confineToFolders({}, wire::TEMPORARY)) ::_exit(EXIT_FAILURE);
    limitWorker({.background = order.background != 0,
                 .memory = mapped + order.largest + order.memory,
                 .fileSize = order.memberSize});
    if (!allowOnly(Calls::WORKER)) ::_exit(EXIT_FAILURE);
    serveScans(*engine_, mapped);
}

void Host::fork(const wire::HostOrder& order, const std::vector<FileDescriptor>& descriptors) {
    if (descriptors.size() != 2) return;
    const Size size = sizeOf(statm_);
    const pid_t pid = ::fork();
    if (pid == 0) becomeWorker(order, descriptors, size.mapped);
    wire::HostNews news;
    news.kind = pid > 0 ? wire::HostNews::Kind::FORKED : wire::HostNews::Kind::EXITED;
    news.worker = order.worker;
    news.pid = pid;
    if (pid > 0)
        workers_[pid] = {order.worker,
                         size.resident + static_cast<uint64_t>(NEARLY_ALL * static_cast<double>(order.memory))};
    else
        wire::put(news.text, errorText(errno));
    wire::send(wire::CHANNEL, news);
}

void Host::end(uint32_t worker) const {
    for (const auto& [pid, known] : workers_)
        if (known.number == worker) ::kill(pid, SIGKILL);
}

/// Tells of the workers that have ended.
void Host::bury() {
    signalfd_siginfo ignored{};
    while (::read(deaths_.get(), &ignored, sizeof ignored) > 0) {
    }
    rusage used{};
    wire::HostNews news;
    news.kind = wire::HostNews::Kind::EXITED;
    while ((news.pid = ::wait4(-1, &news.status, WNOHANG, &used)) > 0) {
        const auto worker = workers_.find(news.pid);
        if (worker == workers_.end()) continue;
        news.worker = worker->second.number;
        news.tookMemory = static_cast<uint64_t>(used.ru_maxrss) * 1024 >= worker->second.enough ? 1 : 0;
        workers_.erase(worker);
        wire::send(wire::CHANNEL, news);
    }
}

/// False at keldrad's end.
bool Host::obey() {
    wire::HostOrder order;
    std::vector<FileDescriptor> descriptors;
    if (wire::receive(wire::CHANNEL, order, descriptors) != 1) return false;
    if (order.kind == wire::HostOrder::Kind::FORK && engine_) fork(order, descriptors);
    if (order.kind == wire::HostOrder::Kind::KILL) end(order.worker);
    return true;
}

int Host::serve() {
    wire::HostOrder order;
    std::vector<FileDescriptor> descriptors;
    if (wire::receive(wire::CHANNEL, order, descriptors) != 1 || order.kind != wire::HostOrder::Kind::LOAD ||
        descriptors.empty() || descriptors.size() > wire::MOST_DESCRIPTORS)
        return EXIT_FAILURE;
    load(std::move(descriptors));
    sigset_t deaths;
    sigemptyset(&deaths);
    sigaddset(&deaths, SIGCHLD);
    ::sigprocmask(SIG_BLOCK, &deaths, nullptr);
    deaths_ = FileDescriptor(::signalfd(-1, &deaths, SFD_CLOEXEC | SFD_NONBLOCK));
    std::array<pollfd, 2> both{pollfd{wire::CHANNEL, POLLIN, 0}, pollfd{deaths_.get(), POLLIN, 0}};
    while (true) {
        if (::poll(both.data(), both.size(), -1) < 0) continue;
        if (both[1].revents != 0) bury();
        if (both[0].revents != 0 && !obey()) break;
    }
    for (const auto& [pid, worker] : workers_) ::kill(pid, SIGKILL);
    // The signatures need not be given back one by one.
    ::_exit(EXIT_SUCCESS);
}

}  // namespace

int serveOrders() { return Host().serve(); }

}  // namespace keldra
