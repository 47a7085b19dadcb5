#include "service/tree/kernel_file_systems.h"

#include <linux/magic.h>
#include <sys/vfs.h>

#include <algorithm>
#include <array>
#include <string_view>

namespace keldra {

namespace {

struct KernelFileSystem {
    std::string_view name;
    unsigned long magic;  ///< statfs(2)
};

constexpr unsigned long CONFIGFS_SUPER_MAGIC = 0x62656570;
constexpr unsigned long FUSECTL_SUPER_MAGIC = 0x65735543;
constexpr unsigned long MQUEUE_SUPER_MAGIC = 0x19800202;

constexpr std::array KERNEL_FILE_SYSTEMS{
    KernelFileSystem{"proc", PROC_SUPER_MAGIC},
    KernelFileSystem{"sysfs", SYSFS_MAGIC},
    KernelFileSystem{"cgroup", CGROUP_SUPER_MAGIC},
    KernelFileSystem{"cgroup2", CGROUP2_SUPER_MAGIC},
    KernelFileSystem{"devpts", DEVPTS_SUPER_MAGIC},
    KernelFileSystem{"debugfs", DEBUGFS_MAGIC},
    KernelFileSystem{"tracefs", TRACEFS_MAGIC},
    KernelFileSystem{"securityfs", SECURITYFS_MAGIC},
    KernelFileSystem{"selinuxfs", SELINUX_MAGIC},
    KernelFileSystem{"pstore", PSTOREFS_MAGIC},
    KernelFileSystem{"bpf", BPF_FS_MAGIC},
    KernelFileSystem{"efivarfs", EFIVARFS_MAGIC},
    KernelFileSystem{"nsfs", NSFS_MAGIC},
    KernelFileSystem{"binfmt_misc", BINFMTFS_MAGIC},
    KernelFileSystem{"configfs", CONFIGFS_SUPER_MAGIC},
    KernelFileSystem{"fusectl", FUSECTL_SUPER_MAGIC},
    KernelFileSystem{"mqueue", MQUEUE_SUPER_MAGIC},
};

}  // namespace

bool isKernelFileSystem(int fd) {
    struct statfs info {};
    if (::fstatfs(fd, &info) != 0) return false;
    const auto magic = static_cast<unsigned long>(info.f_type) & 0xffffffffUL;
    return std::any_of(KERNEL_FILE_SYSTEMS.begin(), KERNEL_FILE_SYSTEMS.end(),
                       [magic](const KernelFileSystem& known) { return known.magic == magic; });
}

bool isKernelFileSystem(const std::string& type) {
    return std::any_of(KERNEL_FILE_SYSTEMS.begin(), KERNEL_FILE_SYSTEMS.end(),
                       [&type](const KernelFileSystem& known) { return known.name == type; });
}

}  // namespace keldra
