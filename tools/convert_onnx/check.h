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

/// Runs the only model of a package. Refusal: what the library refuses, and an input that is missing.
std::vector<Array> Run(talvo::runtime::TLNModel const& package, std::map<std::string, Array> const& inputs);

/// Empty where `got` is within the bounds of `want`, otherwise how far it is off. Two NaNs are equal.
std::string Difference(Array const& got, Array const& want, Bounds const& bounds);

}  // namespace convert_onnx
