#include "webui/cgi/utils/form_binding.h"

#include "norv/log.h"
#include "webui/cgi/utils/response_pages.h"

#include <cstddef>
#include <string_view>

namespace {

/// What a buffer of `size` bytes keeps of a text: over-long ones are cut, as the pages have always had it.
std::string cut(std::string text, std::size_t size) {
    if (text.size() >= size) text.resize(size - 1);
    return text;
}

std::string assignment(const char* name, std::string_view value) { return std::string(name).append(value); }

/// Unlike `processSpecialChars`, line ends, tabs and the like are escaped too.
std::string escapeForScript(const std::string& text) {
    static constexpr std::string_view SPECIAL = "\b\t\n\f\r\"\\";
    static constexpr std::string_view LETTER = "btnfr\"\\";
    std::string escaped;
    for (const char byte : text) {
        const std::size_t found = SPECIAL.find(byte);
        if (found != std::string_view::npos) {
            escaped.append(1, '\\').append(1, LETTER[found]);
        } else {
            escaped += byte;
        }
    }
    return escaped;
}

int check(CPageWrapper& page, const char* name, std::size_t uncheckedSize, std::size_t checkedSize) {
    page.addDStringItem(cut(assignment(name, "=false"), uncheckedSize), cut(assignment(name, "=true"), checkedSize));
    return 1;
}

}  // namespace

int AddOneItem(CPageWrapper& page, const char* name, const std::string& value) {
    std::string escaped = value;
    processSpecialChars(escaped);
    const std::string built = assignment(name, "=\"") + escaped + "\"";
    page.addDStringItem(cut(assignment(name, "=\"\""), 2048), built);
    NORV_TRACE("add string: %s", built.c_str());
    return 1;
}

int AddOneItem(CPageWrapper& page, const char* name, int value) {
    const std::string built = cut(assignment(name, "=" + std::to_string(value)), 2048);
    page.addDStringItem(cut(assignment(name, "=0"), 2048), built);
    NORV_TRACE("add string: %s", built.c_str());
    return 1;
}

int AssignOneItem(CPageWrapper& page, const NORVConfig& config, const char* category, const char* confName,
                  const char* name) {
    std::string value;
    return getConfigValue(config, category, confName, value) ? AddOneItem(page, name, value) : 0;
}

int AssignOneItem(CPageWrapper& page, const CQSControl& request, const char* field, const char* name) {
    return AddOneItem(page, name, request.getEnv(field));
}

void GetConfigAndSet(CPageWrapper& page, const NORVConfig& config, const char* category, const char* confName,
                     const char* name, const char* defaultValue) {
    std::string value;
    if (!getConfigValue(config, category, confName, value)) value = defaultValue ? defaultValue : "";
    page.addDStringItem(cut(assignment(name, "=\"\""), 1024),
                        cut(assignment(name, "=\"") + escapeForScript(value) + "\"", 4096));
}

void GetXMLStringAndSet(CPageWrapper& page, const NORVConfig& config, const char* category, const char* confName,
                        const char* name, const char* defaultValue) {
    GetConfigAndSet(page, config, category, confName, name, defaultValue);
}

int SetCheckbox(CPageWrapper& page, const char* name, const char* value) {
    const std::string_view text = value ? value : "";
    return text == "on" || text == "1" ? check(page, name, 1024, 1024) : 0;
}

int SetCheckbox(CPageWrapper& page, const CQSControl& request, const char* field, const char* name) {
    if (!field) return 0;
    const std::string value = request.getEnv(field);
    NORV_TRACE("value of [%s]: %s", field, value.c_str());
    // The length alone decides, so "off" checks the box; pages rely on it.
    if (value.size() < 2) return 0;
    check(page, name, 1023, 4095);
    NORV_TRACE("%s ==> %s", cut(assignment(name, "=false"), 1023).c_str(),
               cut(assignment(name, "=true"), 4095).c_str());
    return 1;
}

int GetCheckbox(CPageWrapper& page, const char* name, int value) {
    if (value == 0) return 0;
    page.addDStringItem(assignment(name, "=false"), assignment(name, "=true"));
    return 1;
}

int GetCheckbox(CPageWrapper& page, const NORVConfig& config, const char* category, const char* confName,
                const char* name) {
    bool value = false;
    if (!getConfigValue(config, category, confName, value)) {
        NORV_LOG(NORV_LOG_REFUSED, "Faield to get config");
        return 0;
    }
    return value ? check(page, name, 1024, 1024) : 0;
}
