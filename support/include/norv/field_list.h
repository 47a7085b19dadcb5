#pragma once

#include <utility>

/// Takes any field.
struct AnyField {
    template <typename T>
    void operator()(const char* /*name*/, T&& /*field*/) const {}
};

/// A record that lists its fields, once for all that read and write it: its static `visit(record, field)` calls
/// `field(name, member)` for each, for a const record as well.
template <typename T>
concept FieldRecord = requires(const T& record) {
    T::visit(record, AnyField{});
};
