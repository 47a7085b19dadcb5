#include "service/ctl/command_line.h"
#include "service/ctl/control_client.h"
#include "service/ctl/output.h"
#include "service/ctl/settings_document.h"

#include "norv/json_text.h"

#include <rapidjson/prettywriter.h>

#include <iostream>
#include <iterator>
#include <string>

namespace keldra {

namespace {

struct SettingsOptions {
    std::string name;
    std::string value;
    bool secrets = false;
};

std::string prettyText(const JsonValue& value) {
    JsonBuffer buffer;
    rapidjson::PrettyWriter<JsonBuffer> writer(buffer);
    value.Accept(writer);
    return {buffer.GetString(), buffer.GetSize()};
}

std::string plainText(const JsonValue& value) {
    return value.IsString() ? printable({value.GetString(), value.GetStringLength()}) : prettyText(value);
}

/// Calls `each` with the names and values that `name` stands for: all for an empty one, a group, or one. Returns
/// whether there are any.
bool forEachNamed(const JsonValue& groups, const std::string& name, auto&& each) {
    bool any = false;
    for (auto group = groups.MemberBegin(); group != groups.MemberEnd(); ++group) {
        for (auto field = group->value.MemberBegin(); field != group->value.MemberEnd(); ++field) {
            const std::string whole = std::string(group->name.GetString()) + "." + field->name.GetString();
            if (!name.empty() && name != whole && name != group->name.GetString()) continue;
            each(whole, field->value);
            any = true;
        }
    }
    return any;
}

int runGet(const SettingsOptions& options) {
    JsonDocument settings;
    if (const Fault fault = fetchSettings(settings); !fault.empty()) return fail(fault);
    const std::string& name = options.name;
    const bool known = forEachNamed(settings, name, [&name](const std::string& whole, const JsonValue& value) {
        if (whole == name)
            print(jsonWanted() ? prettyText(value) : plainText(value));
        else if (!jsonWanted())
            print(whole + " = " + plainText(value));
    });
    if (!known) return fail({FAULT_NOT_FOUND, "There is no setting " + printable(name) + "."});
    const bool isOne = name.find('.') != std::string::npos;
    if (jsonWanted() && !isOne) print(prettyText(name.empty() ? settings : settings[name.c_str()]));
    return STATUS_DONE;
}

/// Numbers, true, false and quoted texts as in JSON, anything else as a text.
JsonDocument valueOf(const std::string& text, bool wantsText) {
    JsonDocument value;
    if (!wantsText) value.Parse(text.data(), text.size());
    if (wantsText || value.HasParseError())
        value.SetString(text.data(), static_cast<rapidjson::SizeType>(text.size()), value.GetAllocator());
    return value;
}

int runSet(const SettingsOptions& options) {
    std::string group;
    std::string field;
    if (!splitSettingName(options.name, group, field))
        return fail({FAULT_ARGUMENTS, "A setting is named GROUP.NAME; see settings get."});
    JsonDocument settings;
    if (const Fault fault = fetchSettings(settings); !fault.empty()) return fail(fault);
    const bool known = settings.HasMember(group.c_str()) && settings[group.c_str()].HasMember(field.c_str());
    if (!known) return fail({FAULT_NOT_FOUND, "There is no setting " + printable(options.name) + "."});
    JsonDocument change(rapidjson::kObjectType);
    auto& allocator = change.GetAllocator();
    const JsonDocument value = valueOf(options.value, settings[group.c_str()][field.c_str()].IsString());
    JsonValue fields(rapidjson::kObjectType);
    fields.AddMember(rapidjson::StringRef(field.c_str()), JsonValue(value, allocator), allocator);
    change.AddMember(rapidjson::StringRef(group.c_str()), fields, allocator);
    const StoreResult result = storeSettings(change);
    return result.fault.empty() ? done() : fail(result.fault);
}

int runExport(const SettingsOptions& options) {
    JsonDocument settings;
    if (const Fault fault = fetchSettings(settings, options.secrets); !fault.empty()) return fail(fault);
    print(prettyText(settings));
    return STATUS_DONE;
}

int runImport(const SettingsOptions&) {
    const std::string text{std::istreambuf_iterator<char>(std::cin), {}};
    JsonDocument settings;
    settings.Parse<rapidjson::kParseIterativeFlag>(text.data(), text.size());
    if (settings.HasParseError())
        return fail({FAULT_VALUE,
                     "Standard input is no JSON text (near byte " + std::to_string(settings.GetErrorOffset()) + ")."});
    const StoreResult result = storeSettings(settings);
    JsonText json;
    json.object([&] { json.member("stored", result.done); });
    if (jsonWanted() && result.fault.empty()) print(json.text());
    if (!jsonWanted())
        for (const std::string& group : result.done) print("stored: " + group);
    return result.fault.empty() ? STATUS_DONE : fail(result.fault);
}

}  // namespace

void describeSettings(CLI::App& app, Run& run) {
    CLI::App* const settings = app.add_subcommand("settings", "Read and change the settings");
    settings->require_subcommand(1);
    SettingsOptions* options = nullptr;
    CLI::App* const get = addCommand(*settings, run, "get", "Show all settings, a group, or one", options, runGet);
    get->add_option("name", options->name, "GROUP or GROUP.NAME");
    CLI::App* const set = addCommand(*settings, run, "set", "Change one; the others stay", options, runSet);
    set->add_option("name", options->name, "GROUP.NAME")->required();
    set->add_option("value", options->value, "As settings get shows it")->required();
    CLI::App* const exporting = addCommand(
        *settings, run, "export", "Print all settings as JSON, without passwords and tokens", options, runExport);
    exporting->add_flag("--secrets", options->secrets,
                        "With passwords and tokens: keep the text where nobody else reads it");
    addCommand(*settings, run, "import", "Store settings from such a text on standard input; what it lacks stays",
               options, runImport);
}

}  // namespace keldra
