#include "tools/upgrade_model/configuration.h"

#include <stdexcept>
#include <unordered_map>

#include "talvo/entry/open_package.h"
#include "tools/common/program.h"

namespace upgrade_model {
namespace {

using namespace talvo::runtime;

// The layer classes that one kernel serves whatever their fields say.
std::unordered_map<std::string, std::string> const kKernels = {
    {"InputInfo", "Input_Fallback_M1"},
    {"Conv2dInfo", "Conv2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1"},
    {"ConvTranspose2dInfo", "ConvTranspose2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1"},
    {"AvgPool2dInfo", "Pooling2D_Avg_Fallback_Float_M1"},
    {"MaxPool2dInfo", "Pooling2D_Max_Fallback_Float_M1"},
    {"ElementWiseOperatorInfo", "Elementwise_Fallback_Float_M1"},
    {"TensorTransposeInfo", "Transform_MainMemory_Permute_Fallback"},
    {"FullConnectionInfo", "FullConnection_Fallback_C_Float_M1"},
    {"PixelShuffleInfo", "Pixelshuffle_Fallback_CHW_Float_M1"},
    {"LSTMInfo", "LSTM_Fallback_SC_F32_M1"},
};

[[noreturn]] void Refuse(LayerInfo& layer, std::string const& reason) {
  throw std::runtime_error(layer.id + " (" + layer.GetClassTypeName() + "): no kernel is known for " + reason);
}

std::string ActivationKernel(ActivationInfo& layer) {
  switch (layer.activation_type) {
    case 0:
      return "Straight_Through_Fallback_M1";
    case 2:
      return "ReLU_Fallback_Float_M1";
    case 4:
      return "Leaky_Fallback_Float_M1";
    case 5:
      return "TanH_Fallback_Float_M1";
    default:
      Refuse(layer, "activation type " + std::to_string(layer.activation_type));
  }
}

std::string ReshapeKernel(TensorReshapeInfo const& layer) {
  switch (layer.new_shape.size()) {
    case 2:
      return "Reshape_Fallback_To_C_M1";
    case 3:
      return "Reshape_Fallback_To_SC_M1";
    case 4:
      return "Reshape_Fallback_To_CHW_M1";
    default:
      return "Transform_MainMemory_Reshape_Fallback";
  }
}

std::string DefaultKernel(LayerInfo& layer) {
  auto const place = kKernels.find(layer.GetClassTypeName());
  if (place != kKernels.end()) return place->second;
  if (auto* const activation = dynamic_cast<ActivationInfo*>(&layer)) return ActivationKernel(*activation);
  if (auto* const reshape = dynamic_cast<TensorReshapeInfo*>(&layer)) return ReshapeKernel(*reshape);
  if (auto* const concatenation = dynamic_cast<ConcatenateInfo*>(&layer)) {
    if (concatenation->dim == 1) return "Concatenate_C_Fallback_CnHWn_M1";
    Refuse(layer, "a concatenation with dim " + std::to_string(concatenation->dim));
  }
  if (auto* const upsampling = dynamic_cast<Upsample2dInfo*>(&layer)) {
    if (upsampling->unsample_type != 2) return "Upsampling2D_Fallback_CHW_Float_M1";
    Refuse(layer, "bicubic upsampling");
  }
  if (dynamic_cast<BatchNorm2dInfo*>(&layer) != nullptr)
    Refuse(layer, "a batch normalisation that is not the only reader of a convolution");
  Refuse(layer, "this class");
}

}  // namespace

std::shared_ptr<TLModelCfg> DefaultConfiguration(TLModelInfo const& model) {
  auto config = std::make_shared<TLModelCfg>();
  for (std::string const& id : model.squential_ids) {
    auto const layer = std::make_shared<LayerCfg>();
    layer->kernel->kernel_type = DefaultKernel(*model.layers.at(id));
    config->squential_ids.push_back(id);
    config->layers[id] = layer;
  }
  return config;
}

std::shared_ptr<TLModelCfg> ReadConfiguration(std::string const& path) {
  std::string text;
  try {
    text = talvo::utility::ReadJsonFile2StrStream(path.c_str()).str();
    return parseModelCfgFromJsonContent(text);
  } catch (std::exception const& refusal) {
    std::string const problem = text.empty() ? "" : talvo::utility::JSONProblem(text);
    throw std::runtime_error(path + ": " + (problem.empty() ? tools::Message(refusal) : problem));
  }
}

void RequireKernels(TLModelInfo const& model, TLModelCfg const& config, std::string const& path) {
  for (std::string const& id : model.squential_ids) {
    auto const place = config.layers.find(id);
    if (place != config.layers.end() && !place->second->kernel->kernel_type.empty()) continue;
    throw std::runtime_error(path + ": names no kernel for " + id + " (" + model.layers.at(id)->GetClassTypeName() +
                             ")");
  }
}

}  // namespace upgrade_model
