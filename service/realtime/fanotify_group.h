#pragma once

#include "service/base/files.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace keldra {

/// A group of the kernel's file access events. Once closed, all accesses that wait for it go on. May be used from
/// several threads.
class FanotifyGroup {
public:
    /// False with errno set.
    bool open();
    /// Waits for nobody: the kernel's group goes when the last one that is using its descriptor lets go of it.
    void close();
    /// To read from; null once closed.
    std::shared_ptr<const FileDescriptor> descriptor() const;
    /// The arguments are those of fanotify_mark(2); it may wait for a folder's server. False with errno set.
    bool mark(unsigned flags, std::uint64_t mask, int directory, const char* path) const;
    /// Lets the access of an event go on, or refuses it.
    void answer(int fd, bool deny) const;

    /// Why the kernel does not let this process watch file accesses; empty when it does.
    static std::string refusal();

private:
    mutable std::mutex mutex_;
    std::shared_ptr<const FileDescriptor> fd_;
};

}  // namespace keldra
