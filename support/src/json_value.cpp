#include "norv/json_value.h"

rapidjson::Document parseJson(std::string_view text) {
    rapidjson::Document document;
    // Iterative, so that deep nesting does not use up the stack.
    document.Parse<rapidjson::kParseIterativeFlag>(text.data(), text.size());
    if (document.HasParseError()) document.SetNull();
    return document;
}

std::string textOf(const rapidjson::Value& object, const char* name) {
    const auto member = object.FindMember(name);
    std::string text;
    if (member != object.MemberEnd()) readJson(member->value, text);
    return text;
}

std::int64_t numberOf(const rapidjson::Value& object, const char* name) {
    const auto member = object.FindMember(name);
    std::int64_t number = 0;
    if (member != object.MemberEnd()) readJson(member->value, number);
    return number;
}

bool flagOf(const rapidjson::Value& object, const char* name) {
    const auto member = object.FindMember(name);
    return member != object.MemberEnd() && member->value.IsTrue();
}

bool readJson(const rapidjson::Value& json, std::string& value) {
    if (!json.IsString()) return false;
    value.assign(json.GetString(), json.GetStringLength());
    return true;
}

bool readJson(const rapidjson::Value& json, bool& value) {
    if (!json.IsBool()) return false;
    value = json.GetBool();
    return true;
}
