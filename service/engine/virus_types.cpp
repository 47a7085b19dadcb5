#include "service/engine/virus_types.h"

#include <algorithm>
#include <array>
#include <cctype>

namespace keldra {

namespace {

struct Family {
    std::string_view word;
    std::string_view type;
};

/// Words of signature names ("Win.Trojan.Agent-1", "Eicar-Test-Signature") and the type each speaks for. The first row
/// that applies decides.
constexpr std::array FAMILIES{
    Family{"eicar", "Test_Virus"},    Family{"test", "Test_Virus"},   Family{"testfile", "Test_Virus"},
    Family{"joke", "Joke"},           Family{"hoax", "Joke"},         Family{"spyware", "Spyware"},
    Family{"adware", "Spyware"},      Family{"pua", "Spyware"},       Family{"keylogger", "Spyware"},
    Family{"infostealer", "Spyware"}, Family{"stealer", "Spyware"},   Family{"trojan", "Trojan"},
    Family{"backdoor", "Trojan"},     Family{"rootkit", "Trojan"},    Family{"downloader", "Trojan"},
    Family{"dropper", "Trojan"},      Family{"ransomware", "Trojan"}, Family{"coinminer", "Trojan"},
    Family{"malware", "Trojan"},      Family{"loader", "Trojan"},     Family{"packed", "Trojan"},
    Family{"virus", "Virus"},         Family{"worm", "Virus"},        Family{"macro", "Virus"},
    Family{"infector", "Virus"},
};

/// The words of a name, lower case: runs of letters.
std::vector<std::string> wordsOf(std::string_view name) {
    std::vector<std::string> words(1);
    for (const char letter : name) {
        const auto byte = static_cast<unsigned char>(letter);
        if (std::isalpha(byte) != 0) {
            words.back() += static_cast<char>(std::tolower(byte));
        } else if (!words.back().empty()) {
            words.emplace_back();
        }
    }
    return words;
}

}  // namespace

const std::vector<std::string>& virusTypes() {
    static const std::vector<std::string> TYPES{"Virus", "Trojan", "Spyware", "Joke", "Test_Virus", "Other"};
    return TYPES;
}

std::string virusTypeList() {
    std::string list;
    for (const std::string& type : virusTypes()) list += (list.empty() ? "" : ";") + type;
    return list;
}

std::string virusTypeOf(std::string_view signature) {
    const std::vector<std::string> words = wordsOf(signature);
    const auto* const family = std::find_if(FAMILIES.begin(), FAMILIES.end(), [&words](const Family& row) {
        return std::find(words.begin(), words.end(), row.word) != words.end();
    });
    return std::string(family == FAMILIES.end() ? "Other" : family->type);
}

}  // namespace keldra
