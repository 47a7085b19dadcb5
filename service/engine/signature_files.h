#pragma once

#include "service/base/files.h"

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <vector>

namespace keldra {

/// A part of the official signatures, by the header of its file.
struct SignaturePart {
    std::string name;  ///< "daily", "main", "bytecode"
    unsigned int version = 0;
    unsigned int signatures = 0;
    int64_t built = 0;  ///< seconds since the epoch, when its maker built it
};

/// One folder of signatures as it is found.
struct SignatureFolder {
    struct File {
        std::string name;
        struct stat status {};
    };

    std::string path;
    FileDescriptor folder;  ///< open for reading; none when it is missing or `error` is set
    bool missing = false;   ///< there is no such folder
    int error = 0;          ///< errno of what kept it from being read to its end
    std::vector<File> files;
    std::vector<SignaturePart> parts;
    int64_t newest = 0;  ///< modification time of the newest file, seconds since the epoch

    /// Whether it holds nothing but the signatures for trying out, which ship with the service.
    bool onlyForTrying() const;
};

/// Reads which signatures a folder holds. What cannot be read is told in `error`, never left out.
SignatureFolder readSignatureFolder(const std::string& path);

/// The same text for the same files unchanged, another one whenever any of them changed.
std::string signaturesIdentity(const std::vector<SignatureFolder>& folders);

std::vector<SignatureFolder> readSignatureFolders(const std::vector<std::string>& paths);
std::vector<std::string> pathsOf(const std::vector<SignatureFolder>& folders);

/// Makes the files that are this process's own readable for all: another user loads them.
void openToReaders(const SignatureFolder& folder);

}  // namespace keldra
