#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace keldra {

/// The types that finds are sorted into, in the order in which the console shows them.
const std::vector<std::string>& virusTypes();

/// The same as one text, separated by ";".
std::string virusTypeList();

/// The type of a find, from the family words in the name of its signature; "Other" when none is known.
std::string virusTypeOf(std::string_view signature);

}  // namespace keldra
