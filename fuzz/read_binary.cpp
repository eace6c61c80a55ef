// A binary file is read or refused, as a package, a model and a set of configurations, and what was read goes through
// both forms once more; reading takes memory in proportion to the file. The seeds are the golden packages, their models
// and their configurations.
#include "fuzz/read_records.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  return talvo::fuzz::ReadAsEachRoot(data, size, "bin");
}
