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
constexpr std::size_t SITE_BYTES = 6;
constexpr const char* TOO_MANY = "Too many failed attempts from this address. Wait a while.";
constexpr const char* TOO_MANY_IN_ALL = "Too many failed attempts from many addresses. Wait a while.";
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

/// All that one tenant is likely to have: the /24, of IPv6 the /48. Of text that is no address, itself.
std::string neighbourhoodOf(const std::string& key) {
    in_addr four{};
    if (::inet_pton(AF_INET, key.c_str(), &four) == 1) return key.substr(0, key.rfind('.'));
    in6_addr six{};
    if (::inet_pton(AF_INET6, key.substr(0, key.find('/')).c_str(), &six) != 1) return key;
    std::fill(std::begin(six.s6_addr) + SITE_BYTES, std::end(six.s6_addr), std::uint8_t{0});
    std::array<char, INET6_ADDRSTRLEN> text{};
    return ::inet_ntop(AF_INET6, &six, text.data(), text.size());
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

/// When there is no room, an eighth of the others goes, so that not each new address costs a look at all.
LogonGuard::Entry& LogonGuard::entryOf(Entries& entries, const std::string& key) const {
    if (const auto found = entries.find(key); found != entries.end()) return found->second;
    if (entries.size() >= capacity_) {
        std::vector<std::int64_t> times;
        times.reserve(entries.size());
        for (const auto& [address, entry] : entries) times.push_back(entry.last);
        const auto newest = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 8);
        std::nth_element(times.begin(), newest, times.end());
        std::erase_if(entries, [last = *newest, room = times.size() / 8 + 1](const auto& entry) mutable {
            return entry.second.last <= last && room > 0 && room-- > 0;
        });
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

bool LogonGuard::mustWait(const std::string& key) const {
    const auto found = failing_.find(key);
    return found != failing_.end() && waitOf(found->second, clock_.steadyMilliseconds()) > 0;
}

void LogonGuard::count(const std::string& key) {
    const std::int64_t now = clock_.steadyMilliseconds();
    Entry& entry = entryOf(failing_, key);
    if (now - entry.last > FORGET_AFTER * 1000) entry.failures = 0;
    ++entry.failures;
    entry.last = now;
}

std::string LogonGuard::admit(const std::string& address) {
    const std::string key = keyOf(address);
    const std::lock_guard lock(mutex_);
    if (mustWait(key)) return TOO_MANY;
    count(key);
    return {};
}

std::string LogonGuard::admitCode(const std::string& address) {
    const std::string key = keyOf(address);
    const std::lock_guard lock(mutex_);
    if (mustWait(key)) return TOO_MANY;
    if (!known_.contains(key)) {
        Shared& shared = sharedBy(key);
        if (shared.left == 0) return TOO_MANY_IN_ALL;
        --shared.left;
    }
    count(key);
    return {};
}

void LogonGuard::withdraw(const std::string& address) {
    const std::lock_guard lock(mutex_);
    const auto found = failing_.find(keyOf(address));
    if (found == failing_.end()) return;
    if (found->second.failures <= 1)
        failing_.erase(found);
    else
        --found->second.failures;
}

LogonPlace LogonGuard::placeOf(const std::string& address) const {
    const std::string key = keyOf(address);
    const std::lock_guard lock(mutex_);
    const auto found = failing_.find(key);
    return {neighbourhoodOf(key), found == failing_.end() ? 0 : found->second.failures, known_.contains(key)};
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
