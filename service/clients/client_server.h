#pragma once

#include "service/clients/client_session.h"
#include "service/clients/client_settings.h"

#include <memory>
#include <mutex>
#include <string>

namespace keldra {

/// How scans for other programs are doing.
struct ClientServerState {
    bool running = false;
    std::string problem;  ///< English, empty when all is well
    std::uint64_t connections = 0;
    std::uint64_t scans = 0;  ///< files under scan, or waiting for it
};

/// Lets other programs of the server (Samba, mail, a cloud) have files scanned, over the protocol of clamd. May be used
/// from several threads.
class ClientServer {
public:
    explicit ClientServer(ClientHooks hooks);
    ~ClientServer();
    ClientServer(const ClientServer&) = delete;
    ClientServer& operator=(const ClientServer&) = delete;

    /// Listens by these settings, or not at all. Settings that differ end the connections there are.
    void configure(const ClientSettings& settings);
    void stop();
    ClientServerState state() const;

private:
    class Listener;

    const ClientHooks hooks_;
    mutable std::mutex mutex_;
    std::unique_ptr<Listener> listener_;
    ClientSettings settings_;
    std::string problem_;
};

}  // namespace keldra
