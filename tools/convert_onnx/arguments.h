// The command line of convert_onnx.
#pragma once

#include <string>
#include <vector>

#include "tools/common/program.h"
#include "tools/convert_onnx/check.h"

namespace convert_onnx {

struct Arguments {
  std::string model, out, report;
  Options options;
  std::vector<std::string> check;  // folders
  Bounds bounds;
  bool dry_run = false, list_operators = false, nearest = true;
};

extern tools::Usage const kUsage;

/// Throws tools::UsageError.
Arguments ParseArguments(int count, char const* const* words);

}  // namespace convert_onnx
