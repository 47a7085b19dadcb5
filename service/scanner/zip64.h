#pragma once

#include <string_view>

namespace keldra {

/// Whether an archive holds files in zip's form for large archives (zip64), whose sizes stand elsewhere. The library
/// passes over them without a word. `content`: the whole archive.
bool hasZip64Files(std::string_view content);

}  // namespace keldra
