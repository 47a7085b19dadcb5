#pragma once

#include <algorithm>
#include <charconv>
#include <concepts>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <sstream>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>

/// Integers that streams write and read as numbers, not as characters.
template <typename T>
concept StreamedNumber = std::integral<T> &&(sizeof(T) > 1 || std::same_as<T, bool>);

// What streams write and read, without a stream: the first one in a process sets up all locale facets, which costs a
// page more than its messages do.

/// The text that stream insertion gives a value. Only what is neither text nor number nor settings record needs one.
template <typename T>
std::string textForm(const T& value) {
    if constexpr (std::is_convertible_v<const T&, std::string_view>) {
        return std::string(std::string_view(value));
    } else if constexpr (StreamedNumber<T>) {
        return std::to_string(value);
    } else if constexpr (requires { recordText(value); }) {
        return recordText(value);
    } else {
        std::ostringstream text;
        text << value;
        return text.str();
    }
}

/// Reads a number as stream extraction does: leading blanks are skipped, a sign is taken, reading stops at the first
/// character that does not belong, an unsigned one wraps below zero. False, with `number` untouched, when there is no
/// number or it is too large for a T.
template <typename T>
requires StreamedNumber<T> &&(!std::same_as<T, bool>)bool readNumber(std::string_view text, T& number) {
    using Magnitude = std::make_unsigned_t<T>;
    text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+')) text.remove_prefix(1);
    Magnitude magnitude = 0;
    if (std::from_chars(text.data(), text.data() + text.size(), magnitude).ec != std::errc()) return false;
    const auto largest = static_cast<Magnitude>(std::numeric_limits<T>::max());
    if (magnitude > static_cast<Magnitude>(largest + (std::is_signed_v<T> && negative ? 1U : 0U))) return false;
    number = static_cast<T>(negative ? Magnitude{0} - magnitude : magnitude);
    return true;
}

/// A number of which stream extraction keeps what it can: 0 when the text does not begin with one, the nearest when it
/// is too large or too small for a T.
template <typename T = int32_t>
requires StreamedNumber<T> T nearestNumber(const std::string& text) {
    using Limits = std::numeric_limits<T>;
    if constexpr (std::is_unsigned_v<T> && sizeof(T) == sizeof(unsigned long long)) {
        const bool negative = text.find_first_not_of(" \t\n\v\f\r") == text.find('-');
        return negative ? 0 : std::strtoull(text.c_str(), nullptr, 10);
    } else {
        return static_cast<T>(
            std::clamp<long long>(std::strtoll(text.c_str(), nullptr, 10), Limits::min(), Limits::max()));
    }
}
