#include "norv/norv_config.h"

#include "norv/text_form.h"

#include <tinyxml2.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <mutex>
#include <utility>

namespace {

/// Bytes of XML that are looked at; a full configuration takes some kilobytes.
constexpr std::size_t MAX_DOCUMENT_SIZE = std::size_t{4} * 1024 * 1024;
/// A misspelling that log readers search for.
constexpr const char* NOT_FOUND = "Cannnot find matching category and name [%s,%s]";

bool hasAttribute(const tinyxml2::XMLElement& element, const char* name, const std::string& value) {
    const char* const found = element.Attribute(name);
    return found && value == found;
}

/// The first "P" of that name in the groups of that category. One walk for readers and writers: `Element` is
/// tinyxml2::XMLElement, const or not.
template <typename Element>
Element* findElement(Element* root, const std::string& category, const std::string& name) {
    if (!root) return nullptr;
    for (Element* group = root->FirstChildElement("Group"); group; group = group->NextSiblingElement("Group")) {
        if (!hasAttribute(*group, "Type", category)) continue;
        for (Element* entry = group->FirstChildElement("P"); entry; entry = entry->NextSiblingElement("P")) {
            if (hasAttribute(*entry, "Name", name)) return entry;
        }
    }
    return nullptr;
}

tinyxml2::XMLElement& child(tinyxml2::XMLNode& parent, const char* tag) {
    return *parent.InsertEndChild(parent.GetDocument()->NewElement(tag))->ToElement();
}

tinyxml2::XMLElement& rootOf(tinyxml2::XMLDocument& document) {
    tinyxml2::XMLElement* const root = document.FirstChildElement("Document");
    return root ? *root : child(document, "Document");
}

tinyxml2::XMLElement& groupOf(tinyxml2::XMLElement& root, const std::string& category) {
    for (auto* group = root.FirstChildElement("Group"); group; group = group->NextSiblingElement("Group")) {
        if (hasAttribute(*group, "Type", category)) return *group;
    }
    tinyxml2::XMLElement& group = child(root, "Group");
    group.SetAttribute("Type", category.c_str());
    return group;
}

bool readText(const char* text, std::string& value) {
    value = text;
    return true;
}

bool readText(const char* text, bool& value) {
    const std::string_view word = text;
    const bool on = word == "1" || word == "true";
    if (!on && word != "0" && word != "false") return false;
    value = on;
    return true;
}

template <typename Number>
bool readText(const char* text, Number& value) {
    const char* const end = text + std::strlen(text);
    Number number{};
    const auto [stop, error] = std::from_chars(text, end, number);
    if (error != std::errc() || stop != end) return false;
    value = number;
    return true;
}

/// Why a text is not even given to the parser; empty when it may be.
std::string refusal(const std::vector<char>& content) {
    if (content.size() > MAX_DOCUMENT_SIZE) return "the document is larger than 4 MiB";
    if (std::find(content.begin(), content.end(), '\0') != content.end()) return "the document holds a NUL byte";
    return {};
}

/// tinyxml2 unescapes a text when it is first read, behind a const interface. Reading all of them once makes the
/// document one that several threads may read.
void unescapeAll(const tinyxml2::XMLNode* node) {
    for (; node; node = node->NextSibling()) {
        static_cast<void>(node->Value());
        const tinyxml2::XMLElement* const element = node->ToElement();
        for (auto* entry = element ? element->FirstAttribute() : nullptr; entry; entry = entry->Next()) {
            static_cast<void>(entry->Name());
            static_cast<void>(entry->Value());
        }
        unescapeAll(node->FirstChild());
    }
}

std::string parse(tinyxml2::XMLDocument& document, const std::vector<char>& content) {
    std::string error = refusal(content);
    if (!error.empty()) return error;
    if (document.Parse(content.data(), content.size()) == tinyxml2::XML_SUCCESS) {
        unescapeAll(document.FirstChild());
        return {};
    }
    error = document.ErrorStr();
    document.Clear();
    return error;
}

}  // namespace

/// What copies share. Once it is parsed it is only read: who changes it takes a copy of his own.
struct NORVConfig::Document {
    Document() = default;
    explicit Document(std::vector<char> text) : content(std::move(text)), fromText(true) {}

    Document& parsed() {
        if (fromText) std::call_once(once, [this] { error = parse(xml, content); });
        return *this;
    }
    /// Whether the name stands nowhere in the text, told without parsing. An "&" may begin a name written in another
    /// way.
    bool surelyLacks(std::string_view name) const {
        const std::string_view text(content.data(), content.size());
        return fromText && text.find('&') == std::string_view::npos && text.find(name) == std::string_view::npos;
    }

    const std::vector<char> content{};
    const bool fromText = false;
    std::once_flag once;
    tinyxml2::XMLDocument xml;
    std::string error;
};

NORVConfig::NORVConfig() : document_(std::make_shared<Document>()) {}

NORVConfig::NORVConfig(std::vector<char> content, long lastModified)
    : document_(std::make_shared<Document>(std::move(content))), lastModified_(lastModified) {}

NORVConfig::NORVConfig(const NORVConfig& other) {
    const ScopedLock lock(other.mutex_);
    other.shared_ = true;
    shared_ = true;
    document_ = other.document_;
    lastModified_ = other.lastModified_;
}

