#include "service/quarantine/quarantine_record.h"

#include "service/base/json_object.h"

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
    JsonWriter json;
    json.add("id", item.id)
        .add("path", item.path)
        .add("owner", uint64_t{item.owner})
        .add("group", uint64_t{item.group});
    json.add("mode", uint64_t{item.mode}).add("accessed", item.accessed).add("modified", item.modified);
    json.add("sha256", item.sha256).add("size", item.size).add("signature", item.signature).add("type", item.type);
    json.add("task", item.task).add("when", item.when).add("backup", item.backup).add("inode", record.inode);
    json.add("device", record.device).add("links", record.links);
    if (record.extended) json.add("noted", true).add("attributes", toText(*record.extended));
    json.add("phase", std::string(PHASES.at(static_cast<std::size_t>(record.phase))));
    return json.text() + "\n";
}

std::optional<QuarantineRecord> recordFromText(std::string_view text) {
    const JsonReader json(text);
    const auto* const phase = std::find(PHASES.begin(), PHASES.end(), json.text("phase"));
    if (!json.valid() || phase == PHASES.end() || !isName(json.text("id"))) return std::nullopt;
    QuarantineRecord record;
    QuarantineItem& item = record.item;
    item.id = json.text("id");
    item.path = json.text("path");
    item.owner = static_cast<uint32_t>(json.size("owner"));
    item.group = static_cast<uint32_t>(json.size("group"));
    item.mode = static_cast<uint32_t>(json.size("mode"));
    item.accessed = json.number("accessed");
    item.modified = json.number("modified");
    item.sha256 = json.text("sha256");
    item.size = json.size("size");
    item.signature = json.text("signature");
    item.type = json.text("type");
    item.task = json.text("task");
    item.when = json.number("when");
    item.backup = json.flag("backup");
    record.inode = json.size("inode");
    record.device = json.size("device");
    record.links = std::max<uint64_t>(json.size("links"), 1);
    if (json.flag("noted")) {
        record.extended = attributesFromText(json.text("attributes"));
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
