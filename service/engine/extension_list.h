#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

struct NORVScanConfig;

namespace keldra {

/// Extensions of files that can carry malware: the default list, lower case, without dots.
const std::vector<std::string>& defaultExtensions();

/// Writes the default list to "HVDefaultExt.txt" in the folder `varPath`: a header line, then the extensions separated
/// by ";". Replaces the file as a whole; false, with a log line, when that fails.
bool writeDefaultExtensions(const std::string& varPath);

/// The extensions of a list as people type it: separated by ";", ",", ":" or blanks, with or without "." or "*." in
/// front, in any case. The result is lower case, without dots in front.
std::vector<std::string> parseExtensions(std::string_view typed);

/// Whether the beginning of a file (its first 4096 bytes, or all of it) shows a type that can carry malware: a program,
/// a script, a document that may hold macros or scripts, mail, an archive or an installer. Media and plain text are
/// not.
bool canCarryMalware(std::span<const unsigned char> head);

/// Which files the settings select: all of them, those of a list (typed, default or both), or by their content.
class FileSelector {
public:
    explicit FileSelector(const NORVScanConfig& settings);

    /// Whether a file of this name is selected, or might be when its content decides.
    bool byName(std::string_view name) const;
    /// Whether the content decides.
    bool needsContent() const { return byContent_; }
    /// Whether the open file is selected by its content; true when the content does not decide or cannot be read.
    bool byContent(int fd) const;

private:
    bool byContent_ = false;
    std::vector<std::string> extensions_;  ///< sorted; empty: all files
};

}  // namespace keldra
