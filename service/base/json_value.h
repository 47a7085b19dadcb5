#pragma once

#include <rapidjson/document.h>

#include <cstdint>
#include <string>

namespace keldra {

// Members of a JSON object. One that is missing or of another type reads as empty, 0 or false.

std::string textOf(const rapidjson::Value& object, const char* name);
std::int64_t numberOf(const rapidjson::Value& object, const char* name);
bool flagOf(const rapidjson::Value& object, const char* name);

}  // namespace keldra
