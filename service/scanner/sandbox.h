#pragma once

#include <sys/types.h>

#include <cstdint>
#include <span>
#include <string>

namespace keldra {

/// Gives up every right that this process does not need: the user and group (numbers, kept when they are this
/// process's already), all capabilities, the way to new ones; what it makes is nobody else's to read. False, with the
/// step in `fault`, when one cannot be given up.
bool giveUpRights(uid_t user, gid_t group, std::string& fault);

/// Keeps the process, for good, from opening files outside of the system's own (for reading), of `readable` (for
/// reading) and of the folder `writable`. False when the kernel cannot do that.
bool confineToFolders(std::span<const int> readable, int writable);

/// What a scanner process may ask of the kernel.
enum class Calls {
    HOST,   ///< what a scan needs, and to start and end workers
    WORKER  ///< what a scan needs
};

/// Lets the kernel refuse, for good, every other call. False when that cannot be had.
bool allowOnly(Calls calls);

/// How a worker is held.
struct WorkerLimits {
    bool background = false;  ///< a lower priority for processor and disk
    uint64_t memory = 0;      ///< bytes of address space, in all
    uint64_t fileSize = 0;    ///< bytes of the largest file it writes
};

/// Sets the limits of a worker that do not change with the file.
void limitWorker(const WorkerLimits& limits);

}  // namespace keldra
