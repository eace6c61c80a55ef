#include "tools/run_package/describe.h"

#include <cstdio>
#include <iomanip>
#include <memory>
#include <ostream>
#include <utility>
#include <vector>

#include "tools/common/kernels.h"
#include "tools/run_package/fields.h"

namespace run_package {
namespace {

using namespace talvo::runtime;

struct LayerFacts {
  std::string id, record;
  std::vector<std::string> reads;
  std::vector<Field> fields;
  std::vector<std::pair<std::string, std::size_t>> weights;  // key and number of values
  std::size_t weight_bytes;
};

struct BackendFacts {
  std::string name, summary;
  std::vector<std::pair<std::string, std::string>> kernels;  // by layer
};

struct ModelFacts {
  std::string id;
  NetExtraInfo const* extra;
  std::vector<std::string> outputs;
  std::vector<LayerFacts> layers;
  std::size_t weight_bytes = 0;
  bool is_configured;
  std::vector<BackendFacts> backends;
};

std::string Join(std::vector<std::string> const& words) {
  std::string text;
  for (std::string const& word : words) text += (text.empty() ? "" : ", ") + word;
  return text.empty() ? "-" : text;
}

std::string KernelOf(TLModelCfg const& config, std::string const& layer) {
  auto const found = config.layers.find(layer);
  if (found == config.layers.end() || found->second == nullptr) return "(no configuration)";
  auto const converters = [](char const* side, KernelCfgArr const& list) {
    std::string text;
    for (std::string const& id : list.kernel_ids) {
      auto const kernel = list.kernels.find(id);
      text += std::string(" ") + side + "[" + id + "] " +
              (kernel != list.kernels.end() ? kernel->second->kernel_type : "?");
    }
    return text;
  };
  LayerCfg const& record = *found->second;
  std::string const& kernel = record.kernel->kernel_type;
  return (kernel.empty() ? "(no kernel)" : kernel) + converters("in", *record.input_converters) +
         converters("out", *record.output_converters);
}

LayerFacts FactsOf(std::string const& id, LayerInfo& record) {
  LayerFacts facts = {id, record.GetClassTypeName(), record.input_ids, FieldsOf(record), {}, 0};
  for (Weights const& weights : WeightsOf(record)) {
    facts.weights.emplace_back(weights.key, weights.values.size());
    facts.weight_bytes += weights.values.size() * sizeof(float);
  }
  return facts;
}

ModelFacts FactsOf(std::string const& id, TLNModel const& package) {
  TLModelInfo const& model = *package.model_arr->models.at(id);
  auto const configs = package.config_arr->configs.find(id);
  ModelFacts facts = {
      id, &model.extra_info, model.squential_output_ids, {}, 0, configs != package.config_arr->configs.end(), {}};
  for (std::string const& layer : model.squential_ids) {
    facts.layers.push_back(FactsOf(layer, *model.layers.at(layer)));
    facts.weight_bytes += facts.layers.back().weight_bytes;
  }
  if (!facts.is_configured) return facts;
  for (tools::BackEnd const& known : tools::kBackEnds) {
    auto const& config = (*configs->second).*known.config;
    if (tools::IsEmpty(*config)) continue;
    BackendFacts backend = {known.name, config->summary, {}};
    for (std::string const& layer : model.squential_ids) backend.kernels.emplace_back(layer, KernelOf(*config, layer));
    facts.backends.push_back(std::move(backend));
  }
  return facts;
}

void PrintExtra(NetExtraInfo const& extra, std::ostream& out) {
  if (extra.model_base_h != 0 || extra.model_base_w != 0)
    out << "  base size " << extra.model_base_h << " x " << extra.model_base_w << " (height x width)\n";
  if (!DateOf(extra).empty()) out << "  made " << DateOf(extra) << "\n";
  if (!extra.device.empty()) out << "  for " << extra.device << "\n";
  if (!extra.summary.empty()) out << "  " << extra.summary << "\n";
}

void PrintWrapped(std::vector<std::string> const& facts, std::ostream& out) {
  constexpr std::size_t kIndent = 10, kWidth = 120;
  std::size_t column = 0;
  for (std::size_t i = 0; i < facts.size(); ++i) {
    std::string const fact = facts[i] + (i + 1 < facts.size() ? "," : "");
    bool const fits = column != 0 && column + 1 + fact.size() <= kWidth;
    if (!fits) out << (column != 0 ? "\n" : "") << std::string(kIndent - 1, ' ');
    out << " " << fact;
    column = (fits ? column + 1 : kIndent) + fact.size();
  }
  if (column != 0) out << "\n";
}

void PrintLayer(std::size_t number, LayerFacts const& layer, std::ostream& out) {
  out << "  " << std::setw(4) << number << "  " << std::left << std::setw(24) << layer.id << std::setw(24)
      << layer.record << std::right << std::setw(12) << layer.weight_bytes << "  reads " << Join(layer.reads) << "\n";
  std::vector<std::string> facts;
  for (Field const& field : layer.fields) facts.push_back(field.key + " " + field.text);
  for (auto const& [key, count] : layer.weights) facts.push_back(key + " of " + std::to_string(count) + " values");
  PrintWrapped(facts, out);
}

void Print(ModelFacts const& model, std::ostream& out) {
  out << "model \"" << model.id << "\", version " << model.extra->version << ", outputs " << Join(model.outputs)
      << "\n";
  PrintExtra(*model.extra, out);
  out << "     #  layer                   record                  weight bytes\n";
  for (std::size_t i = 0; i < model.layers.size(); ++i) PrintLayer(i, model.layers[i], out);
  out << "  " << model.layers.size() << " layers, " << model.weight_bytes << " bytes of weights\n";
  if (!model.is_configured) {
    out << "  no configuration\n";
    return;
  }
  for (BackendFacts const& backend : model.backends) {
    out << "  back end " << backend.name << (backend.summary.empty() ? "" : " (" + backend.summary + ")") << "\n";
    for (auto const& [layer, kernel] : backend.kernels)
      out << "        " << std::left << std::setw(24) << layer << std::right << kernel << "\n";
  }
  if (model.backends.empty()) out << "  no back end is configured\n";
}

void Put(LayerFacts const& layer, tools::Json& json) {
  json.Put("id", layer.id);
  json.Put("record", layer.record);
  json.Put("reads", layer.reads);
  json.Object("fields", [&] { PutFields(layer.fields, json); });
  json.Object("weights", [&] {
    for (auto const& [key, count] : layer.weights) json.Put(key, count);
  });
  json.Put("weight_bytes", layer.weight_bytes);
}

void Put(ModelFacts const& model, tools::Json& json) {
  NetExtraInfo const& extra = *model.extra;
  json.Put("id", model.id);
  json.Put("version", extra.version);
  json.Put("outputs", model.outputs);
  json.Put("base_height", extra.model_base_h);
  json.Put("base_width", extra.model_base_w);
  json.Put("date", DateOf(extra));
  json.Put("device", extra.device);
  json.Put("summary", extra.summary);
  json.Objects("layers", model.layers, [&](LayerFacts const& layer) { Put(layer, json); });
  json.Put("weight_bytes", model.weight_bytes);
  json.Put("is_configured", model.is_configured);
  json.Objects("backends", model.backends, [&](BackendFacts const& backend) {
    json.Put("name", backend.name);
    json.Put("summary", backend.summary);
    json.Object("kernels", [&] {
      for (auto const& [layer, kernel] : backend.kernels) json.Put(layer, kernel);
    });
  });
}

void PutPackage(std::string const& path, TLNModel const& package, std::vector<ModelFacts> const& models,
                tools::Json& json) {
  json.Put("package", path);
  json.Put("sdk_type", package.sdk_type);
  json.Put("core_version", std::vector<unsigned int>{package.core_major_ver, package.core_minor_ver});
  json.Put("sdk_version", std::vector<unsigned int>{package.sdk_major_ver, package.sdk_minor_ver});
  json.Objects("models", models, [&](ModelFacts const& model) { Put(model, json); });
}

}  // namespace

std::string DateOf(NetExtraInfo const& extra) {
  auto const& time = extra.time;
  if (time.year == 0) return "";
  char text[80];
  std::snprintf(text, sizeof text, "%04u-%02u-%02u %02u:%02u:%02u", time.year, time.moon, time.day, time.hour, time.min,
                time.sec);
  return text;
}

void Describe(std::string const& path, TLNModel const& package, bool as_json, std::ostream& out) {
  std::vector<ModelFacts> models;
  for (std::string const& id : package.model_arr->squential_ids) models.push_back(FactsOf(id, package));
  if (as_json) {
    tools::Json json;
    PutPackage(path, package, models, json);
    out << json.Finish();
    return;
  }
  out << "sdk type \"" << package.sdk_type << "\", needs core " << package.core_major_ver << "."
      << package.core_minor_ver << " and sdk " << package.sdk_major_ver << "." << package.sdk_minor_ver << "; "
      << "models: " << models.size() << "\n";
  for (ModelFacts const& model : models) Print(model, out);
}

}  // namespace run_package
