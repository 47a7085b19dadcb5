#include "tests/harness/hanging_mount.h"

#include <fcntl.h>
#include <linux/fuse.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstring>
#include <string>
#include <utility>

namespace {

constexpr uint64_t FOLDER = FUSE_ROOT_ID;
constexpr uint64_t FILE_INSIDE = 2;

fuse_attr attributesOf(uint64_t node) {
    fuse_attr attributes{};
    attributes.ino = node;
    attributes.size = 10;
    attributes.blocks = 1;
    attributes.mode = node == FOLDER ? S_IFDIR | 0755 : S_IFREG | 0644;
    attributes.nlink = 1;
    return attributes;
}

template <typename Body>
std::string bytesOf(const Body& body) {
    return {reinterpret_cast<const char*>(&body), sizeof body};
}

void answer(int device, uint64_t request, int error, const std::string& body = {}) {
    fuse_out_header head{};
    head.len = static_cast<uint32_t>(sizeof head + body.size());
    head.error = -error;
    head.unique = request;
    const std::string whole = bytesOf(head) + body;
    static_cast<void>(::write(device, whole.data(), whole.size()));
}

void serve(int device, const fuse_in_header& head, const char* argument) {
    switch (head.opcode) {
        case FUSE_INIT: {
            fuse_init_out agreed{};
            agreed.major = FUSE_KERNEL_VERSION;
            agreed.minor = FUSE_KERNEL_MINOR_VERSION;
            agreed.max_write = 4096;
            return answer(device, head.unique, 0, bytesOf(agreed));
        }
        case FUSE_LOOKUP: {
            if (std::strcmp(argument, "hangs") != 0) return answer(device, head.unique, ENOENT);
            fuse_entry_out entry{};
            entry.nodeid = FILE_INSIDE;
            entry.attr = attributesOf(FILE_INSIDE);
            return answer(device, head.unique, 0, bytesOf(entry));
        }
        case FUSE_GETATTR: {
            fuse_attr_out attributes{};
            attributes.attr = attributesOf(head.nodeid);
            return answer(device, head.unique, 0, bytesOf(attributes));
        }
        case FUSE_OPEN:
        case FUSE_FORGET:
        case FUSE_INTERRUPT:
            return;
        default:
            return answer(device, head.unique, ENOSYS);
    }
}

[[noreturn]] void serveForEver(int device) {
    alignas(fuse_in_header) std::array<char, 1 << 16> request{};
    for (;;) {
        const ssize_t length = ::read(device, request.data(), request.size() - 1);
        if (length < static_cast<ssize_t>(sizeof(fuse_in_header))) ::_exit(0);
        request[static_cast<std::size_t>(length)] = '\0';
        fuse_in_header head{};
        std::memcpy(&head, request.data(), sizeof head);
        serve(device, head, request.data() + sizeof head);
    }
}

}  // namespace

HangingMount::HangingMount(std::filesystem::path folder) : folder_(std::move(folder)) {
    const int device = ::open("/dev/fuse", O_RDWR | O_CLOEXEC);
    if (device < 0) return;
    const std::string options = "fd=" + std::to_string(device) + ",rootmode=40000,user_id=0,group_id=0,allow_other";
    if (::mount("hanging", folder_.c_str(), "fuse.hanging", 0, options.c_str()) == 0) {
        server_ = ::fork();
        if (server_ == 0) serveForEver(device);
    }
    ::close(device);
}

HangingMount::~HangingMount() {
    if (server_ <= 0) return;
    ::kill(server_, SIGKILL);
    ::waitpid(server_, nullptr, 0);
    ::umount2(folder_.c_str(), MNT_DETACH);
}
