#include "tools/convert_onnx/report.h"

#include <algorithm>
#include <fstream>
#include <map>
#include <ostream>

#include "tools/common/json.h"

namespace convert_onnx {
namespace {

std::map<std::string, unsigned int> KernelsOf(Conversion const& conversion) {
  std::map<std::string, unsigned int> kernels;
  for (Layer const& layer : conversion.layers) ++kernels[layer.kernel];
  return kernels;
}

// As float32.
std::size_t WeightBytes(Conversion const& conversion) {
  std::size_t bytes = 0;
  for (Layer const& layer : conversion.layers) bytes += layer.Weights() * sizeof(float);
  return bytes;
}

}  // namespace

void Print(Conversion const& conversion, Report const& report, std::ostream& stream) {
  for (Layer const& layer : conversion.layers)
    stream << (layer.node.empty() ? "input" : layer.node) << " -> " << layer.name << "  " << layer.kernel << "\n";
  stream << conversion.layers.size() << " layers, " << KernelsOf(conversion).size() << " kernels, "
         << conversion.folded.size() << " nodes folded, " << conversion.dropped << " nodes that nobody reads, "
         << WeightBytes(conversion) << " bytes of weights\n"
         << tools::RoundingText(report.rounding) << "\n";
  if (report.peak_bytes != 0) stream << "peak memory of a run: " << report.peak_bytes << " bytes\n";
  for (std::string const& note : conversion.notes) stream << "approximate: " << note << "\n";
  bool const recurrent = std::any_of(conversion.layers.begin(), conversion.layers.end(),
                                     [](Layer const& layer) { return !layer.recurrent.empty(); });
  if (recurrent) stream << "recurrent layers keep their state from run to run: ResetRNNState begins another sequence\n";
  for (std::string const& folder : report.checks) stream << folder << ": within the bounds\n";
}

void WriteJson(Conversion const& conversion, Report const& report, std::string const& path) {
  tools::Rounding const& rounding = report.rounding;
  std::vector<std::string> overflowing;
  for (tools::RoundedWeight const& weight : rounding.overflowing) overflowing.push_back(weight.layer);
  overflowing.erase(std::unique(overflowing.begin(), overflowing.end()), overflowing.end());
  tools::Json json;
  json.Put("model", report.model), json.Put("package", report.package);
  json.Put("inputs", conversion.inputs), json.Put("outputs", conversion.outputs);
  json.Put("refusals", conversion.refusals), json.Put("approximate", conversion.notes);
  json.Objects("layers", conversion.layers, [&](Layer const& layer) {
    json.Put("node", layer.node), json.Put("layer", layer.name), json.Put("kernel", layer.kernel);
    json.Put("weight_bytes", layer.Weights() * sizeof(float));
  });
  json.Object("kernels", [&] {
    for (auto const& [name, count] : KernelsOf(conversion)) json.Put(name, count);
  });
  json.Put("folded_nodes", conversion.folded), json.Put("unread_nodes", conversion.dropped);
  json.Put("weight_bytes", WeightBytes(conversion));
  json.Put("largest_rounding", rounding.largest), json.Put("largest_rounding_layer", rounding.where.layer);
  json.Put("changed_small_weights", rounding.subnormal), json.Put("vanishing_weights", rounding.vanishing);
  json.Put("overflowing_layers", overflowing), json.Put("peak_bytes", report.peak_bytes);
  json.Put("checks", report.checks);
  std::ofstream stream(path);
  if (!(stream << json.Finish()) || !stream.flush()) throw Refusal(path + ": cannot be written");
}

}  // namespace convert_onnx
