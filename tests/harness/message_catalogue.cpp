#include "tests/harness/message_catalogue.h"

#include <cstdint>
#include <cstring>

namespace {

/// A number in the byte order of this machine, which is what the magic number in front tells.
void append(std::string& out, std::size_t number) {
    const auto value = static_cast<std::uint32_t>(number);
    char bytes[sizeof value];
    std::memcpy(bytes, &value, sizeof value);
    out.append(bytes, sizeof value);
}

}  // namespace

// The layout is in the GNU gettext manual, "The Format of GNU MO Files": a header of seven numbers, a table of length
// and offset for the originals in sorted order, one for the translations, the texts.
std::string messageCatalogue(std::map<std::string, std::string> texts) {
    constexpr std::size_t HEADER_SIZE = 28;
    texts[""] = "Content-Type: text/plain; charset=UTF-8\n";
    std::string originals;
    std::string translations;
    std::string strings;
    const std::size_t stringsStart = HEADER_SIZE + texts.size() * 16;
    const auto add = [&](std::string& table, const std::string& text) {
        append(table, text.size());
        append(table, stringsStart + strings.size());
        strings += text + '\0';
    };
    for (const auto& [original, translation] : texts) {
        add(originals, original);
        add(translations, translation);
    }
    std::string bytes;
    for (const std::size_t number : {std::size_t{0x950412de}, std::size_t{0}, texts.size(), HEADER_SIZE,
                                     HEADER_SIZE + texts.size() * 8, std::size_t{0}, stringsStart}) {
        append(bytes, number);
    }
    return bytes + originals + translations + strings;
}
