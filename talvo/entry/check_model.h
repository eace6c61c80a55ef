// What is wrong with a package, or looks so, before an application runs it; and what memory a run will take.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "talvo/entry/model.h"
#include "talvo/serialization/model_info.h"
#include "talvo/utility/export.h"

namespace talvo {

/// Extents by the id of an input layer. Layouts follow from the rank, as ModelInput tells.
using InputDims = std::map<std::string, std::vector<unsigned int>>;

struct ModelFinding {
  bool refused;       // Model or its Run refuses; otherwise it runs, perhaps not as it was meant
  std::string layer;  // id, or empty where it is no single layer
  std::string text;
};

/// "refused: layer ID: TEXT", or "warning: ...".
TALVO_API std::string TextOf(ModelFinding const& finding);

/// Looks at one model of a package: ids that no layer has; outputs that are inputs; layers that nothing reads; kernels
/// that are not registered, with the nearest names; weights that are no numbers, and such as the binary form makes 0 or
/// infinite. Then it builds the net and runs it once on tensors of 0.5 of these extents, in a context of its own, and
/// looks at what arrives: what a layer refuses, and dense layers and convolutions that read a part of it. A model
/// without a finding that is `refused` runs on these extents. Without the extents of every input nothing is run. With
/// `prefer_fused` the kernels of `package` are renamed, as Model does.
TALVO_API std::vector<ModelFinding> CheckModel(runtime::TLNModel& package, InputDims const& inputs = {},
                                               ModelOptions const& options = {});

struct LayerMemory {
  std::string id, kernel;
  std::vector<unsigned int> dims;  // of the first output; empty where there is none
  unsigned long pool_bytes;        // what the dynamic pool has taken from the system when the layer has run
  unsigned long live_bytes;        // what the tensors hold that are alive when it has run, the model's inputs included
};

struct MemoryReport {
  std::vector<LayerMemory> layers;  // of the first run
  unsigned long first_bytes;        // of the dynamic pool behind the first run
  unsigned long steady_bytes;       // ... when further runs take no more: a block may first serve a smaller tensor
};

/// Runs the model as CheckModel does, until its dynamic pool no longer grows, and tells to the byte what runs on
/// tensors of these extents take in an application that lets the results of a run go before the next. Throws
/// std::runtime_error, as Model and its Run.
TALVO_API MemoryReport MeasureMemory(runtime::TLNModel& package, InputDims const& inputs,
                                     ModelOptions const& options = {});

}  // namespace talvo
