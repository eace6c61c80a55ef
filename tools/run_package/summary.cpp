#include "tools/run_package/summary.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <set>
#include <stdexcept>
#include <system_error>

#include "talvo/utility/half.h"
#include "tools/run_package/layouts.h"
#include "tools/run_package/npy.h"

namespace run_package {
namespace {

using talvo::runtime::Tensor;
using talvo::runtime::TensorShape;

constexpr std::size_t kSmall = 16, kLargest = 5;

template <typename T>
std::vector<double> Widened(Tensor const& tensor) {
  auto const* const first = static_cast<T const*>(tensor.data);
  return {first, first + talvo::runtime::ElementCount(tensor.shape.dims)};
}

std::vector<unsigned int> StridesOf(std::vector<unsigned int> const& dims) {
  std::vector<unsigned int> strides(dims.size(), 1);
  for (std::size_t axis = dims.size(); axis-- > 1;) strides[axis - 1] = strides[axis] * dims[axis];
  return strides;
}

void AddStatistics(std::vector<double> const& values, TensorSummary& summary) {
  double sum = 0;
  summary.minimum = std::numeric_limits<double>::infinity();
  summary.maximum = -summary.minimum;
  for (double const value : values) {
    if (std::isnan(value)) {
      ++summary.not_numbers;
      continue;
    }
    summary.minimum = std::min(summary.minimum, value);
    summary.maximum = std::max(summary.maximum, value);
    sum += value;
  }
  summary.mean = sum / static_cast<double>(values.size() - summary.not_numbers);
}

bool IsVector(std::vector<unsigned int> const& dims) {
  return std::count_if(dims.begin(), dims.end(), [](unsigned int extent) { return extent != 1; }) == 1;
}

std::vector<std::pair<std::size_t, double>> Largest(std::vector<double> const& values) {
  std::vector<std::pair<std::size_t, double>> numbers;
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (!std::isnan(values[i])) numbers.emplace_back(i, values[i]);
  }
  std::stable_sort(numbers.begin(), numbers.end(), [](auto const& a, auto const& b) { return a.second > b.second; });
  numbers.resize(std::min(numbers.size(), kLargest));
  return numbers;
}

TensorSummary SummaryOf(std::string const& id, Tensor const& tensor) {
  auto const& shape = tensor.shape;
  TensorSummary summary = {};
  summary.id = id;
  summary.dims = shape.dims;
  summary.strides = StridesOf(shape.dims);
  summary.layout = LayoutName(shape.layout);
  summary.type = TypeName(shape.data_type);
  auto const values = Elements(tensor);
  summary.count = values.size();
  AddStatistics(values, summary);
  if (values.size() <= kSmall) summary.values = values;
  if (IsVector(shape.dims) && values.size() > kLargest) summary.largest = Largest(values);
  return summary;
}

void MakeFolder(std::string const& path) {
  std::error_code problem;
  std::filesystem::create_directories(path, problem);
  if (!std::filesystem::is_directory(path, problem)) throw std::runtime_error(path + ": no folder can be made here");
}

// The file name of an output, one of its own: ids that differ in such characters alone get _2, _3 and so on.
std::string FileName(std::string id, std::set<std::string>& taken) {
  for (char& character : id) {
    if (character == '/' || static_cast<unsigned char>(character) < ' ') character = '_';
  }
  std::string name = id;
  for (unsigned int number = 2; !taken.insert(name).second; ++number) name = id + "_" + std::to_string(number);
  return name + ".npy";
}

LayerSummary SummaryOf(RunResult const& result, std::size_t layer) {
  auto const& [id, kernel, unused] = result.layer_times[0][layer];
  std::vector<double> times;
  for (auto const& repeat : result.layer_times) times.push_back(static_cast<double>(repeat[layer].milliseconds));
  bool const kept = result.tensors.TensorCount(id) != 0;
  return {id, kernel, kept ? result.tensors.Dims(id) : std::vector<unsigned int>(), Summarise(times)};
}

}  // namespace

std::vector<double> Elements(Tensor const& tensor) {
  switch (tensor.shape.data_type) {
    case TensorShape::FLOAT32:
      return Widened<float>(tensor);
    case TensorShape::FLOAT16: {
      auto const* const first = static_cast<half_float::half const*>(tensor.data);
      std::vector<double> values(talvo::runtime::ElementCount(tensor.shape.dims));
      std::transform(first, first + values.size(), values.begin(), [](half_float::half x) { return double{float{x}}; });
      return values;
    }
    case TensorShape::INT32:
      return Widened<std::int32_t>(tensor);
    case TensorShape::INT16:
      return Widened<std::int16_t>(tensor);
    case TensorShape::INT8:
      return Widened<std::int8_t>(tensor);
    case TensorShape::UINT32:
      return Widened<std::uint32_t>(tensor);
    case TensorShape::UINT16:
      return Widened<std::uint16_t>(tensor);
    default:
      return Widened<std::uint8_t>(tensor);
  }
}

TimeSummary Summarise(std::vector<double> const& times_ms) {
  std::vector<double> sorted = times_ms;
  std::sort(sorted.begin(), sorted.end());
  auto const percentile = [&](std::size_t percent) { return sorted[(sorted.size() * percent + 99) / 100 - 1]; };
  return {times_ms[0], sorted[0], percentile(50), percentile(95), sorted.size()};
}

RunSummary Summarise(Session const& session, RunResult const& result, std::string const& directory) {
  RunSummary summary;
  summary.time = Summarise(result.times_ms);
  if (result.pool_bytes != 0) summary.pool_bytes = result.pool_bytes;
  if (!directory.empty()) MakeFolder(directory);
  std::set<std::string> file_names;
  for (std::string const& layer : session.OutputIds()) {
    for (std::size_t i = 0; i < result.tensors.TensorCount(layer); ++i) {
      Tensor const& tensor = result.tensors.At(layer, i);
      TensorSummary output = SummaryOf(layer + (i == 0 ? "" : "." + std::to_string(i)), tensor);
      if (!directory.empty()) {
        output.file = directory + "/" + FileName(output.id, file_names);
        WriteNpy(output.file, tensor);
      }
      summary.outputs.push_back(std::move(output));
    }
  }
  std::size_t const layers = result.layer_times.empty() ? 0 : result.layer_times[0].size();
  for (std::size_t layer = 0; layer < layers; ++layer) summary.layers.push_back(SummaryOf(result, layer));
  return summary;
}

}  // namespace run_package
