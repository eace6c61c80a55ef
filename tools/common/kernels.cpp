#include "tools/common/kernels.h"

#include <algorithm>

#include "talvo/entry/register_fused_operators.h"
#include "talvo/serialization/layer_info_conv.h"
#include "tools/common/program.h"

namespace tools {

using namespace talvo::runtime;

namespace {

constexpr char kConvolution[] = "Conv2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1";
constexpr char kPoints[] = "Conv2d_K1x1_S1x1_D1x1_G1_SGEMM_CHW_FLOAT_M1";
constexpr char const* kMatrixProducts[] = {"FullConnection_SGEMM_C_Float_M1",
                                           "RNNCell_SGEMM_C_F32_M1",
                                           "RNN_SGEMM_SC_F32_M1",
                                           "LSTMCell_SGEMM_C_F32_M1",
                                           "LSTM_SGEMM_SC_F32_M1",
                                           "GRUCell_SGEMM_C_F32_M1",
                                           "GRU_SGEMM_SC_F32_M1"};

std::string Replaced(std::string name, std::string const& part, std::string const& by) {
  auto const at = name.find(part);
  return at == std::string::npos ? name : name.replace(at, part.size(), by);
}

std::string Portable(std::string const& name) {
  if (name == kPoints) return kConvolution;
  return Replaced(Replaced(name, "_SGEMM_", "_Fallback_"), "_Fused_", "_Fallback_");
}

// A matrix product needs one tap for each output, which lies on its input.
bool IsPoints(LayerInfo const& record) {
  auto const* const plane = dynamic_cast<Conv2dInfo const*>(&record);
  if (plane == nullptr) return false;
  bool const one = std::max({plane->kernel_x, plane->kernel_y, plane->stride_x, plane->stride_y, plane->dilation_x,
                             plane->dilation_y, plane->groups}) == 1;
  return one && plane->padding_l + plane->padding_t + plane->padding_r + plane->padding_b == 0;
}

std::string OnMatrixProduct(std::string const& portable, LayerInfo const& record) {
  if (portable == kConvolution) return IsPoints(record) ? kPoints : portable;
  std::string const sibling = Replaced(portable, "_Fallback_", "_SGEMM_");
  auto const* const found = std::find(std::begin(kMatrixProducts), std::end(kMatrixProducts), sibling);
  return found == std::end(kMatrixProducts) ? portable : sibling;
}

}  // namespace

std::vector<BackEnd> const kBackEnds = {
    {"cpu_sse", &TLModelMultiBackendCfgs::cpu_sse},       {"cpu_avx", &TLModelMultiBackendCfgs::cpu_avx},
    {"cpu_armv7", &TLModelMultiBackendCfgs::cpu_armv7},   {"cpu_armv8", &TLModelMultiBackendCfgs::cpu_armv8},
    {"cpu_armv82", &TLModelMultiBackendCfgs::cpu_armv82}, {"gpu_opengl", &TLModelMultiBackendCfgs::gpu_opengl},
    {"gpu_metal", &TLModelMultiBackendCfgs::gpu_metal},   {"gpu_cuda", &TLModelMultiBackendCfgs::gpu_cuda}};

bool IsEmpty(TLModelCfg const& config) { return config.squential_ids.empty() && config.layers.empty(); }

Kernels ParseKernels(std::string const& option, std::string const& word) {
  return static_cast<Kernels>(Choice(option, word, {"portable", "blas", "fused"}));
}

void SetKernels(TLModelInfo const& model, TLModelCfg& config, Kernels kernels) {
  for (auto const& [id, layer] : config.layers) {
    std::string& name = layer->kernel->kernel_type;
    name = Portable(name);
    auto const record = model.layers.find(id);
    if (kernels == Kernels::kBlas && record != model.layers.end()) name = OnMatrixProduct(name, *record->second);
  }
  if (kernels == Kernels::kFused) talvo::utility::PreferFusedKernels(config);
}

}  // namespace tools
