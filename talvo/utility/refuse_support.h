// The refusal of bad input inside the library. Internal: applications call Assert.
#pragma once

namespace talvo::utility {

/// Does what Assert does with a false condition: the same line to the sink, the same text in the exception. Sources of
/// this library write `if (bad) Refuse(format, ...)`, never `Assert(good, format, ...)`: where all is well no argument
/// is computed, and the compiler lays the call out of the way of the good path. A null format is for the refusals that
/// the interface gives no text: they throw "[tag]: " and report nothing.
[[noreturn]] void Refuse(char const* format, ...) __attribute__((cold, noinline, format(printf, 1, 2)));

}  // namespace talvo::utility
