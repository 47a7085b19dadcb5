#pragma once

#include "norv/field_list.h"
#include "norv/ipc_message.h"
#include "norv/json_text.h"
#include "norv/json_value.h"
#include "norv/text_form.h"

#include <optional>
#include <string>
#include <type_traits>
#include <vector>

// The fields of a record as parameters of a message, and back. docs/protocol.md tells the forms.

namespace protocol {

/// The parameter of a refusal that says why, in English.
inline constexpr const char* MESSAGE = "Message";

/// Settings travel in text forms of their own.
template <typename T>
concept SettingsRecord = requires(const T& record) {
    recordText(record);
};

/// Writes fields into a message's parameters; an optional one without a value is left out.
class ParameterWriter {
public:
    explicit ParameterWriter(IPCMessage& message) : message_(message) {}

    template <typename T>
    void operator()(const char* name, const T& field) const {
        if constexpr (std::is_enum_v<T>)
            message_.addParam(name, static_cast<std::underlying_type_t<T>>(field));
        else
            message_.addParam(name, field);
    }
    template <typename T>
    void operator()(const char* name, const std::optional<T>& field) const {
        if (field) (*this)(name, *field);
    }
    template <FieldRecord T>
    void operator()(const char* name, const T& field) const {
        message_.addParam(name, jsonText(field));
    }
    template <typename T>
    void operator()(const char* name, const std::vector<T>& field) const {
        message_.addParam(name, jsonText(field));
    }

private:
    IPCMessage& message_;
};

/// Reads fields from a message's parameters. A field that it lacks stays as it is; a number that does not fit reads as
/// the nearest one that does.
class ParameterReader {
public:
    explicit ParameterReader(const IPCMessage& message) : message_(message) {}

    /// Whether all records and lists so far were of the right form.
    bool good() const { return good_; }

    template <typename T>
    void operator()(const char* name, T& field) {
        const auto found = message_.params.find(name);
        if (found != message_.params.end()) read(found->second.value, field);
    }
    template <typename T>
    void operator()(const char* name, std::optional<T>& field) {
        if (!message_.hasParam(name)) return;
        field.emplace();
        (*this)(name, *field);
    }

private:
    template <typename T>
    void read(const std::string& text, T& field) {
        if constexpr (std::is_same_v<T, std::string>)
            field = text;
        else if constexpr (std::is_same_v<T, bool>)
            field = nearestNumber<int32_t>(text) != 0;
        else if constexpr (std::is_enum_v<T>)
            field = static_cast<T>(nearestNumber<std::underlying_type_t<T>>(text));
        else if constexpr (std::is_integral_v<T>)
            field = nearestNumber<T>(text);
        else if constexpr (SettingsRecord<T>)
            good_ = parseRecord(text, field) && good_;
        else
            good_ = readJsonText(text, field) && good_;
    }

    const IPCMessage& message_;
    bool good_ = true;
};

/// Adds a record's fields to a message.
template <FieldRecord T>
void write(IPCMessage& message, const T& record) {
    T::visit(record, ParameterWriter(message));
}

/// Reads a record from a message. False when a list or a record in it is malformed; the other fields are read even so.
template <FieldRecord T>
bool read(const IPCMessage& message, T& record) {
    ParameterReader reader(message);
    T::visit(record, reader);
    return reader.good();
}

/// The same, with what is malformed left as a fresh record has it.
template <FieldRecord T>
T read(const IPCMessage& message) {
    T record;
    read(message, record);
    return record;
}

/// As many entries of a list as one reply may carry besides its other parameters; the rest is cut off. True when there
/// was a rest.
template <FieldRecord T>
bool cutToReply(std::vector<T>& list) {
    constexpr std::size_t MOST_BYTES = std::size_t{8} << 20;
    std::size_t bytes = 0;
    for (std::size_t i = 0; i < list.size(); ++i) {
        if (bytes >= MOST_BYTES) {
            list.resize(i);
            return true;
        }
        bytes += jsonText(list[i]).size() + 1;
    }
    return false;
}

}  // namespace protocol
