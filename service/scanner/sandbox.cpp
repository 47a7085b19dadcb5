#include "service/scanner/sandbox.h"

#include "service/base/files.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <linux/landlock.h>
#include <sched.h>
#include <seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <memory>

namespace keldra {

namespace {

constexpr int BACKGROUND_NICE = 10;
constexpr uint64_t BACKGROUND_SLICE = 100'000'000;  // nanoseconds, the most that the kernel takes
constexpr int LOW_IO_PRIORITY = (2 << 13) | 7;      // best effort, the lowest level
constexpr rlim_t MOST_DESCRIPTORS = 256;

/// Needs CAP_SETPCAP, which ends with the change of the user; without it nothing is lost, since no new ones can be had.
void boundCapabilities() {
    for (unsigned long one = 0; one <= CAP_LAST_CAP; ++one) ::prctl(PR_CAPBSET_DROP, one, 0, 0, 0);
}

bool dropCapabilities() {
    ::prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0);
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, 2> none{};
    return ::syscall(SYS_capset, &header, none.data()) == 0;
}

bool changeUser(uid_t user, gid_t group) {
    if (::getuid() == user && ::geteuid() == user && ::getgid() == group) return true;
    return ::setgroups(0, nullptr) == 0 && ::setresgid(group, group, group) == 0 && ::setresuid(user, user, user) == 0;
}

constexpr uint64_t READING = LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_READ_DIR;
constexpr uint64_t WRITING = LANDLOCK_ACCESS_FS_WRITE_FILE | LANDLOCK_ACCESS_FS_REMOVE_DIR |
                             LANDLOCK_ACCESS_FS_REMOVE_FILE | LANDLOCK_ACCESS_FS_MAKE_DIR | LANDLOCK_ACCESS_FS_MAKE_REG;
constexpr uint64_t NEVER = LANDLOCK_ACCESS_FS_EXECUTE | LANDLOCK_ACCESS_FS_MAKE_CHAR | LANDLOCK_ACCESS_FS_MAKE_SOCK |
                           LANDLOCK_ACCESS_FS_MAKE_FIFO | LANDLOCK_ACCESS_FS_MAKE_BLOCK | LANDLOCK_ACCESS_FS_MAKE_SYM;

bool allowBelow(int rules, int folder, uint64_t access) {
    const landlock_path_beneath_attr rule{access, folder};
    return ::syscall(SYS_landlock_add_rule, rules, LANDLOCK_RULE_PATH_BENEATH, &rule, 0) == 0;
}

using Filter = std::unique_ptr<void, void (*)(scmp_filter_ctx)>;

bool allow(const Filter& filter, std::span<const int> calls) {
    for (const int call : calls)
        if (seccomp_rule_add(filter.get(), SCMP_ACT_ALLOW, call, 0) != 0) return false;
    return true;
}

constexpr int SCANNING[] = {SCMP_SYS(read),
                            SCMP_SYS(pread64),
                            SCMP_SYS(readv),
                            SCMP_SYS(write),
                            SCMP_SYS(pwrite64),
                            SCMP_SYS(writev),
                            SCMP_SYS(close),
                            SCMP_SYS(close_range),
                            SCMP_SYS(stat),
                            SCMP_SYS(fstat),
                            SCMP_SYS(lstat),
                            SCMP_SYS(newfstatat),
                            SCMP_SYS(statx),
                            SCMP_SYS(lseek),
                            SCMP_SYS(munmap),
                            SCMP_SYS(mremap),
                            SCMP_SYS(madvise),
                            SCMP_SYS(brk),
                            SCMP_SYS(rt_sigaction),
                            SCMP_SYS(rt_sigprocmask),
                            SCMP_SYS(rt_sigreturn),
                            SCMP_SYS(sigaltstack),
                            SCMP_SYS(poll),
                            SCMP_SYS(ppoll),
                            SCMP_SYS(select),
                            SCMP_SYS(recvmsg),
                            SCMP_SYS(sendmsg),
                            SCMP_SYS(exit),
                            SCMP_SYS(exit_group),
                            SCMP_SYS(futex),
                            SCMP_SYS(getrandom),
                            SCMP_SYS(clock_gettime),
                            SCMP_SYS(clock_getres),
                            SCMP_SYS(clock_nanosleep),
                            SCMP_SYS(nanosleep),
                            SCMP_SYS(gettimeofday),
                            SCMP_SYS(time),
                            SCMP_SYS(times),
                            SCMP_SYS(getrusage),
                            SCMP_SYS(sysinfo),
                            SCMP_SYS(uname),
                            SCMP_SYS(getpid),
                            SCMP_SYS(getppid),
                            SCMP_SYS(gettid),
                            SCMP_SYS(getuid),
                            SCMP_SYS(geteuid),
                            SCMP_SYS(getgid),
                            SCMP_SYS(getegid),
                            SCMP_SYS(getcwd),
                            SCMP_SYS(access),
                            SCMP_SYS(faccessat),
                            SCMP_SYS(faccessat2),
                            SCMP_SYS(readlink),
                            SCMP_SYS(readlinkat),
                            SCMP_SYS(rmdir),
                            SCMP_SYS(unlink),
                            SCMP_SYS(unlinkat),
                            SCMP_SYS(rename),
                            SCMP_SYS(renameat),
                            SCMP_SYS(renameat2),
                            SCMP_SYS(ftruncate),
                            SCMP_SYS(fsync),
                            SCMP_SYS(dup),
                            SCMP_SYS(getdents64),
                            SCMP_SYS(umask),
                            SCMP_SYS(sched_yield),
                            SCMP_SYS(sched_getaffinity),
                            SCMP_SYS(statfs),
                            SCMP_SYS(fstatfs),
                            SCMP_SYS(set_robust_list),
                            SCMP_SYS(rseq),
                            SCMP_SYS(restart_syscall),
                            SCMP_SYS(fadvise64),
                            SCMP_SYS(readahead),
                            SCMP_SYS(membarrier)};

constexpr int HOSTING[] = {SCMP_SYS(fork),
                           SCMP_SYS(wait4),
                           SCMP_SYS(waitid),
                           SCMP_SYS(kill),
                           SCMP_SYS(tgkill),
                           SCMP_SYS(prctl),
                           SCMP_SYS(seccomp),
                           SCMP_SYS(signalfd4),
                           SCMP_SYS(setpriority),
                           SCMP_SYS(ioprio_set),
                           SCMP_SYS(landlock_create_ruleset),
                           SCMP_SYS(dup2),
                           SCMP_SYS(landlock_add_rule),
                           SCMP_SYS(dup3),
                           SCMP_SYS(landlock_restrict_self),
                           SCMP_SYS(prlimit64),
                           SCMP_SYS(eventfd2),
                           SCMP_SYS(fcntl),
                           SCMP_SYS(sched_setattr)};

/// Allows `call` where none of `bits` is set in the argument of that number.
bool allowWithout(const Filter& filter, int call, unsigned argument, scmp_datum_t bits) {
    const scmp_arg_cmp none{argument, SCMP_CMP_MASKED_EQ, bits, 0};
    return seccomp_rule_add_array(filter.get(), SCMP_ACT_ALLOW, call, 1, &none) == 0;
}

/// Files and folders, but none that gives its user or group to whoever runs it.
bool allowMaking(const Filter& filter) {
    constexpr scmp_datum_t GIVEN = S_ISUID | S_ISGID;
    return allowWithout(filter, SCMP_SYS(open), 2, GIVEN) && allowWithout(filter, SCMP_SYS(openat), 3, GIVEN) &&
           allowWithout(filter, SCMP_SYS(mkdir), 1, GIVEN) && allowWithout(filter, SCMP_SYS(mkdirat), 2, GIVEN);
}

/// Processes, but in no namespaces of their own.
bool allowCloning(const Filter& filter) {
    constexpr scmp_datum_t NEW =
        CLONE_NEWNS | CLONE_NEWCGROUP | CLONE_NEWUTS | CLONE_NEWIPC | CLONE_NEWUSER | CLONE_NEWPID | CLONE_NEWNET;
    return allowWithout(filter, SCMP_SYS(clone), 0, NEW);
}

bool allowMapping(const Filter& filter) {
    // Memory that was written to never becomes code.
    constexpr scmp_datum_t BOTH = PROT_WRITE | PROT_EXEC;
    for (const scmp_datum_t protection : {scmp_datum_t{0}, scmp_datum_t{PROT_WRITE}, scmp_datum_t{PROT_EXEC}})
        if (seccomp_rule_add(filter.get(), SCMP_ACT_ALLOW, SCMP_SYS(mmap), 1,
                             SCMP_A2(SCMP_CMP_MASKED_EQ, BOTH, protection)) != 0)
            return false;
    return allowWithout(filter, SCMP_SYS(mprotect), 2, PROT_EXEC);
}

bool allowOwn(const Filter& filter) {
    for (const int command : {F_GETFD, F_SETFD, F_GETFL, F_DUPFD, F_DUPFD_CLOEXEC})
        if (seccomp_rule_add(filter.get(), SCMP_ACT_ALLOW, SCMP_SYS(fcntl), 1,
                             SCMP_A1(SCMP_CMP_EQ, static_cast<scmp_datum_t>(command))) != 0)
            return false;
    return seccomp_rule_add(filter.get(), SCMP_ACT_ALLOW, SCMP_SYS(prlimit64), 1, SCMP_A0(SCMP_CMP_EQ, 0)) == 0 &&
           seccomp_rule_add(filter.get(), SCMP_ACT_ALLOW, SCMP_SYS(tgkill), 1,
                            SCMP_A0(SCMP_CMP_EQ, static_cast<scmp_datum_t>(::getpid()))) == 0;
}

void limit(int what, rlim_t most) {
    const rlimit both{most, most};
    ::setrlimit(static_cast<__rlimit_resource>(what), &both);
}

}  // namespace

