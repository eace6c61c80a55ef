// The one channel through which the library reports, the way in which it refuses bad input, and the text helpers that
// build messages. Nothing here is locked: the application sets tag, sink and mask before it starts to use the library;
// from then on any number of threads may call the rest. The last text that was formatted is each thread's own.
#pragma once

#include <string>

#include "talvo/utility/export.h"

namespace talvo::utility {

/// Sets the text between the square brackets of every line ("TLN" at first); it is copied. Returns 0, or -1 for an
/// empty tag, which changes nothing. Assert: null.
TALVO_API int SetLogTag(char const* tag);

/// Sets the sink that receives each finished line as a zero-terminated text that lives for the call; its result is
/// ignored. At first lines go to standard output. Returns 0, or -1 for null, which changes nothing.
TALVO_API int SetLogCallback(int (*callback)(char const*));

/// Stores the bit mask of the levels that Log lets through: 1 verbose, 4 info, 8 warning, 16 error. 30 at first.
/// Returns 0.
TALVO_API int SetLogLevel(unsigned int mask);

/// Writes the mask to `mask`. Returns 0. Assert: null.
TALVO_API int GetLogLevel(unsigned int* mask);

/// Formats like printf, cut to 2047 characters, and gives "[tag] (Info): text" (or the level's other prefix) to the
/// sink; the line of level 16 is "[tag]: text" and ends in a newline. Level 2 and every other number print nothing.
/// Returns the text without tag and prefix; a call that was filtered out returns the last text that Log, Assert or
/// StringFormat formatted on this thread.
TALVO_API std::string Log(int level, char const* format, ...) __attribute__((format(printf, 2, 3)));

/// Returns 0 when `condition` holds. Otherwise gives "[tag]: text" and a newline to the sink, whatever the level mask,
/// and throws std::runtime_error with the same text. A null format throws "[tag]: " and reports nothing.
TALVO_API int Assert(bool condition, char const* format, ...) __attribute__((format(printf, 2, 3)));

/// Formats like printf into a text of at most 4095 characters.
TALVO_API std::string StrFormat(char const* format, ...) __attribute__((format(printf, 1, 2)));

/// Formats like printf into a text of at most 2047 characters, through the buffer that Log shares.
TALVO_API std::string StringFormat(char const* format, ...) __attribute__((format(printf, 1, 2)));

/// Replaces the first occurrence of `from` until none is left. Each search starts again at the front, so replaced text
/// is itself subject to replacement, and a `to` that contains `from` never ends. An empty `source` gives `to` when
/// `from` is empty too.
TALVO_API std::string StrReplaceALL(std::string const& source, std::string const& from, std::string const& to);

/// The first word of what a string stream writes for `value`: six significant digits for floats, one character for char
/// types. For char, short, int, long and long long, signed and unsigned, and float and double.
template <typename T>
std::string ToStr(T const& value);

extern template TALVO_API std::string ToStr(char const&);
extern template TALVO_API std::string ToStr(unsigned char const&);
extern template TALVO_API std::string ToStr(short const&);
extern template TALVO_API std::string ToStr(unsigned short const&);
extern template TALVO_API std::string ToStr(int const&);
extern template TALVO_API std::string ToStr(unsigned int const&);
extern template TALVO_API std::string ToStr(long const&);
extern template TALVO_API std::string ToStr(unsigned long const&);
extern template TALVO_API std::string ToStr(long long const&);
extern template TALVO_API std::string ToStr(unsigned long long const&);
extern template TALVO_API std::string ToStr(float const&);
extern template TALVO_API std::string ToStr(double const&);

/// Wall-clock time in milliseconds, with the resolution of a microsecond.
TALVO_API double get_time_in_ms();

}  // namespace talvo::utility
