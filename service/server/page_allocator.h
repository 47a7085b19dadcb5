#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <memory>
#include <new>

namespace keldra {

/// Takes what is large from the system and gives it back there at once. On the heap, what many connections hold at a
/// time leaves holes between small things that stay, and no whole page to give back.
template <typename T>
struct PageAllocator {
    using value_type = T;

    static constexpr std::size_t LARGE = 4096;  ///< bytes

    PageAllocator() = default;
    template <typename Other>
    PageAllocator(const PageAllocator<Other>& /*other*/) noexcept {}  // NOLINT(google-explicit-constructor)

    T* allocate(std::size_t count) {
        if (count * sizeof(T) < LARGE) return std::allocator<T>().allocate(count);
        void* const pages =
            ::mmap(nullptr, count * sizeof(T), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (pages == MAP_FAILED) throw std::bad_alloc();
        return static_cast<T*>(pages);
    }
    void deallocate(T* pages, std::size_t count) noexcept {
        if (count * sizeof(T) < LARGE) return std::allocator<T>().deallocate(pages, count);
        ::munmap(pages, count * sizeof(T));
    }
    bool operator==(const PageAllocator& /*other*/) const { return true; }
};

}  // namespace keldra
