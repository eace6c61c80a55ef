// A first-generation file is read or refused by an exception, and what was read is converted, into as many layers with
// a record and a type as there are ids, or refused likewise.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>

#include "talvo/serialization/tlmodel1_conversion.h"
#include "talvo/utility/log.h"

namespace {

int Quiet(char const*) { return 0; }

void Check(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  talvo::utility::SetLogCallback(Quiet);
  if (size == 0) return 0;
  std::string bytes(reinterpret_cast<char const*>(data), size);
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> const stream(fmemopen(bytes.data(), size, "rb"), &std::fclose);
  try {
    talvo1::QZNetLoader loader;
    if (!loader.ReadFile(stream.get())) return 0;
    talvo::runtime::TLModelInfo model;
    talvo::runtime::ConvertTLModel1(loader, model);
    Check(model.squential_ids.size() == model.squential_types.size());
    for (std::size_t i = 0; i < model.squential_ids.size(); ++i)
      Check(model.layers.at(model.squential_ids[i])->type == model.squential_types[i]);
  } catch (std::runtime_error const&) {
  }
  return 0;
}
