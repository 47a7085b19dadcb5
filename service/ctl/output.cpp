#include "service/ctl/output.h"

#include "service/ctl/command_line.h"

#include <array>
#include <cctype>
#include <cstdio>

namespace keldra {

bool& jsonWanted() {
    static bool wanted = false;
    return wanted;
}

int fail(const Fault& fault, int status) {
    if (jsonWanted()) {
        JsonText json;
        json.object([&] {
            json.name("error").object([&] { json.member("code", fault.code).member("message", fault.message); });
        });
        print(json.text());
    }
    std::fprintf(stderr, "keldractl: %s\n", fault.message.c_str());
    return status;
}

int done(const std::string& message) {
    if (jsonWanted()) {
        JsonText json;
        json.object([&] { json.member("message", message); });
        print(json.text());
    } else if (!message.empty()) {
        print(message);
    }
    return STATUS_DONE;
}

void print(const std::string& line) { std::printf("%s\n", line.c_str()); }

std::string lowerName(std::string_view name) {
    const auto isUpper = [](char c) { return std::isupper(static_cast<unsigned char>(c)) != 0; };
    std::string lower;
    for (std::size_t i = 0; i < name.size(); ++i) {
        // A word begins where lower case ends, and where capitals end.
        const bool begins = i > 0 && isUpper(name[i]) && name[i - 1] != '_' &&
                            (!isUpper(name[i - 1]) || (i + 1 < name.size() && !isUpper(name[i + 1])));
        if (begins) lower += '_';
        lower += static_cast<char>(std::tolower(static_cast<unsigned char>(name[i])));
    }
    return lower;
}

std::string sizeText(unsigned long long bytes) {
    constexpr std::array<const char*, 5> UNITS{"B", "KiB", "MiB", "GiB", "TiB"};
    std::size_t unit = 0;
    auto size = static_cast<double>(bytes);
    for (; size >= 1024 && unit + 1 < UNITS.size(); ++unit) size /= 1024;
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), unit == 0 ? "%.0f %s" : "%.1f %s", size, UNITS.at(unit));
    return text.data();
}

std::string durationText(long long seconds) {
    std::array<char, 48> text{};
    if (seconds < 60)
        std::snprintf(text.data(), text.size(), "%lld s", seconds);
    else if (seconds < 3600)
        std::snprintf(text.data(), text.size(), "%lld min %02lld s", seconds / 60, seconds % 60);
    else
        std::snprintf(text.data(), text.size(), "%lld h %02lld min", seconds / 3600, seconds / 60 % 60);
    return text.data();
}

std::string csvField(const std::string& text) {
    const bool formula = text.find_first_of("=+-@\t\r") == 0;
    std::string field = formula ? "'" : "";
    for (const char c : text) field += c == '"' ? std::string("\"\"") : std::string(1, c);
    return !formula && text.find_first_of(",\"\n\r") == std::string::npos ? field : '"' + field + '"';
}

}  // namespace keldra
