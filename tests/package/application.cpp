// Makes a context, a tensor and its copy in another order, and fills the registries, which draws in every kernel and
// the CBLAS behind them: all through the installed headers and library.
#include <talvo/talvo.h>

#include <cstdio>
#include <iostream>

int main() {
  std::shared_ptr<talvo::runtime::Context> context;
  talvo::utility::create_context(context, 64);
  float const values[] = {1, 2, 3, 4, 5, 6};
  auto const x = context->device_cpu->CreateF32FlexiableMainMemory({2, 3}, values);
  auto const y = x->Permute({1, 0});
  std::cout << y->shape;
  talvo::utility::Log(4, "element (2, 1) is %g", static_cast<double>(*y->Locate2D<float>(2, 1)));
  talvo::runtime::ClassRegistry<std::shared_ptr<talvo::runtime::IKernel>> kernels;
  talvo::runtime::ClassRegistry<std::shared_ptr<talvo::runtime::InferenceParam>> params;
  talvo::utility::init_register_operators(kernels, params);
  return *y->Locate2D<float>(2, 1) == 6.0f ? 0 : 1;
}
