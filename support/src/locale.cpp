#include "norv/locale.h"

#include <dirent.h>
#include <libintl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <clocale>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

namespace {

constexpr const char* TEMPLATES = "../templates/";
constexpr const char* FALLBACK = "en-US";
constexpr const char* DOMAIN = "messages";
/// Longest request header that is looked at.
constexpr std::size_t MAX_HEADER = 4096;

struct Wish {
    std::string tag;    ///< lower case
    int weight = 1000;  ///< the q value in thousandths
};

std::string environment(const char* name) {
    const char* const value = std::getenv(name);
    return value ? value : "";
}

std::string lowerCase(std::string_view text) {
    std::string lower(text);
    for (char& c : lower) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return lower;
}

std::string primaryLanguage(const std::string& tag) { return lowerCase(tag.substr(0, tag.find('-'))); }

/// Whether a folder's name has the form of a language tag, "de" or "de-DE"; other folders hold pages.
bool isLanguageTag(std::string_view name) {
    const std::string_view language = name.substr(0, name.find('-'));
    const auto isLower = [](char c) { return c >= 'a' && c <= 'z'; };
    return (language.size() == 2 || language.size() == 3) && std::all_of(language.begin(), language.end(), isLower);
}

bool isFolder(const dirent& entry) {
    if (entry.d_type != DT_UNKNOWN && entry.d_type != DT_LNK) return entry.d_type == DT_DIR;
    struct stat info {};
    return ::stat((TEMPLATES + std::string(entry.d_name)).c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

/// The language folders of the templates, in order of name.
std::vector<std::string> installedLocales() {
    std::vector<std::string> tags;
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir(TEMPLATES), ::closedir);
    if (!folder) return tags;
    while (const dirent* entry = ::readdir(folder.get())) {
        if (isLanguageTag(entry->d_name) && isFolder(*entry)) tags.emplace_back(entry->d_name);
    }
    std::sort(tags.begin(), tags.end());
    return tags;
}

std::string_view trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

/// Takes the text up to the next `separator` off `rest`, without blanks around it.
std::string_view takePiece(std::string_view& rest, char separator) {
    const std::string_view piece = rest.substr(0, rest.find(separator));
    rest.remove_prefix(std::min(rest.size(), piece.size() + 1));
    return trimmed(piece);
}

/// A q value of RFC 9110, section 12.4.2 ("0.8", "1", "1.000") in thousandths.
std::optional<int> parseWeight(std::string_view text) {
    if (text.empty() || text.size() > 5 || (text[0] != '0' && text[0] != '1')) return std::nullopt;
    int weight = (text[0] - '0') * 1000;
    if (text.size() > 1 && text[1] != '.') return std::nullopt;
    int unit = 100;
    for (const char c : text.substr(std::min<std::size_t>(2, text.size()))) {
        if (c < '0' || c > '9') return std::nullopt;
        weight += (c - '0') * unit;
        unit /= 10;
    }
    return weight > 1000 ? std::nullopt : std::optional(weight);
}

/// One element of the header, "de-DE;q=0.8". Nothing when it is malformed or refused by a weight of 0.
std::optional<Wish> parseWish(std::string_view element) {
    Wish wish{lowerCase(takePiece(element, ';'))};
    if (wish.tag.empty()) return std::nullopt;
    while (!element.empty()) {
        const std::string parameter = lowerCase(takePiece(element, ';'));
        if (parameter.rfind("q=", 0) != 0) continue;
        const auto weight = parseWeight(std::string_view(parameter).substr(2));
        if (!weight || *weight == 0) return std::nullopt;
        wish.weight = *weight;
    }
    return wish;
}

/// The wishes of an Accept-Language header, the strongest first, equally strong ones as they came.
std::vector<Wish> parseWishes(std::string_view header) {
    std::vector<Wish> wishes;
    header = header.substr(0, MAX_HEADER);
    while (!header.empty()) {
        if (auto wish = parseWish(takePiece(header, ','))) wishes.push_back(std::move(*wish));
    }
    std::stable_sort(wishes.begin(), wishes.end(), [](const Wish& a, const Wish& b) { return a.weight > b.weight; });
    return wishes;
}

/// The installed locale of a wish: that very tag, else one of the same language.
std::optional<std::string> match(const Wish& wish, const std::vector<std::string>& installed) {
    if (wish.tag == "*") return FALLBACK;
    const std::string language = primaryLanguage(wish.tag);
    if (language == primaryLanguage(FALLBACK) && wish.tag == language) return FALLBACK;
    std::optional<std::string> sameLanguage;
    for (const std::string& tag : installed) {
        if (lowerCase(tag) == wish.tag) return tag;
        if (primaryLanguage(tag) == language && (!sameLanguage || tag == FALLBACK)) sameLanguage = tag;
    }
    return sameLanguage;
}

std::string chooseLocale(const std::string& wanted, const std::string& header) {
    const std::vector<std::string> installed = installedLocales();
    if (!wanted.empty()) {
        return std::find(installed.begin(), installed.end(), wanted) == installed.end() ? FALLBACK : wanted;
    }
    for (const Wish& wish : parseWishes(header)) {
        if (auto tag = match(wish, installed)) return *tag;
    }
    return FALLBACK;
}

std::string workingFolder() {
    const std::unique_ptr<char, void (*)(void*)> folder(::getcwd(nullptr, 0), std::free);
    return folder ? folder.get() : "";
}

/// What the catalogue folders of a language may be called: "de_DE" and "de" for "de-DE".
std::pair<std::string, std::string> catalogueNames(std::string language) {
    std::replace(language.begin(), language.end(), '-', '_');
    std::string primary = language.substr(0, language.find('_'));
    return {std::move(language), std::move(primary)};
}

/// The absolute path of the folder of catalogues; nothing when it has none for that language. (gettext asks for the
/// working folder at every text when the path is relative.)
std::optional<std::string> catalogueFolder(const std::string& language) {
    std::string folder = environment("KELDRA_LOCALE_DIR");
    if (folder.empty()) folder = "../locale";
    if (folder.front() != '/') folder.insert(0, workingFolder() + "/");
    const auto [region, primary] = catalogueNames(language);
    for (const std::string& name : {region, primary}) {
        std::string file = folder;
        file.append("/").append(name).append("/LC_MESSAGES/").append(DOMAIN).append(".mo");
        if (::access(file.c_str(), R_OK) == 0) return folder;
    }
    return std::nullopt;
}

}  // namespace

std::string get_norv_locale() {
    static std::mutex mutex;
    static std::string knownFor;
    static std::string known;
    const std::string wanted = environment("KELDRA_LOCALE");
    const std::string header = environment("HTTP_ACCEPT_LANGUAGE");
    if (wanted.empty() && header.empty()) return FALLBACK;
    const std::string key = wanted + '\n' + header + '\n' + workingFolder();
    const std::lock_guard lock(mutex);
    if (knownFor != key) {
        known = chooseLocale(wanted, header);
        knownFor = key;
    }
    return known;
}

void set_norv_locale() {
    const std::string language = get_norv_locale();
    const std::optional<std::string> folder = catalogueFolder(language);
    // Without a catalogue the texts stand for themselves, and gettext need not be set up.
    if (!folder) {
        std::setlocale(LC_MESSAGES, "C");
        return;
    }
    // C.UTF-8 is there on every host; the language itself is told to gettext by LANGUAGE, whether generated or not.
    const auto [region, primary] = catalogueNames(language);
    ::setenv("LANGUAGE", (region + ":" + primary).c_str(), 1);
    std::setlocale(LC_MESSAGES, "C.UTF-8");
    ::bindtextdomain(DOMAIN, folder->c_str());
    ::bind_textdomain_codeset(DOMAIN, "UTF-8");
}
