#include "norv/words.h"

std::string Words::counted(std::uint64_t number, const char* one, const char* many) const {
    return filled(form(one, many, number), "n", std::to_string(number));
}

std::string Words::filled(std::string text, std::string_view name, std::string_view value) {
    const std::string blank = '{' + std::string(name) + '}';
    const std::size_t at = text.find(blank);
    return at == std::string::npos ? text : text.replace(at, blank.size(), value);
}
