#include "certificate/memory_sanitizer.h"

#ifndef __has_feature
#define __has_feature(name) 0
#endif

#if __has_feature(memory_sanitizer)

#include <dlfcn.h>
#include <sanitizer/msan_interface.h>

#include <cstring>
#include <string>

#include "certificate/cases.h"

namespace talvo::certificate {

void Uninitialise(void* data, std::size_t bytes) { __msan_poison(data, bytes); }

void NeedInitialised(void const* data, std::size_t bytes) {
  auto const first = __msan_test_shadow(data, bytes);
  if (first >= 0)
    throw std::runtime_error("byte " + std::to_string(first) + " of " + std::to_string(bytes) + " is not initialised");
}

}  // namespace talvo::certificate

// The runtime of the language is not instrumented: the text that it gives counts as initialised.
extern "C" char* __cxa_demangle(char const* name, char* buffer, std::size_t* length, int* status) {
  static auto* const demangle = reinterpret_cast<decltype(&__cxa_demangle)>(dlsym(RTLD_NEXT, "__cxa_demangle"));
  char* const text = demangle(name, buffer, length, status);
  __msan_unpoison(status, sizeof *status);
  if (text != nullptr) __msan_unpoison_string(text);
  return text;
}

#else

namespace talvo::certificate {

void Uninitialise(void*, std::size_t) {}
void NeedInitialised(void const*, std::size_t) {}

}  // namespace talvo::certificate

#endif
