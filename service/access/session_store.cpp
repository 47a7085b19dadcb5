#include "service/access/session_store.h"

#include "norv/crypto.h"
#include "norv/log.h"
#include "service/base/files.h"
#include "service/base/sha256.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <sstream>
#include <utility>

namespace keldra {

namespace {

constexpr std::size_t MAX_SESSION_FILE = std::size_t{1} << 20U;
constexpr std::size_t ID_LENGTH = 64;
/// How far the time of last use on disk may lag behind, so that not each request costs a write.
constexpr std::int64_t WRITE_EVERY = 60'000;
/// Longest address that a session is bound to; any real one is far shorter.
constexpr std::size_t MAX_ADDRESS = 128;
constexpr std::size_t MAX_USER = 64;
/// First line of the file, before the time at which it was written.
constexpr const char* HEAD = "sessions-2";

std::string hex(std::string_view text) { return bin2hex({text.begin(), text.end()}); }

std::string unhex(const std::string& text) {
    std::string result;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2)
        result.push_back(static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16)));
    return result;
}

std::string digest(const std::string& text) {
    Sha256 hash;
    hash.add(text);
    return hash.hex();
}

bool isHex(const std::string& text) { return text.find_first_not_of("0123456789abcdef") == std::string::npos; }

bool isId(const std::string& text) { return text.size() == ID_LENGTH && isHex(text); }

/// Fields that may be empty are written with a letter in front.
std::string field(const std::string& text) { return "=" + text; }

bool readField(std::istream& in, std::string& text) {
    if (!(in >> text) || text.front() != '=') return false;
    text.erase(0, 1);
    return isHex(text);
}

}  // namespace

SessionStore::SessionStore(std::filesystem::path file, const Clock& clock, SessionLimits limits)
    : file_(std::move(file)), clock_(clock), limits_(limits) {}

void SessionStore::load() {
    int error = 0;
    const auto content = readFile(file_, MAX_SESSION_FILE, error);
    const std::lock_guard lock(mutex_);
    sessions_.clear();
    if (!content) return;
    std::istringstream lines(*content);
    std::int64_t away = limits_.absoluteSeconds;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream in(line);
        std::string head;
        std::int64_t saved = 0;
        // Set back meanwhile, the clock tells nothing about how long that was.
        if (in >> head >> saved && head == HEAD)
            away = std::max<std::int64_t>(clock_.now() - saved, 0);
        else
            readLine(line, away);
    }
    dropExpired();
    while (sessions_.size() > limits_.count) makeRoom();
}

/// `away`: seconds since the line was written.
bool SessionStore::readLine(const std::string& line, std::int64_t away) {
    std::istringstream in(line);
    std::string id;
    std::int64_t age = 0;
    std::int64_t idle = 0;
    Session session;
    if (!(in >> id >> age >> idle) || !readField(in, session.address) || !readField(in, session.passwordMark) ||
        !readField(in, session.token) || !isId(id) || idle < 0 || age < idle || age > limits_.absoluteSeconds)
        return false;
    // Not there in what older versions wrote.
    if (!readField(in, session.user)) session.user.clear();
    const std::int64_t now = clock_.steadyMilliseconds();
    session.created = now - (age + away) * 1000;
    session.lastUse = session.lastWritten = now - (idle + away) * 1000;
    sessions_.emplace(id, session);
    return true;
}

std::string SessionStore::textLocked() {
    const std::int64_t now = clock_.steadyMilliseconds();
    std::ostringstream out;
    out << HEAD << ' ' << clock_.now() << '\n';
    for (auto& [id, session] : sessions_) {
        session.lastWritten = session.lastUse;
        out << id << ' ' << (now - session.created) / 1000 << ' ' << (now - session.lastUse) / 1000 << ' '
            << field(session.address) << ' ' << field(session.passwordMark) << ' ' << field(session.token) << ' '
            << field(session.user) << '\n';
    }
    return out.str();
}

/// Writes all changes made so far; those of several threads go into the file together.
bool SessionStore::save() {
    std::unique_lock lock(mutex_);
    const std::uint64_t wanted = changes_;
    lock.unlock();
    const std::lock_guard writing(writing_);
    lock.lock();
    if (written_ >= wanted) return true;
    const std::uint64_t version = changes_;
    const std::string text = textLocked();
    lock.unlock();
    const auto result = writeFileAtomically(file_, text, 0600);
    if (!result)
        NORV_LOG(NORV_LOG_ERROR, "The sessions could not be saved to %s: %s", file_.c_str(),
                 errorText(result.error).c_str());
    lock.lock();
    problem_ = result ? "" : "The sessions could not be saved: " + errorText(result.error);
    if (result) written_ = version;
    return result.written;
}

/// A session that has ended must not come back after a restart. Where nothing can be written, a full disk for instance,
/// a file can still be removed: that ends all of them, if the service is started again before it could write.
void SessionStore::saveEnding() {
    if (!save() && forgetFile()) NORV_LOG(NORV_LOG_WARNING, "%s is removed until it can be written", file_.c_str());
}

