#pragma once

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <concepts>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace keldra {

/// Writes a JSON text: lists of flat objects for replies that carry more than single values, and keldractl's output.
class JsonText {
public:
    /// `fill` adds the members.
    JsonText& object(const std::function<void()>& fill);
    JsonText& array(const std::function<void()>& fill);
    JsonText& name(std::string_view name);
    JsonText& value(std::string_view text);
    JsonText& value(const char* text) { return value(std::string_view(text)); }
    JsonText& value(bool flag);
    template <std::integral T>
    requires(!std::same_as<T, bool>) JsonText& value(T number) {
        if constexpr (std::is_signed_v<T>)
            writer_.Int64(number);
        else
            writer_.Uint64(number);
        return *this;
    }
    template <typename T>
    JsonText& member(std::string_view memberName, const T& memberValue) {
        return name(memberName).value(memberValue);
    }

    /// Long enough for one reply: a list goes on in the next. Leaves room in a message for what else it carries.
    bool full() const { return buffer_.GetSize() >= PAGE_BYTES; }
    std::string text() const { return {buffer_.GetString(), buffer_.GetSize()}; }

private:
    static constexpr std::size_t PAGE_BYTES = std::size_t{8} << 20;

    rapidjson::StringBuffer buffer_;
    rapidjson::Writer<rapidjson::StringBuffer> writer_{buffer_};
};

}  // namespace keldra
