#include "service/base/json_object.h"

#include "norv/json_value.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace keldra {

struct JsonWriter::Parts {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer{buffer};
};

JsonWriter::JsonWriter() : parts_(std::make_unique<Parts>()) { parts_->writer.StartObject(); }
JsonWriter::~JsonWriter() = default;

JsonWriter& JsonWriter::add(const char* name, const std::string& value) {
    parts_->writer.Key(name);
    parts_->writer.String(value.data(), static_cast<rapidjson::SizeType>(value.size()));
    return *this;
}

JsonWriter& JsonWriter::add(const char* name, int64_t value) {
    parts_->writer.Key(name);
    parts_->writer.Int64(value);
    return *this;
}

JsonWriter& JsonWriter::add(const char* name, uint64_t value) {
    parts_->writer.Key(name);
    parts_->writer.Uint64(value);
    return *this;
}

JsonWriter& JsonWriter::add(const char* name, bool value) {
    parts_->writer.Key(name);
    parts_->writer.Bool(value);
    return *this;
}

std::string JsonWriter::text() {
    parts_->writer.EndObject();
    return {parts_->buffer.GetString(), parts_->buffer.GetSize()};
}

struct JsonReader::Parts {
    rapidjson::Document document;
};

JsonReader::JsonReader(std::string_view text) : parts_(std::make_unique<Parts>()) {
    parts_->document.Parse<rapidjson::kParseIterativeFlag>(text.data(), text.size());
}
JsonReader::~JsonReader() = default;

bool JsonReader::valid() const { return !parts_->document.HasParseError() && parts_->document.IsObject(); }

std::string JsonReader::text(const char* name) const {
    return parts_->document.IsObject() ? textOf(parts_->document, name) : std::string();
}

int64_t JsonReader::number(const char* name) const {
    return parts_->document.IsObject() ? numberOf(parts_->document, name) : 0;
}

uint64_t JsonReader::size(const char* name) const {
    const rapidjson::Document& document = parts_->document;
    if (!document.IsObject()) return 0;
    const auto member = document.FindMember(name);
    return member != document.MemberEnd() && member->value.IsUint64() ? member->value.GetUint64() : 0;
}

bool JsonReader::flag(const char* name) const { return parts_->document.IsObject() && flagOf(parts_->document, name); }

}  // namespace keldra
