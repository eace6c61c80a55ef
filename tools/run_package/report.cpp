#include "tools/run_package/report.h"

#include <iomanip>
#include <ostream>
#include <sstream>

#include "talvo/runtime/tensor.h"

namespace run_package {
namespace {

using talvo::runtime::DimsText;

void PrintTensor(TensorSummary const& tensor, std::ostream& out) {
  out << tensor.id << ": " << DimsText(tensor.dims) << " " << tensor.layout << " " << tensor.type;
  if (tensor.not_numbers < tensor.count)
    out << ", minimum " << tensor.minimum << ", maximum " << tensor.maximum << ", mean " << tensor.mean;
  if (tensor.not_numbers > 0) out << ", not a number: " << tensor.not_numbers << " of " << tensor.count;
  out << "\n";
  if (!tensor.values.empty()) {
    out << "  values";
    for (double const value : tensor.values) out << " " << value;
    out << "\n";
  }
  for (std::size_t i = 0; i < tensor.largest.size(); ++i) {
    auto const& [place, value] = tensor.largest[i];
    out << (i == 0 ? "  largest " : ", ") << value << " at " << place;
  }
  if (!tensor.largest.empty()) out << "\n";
}

std::string Fixed(double number, int digits) {
  std::ostringstream text;
  text << std::fixed << std::setprecision(digits) << number;
  return text.str();
}

void PrintLayers(std::vector<LayerSummary> const& layers, std::ostream& out) {
  out << "   #  layer                     ms   minimum       95%  output            kernel\n";
  for (std::size_t i = 0; i < layers.size(); ++i) {
    LayerSummary const& layer = layers[i];
    out << std::setw(4) << i << "  " << std::left << std::setw(18) << layer.id << std::right << std::setw(10)
        << Fixed(layer.time.median_ms, 4) << std::setw(10) << Fixed(layer.time.minimum_ms, 4) << std::setw(10)
        << Fixed(layer.time.percentile95_ms, 4) << "  " << std::left << std::setw(16)
        << (layer.dims.empty() ? "-" : DimsText(layer.dims)) << "  " << std::right << layer.kernel << "\n";
  }
}

void PutTensor(TensorSummary const& tensor, tools::Json& json) {
  json.Put("id", tensor.id);
  json.Put("dims", tensor.dims);
  json.Put("strides", tensor.strides);
  json.Put("layout", tensor.layout);
  json.Put("type", tensor.type);
  json.Put("minimum", tensor.minimum);
  json.Put("maximum", tensor.maximum);
  json.Put("mean", tensor.mean);
  json.Put("not_numbers", tensor.not_numbers);
  if (!tensor.values.empty()) json.Put("values", tensor.values);
  if (!tensor.largest.empty()) {
    json.Objects("largest", tensor.largest, [&](auto const& largest) {
      json.Put("index", largest.first);
      json.Put("value", largest.second);
    });
  }
  if (!tensor.file.empty()) json.Put("file", tensor.file);
}

}  // namespace

void PrintRun(RunSummary const& run, bool layers, std::ostream& out) {
  for (TensorSummary const& output : run.outputs) PrintTensor(output, out);
  out << "time: " << Fixed(run.time.median_ms, 3) << " ms";
  if (run.time.repeats > 1) {
    out << ", the median of " << run.time.repeats << "; first " << Fixed(run.time.first_ms, 3) << ", minimum "
        << Fixed(run.time.minimum_ms, 3) << ", 95th percentile " << Fixed(run.time.percentile95_ms, 3);
  }
  out << "\n";
  if (run.pool_bytes) out << "memory: the dynamic pool took " << *run.pool_bytes << " bytes\n";
  if (layers) PrintLayers(run.layers, out);
}

void PutTime(char const* key, TimeSummary const& time, tools::Json& json) {
  json.Object(key, [&] {
    json.Put("first", time.first_ms);
    json.Put("minimum", time.minimum_ms);
    json.Put("median", time.median_ms);
    json.Put("percentile_95", time.percentile95_ms);
    json.Put("repeats", time.repeats);
  });
}

void PutRun(RunSummary const& run, tools::Json& json) {
  json.Objects("outputs", run.outputs, [&](TensorSummary const& output) { PutTensor(output, json); });
  PutTime("time_ms", run.time, json);
  if (run.pool_bytes) json.Put("pool_bytes", *run.pool_bytes);
  if (run.layers.empty()) return;
  json.Objects("layers", run.layers, [&](LayerSummary const& layer) {
    json.Put("id", layer.id);
    json.Put("kernel", layer.kernel);
    json.Put("dims", layer.dims);
    PutTime("time_ms", layer.time, json);
  });
}

void PrintProcess(ProcessSummary const& process, std::ostream& out) {
  out << "loading: " << Fixed(process.load_ms, 3) << " ms; the process took "
      << Fixed(static_cast<double>(process.peak_bytes) / (1 << 20), 1) << " MiB at most\n";
}

void PutProcess(ProcessSummary const& process, tools::Json& json) {
  json.Put("package", process.package);
  json.Put("model", process.model);
  json.Put("load_ms", process.load_ms);
  json.Put("process_peak_bytes", process.peak_bytes);
}

}  // namespace run_package
