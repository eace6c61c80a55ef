// The mark of everything that the shared library exports; all else is hidden.
#pragma once

#define TALVO_API __attribute__((visibility("default")))
