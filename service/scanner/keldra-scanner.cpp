#include "service/base/version.h"
#include "service/engine/scanner_wire.h"
#include "service/scanner/host.h"
#include "service/scanner/sandbox.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>

namespace {

constexpr int STATUS_USAGE = 2;

/// Whether keldrad started it: with a socket of packets as its channel.
bool hasChannel() {
    int type = 0;
    socklen_t length = sizeof type;
    return ::getsockopt(keldra::wire::CHANNEL, SOL_SOCKET, SO_TYPE, &type, &length) == 0 && type == SOCK_SEQPACKET;
}

int usage() {
    std::fputs("keldra-scanner scans files for keldrad, which starts it; it does nothing by itself.\n", stderr);
    return STATUS_USAGE;
}

}  // namespace

/// Arguments: the numbers of the user and the group to run as.
int main(int argc, char** argv) try {
    if (argc == 2 && std::strcmp(argv[1], "--version") == 0)
        return std::printf("keldra-scanner %s\n", keldra::VERSION), 0;
    if (argc != 3 || !hasChannel()) return usage();
    // The number stays taken until there is a folder for it.
    ::close_range(keldra::wire::TEMPORARY, ~0U, 0);
    if (::open("/dev/null", O_RDONLY) != keldra::wire::TEMPORARY) return usage();
    std::signal(SIGHUP, SIG_IGN);
    std::signal(SIGINT, SIG_IGN);
    std::signal(SIGPIPE, SIG_IGN);
    std::string fault;
    if (!keldra::giveUpRights(static_cast<uid_t>(std::stoul(argv[1])), static_cast<gid_t>(std::stoul(argv[2])),
                              fault)) {
        std::fprintf(stderr, "keldra-scanner: %s\n", fault.c_str());
        return EXIT_FAILURE;
    }
    return keldra::serveOrders();
} catch (const std::exception& error) {
    std::fprintf(stderr, "keldra-scanner: %s\n", error.what());
    return EXIT_FAILURE;
}
