#include "service/access/session_store.h"

#include "norv/crypto.h"
#include "norv/log.h"
#include "service/base/files.h"
#include "service/base/sha256.h"

#include <algorithm>
#include <sstream>
#include <vector>

namespace keldra {

namespace {

constexpr std::size_t MAX_SESSION_FILE = std::size_t{1} << 20U;
constexpr std::size_t ID_LENGTH = 64;
/// How far the time of last use on disk may lag behind, in seconds, so that not each request costs a write.
constexpr std::int64_t WRITE_EVERY = 60;
/// Longest address that a session is bound to; any real one is far shorter.
constexpr std::size_t MAX_ADDRESS = 128;

std::string hex(std::string_view text) { return bin2hex({text.begin(), text.end()}); }

std::string digest(const std::string& text) {
    Sha256 hash;
    hash.add(text);
    return hash.hex();
}

bool isId(const std::string& text) {
    return text.size() == ID_LENGTH && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

/// Fields that may be empty are written with a letter in front.
std::string field(const std::string& text) { return "=" + text; }

bool readField(std::istream& in, std::string& text) {
    if (!(in >> text) || text.front() != '=') return false;
    text.erase(0, 1);
    return true;
}

}  // namespace

SessionStore::SessionStore(std::filesystem::path file, const Clock& clock, SessionLimits limits)
    : file_(std::move(file)), clock_(clock), limits_(limits) {}

void SessionStore::load() {
    const std::lock_guard lock(mutex_);
    int error = 0;
    const auto content = readFile(file_, MAX_SESSION_FILE, error);
    sessions_.clear();
    if (!content) return;
    std::istringstream lines(*content);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream in(line);
        std::string id;
        Session session;
        if (in >> id >> session.created >> session.lastUse && readField(in, session.address) &&
            readField(in, session.token) && isId(id))
            sessions_.emplace(id, session);
    }
    dropExpired();
    while (sessions_.size() > limits_.count) makeRoom();
}

bool SessionStore::save() {
    std::ostringstream out;
    for (auto& [id, session] : sessions_) {
        session.lastWritten = session.lastUse;
        out << id << ' ' << session.created << ' ' << session.lastUse << ' ' << field(session.address) << ' '
            << field(session.token) << '\n';
    }
    const auto result = writeFileAtomically(file_, out.str(), 0600);
    if (!result)
        NORV_LOG(NORV_LOG_ERROR, "The sessions could not be saved to %s: %s", file_.c_str(),
                 errorText(result.error).c_str());
    return result.written;
}

std::string SessionStore::create(const std::string& remoteAddress) {
    std::vector<unsigned char> bytes;
    if (remoteAddress.size() > MAX_ADDRESS || !getRandomBytes(ID_LENGTH / 2, bytes)) return {};
    std::string id = bin2hex(bytes);
    const std::string key = digest(id);

    const std::lock_guard lock(mutex_);
    dropExpired();
    if (sessions_.size() >= limits_.count) makeRoom();
    const std::int64_t now = clock_.now();
    sessions_[key] = Session{now, now, now, hex(remoteAddress), ""};
    if (save()) return id;
    sessions_.erase(key);
    return {};
}

bool SessionStore::alive(const Session& session) const {
    const std::int64_t now = clock_.now();
    // A clock that was set back does not prolong a session for ever.
    const auto within = [now](std::int64_t since, std::int64_t limit) {
        return now - since < limit && since - now < limit;
    };
    return within(session.created, limits_.absoluteSeconds) && within(session.lastUse, limits_.idleSeconds);
}

SessionStore::Sessions::iterator SessionStore::find(const SessionProof& proof) {
    if (!isId(proof.id)) return sessions_.end();
    const auto found = sessions_.find(digest(proof.id));
    if (found == sessions_.end()) return found;
    const Session& session = found->second;
    return alive(session) && session.address == hex(proof.remoteAddress) ? found : sessions_.end();
}

/// A request that may change something must carry the token twice; one that shows something must not carry a foreign
/// one.
bool SessionStore::use(Session& session, const SessionProof& proof) {
    const bool onlyShows = proof.method == "GET" || proof.method == "HEAD";
    const std::string cookie = proof.cookieToken.empty() ? "" : digest(proof.cookieToken);
    if (!onlyShows && cookie.empty()) return false;
    if ((!onlyShows || !proof.headerToken.empty()) && !constantTimeEqual(proof.headerToken, proof.cookieToken))
        return false;
    if (cookie.empty()) return true;
    if (!session.token.empty()) return constantTimeEqual(session.token, cookie);
    session.token = cookie;
    session.lastWritten = 0;
    return true;
}

bool SessionStore::check(const SessionProof& proof) {
    const std::lock_guard lock(mutex_);
    const auto found = find(proof);
    if (found == sessions_.end() || !use(found->second, proof)) return false;
    found->second.lastUse = std::max(found->second.lastUse, clock_.now());
    // The session lives on in memory when this write fails; it only ages sooner after a restart.
    if (found->second.lastUse - found->second.lastWritten >= WRITE_EVERY) save();
    return true;
}

bool SessionStore::remove(const SessionProof& proof) {
    const std::lock_guard lock(mutex_);
    const auto found = find(proof);
    if (found == sessions_.end() || !use(found->second, proof)) return false;
    sessions_.erase(found);
    save();
    return true;
}

void SessionStore::endThoseBefore(std::int64_t time) {
    const std::lock_guard lock(mutex_);
    if (std::erase_if(sessions_, [time](const auto& entry) { return entry.second.created < time; }) > 0) save();
}

void SessionStore::cleanUp() {
    const std::lock_guard lock(mutex_);
    const auto before = sessions_.size();
    dropExpired();
    if (sessions_.size() != before) save();
}

std::size_t SessionStore::size() const {
    const std::lock_guard lock(mutex_);
    return sessions_.size();
}

void SessionStore::dropExpired() {
    std::erase_if(sessions_, [this](const auto& entry) { return !alive(entry.second); });
}

void SessionStore::makeRoom() {
    const auto oldest = std::min_element(sessions_.begin(), sessions_.end(), [](const auto& a, const auto& b) {
        return a.second.lastUse < b.second.lastUse;
    });
    if (oldest != sessions_.end()) sessions_.erase(oldest);
}

}  // namespace keldra
