#pragma once

#include "service/base/clock.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

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

/// Who asks: what a page asks by itself, again and again, keeps no session alive.
enum class SessionUse : std::uint8_t { BY_PERSON, BY_PAGE };

/// A session that began, or why none did.
struct SessionStart {
    std::string id{};      ///< 64 hexadecimal digits, empty when none began
    std::string reason{};  ///< English, then
};

/// A session as those see it who may end it. `id` is not what the browser presents and gives nobody the session.
struct SessionInfo {
    std::string id;
    std::string user;  ///< the name that was given at the log-on
    std::string address;
    std::int64_t begun = 0;    ///< seconds since the epoch
    std::int64_t lastUse = 0;  ///< seconds since the epoch
};

/// The console's log-on sessions, kept in a file of its own (0600) so that they outlive the service. The file holds
/// digests of the ids, not the ids. A session belongs to the password it was begun with, told by that password's mark:
/// under another one it is none. Jumps of the clock neither end nor prolong a session while the service runs. May be
/// used from several threads; nobody who asks about a session waits for the disk.
class SessionStore {
public:
    SessionStore(std::filesystem::path file, const Clock& clock, SessionLimits limits = {});

    /// `soon` is called when something should be written before long (by `write`, from another thread), and must not
    /// wait. Set it before the store is used by several.
    void onChange(std::function<void()> soon) { soon_ = std::move(soon); }

    /// Reads the file; lines that are not understood are dropped.
    void load();
    /// Begins a session for an address. It is on disk when this returns with an id.
    SessionStart create(const std::string& remoteAddress, const std::string& passwordMark,
                        const std::string& user = {});
    /// Whether the proof belongs to a session that lives. BY_PERSON: that counts as use of it.
    bool check(const SessionProof& proof, const std::string& passwordMark, SessionUse use = SessionUse::BY_PERSON);
    /// Whether the session with this id still lives.
    bool lives(const std::string& id, const std::string& passwordMark) const;
    /// Whose session this is; empty when there is none with this id.
    std::string userOf(const std::string& id) const;
    /// Ends the session that the proof belongs to. False when `check` would be. It has ended for good, also after a
    /// restart, or `problem` tells that this could not be stored yet.
    bool remove(const SessionProof& proof, const std::string& passwordMark);
    /// The same for one of `list`, by its id there.
    bool end(const std::string& listedId);

    /// Those that live under this password.
    std::vector<SessionInfo> list(const std::string& passwordMark) const;
    /// How `list` names the session with an id.
    static std::string listedId(const std::string& id);
    /// Drops what has timed out or was begun with another password, and writes what is not written yet.
    void cleanUp(const std::string& passwordMark);
    /// Writes what is not written yet.
    void write();
    /// Why the file does not hold what it should, in English; empty when it does. `write` tries again.
    std::string problem() const;
    std::size_t size() const;

private:
    struct Session {
        std::int64_t created = 0;  ///< this and the next two: milliseconds of the steady clock
        std::int64_t lastUse = 0;
        std::int64_t lastWritten = 0;
        std::string address;
        std::string passwordMark;
        std::string token;   ///< digest of the first cookie token seen, empty until then
        std::string user{};  ///< as the address in hexadecimal digits
    };
    using Sessions = std::map<std::string, Session>;  // by digest of the id

    bool alive(const Session& session) const;
    bool readLine(const std::string& line, std::int64_t away);
    Sessions::iterator find(const SessionProof& proof, const std::string& passwordMark);
    bool tokensFit(Session& session, const SessionProof& proof);
    void dropExpired();
    void makeRoom();
    std::string textLocked();
    bool save();
    void saveEnding();
    bool forgetFile();

    const std::filesystem::path file_;
    const Clock& clock_;
    const SessionLimits limits_;
    std::function<void()> soon_;
    std::mutex writing_;  ///< held by who writes the file; taken before the other
    mutable std::mutex mutex_;
    Sessions sessions_;
    std::uint64_t changes_ = 0;  ///< of the sessions
    std::uint64_t written_ = 0;  ///< those of them that the file holds
    std::string problem_;
};

}  // namespace keldra
