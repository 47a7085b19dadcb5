#include "webui/console/json_value.h"

rapidjson::Document parseList(const std::string& text) {
    rapidjson::Document list;
    list.Parse<rapidjson::kParseIterativeFlag>(text.data(), text.size());
    if (list.HasParseError() || !list.IsArray()) list.SetArray();
    for (auto* entry = list.Begin(); entry != list.End();) entry = entry->IsObject() ? entry + 1 : list.Erase(entry);
    return list;
}

std::string textOf(const rapidjson::Value& object, const char* name) {
    const auto member = object.FindMember(name);
    if (member == object.MemberEnd() || !member->value.IsString()) return {};
    return {member->value.GetString(), member->value.GetStringLength()};
}

std::int64_t numberOf(const rapidjson::Value& object, const char* name) {
    const auto member = object.FindMember(name);
    return member != object.MemberEnd() && member->value.IsInt64() ? member->value.GetInt64() : 0;
}

bool flagOf(const rapidjson::Value& object, const char* name) {
    const auto member = object.FindMember(name);
    return member != object.MemberEnd() && member->value.IsTrue();
}
