// Arrays in numpy's .npy files, version 1.0 to 3.0.
// Source: the format's description in numpy.lib.format.
#pragma once

#include <memory>
#include <string>

#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/tensor_cpu.h"

namespace run_package {

/// A tensor with an array of float32 or uint8. float16 and float64, big-endian data and Fortran order are converted;
/// what was, `note` tells, unless null, and is empty where nothing was. `layout` is a layout's name, or empty: then the
/// rank picks it (1 C, 2 SC, 3 CHW, otherwise FLEXIABLE). Throws std::runtime_error with the path in the text.
std::shared_ptr<talvo::runtime::TensorCPU> ReadNpy(std::string const& path, std::string const& layout,
                                                   talvo::runtime::DeviceCPU& device, std::string* note = nullptr);

/// Writes a tensor of any data type. Throws std::runtime_error with the path in the text.
void WriteNpy(std::string const& path, talvo::runtime::Tensor const& tensor);

}  // namespace run_package
