// The promise that two ranges do not overlap, for row primitives whose contract forbids it.
#pragma once

#define TALVO_RESTRICT __restrict__