bool giveUpRights(uid_t user, gid_t group, std::string& fault) {
    ::umask(S_IRWXG | S_IRWXO);
    boundCapabilities();
    if (!changeUser(user, group)) {
        fault = "its user cannot be changed: " + errorText(errno);
    } else if (!dropCapabilities()) {
        fault = "its capabilities cannot be dropped: " + errorText(errno);
    } else if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) != 0) {
        fault = "its rights cannot be limited: " + errorText(errno);
    }
    return fault.empty();
}

bool confineToFolders(std::span<const int> readable, int writable) {
    const landlock_ruleset_attr all{READING | WRITING | NEVER};
    const FileDescriptor rules(static_cast<int>(::syscall(SYS_landlock_create_ruleset, &all, sizeof all, 0)));
    if (!rules || !allowBelow(rules.get(), writable, READING | WRITING)) return false;
    for (const int folder : readable)
        if (!allowBelow(rules.get(), folder, READING)) return false;
    for (const char* const system : {"/usr", "/lib", "/lib64", "/etc", "/sys/devices/system/cpu"}) {
        const FileDescriptor folder(::open(system, O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (folder) allowBelow(rules.get(), folder.get(), READING);
    }
    for (const char* const device : {"/dev/urandom", "/dev/random", "/dev/null", "/dev/zero"}) {
        const FileDescriptor file(::open(device, O_PATH | O_CLOEXEC));
        if (file) allowBelow(rules.get(), file.get(), LANDLOCK_ACCESS_FS_READ_FILE);
    }
    return ::syscall(SYS_landlock_restrict_self, rules.get(), 0) == 0;
}

bool allowOnly(Calls calls) {
    const Filter filter(seccomp_init(SCMP_ACT_ERRNO(EPERM)), seccomp_release);
    // The C library falls back to calls whose arguments can be looked at.
    return filter && seccomp_rule_add(filter.get(), SCMP_ACT_ERRNO(ENOSYS), SCMP_SYS(clone3), 0) == 0 &&
           allow(filter, SCANNING) && allowMaking(filter) && allowMapping(filter) && allowOwn(filter) &&
           (calls == Calls::WORKER || (allow(filter, HOSTING) && allowCloning(filter))) &&
           seccomp_load(filter.get()) == 0;
}

namespace {

/// As linux/sched/types.h has it, which cannot be included beside the C library's header.
struct SchedulingAttributes {
    uint32_t size = sizeof(SchedulingAttributes);
    uint32_t policy = SCHED_OTHER;
    uint64_t flags = 0;
    int32_t nice = BACKGROUND_NICE;
    uint32_t priority = 0;
    uint64_t slice = BACKGROUND_SLICE;  ///< nanoseconds; kernels before 6.12 take no notice
    uint64_t deadline = 0;
    uint64_t period = 0;
};

/// Whoever has a shorter slice than what runs, as all others have, need not wait for its end: a page asked for does
/// not.
void lowerPriority() {
    const SchedulingAttributes attributes;
    if (::syscall(SYS_sched_setattr, 0, &attributes, 0) != 0) ::setpriority(PRIO_PROCESS, 0, BACKGROUND_NICE);
}

}  // namespace

void limitWorker(const WorkerLimits& limits) {
    limit(RLIMIT_CORE, 0);
    limit(RLIMIT_NPROC, 0);
    limit(RLIMIT_NOFILE, MOST_DESCRIPTORS);
    limit(RLIMIT_FSIZE, limits.fileSize);
    limit(RLIMIT_AS, limits.memory);
    if (!limits.background) return;
    lowerPriority();
    ::syscall(SYS_ioprio_set, 1, 0, LOW_IO_PRIORITY);
}

}  // namespace keldra
