// Joining arrays on bare memory.
#pragma once

#include <vector>

#include "talvo/utility/export.h"

namespace talvo::kernel::native {

/// Joins row-major arrays along `axis`: for each index before the axis, the chunk of every source in turn.
/// source_dims[i] are the extents of sources[i], equal but for the axis; `destination` holds the extents of the first
/// with the sum at the axis and overlaps no source. `element_bytes` is the size of an element of all of them.
/// Assert: as many shapes as sources and at least one; an axis at or above a rank; a null pointer where there are
/// elements.
TALVO_API void Concatenate_MainMemory_Fallback(std::vector<void const*> const& sources,
                                               std::vector<std::vector<unsigned int>> const& source_dims,
                                               unsigned int element_bytes, unsigned int axis, void* destination);

}  // namespace talvo::kernel::native
