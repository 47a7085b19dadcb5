#pragma once

#include <string>

namespace keldra {

/// Whether an open file lies on a file system of the kernel's own (such as /proc), which holds no files that could be
/// infected. False where that cannot be told.
bool isKernelFileSystem(int fd);

/// The same of a type as mountinfo names it.
bool isKernelFileSystem(const std::string& type);

}  // namespace keldra
