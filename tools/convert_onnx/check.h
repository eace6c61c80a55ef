// A package run on recorded inputs and compared with recorded outputs.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "tools/convert_onnx/package.h"

namespace convert_onnx {

struct Bounds {
  double relative = 1e-3;  // of the largest recorded value of an output
  double absolute = 1e-5;
};

/// Numbers from a ".npy" file (float32 or uint8) or a ".pb" file of one tensor. Refusal: neither, or damaged.
Array ReadArray(std::string const& path);

/// input_0, input_1, ... or output_0, ... of a folder, ".pb" or ".npy", up to the first that is missing.
std::vector<Array> ReadArrays(std::string const& folder, std::string const& stem);

/// What one run of the only model of a package gives.
struct Outcome {
  std::vector<Array> values;     // of the layers that were asked for, in their order
  unsigned long peak_bytes = 0;  // that the tensors took
};

/// `inputs` by layer; `layers` are those whose values are wanted, the model's outputs where empty. Refusal: what the
/// library refuses, and an input that is missing.
Outcome Run(talvo::runtime::TLNModel const& package, std::map<std::string, Array> const& inputs,
            std::vector<std::string> const& layers = {});

/// The recorded inputs of a folder by the names of the graph's inputs.
std::map<std::string, Array> RecordedInputs(Conversion const& conversion, std::string const& folder);

/// Which output of `package` is off from what the folder has recorded, and what shows why: the first layer that is off
/// from a value NAME.npy or NAME.pb of the folder (with _ for each slash), the first that parts from `conversion`,
/// whose weights are not rounded, and the first that is not finite. Empty where all is within the bounds. The package
/// shares no record with the conversion.
std::string Deviation(talvo::runtime::TLNModel const& package, Conversion const& conversion, std::string const& folder,
                      Bounds const& bounds);

/// Empty where `got` is within the bounds of `want`, otherwise how far it is off. Two NaNs are equal.
std::string Difference(Array const& got, Array const& want, Bounds const& bounds);

}  // namespace convert_onnx
