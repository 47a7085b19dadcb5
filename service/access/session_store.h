#pragma once

#include "service/base/clock.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>

namespace keldra {

/// How long and how many sessions live.
struct SessionLimits {
    std::int64_t idleSeconds = 1800;
    std::int64_t absoluteSeconds = 43200;
    std::size_t count = 256;  ///< beyond that the one unused longest ends
};

/// What a browser presented with a request.
struct SessionProof {
    std::string id;
    std::string remoteAddress;
    std::string method;       ///< request method as the web server gave it
    std::string headerToken;  ///< the anti-forgery token that came with the form
    std::string cookieToken;  ///< the one that came as cookie
};

/// The console's log-on sessions, kept in a file of its own (0600) so that they outlive the service. The file holds
/// digests of the ids, not the ids. May be used from several threads.
class SessionStore {
public:
    SessionStore(std::filesystem::path file, const Clock& clock, SessionLimits limits = {});

    /// Reads the file; lines that are not understood are dropped.
    void load();
    /// Begins a session for an address. Its id (64 hexadecimal digits) is on disk when this returns; empty when it
    /// could not be made or written.
    std::string create(const std::string& remoteAddress);
    /// Whether the proof belongs to a session that lives; that counts as use of it.
    bool check(const SessionProof& proof);
    /// Ends the session that the proof belongs to. False when `check` would be.
    bool remove(const SessionProof& proof);
    /// Ends the sessions begun before a time, for when the password was changed.
    void endThoseBefore(std::int64_t time);
    /// Drops what has timed out.
    void cleanUp();
    std::size_t size() const;

private:
    struct Session {
        std::int64_t created = 0;
        std::int64_t lastUse = 0;
        std::int64_t lastWritten = 0;
        std::string address;
        std::string token;  ///< digest of the first cookie token seen, empty until then
    };
    using Sessions = std::map<std::string, Session>;  // by digest of the id

    bool alive(const Session& session) const;
    Sessions::iterator find(const SessionProof& proof);
    bool use(Session& session, const SessionProof& proof);
    void dropExpired();
    void makeRoom();
    bool save();

    const std::filesystem::path file_;
    const Clock& clock_;
    const SessionLimits limits_;
    mutable std::mutex mutex_;
    Sessions sessions_;
};

}  // namespace keldra
