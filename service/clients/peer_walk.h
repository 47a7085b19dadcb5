#pragma once

#include "service/clients/peer.h"
#include "service/tree/scanned_file.h"

#include <memory>
#include <optional>
#include <stop_token>
#include <string>

namespace keldra {

/// A file that a client named, or that lies in a folder it named: open, or why not.
struct PeerFile {
    std::string path;  ///< as the client would write it
    std::optional<ScannedFile> file;
    std::string fault;  ///< English, without a full stop; empty when the file is open
};

/// Goes through what a client's path leads to with the client's own rights, on a thread of its own that has no others.
/// May be asked from several threads.
class PeerWalk {
public:
    /// `path`: absolute.
    PeerWalk(Peer peer, std::string path);
    ~PeerWalk();
    PeerWalk(const PeerWalk&) = delete;
    PeerWalk& operator=(const PeerWalk&) = delete;

    /// The next file, nothing at the end or when a stop is asked for.
    std::optional<PeerFile> next(const std::stop_token& stop);
    /// Why there is nothing to walk through, empty when there is: known once `next` was called.
    std::string rootFault() const;

private:
    struct State;

    /// Shared with the thread, which is not waited for: a file system that does not answer may hold it for ever.
    const std::shared_ptr<State> state_;
};

}  // namespace keldra
