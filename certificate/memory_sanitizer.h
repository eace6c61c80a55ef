// What the memory sanitizer is told and asked; nothing in builds without it.
#pragma once

#include <cstddef>

namespace talvo::certificate {

/// Takes the bytes for uninitialised, whatever they hold.
void Uninitialise(void* data, std::size_t bytes);

/// Throws `std::runtime_error` with the number of the first byte that nothing has initialised.
void NeedInitialised(void const* data, std::size_t bytes);

}  // namespace talvo::certificate
