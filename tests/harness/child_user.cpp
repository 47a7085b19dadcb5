#include "tests/harness/child_user.h"

#include "tests/harness/service_client.h"

#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>

namespace {

[[noreturn]] void askAs(uid_t user, const std::filesystem::path& socket, const std::vector<IPCMessage>& requests,
                        int results) {
    if (::setgroups(0, nullptr) != 0 || ::setgid(user) != 0 || ::setuid(user) != 0) ::_exit(1);
    ServiceClient client(socket);
    for (const IPCMessage& request : requests) {
        const auto reply = client.ask(request);
        if (!reply || ::write(results, &reply->result, sizeof reply->result) < 0) break;
    }
    ::_exit(0);
}

}  // namespace

bool mayBecomeAnotherUser() { return ::geteuid() == 0; }

void openToUsers(const std::filesystem::path& socket) {
    ::chmod(socket.c_str(), 0666);
    ::chmod(socket.parent_path().c_str(), 0755);
}

std::vector<int> resultsAsUser(uid_t user, const std::filesystem::path& socket,
                               const std::vector<IPCMessage>& requests) {
    std::array<int, 2> ends{};
    std::vector<int> results;
    if (::pipe(ends.data()) != 0) return results;
    const pid_t child = ::fork();
    if (child == 0) askAs(user, socket, requests, ends[1]);
    ::close(ends[1]);
    for (int result = 0; ::read(ends[0], &result, sizeof result) == sizeof result;) results.push_back(result);
    ::close(ends[0]);
    ::waitpid(child, nullptr, 0);
    return results;
}
