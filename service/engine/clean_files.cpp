#include "service/engine/clean_files.h"

#include "norv/crypto.h"
#include "norv/log.h"
#include "service/base/files.h"
#include "service/base/sha256.h"

#include <linux/magic.h>
#include <sys/vfs.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace keldra {

namespace {

constexpr std::string_view MARK = "keldra-clean-1\n";
constexpr std::size_t IDENTITY = 64;
constexpr std::size_t BUCKET = 32;  // so many that while half of all places are free hardly any bucket is full
constexpr int64_t SETTLED = 2;      // seconds after its last change from which a file's times can show the next one

/// File systems of this machine that keep change times to less than a tick and write each change to disk.
bool keepsTimes(const struct statfs& system) {
    constexpr std::array<unsigned long, 7> KNOWN{EXT4_SUPER_MAGIC, XFS_SUPER_MAGIC,       BTRFS_SUPER_MAGIC,
                                                 F2FS_SUPER_MAGIC, OVERLAYFS_SUPER_MAGIC, 0x2fc12fc1 /* ZFS */,
                                                 0xca451a4e /* bcachefs */};
    return std::find(KNOWN.begin(), KNOWN.end(), static_cast<unsigned long>(system.f_type)) != KNOWN.end();
}

template <typename Value>
std::string_view bytesOf(const Value& value) {
    return {reinterpret_cast<const char*>(&value), sizeof value};
}

}  // namespace

CleanFiles::CleanFiles(std::filesystem::path file) : file_(std::move(file)), table_(LEAST) {}

void CleanFiles::useSignatures(const std::string& identity) {
    const std::lock_guard lock(mutex_);
    if (identity_.empty() && !file_.empty()) load();
    if (identity_ == identity) return;
    identity_ = identity;
    table_.assign(LEAST, 0);
    count_ = 0;
    changed_ = true;
    std::vector<unsigned char> random;
    if (getRandomBytes(secret_.size(), random))
        std::copy_n(random.begin(), secret_.size(), secret_.begin());
    else
        identity_.clear();  // matches no scan: nothing is remembered
}

void CleanFiles::load() {
    int error = 0;
    const auto content = readFile(file_, MARK.size() + IDENTITY + secret_.size() + MOST * sizeof(Key), error);
    const std::size_t head = MARK.size() + IDENTITY + secret_.size();
    if (!content || content->size() < head || content->compare(0, MARK.size(), MARK) != 0) return;
    identity_ = content->substr(MARK.size(), IDENTITY);
    std::memcpy(secret_.data(), content->data() + MARK.size() + IDENTITY, secret_.size());
    const std::size_t count = (content->size() - head) / sizeof(Key);
    while (table_.size() < MOST && table_.size() / 2 < count) table_.resize(table_.size() * 2);
    for (std::size_t i = 0; i < count; ++i) {
        Key key = 0;
        std::memcpy(&key, content->data() + head + i * sizeof key, sizeof key);
        put(key);
    }
}

std::optional<CleanFiles::Key> CleanFiles::keyOf(int place, const struct stat& status, bool archives,
                                                 int64_t now) const {
    struct statfs system {};
    if (now - status.st_ctim.tv_sec < SETTLED || ::fstatfs(place, &system) != 0 || !keepsTimes(system))
        return std::nullopt;
    Sha256 hash;
    const std::lock_guard lock(mutex_);
    hash.add({secret_.data(), secret_.size()});
    hash.add(bytesOf(system.f_fsid));
    const std::array<int64_t, 6> file{
        static_cast<int64_t>(status.st_dev),          static_cast<int64_t>(status.st_ino),
        static_cast<int64_t>(status.st_size),         static_cast<int64_t>(status.st_ctim.tv_sec),
        static_cast<int64_t>(status.st_ctim.tv_nsec), archives ? 1 : 0};
    hash.add(bytesOf(file));
    return keyFrom(hash);
}

CleanFiles::Key CleanFiles::keyOfContent(std::string_view content, bool archives) const {
    Sha256 hash;
    const std::lock_guard lock(mutex_);
    hash.add({secret_.data(), secret_.size()});
    hash.add(archives ? "content, unpacked " : "content ");
    hash.add(content);
    return keyFrom(hash);
}

CleanFiles::Key CleanFiles::keyFrom(Sha256& hash) {
    const Sha256::Digest digest = hash.digest();
    Key key = 0;
    std::memcpy(&key, digest.data(), sizeof key);
    return std::max(key, Key{1});  // 0 is an empty place
}

bool CleanFiles::knows(Key key) const {
    const std::lock_guard lock(mutex_);
    const auto bucket = table_.begin() + static_cast<std::ptrdiff_t>(key % (table_.size() / BUCKET) * BUCKET);
    return std::find(bucket, bucket + BUCKET, key) != bucket + BUCKET;
}

void CleanFiles::put(Key key) {
    const auto bucket = table_.begin() + static_cast<std::ptrdiff_t>(key % (table_.size() / BUCKET) * BUCKET);
    if (std::find(bucket, bucket + BUCKET, key) != bucket + BUCKET) return;
    const auto place = std::find(bucket, bucket + BUCKET, Key{0});
    if (place != bucket + BUCKET) {
        ++count_;
        *place = key;
    } else {
        bucket[static_cast<std::ptrdiff_t>((key >> 59U) % BUCKET)] = key;
    }
}

void CleanFiles::grow() {
    std::vector<Key> old(table_.size() * 2);
    old.swap(table_);
    count_ = 0;
    for (const Key key : old)
        if (key != 0) put(key);
}

void CleanFiles::add(Key key, const std::string& identity) {
    const std::lock_guard lock(mutex_);
    if (identity != identity_) return;
    if (count_ > table_.size() / 2 && table_.size() < MOST) grow();
    put(key);
    changed_ = true;
}

void CleanFiles::save() {
    std::string content(MARK);
    {
        const std::lock_guard lock(mutex_);
        if (!std::exchange(changed_, false) || file_.empty() || identity_.size() != IDENTITY) return;
        content.reserve(MARK.size() + IDENTITY + secret_.size() + count_ * sizeof(Key));
        content += identity_;
        content.append(secret_.data(), secret_.size());
        for (const Key key : table_)
            if (key != 0) content += bytesOf(key);
    }
    const WriteResult written = writeFileAtomically(file_, content, 0600);
    if (!written)
        NORV_LOG(NORV_LOG_WARNING, "%s cannot be written: %s", file_.c_str(), errorText(written.error).c_str());
}

}  // namespace keldra
