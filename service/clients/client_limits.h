#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>
#include <utility>

namespace keldra {

/// Counts what each client has of something, so that none takes what the others need. May be used from any thread and
/// must outlive what it gave.
class ClientLimits {
public:
    /// What a client has until this goes.
    class Share {
    public:
        Share(ClientLimits& limits, std::string key, std::uint64_t amount)
            : limits_(&limits), key_(std::move(key)), amount_(amount) {}
        Share(Share&& other) noexcept
            : limits_(std::exchange(other.limits_, nullptr)), key_(std::move(other.key_)), amount_(other.amount_) {}
        Share& operator=(Share&&) = delete;
        Share(const Share&) = delete;
        Share& operator=(const Share&) = delete;
        ~Share();

    private:
        ClientLimits* limits_;
        std::string key_;
        std::uint64_t amount_;
    };

    /// `inAll`: what all clients may have together. `each`: one of them.
    ClientLimits(std::uint64_t inAll, std::uint64_t each) : inAll_(inAll), each_(each) {}

    /// A share if it is free now.
    std::optional<Share> take(const std::string& key, std::uint64_t amount = 1);
    /// The same, once it is free; of one client, who asked first comes first. Nothing when a stop is asked for before.
    std::optional<Share> wait(const std::string& key, const std::stop_token& stop);

    std::uint64_t taken() const;

private:
    bool fits(const std::string& key, std::uint64_t amount) const;
    Share give(const std::string& key, std::uint64_t amount);
    void wakeFirst();

    const std::uint64_t inAll_;
    const std::uint64_t each_;
    mutable std::mutex mutex_;
    std::uint64_t taken_ = 0;
    std::map<std::string, std::uint64_t> byClient_;
    /// By client, who came first in front. Each is woken by himself: to wake all costs more than many a scan.
    std::map<std::string, std::deque<std::condition_variable_any*>> waiting_;
};

}  // namespace keldra
