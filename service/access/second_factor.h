#pragma once

#include "service/base/clock.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace keldra {

/// How things stand with the code that is asked for beside the password.
struct SecondFactorStatus {
    bool on = false;
    std::size_t recoveryCodes = 0;  ///< that are left
    std::string trouble{};          ///< English: why it cannot be told; nobody may log on then
};

/// The second step of a log-on: a code of an authenticator app, or one of some recovery codes that work once each. The
/// file (0600) holds the secret and digests of the recovery codes; others may remove it at any time, which switches the
/// second step off. May be used from several threads.
class SecondFactor {
public:
    static constexpr std::size_t RECOVERY_CODES = 8;
    static constexpr std::int64_t PATIENCE = 600;  ///< seconds between `begin` and `confirm`

    SecondFactor(std::filesystem::path file, const Clock& clock) : file_(std::move(file)), clock_(clock) {}

    SecondFactorStatus status() const;
    /// A new secret in base32, which counts once a code shows that an app has it. Empty when there is no randomness.
    std::string begin();
    /// Switches the second step on when `code` is one of the secret that was begun last. `recovery`: its recovery
    /// codes, told this once. Returns what is wrong, or nothing.
    std::string confirm(const std::string& code, std::vector<std::string>& recovery);
    /// Whether `code` is right now. None is right twice. `trouble`: English, why nothing could be compared.
    bool check(const std::string& code, std::string& trouble);
    /// Switches the second step off. Returns what is wrong, or nothing.
    std::string remove();

private:
    /// What the file holds.
    struct Record {
        std::vector<unsigned char> secret{};
        std::int64_t step = 0;  ///< the last one whose code was used
        std::vector<std::string> recovery{};
    };
    struct Begun {
        std::vector<unsigned char> secret;
        std::int64_t until = 0;  ///< milliseconds of the steady clock
    };

    std::optional<Record> read(std::string& trouble) const;
    std::string write(const Record& record) const;
    /// The time step of a code that is right now and later than `last`; 0 when there is none.
    std::int64_t stepOf(const std::string& code, const std::vector<unsigned char>& secret, std::int64_t last) const;

    const std::filesystem::path file_;
    const Clock& clock_;
    mutable std::mutex mutex_;
    std::optional<Begun> begun_;
    /// What was used and may not stand in the file yet, when the disk is full.
    std::int64_t usedStep_ = 0;
    std::set<std::string> usedCodes_;
};

/// A log-on whose password was right.
struct HalfLogon {
    std::string address;
    std::string mark;  ///< of that password
    std::string user;
};

/// Log-ons whose password was right and whose code is awaited. Bounded: the oldest one is forgotten. May be used from
/// several threads.
class PendingLogons {
public:
    static constexpr std::int64_t PATIENCE = 300;  ///< seconds for the code
    static constexpr std::size_t MOST = 64;

    explicit PendingLogons(const Clock& clock) : clock_(clock) {}

    /// A ticket for the second step, empty when there is no randomness.
    std::string begin(const HalfLogon& logon);
    /// What a ticket was given for, to this address; nothing when there is no such ticket.
    std::optional<HalfLogon> find(const std::string& ticket, const std::string& address);
    /// The ticket is used up.
    void end(const std::string& ticket);

private:
    struct Entry {
        std::string ticket;
        HalfLogon logon;
        std::int64_t until = 0;  ///< milliseconds of the steady clock
    };

    const Clock& clock_;
    std::mutex mutex_;
    std::vector<Entry> entries_;
};

}  // namespace keldra
