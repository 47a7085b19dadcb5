#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace keldra {

/// Extended attributes by name: access lists, labels, capabilities, what programs noted.
using ExtendedAttributes = std::map<std::string, std::string>;

/// What a file has beside its name and content.
struct FileAttributes {
    uint32_t owner = 0;
    uint32_t group = 0;
    uint32_t mode = 0;     ///< permission bits; with an access list those of the group are its mask
    int64_t accessed = 0;  ///< nanoseconds since the epoch
    int64_t modified = 0;  ///< nanoseconds since the epoch
    /// Nothing when they were not noted, as earlier versions did not.
    std::optional<ExtendedAttributes> extended;
};

/// The extended attributes of an open file. Nothing, with errno set, when they cannot be read. Those that the service
/// has no right to are left out, and of those that are too much for a record, as anybody can add on some file systems,
/// the ones that say nothing about access.
std::optional<ExtendedAttributes> extendedAttributesOf(int fd);

/// How a file got its attributes.
struct AttributeResult {
    bool done = false;
    int error = 0;     ///< errno of what failed; nobody may use the file then
    std::string lost;  ///< names of attributes that say nothing about access and could not be set; separated by ", "
};

/// Gives an open file, which only the service may use as yet, all of its attributes. At no moment may anybody use the
/// file who may not at the end: the access list comes before the mode, and both after the owner.
AttributeResult applyAttributes(int fd, const FileAttributes& attributes);

/// Takes away the access list that a new file inherited from its folder. False with errno set.
bool dropInheritedAccess(int fd);

/// Extended attributes as one word of text, and back; nothing when it is no such text.
std::string toText(const ExtendedAttributes& attributes);
std::optional<ExtendedAttributes> attributesFromText(std::string_view text);

}  // namespace keldra
