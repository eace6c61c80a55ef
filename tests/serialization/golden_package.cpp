#include "tests/serialization/golden_package.h"

#include <initializer_list>
#include <utility>

#include "talvo/serialization/layer_info_activation.h"
#include "talvo/serialization/layer_info_conv.h"
#include "talvo/serialization/layer_info_norm.h"
#include "talvo/serialization/layer_info_tensor.h"
#include "talvo/utility/base64.h"

namespace talvo::test {
namespace {

using namespace runtime;
using half_float::half;

std::string Weights(std::initializer_list<float> values) {
  return Base64Encode(reinterpret_cast<unsigned char const*>(values.begin()), values.size() * sizeof(float));
}

template <class Info>
Info& AddLayer(TLModelInfo& model, unsigned short type, std::string const& id, std::vector<std::string> inputs,
               unsigned short read_count) {
  auto const layer = std::make_shared<Info>();
  layer->id = id;
  layer->input_ids = std::move(inputs);
  layer->read_count = read_count;
  model.squential_ids.push_back(id);
  model.squential_types.push_back(type);
  model.layers[id] = layer;
  return *layer;
}

void AddLayers(TLModelInfo& model, unsigned int version) {
  AddLayer<InputInfo>(model, 0, "in", {}, 1);
  auto& conv = AddLayer<Conv2dInfo>(model, 2, "conv", {"in"}, 1);
  conv.in_channels = conv.kernel_x = conv.kernel_y = 1;
  conv.out_channels = 2;
  conv.if_bias = true;
  conv.weight = Weights({0.5f, -2.0f});
  conv.bias = Weights({1.0f, 65504.0f});
  auto& norm = AddLayer<BatchNorm2dInfo>(model, 9, "norm", {"conv"}, 1);
  norm.num_features = 2;
  norm.scale = Weights({1.0f, 2.0f});
  norm.variance = Weights({4.0f, 0.25f});
  norm.mean = Weights({0.0f, -0.0f});
  if (version >= 20005) norm.num_batches_tracked = 77;
  auto& activation = AddLayer<ActivationInfo>(model, 1, "act", {"norm"}, 1);
  activation.activation_type = 4;
  activation.activation_alpha = half(0.125f);
  activation.activation_beta = half(3.0f);
  if (version >= 20012) {
    activation.num_parameters = 2;
    activation.weight = Weights({0.1f});
  }
  AddLayer<TensorUnSqueezeInfo>(model, 16, "axis", {"act"}, 1).dim = -1;
  auto& free = AddLayer<LayerPlaceholderInfo>(model, 252, "free", {"axis"}, 0);
  free.input_shapes = {{1, 2, 3}, {4, 5, 6, 65535}};
  free.output_shape = {9};
  free.desc = "two lists";
}

std::shared_ptr<TLModelInfo> Model(unsigned int version) {
  auto const model = std::make_shared<TLModelInfo>();
  model->squential_output_ids = {"free"};
  NetExtraInfo& extra = model->extra_info;
  extra.version = 3;
  extra.app_type = 1;
  extra.model_id = 7;
  extra.model_base_h = 224;
  extra.model_base_w = 112;
  extra.fmlas = 1500000;
  extra.device = "cpu";
  if (version >= 20004) extra.summary = "a summary";
  TimeInfo& time = extra.time;
  time.year = 2023;
  time.moon = 5;
  time.day = 1;
  time.hour = 10;
  time.min = 30;
  AddLayers(*model, version);
  return model;
}

std::shared_ptr<LayerCfg> ConvCfg() {
  auto const cfg = std::make_shared<LayerCfg>();
  cfg->summary = "first";
  auto const converter = std::make_shared<KernelCfg>();
  auto const quant = std::make_shared<InferenceParamActQuant>();
  quant->output_step_size = -3;
  converter->kernel_type = "Reformat";
  converter->infer_param_type = quant->GetClassName();
  converter->infer_param = quant;
  cfg->input_converters->kernel_ids = {"to_block"};
  cfg->input_converters->kernels["to_block"] = converter;
  auto const compute = std::make_shared<InferenceParamConv2DOpenGLCompute>();
  compute->local_y = 2;
  compute->local_z = 3;
  compute->activation = "relu";
  compute->activation_type = -5;
  compute->activation_alpha = half(0.5f);
  compute->activation_beta = half(1.5f);
  compute->num_parameters = 1;
  compute->weight = "AAAA";
  cfg->kernel->kernel_type = "Conv";
  cfg->kernel->infer_param_type = compute->GetClassName();
  cfg->kernel->infer_param = compute;
  return cfg;
}

}  // namespace

std::shared_ptr<TLNModel> GoldenPackage(unsigned int version) {
  auto const package = std::make_shared<TLNModel>();
  package->sdk_type = "golden";
  package->core_major_ver = 1;
  package->core_minor_ver = 2;
  package->sdk_major_ver = 3;
  package->sdk_minor_ver = 4;
  package->model_arr->squential_ids = {"net"};
  package->model_arr->models["net"] = Model(version);
  auto const configs = std::make_shared<TLModelMultiBackendCfgs>();
  configs->cpu_sse->summary = "sse";
  configs->cpu_sse->squential_ids = {"conv"};
  configs->cpu_sse->layers["conv"] = ConvCfg();
  if (version >= 20008) configs->cpu_armv82->summary = "the youngest comes last";
  package->config_arr->squential_ids = {"net"};
  package->config_arr->configs["net"] = configs;
  return package;
}

}  // namespace talvo::test
