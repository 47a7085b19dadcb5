#include "service/ctl/notice_settings.h"

#include "norv/json_text.h"
#include "norv/json_value.h"
#include "service/ctl/control_client.h"
#include "service/ctl/output.h"

#include <string_view>

namespace keldra {

namespace {

/// Fields that tell of secrets and are filled by the service.
bool isState(std::string_view name) { return name.ends_with("Set"); }

/// Calls `field` with the name that keldractl shows and the member. A secret that is not known is left out.
void visitKnown(const protocol::NoticeSettings& settings, auto&& field) {
    protocol::NoticeSettings::visit(settings, [&field](const char* name, const auto& member) {
        if (isState(name)) return;
        if constexpr (requires { member.has_value(); }) {
            if (member) field(lowerName(name), *member);
        } else {
            field(lowerName(name), member);
        }
    });
}

/// Whether `json` fits the member, which then has its value.
bool take(const JsonValue& json, auto& member) {
    if constexpr (requires { member.has_value(); })
        return readJson(json, member.emplace());
    else
        return readJson(json, member);
}

}  // namespace

Fault addNotices(JsonDocument& settings, bool secrets) {
    const auto answer = ask(protocol::GetNotices{secrets});
    if (!answer) return faultOf(answer);
    JsonText json;
    json.object([&] {
        visitKnown(answer.reply, [&json](const std::string& name, const auto& value) { json.member(name, value); });
    });
    JsonDocument group(&settings.GetAllocator());
    const std::string text = json.text();
    group.Parse<rapidjson::kParseIterativeFlag>(text.data(), text.size());
    settings.AddMember(rapidjson::StringRef(NOTICES_GROUP), group, settings.GetAllocator());
    return {};
}

Fault takeNotices(const JsonValue& fields, protocol::SetNotices& wanted) {
    if (!fields.IsObject()) return {FAULT_VALUE, std::string(NOTICES_GROUP) + " is no object."};
    const auto stored = ask(protocol::GetNotices());
    if (!stored) return faultOf(stored);
    static_cast<protocol::NoticeSettings&>(wanted) = static_cast<const protocol::NoticeSettings&>(stored.reply);
    for (const auto& field : fields.GetObject()) {
        const std::string name = field.name.GetString();
        bool known = false;
        bool fits = false;
        protocol::NoticeSettings::visit(wanted, [&](const char* own, auto& member) {
            if (isState(own) || lowerName(own) != name) return;
            known = true;
            fits = take(field.value, member);
        });
        if (!known) return {FAULT_NOT_FOUND, std::string("There is no setting ") + NOTICES_GROUP + "." + name + "."};
        if (!fits)
            return {FAULT_VALUE, std::string(NOTICES_GROUP) + "." + name + " is of another type; see settings get."};
    }
    return {};
}

Fault storeNotices(const protocol::SetNotices& wanted) {
    const auto answer = ask(wanted);
    if (answer) return {};
    Fault fault = faultOf(answer);
    fault.message.insert(0, std::string(NOTICES_GROUP) + ": ");
    return fault;
}

}  // namespace keldra
