#pragma once

#include <cstdint>
#include <string>
#include <string_view>

/// The texts of the programs and the service in a language. This one is English, in which they are written.
class Words {
public:
    Words() = default;
    Words(const Words&) = delete;
    Words& operator=(const Words&) = delete;
    virtual ~Words() = default;

    /// The text; itself where the language does not know it.
    virtual std::string text(const std::string& english) const { return english; }
    /// The text that a number asks for, the number itself in the place of "{n}". `one` and `many`: English.
    std::string counted(std::uint64_t number, const char* one, const char* many) const;
    /// A text with `value` in the place of "{name}".
    static std::string filled(std::string text, std::string_view name, std::string_view value);

protected:
    virtual std::string form(const char* one, const char* many, std::uint64_t number) const {
        return number == 1 ? one : many;
    }
};
