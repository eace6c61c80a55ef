// A package is read or refused; when its first model builds a net, the net runs on a fixed picture. Whatever the sizes
// in the records say, no memory beyond the pool's limit is handed out. The seeds are one small model in both forms.
#include <cstdint>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>

#include "fuzz/limited_run.h"
#include "talvo/serialization/file_visitors.h"
#include "talvo/utility/log.h"

namespace {

using namespace talvo::runtime;

void Read(TLNModel& package, std::uint8_t const* data, std::size_t size) {
  if (size != 0 && data[0] == '{') {
    package.FromJsonString(std::string(reinterpret_cast<char const*>(data), size).c_str());
    return;
  }
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> const stream(fmemopen(const_cast<std::uint8_t*>(data), size, "rb"),
                                                               std::fclose);
  if (stream != nullptr) package.VisitAttr(std::make_shared<FILEReader>(stream.get(), 0));
}

int Discard(char const*) { return 0; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  talvo::utility::SetLogCallback(Discard);
  try {
    TLNModel package;
    Read(package, data, size);
    talvo::fuzz::BuildAndRun(package);
  } catch (std::exception const&) {  // a refusal; a model may also name what it does not hold
  }
  return 0;
}
