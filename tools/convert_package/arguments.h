// The command line of convert_package.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tools/common/kernels.h"
#include "tools/common/program.h"

namespace convert_package {

struct Arguments {
  std::string in, out;
  bool nearest = true;                                             // of the two halves around a weight
  std::vector<std::pair<std::string, std::string>> set_back_ends;  // TO and FROM, in order
  std::vector<std::pair<std::string, tools::Kernels>> kernels;     // by back end, in order; empty: all that there are
};

extern tools::Usage const kUsage;

/// Throws tools::UsageError.
Arguments ParseArguments(int count, char const* const* words);

}  // namespace convert_package
