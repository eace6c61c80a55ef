#include "tools/run_package/describe.h"

#include <iomanip>
#include <memory>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "talvo/serialization/weights.h"
#include "talvo/utility/base64.h"
#include "tools/common/kernels.h"

namespace run_package {
namespace {

using namespace talvo::runtime;

std::size_t WeightBytes(LayerInfo& record) {
  std::size_t bytes = 0;
  ForEachWeight(record, [&](char const*, std::string& text) { bytes += Base64Decode(text).size(); });
  return bytes;
}

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

std::size_t DescribeLayers(TLModelInfo const& model, std::ostream& out) {
  std::size_t total = 0;
  for (std::size_t i = 0; i < model.squential_ids.size(); ++i) {
    std::string const& id = model.squential_ids[i];
    LayerInfo& record = *model.layers.at(id);
    std::size_t const bytes = WeightBytes(record);
    total += bytes;
    out << "  " << std::setw(4) << i << "  " << std::left << std::setw(24) << id << std::setw(24)
        << record.GetClassTypeName() << std::right << std::setw(12) << bytes << "  reads " << Join(record.input_ids)
        << "\n";
  }
  return total;
}

void DescribeBackends(TLModelInfo const& model, TLModelMultiBackendCfgs const& configs, std::ostream& out) {
  bool any = false;
  for (tools::BackEnd const& back_end : tools::kBackEnds) {
    auto const& config = configs.*back_end.config;
    if (tools::IsEmpty(*config)) continue;
    any = true;
    out << "  back end " << back_end.name << (config->summary.empty() ? "" : " (" + config->summary + ")") << "\n";
    for (std::string const& id : model.squential_ids) {
      out << "        " << std::left << std::setw(24) << id << std::right << KernelOf(*config, id) << "\n";
    }
  }
  if (!any) out << "  no back end is configured\n";
}

}  // namespace

void Describe(TLNModel const& package, std::ostream& out) {
  out << "sdk type \"" << package.sdk_type << "\", needs core " << package.core_major_ver << "."
      << package.core_minor_ver << " and sdk " << package.sdk_major_ver << "." << package.sdk_minor_ver << "; "
      << "models: " << package.model_arr->squential_ids.size() << "\n";
  for (std::string const& id : package.model_arr->squential_ids) {
    TLModelInfo const& model = *package.model_arr->models.at(id);
    out << "model \"" << id << "\", version " << model.extra_info.version << ", outputs "
        << Join(model.squential_output_ids)
        << "\n     #  layer                   record                  weight bytes\n";
    std::size_t const bytes = DescribeLayers(model, out);
    out << "  " << model.squential_ids.size() << " layers, " << bytes << " bytes of weights\n";
    auto const configs = package.config_arr->configs.find(id);
    if (configs == package.config_arr->configs.end()) {
      out << "  no configuration\n";
    } else {
      DescribeBackends(model, *configs->second, out);
    }
  }
}

}  // namespace run_package
