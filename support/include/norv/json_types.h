#pragma once

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cstddef>
#include <cstdlib>
#include <new>

/// Memory for JSON. The library writes to whatever malloc returns; here a refusal is thrown, as elsewhere.
// NOLINTBEGIN(cppcoreguidelines-owning-memory): the library asks for plain memory and gives it back
struct JsonMemory {
    static constexpr bool kNeedFree = true;

    static void* Malloc(std::size_t size) { return size == 0 ? nullptr : given(std::malloc(size)); }
    static void* Realloc(void* old, std::size_t /*oldSize*/, std::size_t size) {
        if (size > 0) return given(std::realloc(old, size));
        std::free(old);
        return nullptr;
    }
    static void Free(void* memory) { std::free(memory); }

private:
    static void* given(void* memory) {
        if (!memory) throw std::bad_alloc();
        return memory;
    }
};
// NOLINTEND(cppcoreguidelines-owning-memory)

using JsonAllocator = rapidjson::MemoryPoolAllocator<JsonMemory>;
using JsonValue = rapidjson::GenericValue<rapidjson::UTF8<>, JsonAllocator>;
using JsonDocument = rapidjson::GenericDocument<rapidjson::UTF8<>, JsonAllocator, JsonMemory>;
using JsonBuffer = rapidjson::GenericStringBuffer<rapidjson::UTF8<>, JsonMemory>;
using JsonWriter = rapidjson::Writer<JsonBuffer, rapidjson::UTF8<>, rapidjson::UTF8<>, JsonMemory>;
