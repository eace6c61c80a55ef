// Which family of kernels the layers of a package run on, and the configurations that name them.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "talvo/serialization/model_info.h"

namespace tools {

enum class Kernels : unsigned char { kPortable, kBlas, kFused };

/// From "portable", "blas" or "fused". Throws UsageError, naming `option`.
Kernels ParseKernels(std::string const& option, std::string const& word);

/// Names for each layer the kernel of this family instead of the one that it has, where the family has one for its
/// record; for all others the portable one. What is neither portable, on the matrix product nor fused stays.
void SetKernels(talvo::runtime::TLModelInfo const& model, talvo::runtime::TLModelCfg& config, Kernels kernels);

struct BackEnd {
  char const* name;  // the key of files: cpu_sse, ...
  std::shared_ptr<talvo::runtime::TLModelCfg> talvo::runtime::TLModelMultiBackendCfgs::*config;
};

/// Those that a package has configurations for.
extern std::vector<BackEnd> const kBackEnds;

/// Whether a configuration says nothing.
bool IsEmpty(talvo::runtime::TLModelCfg const& config);

}  // namespace tools
