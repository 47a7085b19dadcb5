#pragma once

#include <rapidjson/document.h>

#include <cstdint>
#include <string>

// Reading the lists of objects that the service sends as JSON texts.

/// A list from a text; an empty list when it is none. Entries that are no objects are dropped.
rapidjson::Document parseList(const std::string& text);

/// A member of an object; empty, 0 or false when it is missing or of another type.
std::string textOf(const rapidjson::Value& object, const char* name);
std::int64_t numberOf(const rapidjson::Value& object, const char* name);
bool flagOf(const rapidjson::Value& object, const char* name);
