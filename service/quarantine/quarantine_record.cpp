#include "service/quarantine/quarantine_record.h"

#include "norv/json_text.h"
#include "norv/json_value.h"

#include <algorithm>
#include <array>

namespace keldra {

namespace {

constexpr int64_t NANOSECONDS = 1000000000;
constexpr std::array<const char*, 6> PHASES{"kept", "moving", "copying", "backing up", "restoring", "deleting"};

int64_t toNanoseconds(const timespec& time) { return static_cast<int64_t>(time.tv_sec) * NANOSECONDS + time.tv_nsec; }

bool isName(const std::string& id) {
    return id.size() == 32 && id.find_first_not_of("0123456789abcdef") == std::string::npos;
}

}  // namespace

std::string toText(const QuarantineRecord& record) {
    const QuarantineItem& item = record.item;
    JsonText json;
    json.object([&] {
        json.member("id", item.id).member("path", item.path).member("owner", item.owner).member("group", item.group);
        json.member("mode", item.mode).member("accessed", item.accessed).member("modified", item.modified);
        json.member("sha256", item.sha256).member("size", item.size);
        json.member("signature", item.signature).member("type", item.type).member("task", item.task);
        json.member("when", item.when).member("backup", item.backup).member("inode", record.inode);
        json.member("device", record.device).member("links", record.links);
        if (record.extended) json.member("noted", true).member("attributes", toText(*record.extended));
        json.member("phase", PHASES.at(static_cast<std::size_t>(record.phase)));
    });
    return json.text() + "\n";
}

std::optional<QuarantineRecord> recordFromText(std::string_view text) {
    const JsonDocument json = parseJson(text);
    const auto* const phase = std::find(PHASES.begin(), PHASES.end(), textOf(json, "phase"));
    if (!json.IsObject() || phase == PHASES.end() || !isName(textOf(json, "id"))) return std::nullopt;
    QuarantineRecord record;
    QuarantineItem& item = record.item;
    item.id = textOf(json, "id");
    item.path = textOf(json, "path");
    item.owner = static_cast<uint32_t>(sizeOf(json, "owner"));
    item.group = static_cast<uint32_t>(sizeOf(json, "group"));
    item.mode = static_cast<uint32_t>(sizeOf(json, "mode"));
    item.accessed = numberOf(json, "accessed");
    item.modified = numberOf(json, "modified");
    item.sha256 = textOf(json, "sha256");
    item.size = sizeOf(json, "size");
    item.signature = textOf(json, "signature");
    item.type = textOf(json, "type");
    item.task = textOf(json, "task");
    item.when = numberOf(json, "when");
    item.backup = flagOf(json, "backup");
    record.inode = sizeOf(json, "inode");
    record.device = sizeOf(json, "device");
    record.links = std::max<uint64_t>(sizeOf(json, "links"), 1);
    if (flagOf(json, "noted")) {
        record.extended = attributesFromText(textOf(json, "attributes"));
        if (!record.extended) return std::nullopt;
    }
    record.phase = static_cast<QuarantinePhase>(phase - PHASES.begin());
    return record;
}

QuarantineRecord recordOf(const ScannedFile& file, const QuarantineReason& reason) {
    QuarantineRecord record;
    QuarantineItem& item = record.item;
    item.path = file.realPath();
    item.owner = file.status.st_uid;
    item.group = file.status.st_gid;
    item.mode = file.status.st_mode & 07777U;
    item.accessed = toNanoseconds(file.status.st_atim);
    item.modified = toNanoseconds(file.status.st_mtim);
    item.size = static_cast<uint64_t>(file.status.st_size);
    item.signature = reason.signature;
    item.type = reason.type;
    item.task = reason.task;
    record.inode = file.status.st_ino;
    record.device = file.status.st_dev;
    record.links = file.status.st_nlink;
    return record;
}

FileAttributes attributesOf(const QuarantineRecord& record) {
    const QuarantineItem& item = record.item;
    return {item.owner, item.group, item.mode, item.accessed, item.modified, record.extended};
}

}  // namespace keldra
