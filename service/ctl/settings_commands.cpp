#include "service/ctl/command_line.h"
#include "service/ctl/control_client.h"
#include "service/ctl/output.h"
#include "service/ctl/settings_document.h"

#include <rapidjson/prettywriter.h>

#include <iostream>
#include <iterator>
#include <string>

namespace keldra {

namespace {

struct SettingsOptions {
    std::string name;
    std::string value;
    bool json = false;
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

int runGet(const SettingsOptions& options) {
    JsonDocument settings;
    if (const std::string fault = fetchSettings(settings); !fault.empty()) return fail(fault);
    bool matched = false;
    const JsonValue& groups = settings;
    for (auto group = groups.MemberBegin(); group != groups.MemberEnd(); ++group) {
        for (auto field = group->value.MemberBegin(); field != group->value.MemberEnd(); ++field) {
            std::string name = group->name.GetString();
            name.append(".").append(field->name.GetString());
            const bool exact = name == options.name;
            if (!options.name.empty() && !exact && options.name != group->name.GetString()) continue;
            matched = true;
            const std::string value = options.json ? prettyText(field->value) : plainText(field->value);
            print(exact ? value : name.append(" = ").append(value));
        }
    }
    return matched ? STATUS_DONE : fail("There is no setting " + printable(options.name) + ".");
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
    if (!splitSettingName(options.name, group, field)) return fail("A setting is named GROUP.NAME; see settings get.");
    JsonDocument settings;
    if (const std::string fault = fetchSettings(settings); !fault.empty()) return fail(fault);
    const bool known = settings.HasMember(group.c_str()) && settings[group.c_str()].HasMember(field.c_str());
    if (!known) return fail("There is no setting " + printable(options.name) + ".");
    JsonDocument change(rapidjson::kObjectType);
    auto& allocator = change.GetAllocator();
    const JsonDocument value = valueOf(options.value, settings[group.c_str()][field.c_str()].IsString());
    JsonValue fields(rapidjson::kObjectType);
    fields.AddMember(rapidjson::StringRef(field.c_str()), JsonValue(value, allocator), allocator);
    change.AddMember(rapidjson::StringRef(group.c_str()), fields, allocator);
    const StoreResult result = storeSettings(change);
    return result.fault.empty() ? STATUS_DONE : fail(result.fault);
}

int runExport(const SettingsOptions& options) {
    JsonDocument settings;
    if (const std::string fault = fetchSettings(settings, options.secrets); !fault.empty()) return fail(fault);
    print(prettyText(settings));
    return STATUS_DONE;
}

int runImport(const SettingsOptions&) {
    const std::string text{std::istreambuf_iterator<char>(std::cin), {}};
    JsonDocument settings;
    settings.Parse<rapidjson::kParseIterativeFlag>(text.data(), text.size());
    if (settings.HasParseError())
        return fail("Standard input is no JSON text (near byte " + std::to_string(settings.GetErrorOffset()) + ").");
    const StoreResult result = storeSettings(settings);
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
    get->add_flag("--json", options->json, "Values as JSON");
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
