#pragma once

#include <filesystem>

/// A small ext4 in a file in memory, whose power can be cut: what was not synced is lost then.
class OwnDisk {
public:
    /// Mounted where temporary folders are made from now on, or at `where`, for this process and its children.
    OwnDisk();
    explicit OwnDisk(std::filesystem::path where);
    ~OwnDisk();
    OwnDisk(const OwnDisk&) = delete;
    OwnDisk& operator=(const OwnDisk&) = delete;

    /// False where one may not mount.
    bool mounted() const { return mounted_; }
    /// From here on nothing reaches the disk.
    void cutPower() const;
    /// False when somebody still has something open there.
    bool unmount();
    bool mount();

private:
    void make();

    std::filesystem::path image_;
    std::filesystem::path where_;
    bool forTemporaryFiles_ = false;
    bool mounted_ = false;
};
