#include "service/engine/signature_files.h"

#include "norv/log.h"
#include "service/base/sha256.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <memory>
#include <optional>
#include <string_view>

namespace keldra {

namespace {

constexpr std::string_view FOR_TRYING = "keldra-test.ndb";
constexpr std::size_t HEADER = 512;

bool isSignatureFile(std::string_view name) {
    static constexpr std::array<std::string_view, 36> EXTENSIONS{
        ".cvd", ".cld", ".cud", ".db",  ".hdb", ".hdu", ".hsb", ".hsu", ".mdb",  ".mdu", ".msb",  ".msu",
        ".ndb", ".ndu", ".ldb", ".ldu", ".sdb", ".zmd", ".rmd", ".idb", ".fp",   ".sfp", ".pdb",  ".gdb",
        ".wdb", ".cbc", ".ftm", ".cfg", ".cdb", ".cat", ".crb", ".ign", ".ign2", ".yar", ".yara", ".imp"};
    const std::string extension = std::filesystem::path(name).extension().string();
    return std::find(EXTENSIONS.begin(), EXTENSIONS.end(), extension) != EXTENSIONS.end();
}

bool isOfficial(std::string_view name) { return name.ends_with(".cvd") || name.ends_with(".cld"); }

template <typename Number>
Number numberOf(std::string_view text) {
    Number number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

/// The header's fields: mark, time in words, version, signatures, level, two sums, builder, seconds since the epoch.
std::optional<SignaturePart> partOf(std::string_view header, std::string_view name) {
    std::vector<std::string_view> fields;
    for (std::size_t end = header.find(':'); end != std::string_view::npos; end = header.find(':')) {
        fields.push_back(header.substr(0, end));
        header.remove_prefix(end + 1);
    }
    fields.push_back(header.substr(0, header.find_first_not_of("0123456789")));
    if (fields.size() < 9 || fields[0] != "ClamAV-VDB") return std::nullopt;
    return SignaturePart{std::string(name.substr(0, name.rfind('.'))), numberOf<unsigned int>(fields[2]),
                         numberOf<unsigned int>(fields[3]), numberOf<int64_t>(fields[8])};
}

/// Nothing, with errno set, when the header cannot be read.
std::optional<std::string> readHeader(int folder, const std::string& name) {
    const FileDescriptor file(::openat(folder, name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    std::string header(HEADER, '\0');
    const ssize_t got = file ? ::read(file.get(), header.data(), header.size()) : -1;
    if (got < 0) return std::nullopt;
    header.resize(static_cast<std::size_t>(got));
    return header;
}

/// False, with errno set, when it cannot be read. A name that leads nowhere is no file.
bool note(SignatureFolder& found, const std::string& name) {
    SignatureFolder::File file{name, {}};
    if (::fstatat(found.folder.get(), name.c_str(), &file.status, 0) != 0) return errno == ENOENT;
    if (isOfficial(name)) {
        const auto header = readHeader(found.folder.get(), name);
        if (!header) return false;
        if (const auto part = partOf(*header, name)) found.parts.push_back(*part);
    }
    found.newest = std::max(found.newest, static_cast<int64_t>(file.status.st_mtim.tv_sec));
    found.files.push_back(std::move(file));
    return true;
}

int readEntries(SignatureFolder& found) {
    FileDescriptor own(::openat(found.folder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(own ? ::fdopendir(own.get()) : nullptr, ::closedir);
    if (!entries) return errno;
    own.release();
    errno = 0;
    while (const dirent* entry = ::readdir(entries.get())) {
        if (isSignatureFile(&entry->d_name[0]) && !note(found, &entry->d_name[0])) return errno;
        errno = 0;
    }
    return errno;
}

}  // namespace

bool SignatureFolder::onlyForTrying() const { return files.size() == 1 && files.front().name == FOR_TRYING; }

SignatureFolder readSignatureFolder(const std::string& path) {
    SignatureFolder found;
    found.path = path;
    found.folder = FileDescriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!found.folder) {
        found.missing = errno == ENOENT;
        found.error = found.missing ? 0 : errno;
        return found;
    }
    found.error = readEntries(found);
    const auto byName = [](const auto& a, const auto& b) { return a.name < b.name; };
    std::sort(found.files.begin(), found.files.end(), byName);
    std::sort(found.parts.begin(), found.parts.end(), byName);
    return found;
}

std::string signaturesIdentity(const std::vector<SignatureFolder>& folders) {
    Sha256 hash;
    for (const SignatureFolder& folder : folders) {
        hash.add(folder.path + "\n");
        for (const auto& [name, status] : folder.files) {
            hash.add(name + "\n");
            for (const int64_t number : {static_cast<int64_t>(status.st_ino), static_cast<int64_t>(status.st_size),
                                         static_cast<int64_t>(status.st_mtim.tv_sec), status.st_mtim.tv_nsec,
                                         static_cast<int64_t>(status.st_ctim.tv_sec), status.st_ctim.tv_nsec})
                hash.add({reinterpret_cast<const char*>(&number), sizeof number});
        }
    }
    return hash.hex();
}

std::vector<SignatureFolder> readSignatureFolders(const std::vector<std::string>& paths) {
    std::vector<SignatureFolder> folders;
    folders.reserve(paths.size());
    for (const std::string& path : paths) folders.push_back(readSignatureFolder(path));
    return folders;
}

std::vector<std::string> pathsOf(const std::vector<SignatureFolder>& folders) {
    std::vector<std::string> paths;
    paths.reserve(folders.size());
    for (const SignatureFolder& folder : folders) paths.push_back(folder.path);
    return paths;
}

void openToReaders(const SignatureFolder& folder) {
    constexpr mode_t READABLE = 0444;
    for (const auto& [name, status] : folder.files)
        if (status.st_uid == ::geteuid() && (status.st_mode & READABLE) != READABLE &&
            ::fchmodat(folder.folder.get(), name.c_str(), (status.st_mode | READABLE) & 07777U, 0) != 0)
            NORV_LOG(NORV_LOG_WARNING, "The signatures in %s/%s cannot be made readable for the scanner: %s",
                     folder.path.c_str(), name.c_str(), errorText(errno).c_str());
}

}  // namespace keldra
