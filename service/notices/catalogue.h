#pragma once

#include "norv/words.h"

#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace keldra {

/// A message catalogue as msgfmt writes it. gettext has one language a process; the service speaks several at a time.
class Catalogue : public Words {
public:
    /// `bytes` outlive it. Whatever is damaged is left out, and its texts stay English.
    explicit Catalogue(std::string_view bytes);

    std::string text(const std::string& english) const override;

protected:
    std::string form(const char* one, const char* many, std::uint64_t number) const override;

private:
    /// Which form a number takes; docs/translating.md names these rules.
    enum class Plural { ALWAYS_FIRST, ONE_IS_SINGULAR, UP_TO_ONE_IS_SINGULAR };

    std::map<std::string_view, std::string_view> texts_;
    Plural plural_ = Plural::ONE_IS_SINGULAR;
};

/// A catalogue that is part of the program.
struct BuiltInCatalogue {
    std::string_view language;  ///< "de"
    std::string_view bytes;
};
/// Made of po/ by the build.
std::span<const BuiltInCatalogue> builtInCatalogues();

/// The languages that there are, English first.
std::vector<std::string> wordLanguages();
/// The texts of a language; of this system's for an empty name; English where there is none.
const Words& wordsIn(const std::string& language);

}  // namespace keldra
