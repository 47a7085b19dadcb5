#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

/// One record as JSON: `{"<type>":{…}}` with the fields in the order they are given.
class RecordWriter {
public:
    explicit RecordWriter(const char* type);
    ~RecordWriter();
    RecordWriter(const RecordWriter&) = delete;
    RecordWriter& operator=(const RecordWriter&) = delete;

    void operator()(const char* name, const std::string& value);
    void operator()(const char* name, bool value);
    void operator()(const char* name, int32_t value);
    void operator()(const char* name, uint32_t value);
    void operator()(const char* name, uint8_t value);

    /// The finished text; no field may follow.
    std::string text();

private:
    struct Json;
    std::unique_ptr<Json> json_;
};

/// Reads such a text. A field that it lacks keeps its value; unknown names are ignored.
class RecordReader {
public:
    /// `good()` is false when `text` is not one JSON object holding one object named `type` in which no name occurs
    /// twice, or is longer than a message can be.
    RecordReader(std::string_view text, const char* type);
    ~RecordReader();
    RecordReader(const RecordReader&) = delete;
    RecordReader& operator=(const RecordReader&) = delete;

    void operator()(const char* name, std::string& value);
    void operator()(const char* name, bool& value);
    void operator()(const char* name, int32_t& value);
    void operator()(const char* name, uint32_t& value);
    void operator()(const char* name, uint8_t& value);

    /// Whether the text and all fields read so far were of the right form.
    bool good() const;

private:
    struct Json;
    std::unique_ptr<Json> json_;
};
