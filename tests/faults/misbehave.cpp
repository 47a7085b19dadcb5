#include <dlfcn.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string_view>

// Preloaded into a scanner, it does what a file that took the library over might do. The file's first word says what;
// MISBEHAVE_SCAN says it of every file, MISBEHAVE_LOAD of a load of signatures.

namespace {

constexpr int CHANNEL = 3;
constexpr std::size_t CHUNK = std::size_t{16} << 20U;

void takeMemory() {
    while (void* const chunk = std::malloc(CHUNK)) std::memset(chunk, 1, CHUNK);
    std::abort();
}

/// Tells on standard error what the process was let do, and ends it then. `forks`: it may have children.
void tryToBreakOut(bool forks) {
    const char* const self = "/bin/true";
    char* const arguments[] = {const_cast<char*>(self), nullptr};
    const struct {
        const char* what;
        bool done;
    } tries[] = {{"socket", ::socket(AF_INET, SOCK_STREAM, 0) >= 0},
                 {"local socket", ::socket(AF_UNIX, SOCK_STREAM, 0) >= 0},
                 {"program", (!forks && ::fork() >= 0) || ::execv(self, arguments) == 0},
                 {"user namespace", ::syscall(SYS_clone, CLONE_NEWUSER | SIGCHLD, nullptr, nullptr, nullptr, 0) >= 0},
                 {"other processes", ::open("/proc/1/status", O_RDONLY) >= 0},
                 {"program with its rights", ::open("/proc/self/fd/4/s", O_WRONLY | O_CREAT, S_ISUID | S_IXOTH) >= 0},
                 {"ptrace", ::ptrace(PTRACE_ATTACH, ::getppid(), nullptr, nullptr) == 0},
                 {"signal", ::kill(::getppid(), SIGKILL) == 0},
                 {"user", ::setuid(0) == 0},
                 {"file", ::open("/var/tmp/keldra-broke-out", O_WRONLY | O_CREAT, 0600) >= 0},
                 {"writing what is scanned", ::open("/proc/self/fd/5", O_RDWR) >= 0},
                 {"code", ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1,
                                 0) != MAP_FAILED}};
    for (const auto& one : tries) {
        if (!one.done) continue;
        if (::write(STDERR_FILENO, one.what, std::strlen(one.what)) < 0) std::abort();
        std::abort();
    }
}

void misbehave(std::string_view how) {
    if (how.starts_with("MISBEHAVE-CRASH")) ::raise(SIGSEGV);
    if (how.starts_with("MISBEHAVE-HANG"))
        while (true) ::usleep(100000);
    if (how.starts_with("MISBEHAVE-MEMORY")) takeMemory();
    if (how.starts_with("MISBEHAVE-NONSENSE") && ::write(CHANNEL, "nonsense", 8) < 0) std::abort();
    if (how.starts_with("MISBEHAVE-BREAKOUT")) tryToBreakOut(false);
}

std::string_view variable(const char* name) {
    const char* const value = std::getenv(name);
    return value ? value : "";
}

}  // namespace

extern "C" int cl_load(const char* path, void* engine, unsigned int* count, unsigned int options) {
    const std::string_view how = variable("MISBEHAVE_LOAD");
    if (how.starts_with("MISBEHAVE-BREAKOUT"))
        tryToBreakOut(true);
    else
        misbehave(how);
    using Function = int (*)(const char*, void*, unsigned int*, unsigned int);
    static const auto next = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "cl_load"));
    return next(path, engine, count, options);
}

extern "C" void* cl_fmap_open_memory(const void* start, std::size_t length) {
    misbehave({static_cast<const char*>(start), length});
    misbehave(variable("MISBEHAVE_SCAN"));
    using Function = void* (*)(const void*, std::size_t);
    static const auto next = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "cl_fmap_open_memory"));
    return next(start, length);
}
