#include "service/quarantine/file_attributes.h"

#include "norv/crypto.h"
#include "norv/log.h"

#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <ctime>

namespace keldra {

namespace {

constexpr int64_t NANOSECONDS = 1000000000;
constexpr const char* POSIX_ACCESS = "system.posix_acl_access";
constexpr const char* CAPABILITY = "security.capability";
constexpr mode_t SEALED = 0600;
/// Bytes of names and values; as text in a record half as many again.
constexpr std::size_t MOST_NOTED = std::size_t{4} << 20U;

timespec toTimespec(int64_t nanoseconds) {
    timespec time{};
    time.tv_sec = static_cast<time_t>(nanoseconds / NANOSECONDS);
    time.tv_nsec = static_cast<long>(nanoseconds % NANOSECONDS);
    if (time.tv_nsec < 0) {  // before the epoch
        time.tv_nsec += NANOSECONDS;
        time.tv_sec -= 1;
    }
    return time;
}

/// Whether an attribute decides who may use the file: the kernel's and file servers' access lists.
bool isAccess(std::string_view name) { return name.starts_with("system.") || name == "security.NTACL"; }

/// An access list that the file system itself turns into a mode; a mode set later would change it.
bool makesTheMode(std::string_view name) { return name.starts_with("system.") && name != POSIX_ACCESS; }

/// The result of a call that wants a buffer of the right size, which may grow in between; nothing with errno set.
template <typename Call>
std::optional<std::string> sized(const Call& call) {
    std::string buffer;
    while (true) {
        const ssize_t wanted = call(nullptr, 0);
        if (wanted < 0) return std::nullopt;
        buffer.resize(static_cast<std::size_t>(wanted));
        const ssize_t length = call(buffer.data(), buffer.size());
        if (length < 0 && errno == ERANGE) continue;
        if (length < 0) return std::nullopt;
        buffer.resize(static_cast<std::size_t>(length));
        return buffer;
    }
}

std::optional<std::string> valueOf(int fd, const std::string& name) {
    return sized([&](char* to, std::size_t size) { return ::fgetxattr(fd, name.c_str(), to, size); });
}

/// What is missing by now, not supported or not ours to read is no fault.
bool isHarmless(int error) {
    return error == ENODATA || error == EOPNOTSUPP || error == EPERM || error == EACCES || error == ENOSYS;
}

/// Sets attributes one by one.
class Setter {
public:
    Setter(int fd, const ExtendedAttributes& attributes) : fd_(fd), attributes_(attributes) {}

    /// Those that `wanted` chooses. False, with errno set, when one that decides about access cannot be set.
    template <typename Wanted>
    bool set(const Wanted& wanted) {
        for (const auto& [name, value] : attributes_) {
            if (!wanted(std::string_view(name)) || valueOf(fd_, name) == value) continue;
            if (::fsetxattr(fd_, name.c_str(), value.data(), value.size(), 0) == 0) continue;
            if (isAccess(name) || !isHarmless(errno)) return false;
            lost_ += (lost_.empty() ? "" : ", ") + name;
        }
        return true;
    }
    std::string lost() const { return lost_; }

private:
    int fd_;
    const ExtendedAttributes& attributes_;
    std::string lost_;
};

/// Owner and group; the mode is that of a sealed file before and after.
bool setOwner(int fd, const FileAttributes& attributes) {
    struct stat now {};
    if (::fstat(fd, &now) != 0) return false;
    if ((now.st_mode & 07777U) != SEALED && ::fchmod(fd, SEALED) != 0) return false;
    const bool owned = now.st_uid == attributes.owner && now.st_gid == attributes.group;
    return owned || ::fchown(fd, attributes.owner, attributes.group) == 0;
}

bool setMode(int fd, const FileAttributes& attributes, const ExtendedAttributes& extended) {
    for (const auto& [name, value] : extended) {
        if (makesTheMode(name)) return true;
    }
    return ::fchmod(fd, attributes.mode) == 0;
}

}  // namespace

std::optional<ExtendedAttributes> extendedAttributesOf(int fd) {
    ExtendedAttributes attributes;
    const auto names = sized([fd](char* to, std::size_t size) { return ::flistxattr(fd, to, size); });
    if (!names) return isHarmless(errno) ? std::optional(attributes) : std::nullopt;
    std::size_t taken = 0;
    std::size_t left = 0;
    for (const bool access : {true, false}) {
        for (std::size_t from = 0; from < names->size();) {
            const std::string name = names->c_str() + from;
            from += name.size() + 1;
            if (access != (isAccess(name) || name == CAPABILITY)) continue;
            auto value = valueOf(fd, name);
            if (!value && !isHarmless(errno)) return std::nullopt;
            const std::size_t size = value ? name.size() + value->size() : 0;
            if (size > MOST_NOTED - taken) ++left;
            if (!value || size > MOST_NOTED - taken) continue;
            taken += size;
            attributes[name] = std::move(*value);
        }
    }
    if (left > 0) NORV_LOG(NORV_LOG_WARNING, "a file has too many attributes; %zu of them are not noted", left);
    return attributes;
}

AttributeResult applyAttributes(int fd, const FileAttributes& attributes) {
    const ExtendedAttributes none;
    const ExtendedAttributes& extended = attributes.extended ? *attributes.extended : none;
    Setter setter(fd, extended);
    const std::array<timespec, 2> times{toTimespec(attributes.accessed), toTimespec(attributes.modified)};
    // Programs' own attributes need the right to write, which the service may lack later; a change of the owner takes
    // capabilities away.
    const bool done = setter.set([](std::string_view name) { return !isAccess(name) && name != CAPABILITY; }) &&
                      setOwner(fd, attributes) && setter.set(isAccess) && setMode(fd, attributes, extended) &&
                      setter.set([](std::string_view name) { return name == CAPABILITY; }) &&
                      ::futimens(fd, times.data()) == 0;
    return {done, done ? 0 : errno, setter.lost()};
}

bool dropInheritedAccess(int fd) { return ::fremovexattr(fd, POSIX_ACCESS) == 0 || isHarmless(errno); }

std::string toText(const ExtendedAttributes& attributes) {
    std::string text;
    for (const auto& [name, value] : attributes) text += base64Encode(name) + ":" + base64Encode(value) + ";";
    return text;
}

std::optional<ExtendedAttributes> attributesFromText(std::string_view text) {
    ExtendedAttributes attributes;
    while (!text.empty()) {
        const std::size_t colon = text.find(':');
        const std::size_t end = text.find(';');
        if (end == std::string_view::npos || colon > end) return std::nullopt;
        const auto name = base64Decode(text.substr(0, colon));
        const auto value = base64Decode(text.substr(colon + 1, end - colon - 1));
        if (!name || !value || name->empty()) return std::nullopt;
        attributes[*name] = *value;
        text.remove_prefix(end + 1);
    }
    return attributes;
}

}  // namespace keldra
