#include "talvo/entry/register_fused_operators.h"

#include <string>

#include "talvo/entry/register_support.h"
#include "talvo/kernel/convolution.h"
#include "talvo/kernel/gemm.h"
#include "talvo/kernel/recurrent.h"

namespace talvo::utility {
namespace {

constexpr Entry<runtime::IKernel> kFusedOperators[] = {
    TALVO_KERNEL(Conv2D_Knxm_Snxm_Dnxm_Gn_Fused_CHW_Float_M1),
    TALVO_KERNEL(Conv1D_Kn_Sn_Dn_Gn_Fused_CL_Float_M1),
    TALVO_KERNEL(ConvTranspose2D_Knxm_Snxm_Dnxm_Gn_Fused_CHW_Float_M1),
    TALVO_KERNEL(FullConnection_Fused_C_Float_M1),
    TALVO_KERNEL(RNNCell_Fused_C_F32_M1),
    TALVO_KERNEL(RNN_Fused_SC_F32_M1),
    TALVO_KERNEL(LSTMCell_Fused_C_F32_M1),
    TALVO_KERNEL(LSTM_Fused_SC_F32_M1),
    TALVO_KERNEL(GRUCell_Fused_C_F32_M1),
    TALVO_KERNEL(GRU_Fused_SC_F32_M1),
};

// The name of the fused sibling, or `name` itself.
std::string Preferred(std::string const& name) {
  constexpr char kPortable[] = "_Fallback_";
  auto const at = name.find(kPortable);
  if (at == std::string::npos) return name;
  std::string sibling = name;
  sibling.replace(at, sizeof(kPortable) - 1, "_Fused_");
  for (auto const& entry : kFusedOperators) {
    if (sibling == entry.name) return sibling;
  }
  return name;
}

}  // namespace

void init_register_fused_operators(runtime::ClassRegistry<std::shared_ptr<runtime::IKernel>>& kernels) {
  RegisterAll(kFusedOperators, kernels);
}

void PreferFusedKernels(runtime::TLModelCfg& config) {
  for (auto const& [id, layer] : config.layers) {
    if (layer != nullptr && layer->kernel != nullptr)
      layer->kernel->kernel_type = Preferred(layer->kernel->kernel_type);
  }
}

}  // namespace talvo::utility