const tinyxml2::XMLDocument& NORVConfig::document() const { return document_->parsed().xml; }

const std::string& NORVConfig::parseError() const { return document_->parsed().error; }

NORVConfig& NORVConfig::operator=(const NORVConfig& other) {
    if (this != &other) *this = NORVConfig(other);
    return *this;
}

NORVConfig& NORVConfig::operator=(NORVConfig&& other) noexcept {
    if (this == &other) return *this;
    const ScopedLock lock(mutex_);
    std::swap(document_, other.document_);
    std::swap(shared_, other.shared_);
    lastModified_ = std::exchange(other.lastModified_, 0);
    modified_ = std::exchange(other.modified_, false);
    return *this;
}

NORVConfig::~NORVConfig() {
    try {
        sync();
    } catch (...) {
        NORV_LOG(NORV_LOG_ERROR, "Changes of the configuration are lost");
    }
}

template <typename T>
bool NORVConfig::getValue(const tinyxml2::XMLElement& element, T& value) {
    const char* const text = element.Attribute("Value");
    return text && readText(text, value);
}

void NORVConfig::setValue(const std::string& category, const std::string& name, const std::string& value) {
    const ScopedLock lock(mutex_);
    if (shared_ || document_->fromText) {
        const auto own = std::make_shared<Document>();
        document().DeepCopy(&own->xml);
        own->error = parseError();
        document_ = own;
        shared_ = false;
    }
    tinyxml2::XMLElement& root = rootOf(document_->xml);
    tinyxml2::XMLElement* element = findElement(&root, category, name);
    if (!element) {
        element = &child(groupOf(root, category), "P");
        element->SetAttribute("Name", name.c_str());
    }
    element->SetAttribute("Value", value.c_str());
    modified_ = true;
}

std::string NORVConfig::toText() const {
    const ScopedLock lock(mutex_);
    tinyxml2::XMLPrinter printer;
    document().Print(&printer);
    return printer.CStr();
}

bool NORVConfig::sync() {
    {
        const ScopedLock lock(mutex_);
        if (!modified_) return true;
        if (!store_) return false;
        modified_ = false;
    }
    // The store may read this very document, so it is called without the lock.
    if (store_(toText())) return true;
    const ScopedLock lock(mutex_);
    modified_ = true;
    return false;
}

NORV_LOG_SEVERITY NORVConfig::UserDebugLevel(NORV_LOG_SEVERITY defaultLevel) const {
    const char* const text = std::getenv("KELDRA_CONFIGURATION_USERDEBUGLEVEL");
    if (text) return static_cast<NORV_LOG_SEVERITY>(nearestNumber(text));
    // Every process asks for it and few documents name it. Where the line that tells so would be seen, the long way.
    if (defaultLevel < NORV_LOG_ERROR && document_->surelyLacks("UserDebugLevel")) return defaultLevel;
    int32_t level = 0;
    const bool found = getConfigValue(*this, "Configuration", "UserDebugLevel", level);
    return found ? static_cast<NORV_LOG_SEVERITY>(level) : defaultLevel;
}

template <typename T>
bool getConfigValue(const NORVConfig& config, const std::string& category, const std::string& name, T& value) {
    const ScopedLock lock(config.mutex());
    const tinyxml2::XMLElement* const root = config.document().FirstChildElement("Document");
    if (!root) return false;
    if (const auto* const element = findElement(root, category, name)) return NORVConfig::getValue(*element, value);
    NORV_LOG(NORV_LOG_ERROR, NOT_FOUND, category.c_str(), name.c_str());
    return false;
}

bool hasConfigValue(const NORVConfig& config, const std::string& category, const std::string& name) {
    const ScopedLock lock(config.mutex());
    return findElement(config.document().FirstChildElement("Document"), category, name) != nullptr;
}

template <typename T>
T configValueOr(const NORVConfig& config, const std::string& category, const std::string& name, T fallback) {
    const ScopedLock lock(config.mutex());
    const auto* const element = findElement(config.document().FirstChildElement("Document"), category, name);
    T value{};
    return element && NORVConfig::getValue(*element, value) ? value : fallback;
}

template bool NORVConfig::getValue(const tinyxml2::XMLElement&, std::string&);
template bool NORVConfig::getValue(const tinyxml2::XMLElement&, int32_t&);
template bool NORVConfig::getValue(const tinyxml2::XMLElement&, uint32_t&);
template bool NORVConfig::getValue(const tinyxml2::XMLElement&, bool&);

template bool getConfigValue(const NORVConfig&, const std::string&, const std::string&, std::string&);
template bool getConfigValue(const NORVConfig&, const std::string&, const std::string&, int32_t&);
template bool getConfigValue(const NORVConfig&, const std::string&, const std::string&, uint32_t&);
template bool getConfigValue(const NORVConfig&, const std::string&, const std::string&, bool&);

template std::string configValueOr(const NORVConfig&, const std::string&, const std::string&, std::string);
template int32_t configValueOr(const NORVConfig&, const std::string&, const std::string&, int32_t);
template uint32_t configValueOr(const NORVConfig&, const std::string&, const std::string&, uint32_t);
template bool configValueOr(const NORVConfig&, const std::string&, const std::string&, bool);
