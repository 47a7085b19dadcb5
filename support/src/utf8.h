#pragma once

#include <cstddef>
#include <string_view>

/// Bytes of the well-formed UTF-8 sequence that `text` begins with (RFC 3629: no overlong forms, no surrogates, nothing
/// beyond U+10FFFF); 0 when it begins with none.
std::size_t utf8SequenceLength(std::string_view text);
