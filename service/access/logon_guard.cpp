#include "service/access/logon_guard.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>

namespace keldra {

namespace {

/// Longer than any real address.
constexpr std::size_t MAX_KEY = 128;
constexpr std::size_t NETWORK_BYTES = 8;
constexpr const char* NETWORK_SUFFIX = "/64";
/// This machine's own: any of its users has sixteen million of them.
constexpr const char* LOOPBACK = "127.0.0.1";

struct Network {
    in_addr_t address;
    in_addr_t mask;
};
constexpr Network OWN{0x7f000000, 0xff000000};
constexpr std::array LOCAL_NETWORKS{OWN, Network{0x0a000000, 0xff000000}, Network{0xac100000, 0xfff00000},
                                    Network{0xc0a80000, 0xffff0000}, Network{0xa9fe0000, 0xffff0000}};

bool liesIn(in_addr address, const Network& network) {
    return (ntohl(address.s_addr) & network.mask) == network.address;
}

/// Who has one IPv6 address has the whole network it lies in. Text that is no address stands for itself.
std::string keyOf(std::string address) {
    if (address.ends_with(NETWORK_SUFFIX))
        address.resize(address.size() - std::char_traits<char>::length(NETWORK_SUFFIX));
    in_addr four{};
    if (::inet_pton(AF_INET, address.c_str(), &four) == 1) return liesIn(four, OWN) ? LOOPBACK : address;
    in6_addr six{};
    if (::inet_pton(AF_INET6, address.c_str(), &six) != 1) return address.substr(0, MAX_KEY);
    if (IN6_IS_ADDR_LOOPBACK(&six)) return LOOPBACK;
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (IN6_IS_ADDR_V4MAPPED(&six)) {
        ::inet_ntop(AF_INET, &six.s6_addr[12], text.data(), text.size());
        return keyOf(text.data());
    }
    std::fill(std::begin(six.s6_addr) + NETWORK_BYTES, std::end(six.s6_addr), std::uint8_t{0});
    ::inet_ntop(AF_INET6, &six, text.data(), text.size());
    return std::string(text.data()) + NETWORK_SUFFIX;
}

/// Whether nobody outside of the local network can have such an address.
bool isLocal(const std::string& key) {
    in_addr four{};
    if (::inet_pton(AF_INET, key.c_str(), &four) == 1)
        return std::any_of(LOCAL_NETWORKS.begin(), LOCAL_NETWORKS.end(),
                           [four](const Network& network) { return liesIn(four, network); });
    in6_addr six{};
    const std::string network = key.substr(0, key.find('/'));
    return ::inet_pton(AF_INET6, network.c_str(), &six) == 1 &&
           (IN6_IS_ADDR_LINKLOCAL(&six) || (six.s6_addr[0] & 0xfeU) == 0xfcU);
}

}  // namespace

LogonGuard::LogonGuard(const Clock& clock, std::size_t capacity)
    : clock_(clock), capacity_(capacity), local_{.refilled = clock.steadyMilliseconds()}, others_(local_) {}

std::int64_t LogonGuard::waitAfter(unsigned failures) {
    if (failures < FREE_FAILURES) return 0;
    const unsigned doublings = std::min(failures - FREE_FAILURES, 16U);
    return std::min(std::int64_t{1} << doublings, LONGEST_WAIT) * 1000;
}

/// Milliseconds until the next attempt may be looked at.
std::int64_t LogonGuard::waitOf(const Entry& entry, std::int64_t now) const {
    return std::max<std::int64_t>(entry.last + waitAfter(entry.failures) - now, 0);
}

LogonGuard::Entry& LogonGuard::entryOf(Entries& entries, const std::string& key) const {
    if (const auto found = entries.find(key); found != entries.end()) return found->second;
    if (entries.size() >= capacity_) {
        entries.erase(std::min_element(entries.begin(), entries.end(),
                                       [](const auto& a, const auto& b) { return a.second.last < b.second.last; }));
    }
    return entries[key];
}

void LogonGuard::refill(Shared& shared) const {
    const std::int64_t now = clock_.steadyMilliseconds();
    const std::int64_t back = std::min((now - shared.refilled) / SHARED_REFILL, SHARED_ATTEMPTS - shared.left);
    shared.left += back;
    shared.refilled = shared.left == SHARED_ATTEMPTS ? now : shared.refilled + back * SHARED_REFILL;
}

LogonGuard::Shared& LogonGuard::sharedBy(const std::string& key) {
    Shared& shared = isLocal(key) ? local_ : others_;
    refill(shared);
    return shared;
}

std::string LogonGuard::admit(const std::string& address) {
    const std::string key = keyOf(address);
    const std::lock_guard lock(mutex_);
    const std::int64_t now = clock_.steadyMilliseconds();
    const auto found = failing_.find(key);
    if (found != failing_.end() && waitOf(found->second, now) > 0)
        return "Too many failed attempts from this address. Wait a while.";
    if (!known_.contains(key)) {
        Shared& shared = sharedBy(key);
        if (shared.left == 0) return "Too many failed attempts from many addresses. Wait a while.";
        --shared.left;
    }
    Entry& entry = entryOf(failing_, key);
    if (now - entry.last > FORGET_AFTER * 1000) entry.failures = 0;
    ++entry.failures;
    entry.last = now;
    return {};
}

void LogonGuard::succeeded(const std::string& address) {
    know(address);
    const std::string key = keyOf(address);
    const std::lock_guard lock(mutex_);
    failing_.erase(key);
    Shared& shared = sharedBy(key);
    shared.left = std::min(shared.left + 1, SHARED_ATTEMPTS);
}

void LogonGuard::know(const std::string& address) {
    const std::lock_guard lock(mutex_);
    entryOf(known_, keyOf(address)).last = clock_.steadyMilliseconds();
}

std::vector<LogonBlock> LogonGuard::blocks() const {
    std::vector<LogonBlock> blocks;
    const std::lock_guard lock(mutex_);
    for (const auto& [address, entry] : failing_) {
        const std::int64_t wait = waitOf(entry, clock_.steadyMilliseconds());
        if (wait > 0) blocks.push_back({address, entry.failures, (wait + 999) / 1000});
    }
    std::sort(blocks.begin(), blocks.end(), [](const auto& a, const auto& b) { return a.seconds > b.seconds; });
    return blocks;
}

bool LogonGuard::lift(const std::string& address) {
    const std::string key = keyOf(address);
    const std::lock_guard lock(mutex_);
    const bool others = !known_.contains(key) && sharedBy(key).left == 0;
    if (others) entryOf(known_, key).last = clock_.steadyMilliseconds();
    return failing_.erase(key) > 0 || others;
}

}  // namespace keldra
