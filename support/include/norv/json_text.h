#pragma once

#include "norv/field_list.h"
#include "norv/json_types.h"

#include <concepts>
#include <cstddef>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

/// Writes a JSON text. Bytes of texts pass as they are, also where they are no UTF-8, as names of files may be.
class JsonText {
public:
    /// `fill` adds the members.
    template <std::invocable Fill>
    JsonText& object(Fill&& fill) {
        writer_.StartObject();
        fill();
        writer_.EndObject();
        return *this;
    }
    /// `fill` adds the entries.
    template <std::invocable Fill>
    JsonText& array(Fill&& fill) {
        writer_.StartArray();
        fill();
        writer_.EndArray();
        return *this;
    }
    JsonText& name(std::string_view name) {
        writer_.Key(name.data(), static_cast<rapidjson::SizeType>(name.size()));
        return *this;
    }
    JsonText& value(std::string_view text) {
        writer_.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
        return *this;
    }
    JsonText& value(const std::string& text) { return value(std::string_view(text)); }
    JsonText& value(const char* text) { return value(std::string_view(text)); }
    JsonText& value(bool flag) {
        writer_.Bool(flag);
        return *this;
    }
    template <typename T>
    requires(std::is_integral_v<T> && !std::is_same_v<T, bool>) JsonText& value(T number) {
        if constexpr (std::is_signed_v<T>)
            writer_.Int64(number);
        else
            writer_.Uint64(number);
        return *this;
    }
    /// Its number.
    template <typename T>
    requires std::is_enum_v<T> JsonText& value(T number) {
        // cppcheck-suppress returnTempReference; it returns this object
        return value(static_cast<std::underlying_type_t<T>>(number));
    }
    /// An object of the record's fields, in their order.
    template <FieldRecord T>
    JsonText& value(const T& record) {
        return object([&] { T::visit(record, [&](const char* field, const auto& held) { member(field, held); }); });
    }
    template <typename T>
    JsonText& value(const std::vector<T>& list) {
        return array([&] {
            for (const T& entry : list) value(entry);
        });
    }
    template <typename T>
    JsonText& member(std::string_view memberName, const T& memberValue) {
        return name(memberName).value(memberValue);
    }

    std::size_t size() const { return buffer_.GetSize(); }
    std::string text() const { return {buffer_.GetString(), buffer_.GetSize()}; }

private:
    JsonBuffer buffer_;
    JsonWriter writer_{buffer_};
};

/// The JSON text of a value, a list or a record.
template <typename T>
std::string jsonText(const T& value) {
    JsonText json;
    json.value(value);
    return json.text();
}
