#include "service/engine/scanner_wire.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace keldra::wire {

namespace {

bool isOdd(char letter) { return letter < ' ' || letter > '~'; }

using ControlSpace = std::array<char, CMSG_SPACE(MOST_DESCRIPTORS * sizeof(int))>;

void keepDescriptors(msghdr& message, std::vector<FileDescriptor>& descriptors) {
    for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr; part = CMSG_NXTHDR(&message, part)) {
        if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) continue;
        const std::size_t count = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (std::size_t i = 0; i < count; ++i) {
            int descriptor = -1;
            std::memcpy(&descriptor, CMSG_DATA(part) + i * sizeof(int), sizeof descriptor);
            descriptors.emplace_back(descriptor);
        }
    }
}

uint32_t markOf(std::span<const char> bytes) {
    uint32_t mark = 0;
    std::memcpy(&mark, bytes.data(), std::min(bytes.size(), sizeof mark));
    return mark;
}

}  // namespace

void put(std::span<char> place, std::string_view text) {
    text = text.substr(0, place.size() - 1);
    std::replace_copy_if(text.begin(), text.end(), place.begin(), isOdd, '?');
    place[text.size()] = '\0';
}

bool take(std::span<const char> place, std::string& text) {
    const auto end = std::find(place.begin(), place.end(), '\0');
    text.assign(place.begin(), end);
    return end != place.end() && std::none_of(text.begin(), text.end(), isOdd);
}

bool send(int channel, std::string_view bytes, std::span<const int> descriptors) {
    iovec content{const_cast<char*>(bytes.data()), bytes.size()};
    alignas(cmsghdr) ControlSpace control{};
    msghdr message{};
    message.msg_iov = &content;
    message.msg_iovlen = 1;
    if (!descriptors.empty()) {
        message.msg_control = control.data();
        message.msg_controllen = CMSG_SPACE(descriptors.size_bytes());
        cmsghdr* const part = CMSG_FIRSTHDR(&message);
        part->cmsg_level = SOL_SOCKET;
        part->cmsg_type = SCM_RIGHTS;
        part->cmsg_len = CMSG_LEN(descriptors.size_bytes());
        std::memcpy(CMSG_DATA(part), descriptors.data(), descriptors.size_bytes());
    }
    ssize_t sent = -1;
    do sent = ::sendmsg(channel, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    while (sent < 0 && errno == EINTR);
    return sent == static_cast<ssize_t>(bytes.size());
}

int receive(int channel, std::span<char> bytes, std::vector<FileDescriptor>& descriptors) {
    iovec content{bytes.data(), bytes.size()};
    alignas(cmsghdr) ControlSpace control{};
    msghdr message{};
    message.msg_iov = &content;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    ssize_t got = -1;
    do got = ::recvmsg(channel, &message, MSG_CMSG_CLOEXEC);
    while (got < 0 && errno == EINTR);
    if (got <= 0) return static_cast<int>(got);
    keepDescriptors(message, descriptors);
    if (static_cast<std::size_t>(got) == bytes.size() && (message.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) == 0 &&
        markOf(bytes) == MARK)
        return 1;
    errno = EBADMSG;
    return -1;
}

}  // namespace keldra::wire
