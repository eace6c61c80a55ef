// The command line of upgrade_model.
#pragma once

#include <stdexcept>
#include <string>

namespace upgrade_model {

/// A command line that cannot be understood; the text says why.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Arguments {
  std::string in, out;
  std::string config;  // empty: the default configuration
  std::string sdk_type = "x86";
  unsigned short sdk_major = 1, sdk_minor = 0;
  std::string model_id;
};

extern char const* const kUsage;

/// Throws UsageError.
Arguments ParseArguments(int count, char const* const* words);

}  // namespace upgrade_model
