// The command line of upgrade_model.
#pragma once

#include <string>

#include "tools/common/program.h"

namespace upgrade_model {

struct Arguments {
  std::string in, out;
  std::string config;  // empty: the default configuration
  std::string sdk_type = "x86";
  unsigned short sdk_major = 1, sdk_minor = 0;
  std::string model_id;
};

extern tools::Usage const kUsage;

/// Throws tools::UsageError.
Arguments ParseArguments(int count, char const* const* words);

}  // namespace upgrade_model
