#pragma once

#include "service/clients/clamd_command.h"
#include "service/clients/client_connection.h"
#include "service/clients/client_limits.h"
#include "service/clients/client_settings.h"
#include "service/clients/peer.h"
#include "service/engine/scan_engine.h"

#include <functional>
#include <optional>
#include <stop_token>
#include <string>

namespace keldra {

/// A file of a client's of which there is something to tell.
struct ClientReport {
    std::string client;     ///< for people
    std::string user{};     ///< of a local one
    std::string address{};  ///< of a remote one, else "local"
    pid_t process = 0;      ///< of a local one
    std::string name{};     ///< a path, or what the client sent instead
    std::string path{};     ///< of the file, where it has one
    std::string content{};  ///< SHA-256 of what has no path, hexadecimal; empty: not known
    ScanResult result;
};

/// What the sessions need of the service; called from several threads.
struct ClientHooks {
    /// `content`: SHA-256 of a stream, hexadecimal; empty for all else.
    std::function<ScanResult(int fd, const std::string& name, const std::string& content, std::stop_token stop)> scan;
    std::function<void(const ClientReport& report)> report;  ///< of whatever is not clean
    std::function<EngineState()> engine;
    std::function<void()> reload;
};

/// What all sessions share.
struct ClientCommons {
    ClientCommons(ClientSettings wanted, ClientHooks hooked)
        : settings(std::move(wanted)),
          hooks(std::move(hooked)),
          scans(UINT64_MAX, settings.scansEach),
          streams(settings.streamMemory, settings.streamMemory / 2 + 1) {}

    const ClientSettings settings;
    const ClientHooks hooks;
    ClientLimits scans;    ///< files under scan, or waiting for it
    ClientLimits streams;  ///< bytes of streams
};

/// Answers the commands of one connection, as clamd would (docs/clients.md).
class ClientSession {
public:
    ClientSession(ClientCommons& commons, ClientConnection& connection, Peer peer, std::stop_token stop)
        : commons_(commons), connection_(connection), peer_(std::move(peer)), stop_(std::move(stop)) {}

    /// Until the connection ends.
    void run();

private:
    class Parallel;

    void session(char end);
    bool sessionCommand(Parallel& parallel, unsigned number, const ClientLine& line);
    void once(const ClientLine& line, const ClamdCommand& command);
    std::optional<std::string> plainAnswer(ClamdCommand::Kind kind);
    void scanPath(const ClamdCommand& command, const std::string& prefix, char end);
    void scanInParallel(const std::string& path, char end);
    struct Stream;
    Stream receiveStream(std::string& fault);
    std::string scanned(int fd, const std::string& name, const std::string& content = {});
    void report(int fd, const std::string& name, const std::string& content, const ScanResult& result) const;
    bool reply(const std::string& prefix, std::string text, char end);

    ClientCommons& commons_;
    ClientConnection& connection_;
    const Peer peer_;
    const std::stop_token stop_;
};

}  // namespace keldra
