#include "service/access/second_factor.h"

#include "norv/crypto.h"
#include "norv/json_text.h"
#include "norv/json_value.h"
#include "norv/log.h"
#include "service/access/totp.h"
#include "service/base/files.h"
#include "service/base/sha256.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace keldra {

namespace {

constexpr std::size_t MAX_FILE = 8192;
constexpr unsigned long SECRET_BYTES = 20;
constexpr unsigned long RECOVERY_BYTES = 8;
constexpr std::size_t RECOVERY_LETTERS = 12;
constexpr std::size_t RECOVERY_GROUP = 4;
constexpr unsigned long TICKET_BYTES = 32;

std::string digestOf(const std::string& text) {
    Sha256 hash;
    hash.add(text);
    return hash.hex();
}

/// As people copy it: with blanks and hyphens, in any case of letters.
std::string normalCode(const std::string& typed) {
    std::string code;
    for (const char c : typed)
        if (c != ' ' && c != '-') code += (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
    return code;
}

std::string newRecoveryCode() {
    std::vector<unsigned char> bytes;
    if (!getRandomBytes(RECOVERY_BYTES, bytes)) return {};
    return normalCode(base32Encode(bytes)).substr(0, RECOVERY_LETTERS);
}

std::string grouped(std::string code) {
    for (std::size_t at = RECOVERY_GROUP; at < code.size(); at += RECOVERY_GROUP + 1) code.insert(at, 1, '-');
    return code;
}

}  // namespace

std::optional<SecondFactor::Record> SecondFactor::read(std::string& trouble) const {
    int error = 0;
    const auto text = readFile(file_, MAX_FILE, error);
    if (!text && (error == ENOENT || error == ENOTDIR)) return std::nullopt;
    const JsonDocument json = parseJson(text.value_or(""));
    Record record;
    if (json.IsObject()) {
        record.secret = base32Decode(textOf(json, "secret"));
        record.step = numberOf(json, "step");
        if (const auto list = json.FindMember("recovery"); list != json.MemberEnd())
            readJson(list->value, record.recovery);
    }
    if (record.secret.size() == SECRET_BYTES) return record;
    trouble = text ? "The second step of the log-on cannot be read. Whoever administers this server can switch it off."
                   : "The second step of the log-on cannot be read: " + errorText(error);
    NORV_LOG(NORV_LOG_ERROR, "%s cannot be used: %s", file_.c_str(), text ? "malformed" : errorText(error).c_str());
    return std::nullopt;
}

std::string SecondFactor::write(const Record& record) const {
    JsonText json;
    json.object([&] {
        json.member("secret", base32Encode(record.secret)).member("step", record.step);
        json.member("recovery", record.recovery);
    });
    const WriteResult written = writeFileAtomically(file_, json.text() + "\n", 0600);
    return written ? "" : "The second step cannot be stored: " + errorText(written.error) + ".";
}

std::int64_t SecondFactor::stepOf(const std::string& code, const std::vector<unsigned char>& secret,
                                  std::int64_t last) const {
    const std::int64_t now = clock_.now() / TOTP_SECONDS;
    for (const std::int64_t step : {now, now - 1, now + 1})
        if (step > last && constantTimeEqual(totpCode(secret, step), code)) return step;
    return 0;
}

SecondFactorStatus SecondFactor::status() const {
    const std::lock_guard lock(mutex_);
    SecondFactorStatus status;
    const auto record = read(status.trouble);
    status.on = record.has_value();
    if (record) status.recoveryCodes = record->recovery.size();
    return status;
}

std::string SecondFactor::begin() {
    std::vector<unsigned char> secret;
    if (!getRandomBytes(SECRET_BYTES, secret)) return {};
    const std::lock_guard lock(mutex_);
    begun_ = Begun{secret, clock_.steadyMilliseconds() + PATIENCE * 1000};
    return base32Encode(secret);
}

std::string SecondFactor::confirm(const std::string& code, std::vector<std::string>& recovery) {
    const std::lock_guard lock(mutex_);
    if (!begun_ || clock_.steadyMilliseconds() > begun_->until) return "This took too long. Begin again.";
    const std::int64_t step = stepOf(normalCode(code), begun_->secret, 0);
    if (step == 0) return "That code is wrong. See whether the clocks of this server and of the app are right.";
    Record record{begun_->secret, step, {}};
    std::vector<std::string> codes;
    for (std::size_t i = 0; i < RECOVERY_CODES; ++i) {
        const std::string one = newRecoveryCode();
        if (one.empty()) return "There is no randomness for recovery codes.";
        codes.push_back(grouped(one));
        record.recovery.push_back(digestOf(one));
    }
    if (std::string fault = write(record); !fault.empty()) return fault;
    begun_.reset();
    usedStep_ = step;
    usedCodes_.clear();
    recovery = std::move(codes);
    return {};
}

bool SecondFactor::check(const std::string& code, std::string& trouble) {
    const std::lock_guard lock(mutex_);
    auto record = read(trouble);
    if (!record) return false;
    const std::string typed = normalCode(code);
    const std::string digest = digestOf(typed);
    const std::int64_t step = stepOf(typed, record->secret, std::max(record->step, usedStep_));
    const auto recovery = std::find(record->recovery.begin(), record->recovery.end(), digest);
    if (step > 0)
        record->step = usedStep_ = step;
    else if (recovery != record->recovery.end() && usedCodes_.insert(digest).second)
        record->recovery.erase(recovery);
    else
        return false;
    // A full disk must not lock out whoever comes to make room.
    if (const std::string fault = write(*record); !fault.empty()) NORV_LOG(NORV_LOG_ERROR, "%s", fault.c_str());
    return true;
}

std::string SecondFactor::remove() {
    const std::lock_guard lock(mutex_);
    std::error_code error;
    std::filesystem::remove(file_, error);
    return error ? "The second step cannot be switched off: " + error.message() + "." : "";
}

std::string PendingLogons::begin(const HalfLogon& logon) {
    std::vector<unsigned char> bytes;
    if (!getRandomBytes(TICKET_BYTES, bytes)) return {};
    const std::lock_guard lock(mutex_);
    const std::int64_t now = clock_.steadyMilliseconds();
    std::erase_if(entries_, [now](const Entry& entry) { return entry.until < now; });
    if (entries_.size() >= MOST) entries_.erase(entries_.begin());
    entries_.push_back({bin2hex(bytes), logon, now + PATIENCE * 1000});
    return entries_.back().ticket;
}

std::optional<HalfLogon> PendingLogons::find(const std::string& ticket, const std::string& address) {
    const std::lock_guard lock(mutex_);
    const std::int64_t now = clock_.steadyMilliseconds();
    for (const Entry& entry : entries_)
        if (constantTimeEqual(entry.ticket, ticket) && entry.logon.address == address && entry.until >= now)
            return entry.logon;
    return std::nullopt;
}

void PendingLogons::end(const std::string& ticket) {
    const std::lock_guard lock(mutex_);
    std::erase_if(entries_, [&ticket](const Entry& entry) { return constantTimeEqual(entry.ticket, ticket); });
}

}  // namespace keldra
