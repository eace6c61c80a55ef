// The mark of everything that the shared library exports; all else is hidden.
#pragma once

#define TALVO_API __attribute__((visibility("default")))

/// Of an exported class, what only the library itself calls.
#define TALVO_INTERNAL __attribute__((visibility("hidden")))
