#pragma once

#include "record_text.h"

#include <istream>
#include <ostream>
#include <string>

/// Writes a record's text; `visit(record, visitor)` names its fields.
template <typename Record, typename Visit>
std::ostream& writeRecord(std::ostream& out, const char* type, const Record& record, Visit visit) {
    RecordWriter writer(type);
    visit(record, writer);
    const std::string text = writer.text();
    return out.write(text.data(), static_cast<std::streamsize>(text.size()));
}

/// Reads a record's text. The record changes only when all of the text was good; else failbit is set.
template <typename Record, typename Visit>
std::istream& readRecord(std::istream& in, const char* type, Record& record, Visit visit) {
    RecordReader reader(in, type);
    Record read = record;
    visit(read, reader);
    if (reader.good()) {
        record = read;
    } else {
        in.setstate(std::ios::failbit);
    }
    return in;
}
