#include "service/base/json_text.h"

namespace keldra {

JsonText& JsonText::object(const std::function<void()>& fill) {
    writer_.StartObject();
    fill();
    writer_.EndObject();
    return *this;
}

JsonText& JsonText::array(const std::function<void()>& fill) {
    writer_.StartArray();
    fill();
    writer_.EndArray();
    return *this;
}

JsonText& JsonText::name(std::string_view name) {
    writer_.Key(name.data(), static_cast<rapidjson::SizeType>(name.size()));
    return *this;
}

JsonText& JsonText::value(std::string_view text) {
    writer_.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
    return *this;
}

JsonText& JsonText::value(bool flag) {
    writer_.Bool(flag);
    return *this;
}

}  // namespace keldra
