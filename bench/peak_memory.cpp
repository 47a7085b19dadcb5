// Runs a command and prints the most memory it had resident, in KiB: peak_memory COMMAND [ARGUMENT]...
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>
#include <cstdio>

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fputs("usage: peak_memory COMMAND [ARGUMENT]...\n", stderr);
        return 2;
    }
    const pid_t child = fork();
    if (child == 0) {
        const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(nowhere, STDOUT_FILENO);
        execvp(argv[1], argv + 1);
        _exit(127);
    }
    int status = 0;
    struct rusage usage {};
    if (child < 0 || wait4(child, &status, 0, &usage) < 0 || !WIFEXITED(status) || WEXITSTATUS(status) == 127) return 1;
    std::printf("%ld\n", usage.ru_maxrss);
    return 0;
}
