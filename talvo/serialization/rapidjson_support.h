// The one way to rapidjson in our sources, and the first include there: its failed assertions throw instead of ending
// the process, and so does memory that runs out, which rapidjson never looks for. Internal.
#pragma once

#include <cstddef>

#include "talvo/utility/refuse_support.h"

#define RAPIDJSON_ASSERT(x) ((x) ? static_cast<void>(0) : ::talvo::utility::Refuse("JSON: %s does not hold", #x))

#include <rapidjson/allocators.h>

// Where every pool of values takes its memory. The type of the pool is the interface's, so that its allocator cannot be
// another one; the generic function answers false, and its callers write to null then. This one throws std::bad_alloc.
template <>
bool rapidjson::MemoryPoolAllocator<rapidjson::CrtAllocator>::AddChunk(std::size_t capacity);

#include <rapidjson/document.h>
#include <rapidjson/writer.h>
