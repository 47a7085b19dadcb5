#pragma once

#include "service/quarantine/file_attributes.h"
#include "service/quarantine/quarantine_item.h"
#include "service/tree/scanned_file.h"

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
    RESTORING,   ///< it is being put back
    DELETING     ///< nothing is kept: the file is being deleted where it was found
};

/// What stands in the record file of an item.
struct QuarantineRecord {
    QuarantineItem item;
    QuarantinePhase phase = QuarantinePhase::KEPT;
    uint64_t inode = 0;                          ///< of the file where it was found, to know it again
    uint64_t device = 0;                         ///< the same
    uint64_t links = 1;                          ///< names that the file had
    std::optional<ExtendedAttributes> extended;  ///< nothing when they were not noted
};

/// The record as JSON text.
std::string toText(const QuarantineRecord& record);

/// Nothing when the text is not a record.
std::optional<QuarantineRecord> recordFromText(std::string_view text);

/// The record of a file that is about to be put away; id, hash, time and extended attributes are left to the caller.
QuarantineRecord recordOf(const ScannedFile& file, const QuarantineReason& reason);

/// What the file of a record is to have when it is put back.
FileAttributes attributesOf(const QuarantineRecord& record);

}  // namespace keldra
