#include "norv/json_value.h"

JsonDocument parseJson(std::string_view text) {
    JsonDocument document;
    // Iterative, so that deep nesting does not use up the stack.
    document.Parse<rapidjson::kParseIterativeFlag>(text.data(), text.size());
    if (document.HasParseError()) document.SetNull();
    return document;
}

namespace {

template <typename T>
T valueOf(const JsonValue& object, const char* name) {
    T value{};
    if (!object.IsObject()) return value;
    const auto member = object.FindMember(name);
    if (member != object.MemberEnd()) readJson(member->value, value);
    return value;
}

}  // namespace

std::string textOf(const JsonValue& object, const char* name) { return valueOf<std::string>(object, name); }

std::int64_t numberOf(const JsonValue& object, const char* name) { return valueOf<std::int64_t>(object, name); }

std::uint64_t sizeOf(const JsonValue& object, const char* name) { return valueOf<std::uint64_t>(object, name); }

bool flagOf(const JsonValue& object, const char* name) { return valueOf<bool>(object, name); }

bool readJson(const JsonValue& json, std::string& value) {
    if (!json.IsString()) return false;
    value.assign(json.GetString(), json.GetStringLength());
    return true;
}

bool readJson(const JsonValue& json, bool& value) {
    if (!json.IsBool()) return false;
    value = json.GetBool();
    return true;
}
