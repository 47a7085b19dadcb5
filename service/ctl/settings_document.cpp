#include "service/ctl/settings_document.h"

#include "norv/ipc_message.h"
#include "norv/json_text.h"
#include "norv/protocol/service_settings.h"
#include "service/ctl/control_client.h"
#include "service/ctl/notice_settings.h"
#include "service/ctl/output.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <map>
#include <optional>
#include <string_view>
#include <system_error>

namespace keldra {

namespace {

using Allocator = JsonDocument::AllocatorType;

std::string toText(const JsonValue& value) {
    JsonBuffer buffer;
    JsonWriter writer(buffer);
    value.Accept(writer);
    return {buffer.GetString(), buffer.GetSize()};
}

JsonValue nameOf(const std::string& name, Allocator& allocator) {
    return {name.data(), static_cast<rapidjson::SizeType>(name.size()), allocator};
}

bool isState(const SettingsGroup& group, std::string_view field) {
    return std::find(group.states.begin(), group.states.end(), field) != group.states.end();
}

/// The fields of a group under the service's own names.
Fault fetchRecord(const SettingsGroup& group, JsonDocument& record) {
    IPCMessage reply;
    const IPCMessage request(IPCMessage::GET, static_cast<IPCMessage::CommandID>(group.command));
    const bool reached = sendMessage(request, reply, CONTROL_TIMEOUT);
    if (!reached || reply.result == IPCMessage::RESULT_ERROR)
        return faultOf(reached, reply.value<std::string>("Message"));
    const auto text = reply.value<std::string>(group.parameter);
    record.Parse<rapidjson::kParseIterativeFlag>(text.data(), text.size());
    const bool whole = !record.HasParseError() && record.IsObject() && record.HasMember(group.record) &&
                       record[group.record].IsObject();
    if (whole) return {};
    return {FAULT_UNREADABLE, std::string("What the service answered about ") + group.name + " cannot be read."};
}

Fault storeRecord(const SettingsGroup& group, const JsonValue& record) {
    JsonDocument whole(rapidjson::kObjectType);
    JsonValue fields(record, whole.GetAllocator());
    whole.AddMember(rapidjson::StringRef(group.record), fields, whole.GetAllocator());
    IPCMessage request(IPCMessage::SET, static_cast<IPCMessage::CommandID>(group.command));
    request.addParam(group.parameter, toText(whole));
    IPCMessage reply;
    const bool reached = sendMessage(request, reply, CONTROL_TIMEOUT);
    if (reached && reply.result == IPCMessage::RESULT_OK) return {};
    Fault fault = faultOf(reached, reply.value<std::string>("Message"));
    fault.message.insert(0, std::string(group.name) + ": ");
    return fault;
}

const SettingsGroup* findGroup(std::string_view name) {
    const auto found = std::find_if(settingsGroups().begin(), settingsGroups().end(),
                                    [name](const SettingsGroup& group) { return name == group.name; });
    return found == settingsGroups().end() ? nullptr : &*found;
}

bool sameType(const JsonValue& a, const JsonValue& b) {
    return a.GetType() == b.GetType() || (a.IsBool() && b.IsBool());
}

Fault noSetting(const std::string& group, const std::string& name) {
    return {FAULT_NOT_FOUND, "There is no setting " + group + "." + name + "."};
}

/// Translates the fields into the service's own names. Returns what is wrong.
Fault translate(const SettingsGroup& group, const JsonValue& fields, JsonDocument& record) {
    if (!fields.IsObject()) return {FAULT_VALUE, std::string(group.name) + " is no object."};
    JsonDocument known;
    if (Fault fault = fetchRecord(group, known); !fault.empty()) return fault;
    record.SetObject();
    for (const auto& field : fields.GetObject()) {
        const std::string name = field.name.GetString();
        const auto& own = known[group.record];
        const auto match = std::find_if(own.MemberBegin(), own.MemberEnd(), [&](const auto& member) {
            return lowerName(member.name.GetString()) == name && !isState(group, member.name.GetString());
        });
        if (match == own.MemberEnd()) return noSetting(group.name, name);
        if (!sameType(match->value, field.value))
            return {FAULT_VALUE, std::string(group.name) + "." + name + " must be like " + toText(match->value) + "."};
        record.AddMember(JsonValue(match->name, record.GetAllocator()), JsonValue(field.value, record.GetAllocator()),
                         record.GetAllocator());
    }
    return {};
}

}  // namespace

const std::vector<SettingsGroup>& settingsGroups() {
    static const std::vector<SettingsGroup> GROUPS{
        {"realtime_scan",
         IPCMessage::REALTIME_SCAN_CONFIG,
         "RealtimeScanConfig",
         "NORVRealtimeScanConfig",
         {"serviceRunning", "kernelHookModuleLoaded"}},
        {"manual_scan", IPCMessage::MANUAL_SCAN_CONFIG, "ManualScanConfig", "NORVManualScanConfig", {}},
        {"scheduled_scan", IPCMessage::SCHEDULED_SCAN_CONFIG, "ScheduledScanConfig", "NORVScheduledScanConfig", {}},
        {"scheduled_update", IPCMessage::SCHEDULED_UPDATE_CONFIG, "ScheduledAUConfig", "NORVScheduledAUConfig", {}},
    };
    return GROUPS;
}

namespace {

using Table = std::map<std::string, protocol::ServiceSetting>;

/// The settings that belong to no scan, by their whole names; `secrets`: with the secrets that are set.
Fault fetchTable(Table& table, bool secrets) {
    const auto answer = ask(protocol::GetServiceSettings{secrets});
    if (!answer) return faultOf(answer);
    for (const protocol::ServiceSetting& setting : answer.reply.settings)
        if (setting.kind != "secret" || secrets) table[setting.name] = setting;
    return {};
}

/// As a number, true or false, or a text.
JsonValue typed(const protocol::ServiceSetting& setting, Allocator& allocator) {
    if (setting.kind == "switch") return JsonValue(setting.value == "1");
    int64_t number = 0;
    const char* const end = setting.value.data() + setting.value.size();
    const auto [rest, error] = std::from_chars(setting.value.data(), end, number);
    if (setting.kind == "number" && error == std::errc() && rest == end) return JsonValue(number);
    return nameOf(setting.value, allocator);
}

/// The other way round; nothing for what is none of these.
std::optional<std::string> untyped(const JsonValue& value) {
    if (value.IsBool()) return value.GetBool() ? "1" : "0";
    if (value.IsInt64()) return std::to_string(value.GetInt64());
    if (!value.IsString()) return std::nullopt;
    return std::string(value.GetString(), value.GetStringLength());
}

Fault addTable(JsonDocument& settings, bool secrets) {
    Table table;
    if (Fault fault = fetchTable(table, secrets); !fault.empty()) return fault;
    Allocator& allocator = settings.GetAllocator();
    for (const auto& [name, setting] : table) {
        std::string group;
        std::string field;
        if (!splitSettingName(name, group, field)) continue;
        if (!settings.HasMember(group.c_str()))
            settings.AddMember(nameOf(group, allocator), JsonValue(rapidjson::kObjectType), allocator);
        settings[group.c_str()].AddMember(nameOf(field, allocator), typed(setting, allocator), allocator);
    }
    return {};
}

/// Checks the fields of a group of the table and adds them to what is to be stored. Returns what is wrong.
Fault takeTableGroup(const std::string& group, const JsonValue& fields, const Table& known,
                     std::map<std::string, std::string>& wanted) {
    const auto belongs = [&group](const auto& entry) { return entry.first.starts_with(group + "."); };
    if (std::none_of(known.begin(), known.end(), belongs))
        return {FAULT_NOT_FOUND, "There is no group of settings " + group + "."};
    if (!fields.IsObject()) return {FAULT_VALUE, group + " is no object."};
    for (const auto& field : fields.GetObject()) {
        const std::string name = group + "." + field.name.GetString();
        if (known.count(name) == 0) return noSetting(group, field.name.GetString());
        const std::optional<std::string> value = untyped(field.value);
        if (!value)
            return {FAULT_VALUE,
                    name + " must be a text, a number, true or false, such as " + known.at(name).value + "."};
        wanted[name] = *value;
    }
    return {};
}

Fault storeTable(const std::map<std::string, std::string>& wanted) {
    JsonText json;
    json.object([&] {
        for (const auto& [name, value] : wanted) json.member(name, value);
    });
    protocol::SetServiceSettings request;
    request.settings = json.text();
    request.expected = "{}";
    const auto answer = ask(request);
    return answer ? Fault() : faultOf(answer);
}

}  // namespace

Fault fetchSettings(JsonDocument& settings, bool secrets) {
    settings.SetObject();
    Allocator& allocator = settings.GetAllocator();
    for (const SettingsGroup& group : settingsGroups()) {
        JsonDocument record;
        if (Fault fault = fetchRecord(group, record); !fault.empty()) return fault;
        JsonValue fields(rapidjson::kObjectType);
        const JsonValue& held = record[group.record];
        for (auto field = held.MemberBegin(); field != held.MemberEnd(); ++field) {
            if (isState(group, field->name.GetString())) continue;
            fields.AddMember(nameOf(lowerName(field->name.GetString()), allocator), JsonValue(field->value, allocator),
                             allocator);
        }
        settings.AddMember(rapidjson::StringRef(group.name), fields, allocator);
    }
    if (Fault fault = addTable(settings, secrets); !fault.empty()) return fault;
    return addNotices(settings, secrets);
}

StoreResult storeSettings(const JsonValue& settings) {
    if (!settings.IsObject()) return {{FAULT_VALUE, "This is no object of settings."}, {}};
    Table known;
    std::map<std::string, std::string> wanted;
    if (Fault fault = fetchTable(known, true); !fault.empty()) return {fault, {}};
    std::optional<protocol::SetNotices> notices;
    std::vector<std::pair<const SettingsGroup*, JsonDocument>> records;
    for (const auto& entry : settings.GetObject()) {
        if (std::string_view(entry.name.GetString()) == NOTICES_GROUP) {
            const Fault fault = takeNotices(entry.value, notices.emplace());
            if (!fault.empty()) return {fault, {}};
            continue;
        }
        const SettingsGroup* const group = findGroup(entry.name.GetString());
        JsonDocument record;
        const Fault fault = group ? translate(*group, entry.value, record)
                                  : takeTableGroup(entry.name.GetString(), entry.value, known, wanted);
        if (!fault.empty()) return {fault, {}};
        if (group) records.emplace_back(group, std::move(record));
    }
    StoreResult result;
    if (!wanted.empty()) result.fault = storeTable(wanted);
    if (!wanted.empty() && result.fault.empty()) result.done.emplace_back("service");
    if (notices && result.fault.empty()) result.fault = storeNotices(*notices);
    if (notices && result.fault.empty()) result.done.emplace_back(NOTICES_GROUP);
    for (auto next = records.begin(); next != records.end() && result.fault.empty(); ++next) {
        result.fault = storeRecord(*next->first, next->second);
        if (result.fault.empty()) result.done.emplace_back(next->first->name);
    }
    return result;
}

bool splitSettingName(const std::string& name, std::string& group, std::string& field) {
    const std::size_t dot = name.find('.');
    if (dot == std::string::npos || dot == 0 || dot + 1 == name.size()) return false;
    group = name.substr(0, dot);
    field = name.substr(dot + 1);
    return true;
}

}  // namespace keldra
