#include "tools/convert_onnx/report.h"

#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <ostream>

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

class Json {
 public:
  Json() { writer_.StartObject(); }

  void Put(char const* key, std::string const& text) { Key(key), Text(text); }
  void Put(char const* key, std::uint64_t number) { Key(key), writer_.Uint64(number); }
  void Put(char const* key, double number) { Key(key), writer_.Double(number); }
  void Put(char const* key, std::vector<std::string> const& list) {
    Key(key), writer_.StartArray();
    for (std::string const& text : list) Text(text);
    writer_.EndArray();
  }
  void Put(char const* key, std::map<std::string, unsigned int> const& counts) {
    Key(key), writer_.StartObject();
    for (auto const& [name, count] : counts) Put(name.c_str(), std::uint64_t{count});
    writer_.EndObject();
  }
  void Put(char const* key, std::vector<Layer> const& layers) {
    Key(key), writer_.StartArray();
    for (Layer const& layer : layers) {
      writer_.StartObject();
      Put("node", layer.node), Put("layer", layer.name), Put("kernel", layer.kernel);
      Put("weight_bytes", std::uint64_t{layer.Weights() * sizeof(float)});
      writer_.EndObject();
    }
    writer_.EndArray();
  }
  std::string Finish() {
    writer_.EndObject();
    return std::string(buffer_.GetString(), buffer_.GetSize()) + "\n";
  }

 private:
  void Key(char const* key) { writer_.Key(key); }
  void Text(std::string const& text) { writer_.String(text.data(), static_cast<rapidjson::SizeType>(text.size())); }

  rapidjson::StringBuffer buffer_;
  rapidjson::PrettyWriter<rapidjson::StringBuffer> writer_{buffer_};
};

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
  Json json;
  json.Put("model", report.model), json.Put("package", report.package);
  json.Put("inputs", conversion.inputs), json.Put("outputs", conversion.outputs);
  json.Put("refusals", conversion.refusals), json.Put("approximate", conversion.notes);
  json.Put("layers", conversion.layers), json.Put("kernels", KernelsOf(conversion));
  json.Put("folded_nodes", conversion.folded), json.Put("unread_nodes", std::uint64_t{conversion.dropped});
  json.Put("weight_bytes", std::uint64_t{WeightBytes(conversion)});
  json.Put("largest_rounding", rounding.largest), json.Put("largest_rounding_layer", rounding.where.layer);
  json.Put("changed_small_weights", std::uint64_t{rounding.subnormal});
  json.Put("vanishing_weights", std::uint64_t{rounding.vanishing});
  json.Put("overflowing_layers", overflowing), json.Put("peak_bytes", std::uint64_t{report.peak_bytes});
  json.Put("checks", report.checks);
  std::ofstream stream(path);
  if (!(stream << json.Finish()) || !stream.flush()) throw Refusal(path + ": cannot be written");
}

}  // namespace convert_onnx
