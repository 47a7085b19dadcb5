#pragma once

#include "norv/field_list.h"
#include "norv/json_types.h"

#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

/// Reads a JSON text. An object or list may be nested as deeply as it likes. What is none reads as null.
JsonDocument parseJson(std::string_view text);

// Members of a JSON object. One that is missing or of another type reads as empty, 0 or false; so does every one of
// what is no object.

std::string textOf(const JsonValue& object, const char* name);
std::int64_t numberOf(const JsonValue& object, const char* name);
std::uint64_t sizeOf(const JsonValue& object, const char* name);
bool flagOf(const JsonValue& object, const char* name);

// Each of these takes a value over from JSON. False, with `value` as it was, when the JSON is of another form.

bool readJson(const JsonValue& json, std::string& value);
bool readJson(const JsonValue& json, bool& value);
template <FieldRecord T>
bool readJson(const JsonValue& json, T& record);
template <typename T>
bool readJson(const JsonValue& json, std::vector<T>& list);

template <typename T>
requires std::is_integral_v<T>
bool readJson(const JsonValue& json, T& value) {
    if (json.IsUint64() && json.GetUint64() <= static_cast<std::uint64_t>(std::numeric_limits<T>::max())) {
        value = static_cast<T>(json.GetUint64());
        return true;
    }
    if (!std::is_signed_v<T> || !json.IsInt64() || json.IsUint64()) return false;
    if (json.GetInt64() < static_cast<std::int64_t>(std::numeric_limits<T>::min())) return false;
    value = static_cast<T>(json.GetInt64());
    return true;
}

template <typename T>
requires std::is_enum_v<T>
bool readJson(const JsonValue& json, T& value) {
    std::underlying_type_t<T> number{};
    if (!readJson(json, number)) return false;
    value = static_cast<T>(number);
    return true;
}

/// A record from an object: a field that is missing or of another form stays as it is.
template <FieldRecord T>
bool readJson(const JsonValue& json, T& record) {
    if (!json.IsObject()) return false;
    T::visit(record, [&json](const char* name, auto& field) {
        const auto member = json.FindMember(name);
        if (member != json.MemberEnd()) readJson(member->value, field);
    });
    return true;
}

/// A list, of which every entry must be of the form.
template <typename T>
bool readJson(const JsonValue& json, std::vector<T>& list) {
    if (!json.IsArray()) return false;
    std::vector<T> entries;
    for (const auto& entry : json.GetArray()) {
        T value{};
        if (!readJson(entry, value)) return false;
        entries.push_back(std::move(value));
    }
    list = std::move(entries);
    return true;
}

/// The same from the whole of a text.
template <typename T>
bool readJsonText(std::string_view text, T& value) {
    return readJson(parseJson(text), value);
}
