#pragma once

#include "norv/json_text.h"

#include <concepts>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace keldra {

/// Whether JSON was asked for; set by the parser.
bool& jsonWanted();

/// A name of the protocol as keldractl prints it: "RequestID" and "requestId" give "request_id".
std::string lowerName(std::string_view name);

/// Writes a record of the protocol with such names; numbers and flags stay what they are, and so in all lists and
/// records within.
class LowerJson {
public:
    template <FieldRecord T>
    LowerJson& value(const T& record) {
        json_.object([&] { T::visit(record, [&](const char* name, const auto& field) { member(name, field); }); });
        return *this;
    }
    template <typename T>
    LowerJson& value(const std::vector<T>& list) {
        json_.array([&] {
            for (const T& entry : list) value(entry);
        });
        return *this;
    }
    template <typename T>
    requires(!FieldRecord<T>) LowerJson& value(const T& plain) {
        json_.value(plain);
        return *this;
    }
    /// Adds the entries that `fill` writes.
    template <std::invocable Fill>
    LowerJson& array(Fill&& fill) {
        json_.array(fill);
        return *this;
    }
    std::string text() const { return json_.text(); }

private:
    template <typename T>
    void member(const char* name, const T& field) {
        json_.name(lowerName(name));
        value(field);
    }
    template <typename T>
    void member(const char* name, const std::optional<T>& field) {
        if (field) member(name, *field);
    }

    JsonText json_;
};

/// A record or a list of records in that style.
template <typename T>
std::string lowerJson(const T& value) {
    LowerJson json;
    json.value(value);
    return json.text();
}

/// A size as people write it: "1.5 GiB".
std::string sizeText(unsigned long long bytes);

/// A duration as people write it: "2 h 05 min".
std::string durationText(long long seconds);

/// A field of a CSV line, quoted where it must be, and such that no spreadsheet takes it for a formula.
std::string csvField(const std::string& text);

}  // namespace keldra
