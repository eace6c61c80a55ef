#include "talvo/kernel/kernel_of.h"

#include "talvo/kernel/kernel_of_support.h"

namespace talvo::kernel::support {

PlainOperation::~PlainOperation() = default;

bool PlainOperation::Config(LayerPtr const&, ParamPtr const&, ContextPtr const&) { return true; }
Shapes PlainOperation::GetOutputShapes(Shapes const& input_shapes) const { return input_shapes; }
int PlainOperation::ResetRNNState() const { return -4; }
int PlainOperation::IsValidInput(Tensors const& inputs) const { return JudgeOneFloat(inputs); }
int PlainOperation::IsValidOutput(Tensors const& outputs) const { return JudgeOneFloat(outputs); }

std::string PlainOperation::Name() const { return name_; }

bool PlainOperation::Configure(runtime::IKernel const& kernel, LayerPtr const& layer, ParamPtr const& param,
                               ContextPtr const& context) {
  configured_ = false;
  configured_ = Passes(kernel.IsValidParam(layer, param)) && Config(layer, param, context);
  return configured_;
}

int Inverted::IsValidParam(LayerPtr const& layer, ParamPtr const& param) const { return InvertedParam(layer, param); }
bool Inverted::Passes(int judgement) const { return judgement != 0; }

}  // namespace talvo::kernel::support
