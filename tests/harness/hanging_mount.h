#pragma once

#include <sys/types.h>

#include <filesystem>

/// A file system whose program is this one, as an administrator mounts them: a folder with one file, "hangs", that can
/// be looked at and whose opening is never answered. Needs root and a mount namespace of the caller's own.
class HangingMount {
public:
    /// `folder`: an empty one.
    explicit HangingMount(std::filesystem::path folder);
    ~HangingMount();
    HangingMount(const HangingMount&) = delete;
    HangingMount& operator=(const HangingMount&) = delete;

    /// False where the kernel does not offer it.
    bool works() const { return server_ > 0; }

private:
    std::filesystem::path folder_;
    pid_t server_ = -1;
};
