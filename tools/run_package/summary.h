// A run in the numbers that are printed, whatever the form.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "talvo/entry/check_model.h"
#include "tools/run_package/session.h"

namespace run_package {

/// Of all repeats; a percentile is the smallest time that so many of them do not exceed.
struct TimeSummary {
  double first_ms, minimum_ms, median_ms, percentile95_ms;
  std::size_t repeats;
};

struct TensorSummary {
  std::string id;                           // of the layer; ID.1 and so on for its further tensors
  std::vector<unsigned int> dims, strides;  // strides in elements
  std::string layout, type;
  std::size_t count, not_numbers;
  double minimum, maximum, mean;                        // of the numbers among the elements, where there are some
  std::vector<double> values;                           // all of a small tensor
  std::vector<std::pair<std::size_t, double>> largest;  // five of a vector, the largest first
  std::string file;                                     // that it was written to, or empty
};

struct LayerSummary {
  std::string id, kernel;
  std::vector<unsigned int> dims;  // of the first output
  TimeSummary time;
};

struct RunSummary {
  std::vector<TensorSummary> outputs;
  TimeSummary time;
  std::vector<LayerSummary> layers;         // where layers were asked for
  std::optional<unsigned long> pool_bytes;  // that the dynamic pool took, where a run kept nothing
};

TimeSummary Summarise(std::vector<double> const& times_ms);

/// Writes each output to `directory` unless that is empty: as LAYER.npy, further tensors of a layer as LAYER.1.npy and
/// so on, with _2, _3 ... behind the name where ids would share a file. Throws std::runtime_error with the path in the
/// text.
RunSummary Summarise(Session const& session, RunResult const& result, std::string const& directory);

/// The elements of a tensor of any data type.
std::vector<double> Elements(talvo::runtime::Tensor const& tensor);

}  // namespace run_package
