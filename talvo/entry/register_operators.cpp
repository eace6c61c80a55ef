#include "talvo/entry/register_operators.h"

#include <string>

namespace talvo::utility {
namespace {

using KernelRegistry = runtime::ClassRegistry<std::shared_ptr<runtime::IKernel>>;
using ParamRegistry = runtime::ClassRegistry<std::shared_ptr<runtime::InferenceParam>>;

template <class Base, class Class>
void Add(runtime::ClassRegistry<std::shared_ptr<Base>>& registry, char const* name) {
  registry.Register(
      name, [] { return std::shared_ptr<Base>(std::make_shared<Class>()); }, false);
}

void RegisterInferenceParams(ParamRegistry& params) {
  Add<runtime::InferenceParam, runtime::InferenceParamConv2DQuant>(params, "InferenceParamConv2DQuant");
}

}  // namespace

void init_register_operators(KernelRegistry&, ParamRegistry& params) { RegisterInferenceParams(params); }

}  // namespace talvo::utility
