#include "tests/faults/fault_control.h"

#include <execinfo.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <exception>
#include <string_view>

// What makes the calls a library to preload: the control lies in a file, and memory can run out.

namespace faults {

namespace {

Control idle;
std::atomic<Control*> current{&idle};

/// Tells where an exception was that nobody caught.
[[noreturn]] void tellWhere() {
    std::array<void*, 40> frames{};
    ::backtrace_symbols_fd(frames.data(), ::backtrace(frames.data(), static_cast<int>(frames.size())), STDERR_FILENO);
    std::abort();
}

/// Only in the service itself, not in what it starts.
__attribute__((constructor)) void attach() {
    const char* const path = std::getenv("KELDRA_FAULT_CONTROL");
    if (!path || std::string_view(program_invocation_short_name) != "keldrad") return;
    const int file = ::open(path, O_RDWR | O_CLOEXEC);
    void* const mapped = ::mmap(nullptr, sizeof(Control), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    ::close(file);
    std::set_terminate(tellWhere);
    if (mapped != MAP_FAILED) current = static_cast<Control*>(mapped);
}

}  // namespace

Control& control() { return *current.load(); }

}  // namespace faults

extern "C" {

void* __libc_malloc(std::size_t size);              // NOLINT(bugprone-reserved-identifier)
void* __libc_realloc(void* old, std::size_t size);  // NOLINT(bugprone-reserved-identifier)

void* malloc(std::size_t size) noexcept { return faults::fails(faults::Call::MEMORY) ? nullptr : __libc_malloc(size); }

void* realloc(void* old, std::size_t size) noexcept {
    return faults::fails(faults::Call::MEMORY) ? nullptr : __libc_realloc(old, size);
}

}  // extern "C"
