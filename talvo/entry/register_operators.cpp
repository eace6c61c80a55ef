#include "talvo/entry/register_operators.h"

#include "talvo/entry/register_support.h"
#include "talvo/kernel/activation.h"
#include "talvo/kernel/convolution.h"
#include "talvo/kernel/elementwise.h"
#include "talvo/kernel/gemm.h"
#include "talvo/kernel/pooling.h"
#include "talvo/kernel/recurrent.h"
#include "talvo/kernel/resampling.h"
#include "talvo/kernel/structural.h"
#include "talvo/transform/permute.h"
#include "talvo/transform/reshape.h"

namespace talvo::utility {
namespace {

// Kernels of every build.
constexpr Entry<runtime::IKernel> kCommonOperators[] = {
    TALVO_KERNEL(Input_Fallback_M1),
    TALVO_KERNEL(Concatenate_MainMemory_Fallback),
    TALVO_KERNEL(Transform_MainMemory_Permute_Fallback),
    TALVO_KERNEL(Transform_MainMemory_Reshape_Fallback),
    TALVO_KERNEL(BroadcastOperator_Fallback_Float_M1),
    TALVO_KERNEL(HSigmoid_Fallback_Float_M1),
    TALVO_KERNEL(HSwish_Fallback_Float_M1),
};

// Portable kernels.
constexpr Entry<runtime::IKernel> kFallbackOperators[] = {
    TALVO_KERNEL(Straight_Through_Fallback_M1),
    TALVO_KERNEL(LayerPlaceholder_Fallback_Float_M1),
    TALVO_KERNEL(Conv2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1),
    TALVO_KERNEL(Conv1D_Kn_Sn_Dn_Gn_Fallback_CL_Float_M1),
    TALVO_KERNEL(ReLU_Fallback_Float_M1),
    TALVO_KERNEL(ReLU6_Fallback_Float_M1),
    TALVO_KERNEL(Sigmoid_Fallback_Float_M1),
    TALVO_KERNEL(TanH_Fallback_Float_M1),
    TALVO_KERNEL(Leaky_Fallback_Float_M1),
    TALVO_KERNEL(PReLU_Fallback_Float_M1),
    TALVO_KERNEL(Elementwise_Fallback_Float_M1),
    TALVO_KERNEL(Pooling2D_Avg_Fallback_Float_M1),
    TALVO_KERNEL(AdaptivePooling2D_Avg_Fallback_CHW_Float_M1),
    TALVO_KERNEL(Pooling2D_Max_Fallback_Float_M1),
    TALVO_KERNEL(Reshape_Fallback_CnHWn_To_C_M1),
    TALVO_KERNEL(Reshape_Fallback_CnHWn_To_CL_M1),
    TALVO_KERNEL(Reshape_Fallback_CL_To_CHW_M1),
    TALVO_KERNEL(Reshape_Fallback_To_CHW_M1),
    TALVO_KERNEL(Reshape_Fallback_To_SC_M1),
    TALVO_KERNEL(Reshape_Fallback_To_C_M1),
    TALVO_KERNEL(FullConnection_Fallback_C_Float_M1),
    TALVO_KERNEL(Softmax_Fallback_Float_M1),
    TALVO_KERNEL(Concatenate_C_Fallback_CnHWn_M1),
    TALVO_KERNEL(Upsampling2D_Fallback_CHW_Float_M1),
    TALVO_KERNEL(Pixelshuffle_Fallback_CHW_Float_M1),
    TALVO_KERNEL(RNNCell_Fallback_C_F32_M1),
    TALVO_KERNEL(RNN_Fallback_SC_F32_M1),
    TALVO_KERNEL(LSTMCell_Fallback_C_F32_M1),
    TALVO_KERNEL(LSTM_Fallback_SC_F32_M1),
    TALVO_KERNEL(GRUCell_Fallback_C_F32_M1),
    TALVO_KERNEL(GRU_Fallback_SC_F32_M1),
    TALVO_KERNEL(ConvTranspose2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1),
    TALVO_KERNEL(Expand_Fallback_CHW_Float_M1),
    TALVO_KERNEL(GridSample_Fallback_CHW_Float_M1),
    TALVO_KERNEL(TensorArithmetic_Fallback_M1),
    TALVO_KERNEL(Linear_Fallback_Float_M1),
    TALVO_KERNEL(UnSqueeze_Fallback_M1),
    TALVO_KERNEL(Slice_Fallback_CHW_Float_M1),
};

#if TALVO_WITH_BLAS
// Kernels on the matrix product.
constexpr Entry<runtime::IKernel> kSGEMMOperators[] = {
    TALVO_KERNEL(Conv2d_K1x1_S1x1_D1x1_G1_SGEMM_CHW_FLOAT_M1),
    TALVO_KERNEL(RNNCell_SGEMM_C_F32_M1),
    TALVO_KERNEL(RNN_SGEMM_SC_F32_M1),
    TALVO_KERNEL(LSTMCell_SGEMM_C_F32_M1),
    TALVO_KERNEL(LSTM_SGEMM_SC_F32_M1),
    TALVO_KERNEL(GRUCell_SGEMM_C_F32_M1),
    TALVO_KERNEL(GRU_SGEMM_SC_F32_M1),
    TALVO_KERNEL(FullConnection_SGEMM_C_Float_M1),
};
void RegisterSGEMMOperators(KernelRegistry& kernels) { RegisterAll(kSGEMMOperators, kernels); }
#else
void RegisterSGEMMOperators(KernelRegistry&) {}
#endif

constexpr Entry<runtime::InferenceParam> kInferenceParams[] = {
    {"InferenceParamConv2DQuant", Make<runtime::InferenceParam, runtime::InferenceParamConv2DQuant>},
};

void RegisterCommonOperators(KernelRegistry& kernels) { RegisterAll(kCommonOperators, kernels); }
void RegisterFallbackOperators(KernelRegistry& kernels) { RegisterAll(kFallbackOperators, kernels); }

void RegisterInferenceParams(runtime::ClassRegistry<std::shared_ptr<runtime::InferenceParam>>& params) {
  RegisterAll(kInferenceParams, params);
}

}  // namespace

void init_register_operators(runtime::ClassRegistry<std::shared_ptr<runtime::IKernel>>& kernels,
                             runtime::ClassRegistry<std::shared_ptr<runtime::InferenceParam>>& params) {
  RegisterCommonOperators(kernels);
  RegisterFallbackOperators(kernels);
  RegisterSGEMMOperators(kernels);
  RegisterInferenceParams(params);
}

}  // namespace talvo::utility
