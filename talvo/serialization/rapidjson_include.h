// The one way to rapidjson in our sources, and the first include there: its assertions throw instead of ending the
// process, and a failed one is the only case that pays for the call. Internal: not installed.
#pragma once

#include "talvo/utility/log.h"

#if defined(__SSE2__) && !defined(RAPIDJSON_SSE2)
#define RAPIDJSON_SSE2
#endif
#define RAPIDJSON_ASSERT(x) \
  ((x) ? static_cast<void>(0) : static_cast<void>(::talvo::utility::Assert(false, "JSON: %s does not hold", #x)))

#include <rapidjson/document.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
