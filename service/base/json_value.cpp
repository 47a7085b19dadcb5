#include "service/base/json_value.h"

namespace keldra {

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

}  // namespace keldra
