#pragma once

#include "norv/message_codec.h"
#include "record_text.h"

#include <array>
#include <istream>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>

/// A record's text; `visit(record, visitor)` names its fields.
template <typename Record, typename Visit>
std::string writeRecord(const char* type, const Record& record, Visit visit) {
    RecordWriter writer(type);
    visit(record, writer);
    return writer.text();
}

/// Reads a record's text. False, with the record untouched, unless all of the text was good.
template <typename Record, typename Visit>
bool readRecord(std::string_view text, const char* type, Record& record, Visit visit) {
    RecordReader reader(text, type);
    Record read = record;
    visit(read, reader);
    if (reader.good()) record = std::move(read);
    return reader.good();
}

/// What is left of the stream, up to what one message can carry and one byte more.
inline std::string restOf(std::istream& in) {
    std::string text;
    std::array<char, 4096> piece{};
    while (text.size() <= MAX_FRAME_PAYLOAD && in.good()) {
        in.read(piece.data(), piece.size());
        text.append(piece.data(), static_cast<std::size_t>(in.gcount()));
    }
    if (in.eof()) in.clear(std::ios::eofbit);
    return text;
}

/// Reads a record from all that is left of the stream; failbit is set when that fails.
template <typename Record>
std::istream& extractRecord(std::istream& in, Record& record) {
    if (!parseRecord(restOf(in), record)) in.setstate(std::ios::failbit);
    return in;
}
