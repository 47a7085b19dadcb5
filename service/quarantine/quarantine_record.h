#pragma once

#include "service/quarantine/quarantine_item.h"
#include "service/tree/scanned_file.h"

#include <sys/stat.h>

#include <array>
#include <optional>
#include <string>
#include <string_view>

namespace keldra {

/// How far an item is. All but KEPT mean that something was under way.
enum class QuarantinePhase {
    KEPT,        ///< it is there
    MOVING,      ///< the file is being renamed into the quarantine
    COPYING,     ///< it is being copied there, to be removed from its place afterwards
    BACKING_UP,  ///< a copy is being made, the file stays
    RESTORING    ///< it is being put back
};

/// What stands in the record file of an item.
struct QuarantineRecord {
    QuarantineItem item;
    QuarantinePhase phase = QuarantinePhase::KEPT;
    uint64_t inode = 0;  ///< of the file where it was found, to know it again
};

/// The record as JSON text.
std::string toText(const QuarantineRecord& record);

/// Nothing when the text is not a record.
std::optional<QuarantineRecord> recordFromText(std::string_view text);

/// The record of a file that is about to be put away; id, hash and time are left to the caller.
QuarantineRecord recordOf(const ScannedFile& file, const QuarantineReason& reason);

/// Gives an open file the owner, mode and times of an item, in this order: a change of owner may take mode bits away.
/// False with errno set.
bool applyAttributes(int fd, const QuarantineItem& item);

}  // namespace keldra
