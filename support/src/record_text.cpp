#include "record_text.h"

#include "norv/json_types.h"
#include "norv/message_codec.h"

#include <limits>
#include <set>

struct RecordWriter::Json {
    JsonBuffer buffer;
    JsonWriter writer{buffer};
};

RecordWriter::RecordWriter(const char* type) : json_(std::make_unique<Json>()) {
    json_->writer.StartObject();
    json_->writer.Key(type);
    json_->writer.StartObject();
}

RecordWriter::~RecordWriter() = default;

void RecordWriter::operator()(const char* name, const std::string& value) {
    json_->writer.Key(name);
    json_->writer.String(value.data(), static_cast<rapidjson::SizeType>(value.size()));
}

void RecordWriter::operator()(const char* name, bool value) {
    json_->writer.Key(name);
    json_->writer.Bool(value);
}

void RecordWriter::operator()(const char* name, int32_t value) {
    json_->writer.Key(name);
    json_->writer.Int(value);
}

void RecordWriter::operator()(const char* name, uint32_t value) {
    json_->writer.Key(name);
    json_->writer.Uint(value);
}

void RecordWriter::operator()(const char* name, uint8_t value) { (*this)(name, uint32_t{value}); }

std::string RecordWriter::text() {
    json_->writer.EndObject();
    json_->writer.EndObject();
    return {json_->buffer.GetString(), json_->buffer.GetSize()};
}

namespace {

bool hasUniqueNames(const JsonValue& object) {
    std::set<std::string_view> names;
    for (auto member = object.MemberBegin(); member != object.MemberEnd(); ++member) {
        if (!names.emplace(member->name.GetString(), member->name.GetStringLength()).second) return false;
    }
    return true;
}

}  // namespace

struct RecordReader::Json {
    /// The field of that name; null when there is none.
    const JsonValue* find(const char* name) const {
        if (!fields) return nullptr;
        const auto found = fields->FindMember(name);
        return found == fields->MemberEnd() ? nullptr : &found->value;
    }

    /// More than a record takes; RapidJSON would take 64 KiB at once.
    JsonAllocator pool{4096};
    JsonDocument document{&pool};
    const JsonValue* fields = nullptr;
    bool good = false;
};

RecordReader::RecordReader(std::string_view text, const char* type) : json_(std::make_unique<Json>()) {
    if (text.size() > MAX_FRAME_PAYLOAD) return;
    // Iterative, so that deep nesting in an unknown field does not use up the stack.
    json_->document.Parse<rapidjson::kParseIterativeFlag>(text.data(), text.size());
    const JsonValue& root = json_->document;
    if (json_->document.HasParseError() || !root.IsObject() || root.MemberCount() != 1) return;
    const auto record = root.FindMember(type);
    if (record == root.MemberEnd() || !record->value.IsObject()) return;
    json_->fields = &record->value;
    json_->good = hasUniqueNames(record->value);
}

RecordReader::~RecordReader() = default;

bool RecordReader::good() const { return json_->good; }

void RecordReader::operator()(const char* name, std::string& value) {
    const JsonValue* const field = json_->find(name);
    if (!field) return;
    if (!field->IsString()) {
        json_->good = false;
        return;
    }
    value.assign(field->GetString(), field->GetStringLength());
}

void RecordReader::operator()(const char* name, bool& value) {
    const JsonValue* const field = json_->find(name);
    if (!field) return;
    if (!field->IsBool()) {
        json_->good = false;
        return;
    }
    value = field->GetBool();
}

void RecordReader::operator()(const char* name, int32_t& value) {
    const JsonValue* const field = json_->find(name);
    if (!field) return;
    if (!field->IsInt()) {
        json_->good = false;
        return;
    }
    value = field->GetInt();
}

void RecordReader::operator()(const char* name, uint32_t& value) {
    const JsonValue* const field = json_->find(name);
    if (!field) return;
    if (!field->IsUint()) {
        json_->good = false;
        return;
    }
    value = field->GetUint();
}

void RecordReader::operator()(const char* name, uint8_t& value) {
    uint32_t number = value;
    (*this)(name, number);
    if (number > std::numeric_limits<uint8_t>::max()) {
        json_->good = false;
        return;
    }
    value = static_cast<uint8_t>(number);
}
