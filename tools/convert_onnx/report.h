// What a conversion made of a model, for people and for programs.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "tools/common/rounding.h"
#include "tools/convert_onnx/convert.h"

namespace convert_onnx {

struct Report {
  std::string model, package;       // files; the latter empty where nothing is written
  std::vector<std::string> checks;  // folders whose outputs are within the bounds
  tools::Rounding rounding;         // of the binary form, whichever is written
  unsigned long peak_bytes = 0;     // of all tensors of one run, weights included; 0 where none was made
};

/// One line for each layer, and a summary.
void Print(Conversion const& conversion, Report const& report, std::ostream& stream);

/// The same as one JSON object. Refusal: the file cannot be written.
void WriteJson(Conversion const& conversion, Report const& report, std::string const& path);

}  // namespace convert_onnx
