#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace keldra {

/// Builds the text of one flat JSON object on one line. Bytes of texts pass as they are, also where they are no UTF-8,
/// as names of files may be.
class JsonWriter {
public:
    JsonWriter();
    ~JsonWriter();
    JsonWriter(const JsonWriter&) = delete;
    JsonWriter& operator=(const JsonWriter&) = delete;

    JsonWriter& add(const char* name, const std::string& value);
    JsonWriter& add(const char* name, int64_t value);
    JsonWriter& add(const char* name, uint64_t value);
    JsonWriter& add(const char* name, bool value);
    /// Ends the object; to be called once, last.
    std::string text();

private:
    struct Parts;
    std::unique_ptr<Parts> parts_;
};

/// Reads such an object. A member that is missing or of another type reads as empty, 0 or false.
class JsonReader {
public:
    explicit JsonReader(std::string_view text);
    ~JsonReader();
    JsonReader(const JsonReader&) = delete;
    JsonReader& operator=(const JsonReader&) = delete;

    /// Whether the text was an object at all.
    bool valid() const;
    std::string text(const char* name) const;
    int64_t number(const char* name) const;
    uint64_t size(const char* name) const;
    bool flag(const char* name) const;

private:
    struct Parts;
    std::unique_ptr<Parts> parts_;
};

}  // namespace keldra