bool SessionStore::forgetFile() {
    const std::lock_guard writing(writing_);
    if (::unlink(file_.c_str()) != 0 && errno != ENOENT) return false;
    const FileDescriptor folder(::open(file_.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder && ::fsync(folder.get()) == 0;
}

SessionStart SessionStore::create(const std::string& remoteAddress, const std::string& passwordMark,
                                  const std::string& user) {
    std::vector<unsigned char> bytes;
    if (remoteAddress.size() > MAX_ADDRESS) return {.reason = "The browser's address is none."};
    if (!getRandomBytes(ID_LENGTH / 2, bytes)) return {.reason = "There are no random numbers."};
    std::string id = bin2hex(bytes);
    const std::string key = digest(id);
    {
        const std::lock_guard lock(mutex_);
        dropExpired();
        if (sessions_.size() >= limits_.count) makeRoom();
        const std::int64_t now = clock_.steadyMilliseconds();
        sessions_[key] = Session{now, now, now, hex(remoteAddress), passwordMark, "", hex(user.substr(0, MAX_USER))};
        ++changes_;
    }
    if (save()) return {.id = std::move(id)};
    const std::lock_guard lock(mutex_);
    sessions_.erase(key);
    ++changes_;
    return {.reason = problem_};
}

bool SessionStore::alive(const Session& session) const {
    const std::int64_t now = clock_.steadyMilliseconds();
    return now - session.created < limits_.absoluteSeconds * 1000 && now - session.lastUse < limits_.idleSeconds * 1000;
}

bool SessionStore::lives(const std::string& id, const std::string& passwordMark) const {
    if (!isId(id)) return false;
    const std::string key = digest(id);
    const std::lock_guard lock(mutex_);
    const auto found = sessions_.find(key);
    return found != sessions_.end() && alive(found->second) && found->second.passwordMark == passwordMark;
}

std::string SessionStore::userOf(const std::string& id) const {
    if (!isId(id)) return {};
    const std::string key = digest(id);
    const std::lock_guard lock(mutex_);
    const auto found = sessions_.find(key);
    return found == sessions_.end() ? "" : unhex(found->second.user);
}

SessionStore::Sessions::iterator SessionStore::find(const SessionProof& proof, const std::string& passwordMark) {
    if (!isId(proof.id)) return sessions_.end();
    const auto found = sessions_.find(digest(proof.id));
    if (found == sessions_.end()) return found;
    const Session& session = found->second;
    const bool fits =
        alive(session) && session.address == hex(proof.remoteAddress) && session.passwordMark == passwordMark;
    return fits ? found : sessions_.end();
}

/// A request that may change something must carry the token twice; one that shows something must not carry a foreign
/// one.
bool SessionStore::tokensFit(Session& session, const SessionProof& proof) {
    const bool onlyShows = proof.method == "GET" || proof.method == "HEAD";
    const std::string cookie = proof.cookieToken.empty() ? "" : digest(proof.cookieToken);
    if (!onlyShows && cookie.empty()) return false;
    if ((!onlyShows || !proof.headerToken.empty()) && !constantTimeEqual(proof.headerToken, proof.cookieToken))
        return false;
    if (cookie.empty()) return true;
    if (!session.token.empty()) return constantTimeEqual(session.token, cookie);
    session.token = cookie;
    ++changes_;
    return true;
}

bool SessionStore::check(const SessionProof& proof, const std::string& passwordMark, SessionUse use) {
    bool toWrite = false;
    {
        const std::lock_guard lock(mutex_);
        const auto found = find(proof, passwordMark);
        if (found == sessions_.end()) return false;
        Session& session = found->second;
        const std::uint64_t before = changes_;
        if (!tokensFit(session, proof)) return false;
        if (use == SessionUse::BY_PERSON) session.lastUse = clock_.steadyMilliseconds();
        if (session.lastUse - session.lastWritten >= WRITE_EVERY) ++changes_;
        toWrite = changes_ != before;
    }
    // The session lives on in memory when that write fails; it only ages sooner after a restart.
    if (toWrite && soon_) soon_();
    return true;
}

bool SessionStore::remove(const SessionProof& proof, const std::string& passwordMark) {
    {
        const std::lock_guard lock(mutex_);
        const auto found = find(proof, passwordMark);
        if (found == sessions_.end() || !tokensFit(found->second, proof)) return false;
        sessions_.erase(found);
        ++changes_;
    }
    saveEnding();
    return true;
}

bool SessionStore::end(const std::string& listedId) {
    {
        const std::lock_guard lock(mutex_);
        if (sessions_.erase(listedId) == 0) return false;
        ++changes_;
    }
    saveEnding();
    return true;
}

std::vector<SessionInfo> SessionStore::list(const std::string& passwordMark) const {
    std::vector<SessionInfo> result;
    const std::lock_guard lock(mutex_);
    const std::int64_t now = clock_.now();
    const std::int64_t steady = clock_.steadyMilliseconds();
    for (const auto& [id, session] : sessions_) {
        if (!alive(session) || session.passwordMark != passwordMark) continue;
        result.push_back({id, unhex(session.user), unhex(session.address), now - (steady - session.created) / 1000,
                          now - (steady - session.lastUse) / 1000});
    }
    return result;
}

std::string SessionStore::listedId(const std::string& id) { return digest(id); }

void SessionStore::cleanUp(const std::string& passwordMark) {
    {
        const std::lock_guard lock(mutex_);
        const auto ended = [&](const auto& entry) {
            return !alive(entry.second) || entry.second.passwordMark != passwordMark;
        };
        if (std::erase_if(sessions_, ended) > 0) ++changes_;
    }
    write();
}

void SessionStore::write() { save(); }

std::string SessionStore::problem() const {
    const std::lock_guard lock(mutex_);
    return problem_;
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
