#include "talvo/entry/register_extra_operators.h"

#include "talvo/entry/register_support.h"
#include "talvo/kernel/activation.h"
#include "talvo/kernel/gemm.h"
#include "talvo/kernel/recurrent.h"

namespace talvo::utility {
namespace {

constexpr Entry<runtime::IKernel> kExtraOperators[] = {
    TALVO_KERNEL(Sqrt_Fallback_Float_M1),
    TALVO_KERNEL(Log_Fallback_Float_M1),
    TALVO_KERNEL(Erf_Fallback_Float_M1),
    TALVO_KERNEL(Clip_Fallback_Float_M1),
    TALVO_KERNEL(PReLUChannel_Fallback_CHW_Float_M1),
    TALVO_KERNEL(FullConnection_Fallback_SC_Float_M1),
    TALVO_KERNEL(MatMul_Fallback_Float_M1),
    TALVO_KERNEL(GRUResetBefore_Fallback_SC_F32_M1),
};

}  // namespace

void init_register_extra_operators(runtime::ClassRegistry<std::shared_ptr<runtime::IKernel>>& kernels) {
  RegisterAll(kExtraOperators, kernels);
}

}  // namespace talvo::utility
