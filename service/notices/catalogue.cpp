#include "service/notices/catalogue.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>

namespace keldra {

namespace {

constexpr std::uint32_t MAGIC = 0x950412de;
constexpr const char* ENGLISH = "en";

std::optional<std::uint32_t> wordAt(std::string_view bytes, std::size_t at) {
    std::uint32_t word = 0;
    if (bytes.size() < sizeof word || at > bytes.size() - sizeof word) return std::nullopt;
    std::memcpy(&word, bytes.data() + at, sizeof word);
    return word;
}

/// The text that the pair of length and place at `at` points to.
std::optional<std::string_view> textAt(std::string_view bytes, std::size_t at) {
    const auto length = wordAt(bytes, at);
    const auto place = wordAt(bytes, at + sizeof(std::uint32_t));
    if (!length || !place || *place > bytes.size() || *length > bytes.size() - *place) return std::nullopt;
    return bytes.substr(*place, *length);
}

std::string systemLanguage() {
    for (const char* const name : {"KELDRA_LOCALE", "LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* const value = std::getenv(name);
        if (value && *value != '\0') return std::string(value, std::strcspn(value, "-_.@"));
    }
    return ENGLISH;
}

}  // namespace

Catalogue::Catalogue(std::string_view bytes) {
    constexpr std::size_t PAIR = 2 * sizeof(std::uint32_t);
    if (wordAt(bytes, 0) != MAGIC) return;
    const std::size_t count = wordAt(bytes, 8).value_or(0);
    const std::size_t ids = wordAt(bytes, 12).value_or(0);
    const std::size_t texts = wordAt(bytes, 16).value_or(0);
    for (std::size_t i = 0; i < count; ++i) {
        const auto id = textAt(bytes, ids + i * PAIR);
        const auto text = textAt(bytes, texts + i * PAIR);
        if (!id || !text) break;
        // A text with several forms is found by its first one.
        texts_.emplace(id->substr(0, id->find('\0')), *text);
    }
    const std::string_view head = texts_[""];
    if (head.find("nplurals=1;") != std::string_view::npos) plural_ = Plural::ALWAYS_FIRST;
    if (head.find("plural=(n > 1);") != std::string_view::npos) plural_ = Plural::UP_TO_ONE_IS_SINGULAR;
}

std::string Catalogue::text(const std::string& english) const {
    const auto found = english.empty() ? texts_.end() : texts_.find(english);
    return found == texts_.end() ? english : std::string(found->second.substr(0, found->second.find('\0')));
}

std::string Catalogue::form(const char* one, const char* many, std::uint64_t number) const {
    const auto found = texts_.find(one);
    if (found == texts_.end()) return Words::form(one, many, number);
    const bool first =
        plural_ == Plural::ALWAYS_FIRST || number == 1 || (plural_ == Plural::UP_TO_ONE_IS_SINGULAR && number == 0);
    const std::size_t second = found->second.find('\0');
    return std::string(first || second == std::string_view::npos ? found->second.substr(0, second)
                                                                 : found->second.substr(second + 1));
}

std::vector<std::string> wordLanguages() {
    std::vector<std::string> languages{ENGLISH};
    for (const BuiltInCatalogue& one : builtInCatalogues()) languages.emplace_back(one.language);
    return languages;
}

const Words& wordsIn(const std::string& language) {
    static const Words english;
    static const auto others = [] {
        std::map<std::string, std::unique_ptr<Words>> all;
        for (const BuiltInCatalogue& one : builtInCatalogues())
            all.emplace(one.language, std::make_unique<Catalogue>(one.bytes));
        return all;
    }();
    const auto found = others.find(language.empty() ? systemLanguage() : language);
    return found == others.end() ? english : *found->second;
}

}  // namespace keldra
