// From a camera frame to the network's input.
#pragma once

#include <memory>
#include <string>

#include "examples/read_digits/frame.h"
#include "talvo/runtime/context.h"
#include "talvo/runtime/tensor_cpu.h"

namespace read_digits {

constexpr unsigned int kSide = 28;  // the network's input: one channel of 28 by 28, 0 paper and 1 ink

/// Finds the ink in the box of the upright picture and takes the square around it, resized so that the ink's longer
/// side takes 20 pixels in the middle; normalises. Throws std::runtime_error with the path: a box outside the frame, or
/// one without ink.
std::shared_ptr<talvo::runtime::TensorCPU> PrepareInput(std::string const& path, Frame const& frame, View const& view,
                                                        std::shared_ptr<talvo::runtime::Context> const& context);

}  // namespace read_digits
