#include "tools/run_package/report.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <iomanip>
#include <limits>
#include <ostream>
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

template <typename T>
double At(void const* data, std::size_t i) {
  return static_cast<double>(static_cast<T const*>(data)[i]);
}

double Element(Tensor const& tensor, std::size_t i) {
  switch (tensor.shape.data_type) {
    case TensorShape::FLOAT32:
      return At<float>(tensor.data, i);
    case TensorShape::FLOAT16:
      return static_cast<double>(static_cast<float>(static_cast<half_float::half const*>(tensor.data)[i]));
    case TensorShape::INT32:
      return At<std::int32_t>(tensor.data, i);
    case TensorShape::INT16:
      return At<std::int16_t>(tensor.data, i);
    case TensorShape::INT8:
      return At<std::int8_t>(tensor.data, i);
    case TensorShape::UINT32:
      return At<std::uint32_t>(tensor.data, i);
    case TensorShape::UINT16:
      return At<std::uint16_t>(tensor.data, i);
    default:
      return At<std::uint8_t>(tensor.data, i);
  }
}

void PrintSummary(std::string const& id, Tensor const& tensor, std::ostream& out) {
  std::size_t const count = talvo::runtime::ElementCount(tensor.shape.dims);
  std::size_t numbers = 0;
  double minimum = std::numeric_limits<double>::infinity(), maximum = -minimum, sum = 0;
  for (std::size_t i = 0; i < count; ++i) {
    double const value = Element(tensor, i);
    if (std::isnan(value)) continue;
    ++numbers;
    minimum = std::min(minimum, value);
    maximum = std::max(maximum, value);
    sum += value;
  }
  out << id << ": " << talvo::runtime::DimsText(tensor.shape.dims) << " " << LayoutName(tensor.shape.layout);
  if (numbers > 0)
    out << ", minimum " << minimum << ", maximum " << maximum << ", mean " << sum / static_cast<double>(numbers);
  if (numbers < count) out << ", not a number: " << count - numbers << " of " << count;
  out << "\n";
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

std::string OutputDims(RunResult const& result, unsigned int layer) {
  auto const found = result.outputs.find(layer);
  return found == result.outputs.end() || found->second.empty()
             ? "-"
             : talvo::runtime::DimsText(found->second[0]->shape.dims);
}

float Median(std::vector<float> values) {
  auto const middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

}  // namespace

void ReportOutputs(Session const& session, RunResult const& result, std::string const& directory, std::ostream& out) {
  if (!directory.empty()) MakeFolder(directory);
  std::set<std::string> file_names;
  std::set<unsigned int> reported;  // a model may name an output twice
  for (unsigned int index : session.OutputIndices()) {
    auto const found = result.outputs.find(index);
    if (found == result.outputs.end() || !reported.insert(index).second) continue;
    for (std::size_t i = 0; i < found->second.size(); ++i) {
      std::string const id = session.Model().squential_ids[index] + (i == 0 ? "" : "." + std::to_string(i));
      PrintSummary(id, *found->second[i], out);
      if (!directory.empty()) WriteNpy(directory + "/" + FileName(id, file_names), *found->second[i]);
    }
  }
  out << "time: " << std::fixed << std::setprecision(3) << result.time_ms << " ms\n"
      << std::defaultfloat << std::setprecision(6);
}

void ReportProfile(Session const& session, RunResult const& result, std::ostream& out) {
  out << "   #  layer                     ms        output            kernel\n" << std::fixed << std::setprecision(4);
  for (unsigned int layer = 0; layer < result.layer_times_ms[0].size(); ++layer) {
    std::vector<float> times;
    for (auto const& run : result.layer_times_ms) times.push_back(run[layer]);
    out << std::setw(4) << layer << "  " << std::left << std::setw(24) << session.Model().squential_ids[layer]
        << std::right << std::setw(10) << Median(std::move(times)) << "  " << std::left << std::setw(16)
        << OutputDims(result, layer) << "  " << std::right << session.KernelName(layer) << "\n";
  }
  out << std::defaultfloat << std::setprecision(6);
}

}  // namespace run_package
