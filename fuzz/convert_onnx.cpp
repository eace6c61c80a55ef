// A model is converted or refused, in memory of no more than 64 MiB and 64 times its length. What is converted is a
// package that both forms keep, and the library takes each of its layers. The seeds are small models of many operators.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>

#include "fuzz/memory_meter.h"
#include "talvo/entry/check_model.h"
#include "talvo/entry/open_package.h"
#include "talvo/serialization/file_visitors.h"
#include "talvo/utility/log.h"
#include "tools/common/rounding.h"
#include "tools/convert_onnx/package.h"

namespace {

using namespace convert_onnx;
using talvo::runtime::TLNModel;

int Discard(char const*) { return 0; }

Options FewOf() {
  Options options;
  options.approximate = options.narrow = true;
  options.most_elements = 1 << 14;
  options.most_layers = 1 << 10;
  return options;
}

std::string BinaryForm(TLNModel& package) {
  char* bytes = nullptr;
  std::size_t size = 0;
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream(open_memstream(&bytes, &size), std::fclose);
  package.VisitAttr(std::make_shared<talvo::runtime::FILEWriter>(stream.get(), true));
  stream.reset();
  std::string const form(bytes, size);
  std::free(bytes);
  return form;
}

void CheckPackage(Conversion const& conversion) {
  auto const package = MakePackage(conversion, "model");
  if (!tools::RoundToHalves(*package, true).overflowing.empty()) return;
  std::string const form = BinaryForm(*package);
  auto const read = talvo::utility::OpenPackage(form.data(), form.size(), "package");
  if (BinaryForm(*read) != form) std::abort();
  for (talvo::ModelFinding const& finding : talvo::CheckModel(*read)) {
    if (!finding.refused) continue;
    std::fprintf(stderr, "%s\n", TextOf(finding).c_str());
    std::abort();
  }
}

void ConvertBytes(std::string const& bytes) {
  std::istringstream stream(bytes);
  try {
    Conversion const conversion = Convert(ReadModel(stream), "/dev/null", FewOf());  // no external data lies there
    if (conversion.refusals.empty()) CheckPackage(conversion);
  } catch (Refusal const&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  talvo::utility::SetLogCallback(Discard);
  google::protobuf::SetLogHandler(nullptr);
  talvo::fuzz::MemoryMeter const meter;
  ConvertBytes(std::string(reinterpret_cast<char const*>(data), size));
  if (meter.PeakBytes() > (64u << 20) + 64 * size) std::abort();
  return 0;
}
