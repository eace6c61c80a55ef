#include "talvo/kernel/quantisation.h"

#include "talvo/kernel/functional/quantisation.h"
#include "talvo/kernel/kernel_of_support.h"
#include "talvo/serialization/inference_param.h"

namespace talvo::kernel {

namespace {

constexpr short kLeastStep = 8, kGreatestStep = 12;

// Any number of tensors, none included.
int JudgeAll(Tensors const& tensors, unsigned int data_type) {
  return support::Judge(tensors, tensors.size(), [data_type](runtime::Tensor const& tensor) {
    return support::IsInMainMemory(tensor, data_type);
  });
}

Shapes Retyped(Shapes const& shapes, unsigned int data_type, short step) {
  Shapes retyped;
  for (TensorShape const& shape : shapes) {
    retyped.emplace_back(shape.dims, data_type, shape.layout, shape.location, TensorShape::Extra());
    retyped.back().extra.step_size = step;
  }
  return retyped;
}

using support::TensorPtr;
using DevicePtr = std::shared_ptr<runtime::DeviceCPU>;

// A type of fixed-point numbers, and what makes tensors of it and back.
struct FixedPoint {
  unsigned int data_type;
  TensorPtr (*quantise)(TensorPtr, short step, DevicePtr);
  TensorPtr (*dequantise)(TensorPtr, DevicePtr);
};
constexpr FixedPoint kInt16 = {TensorShape::INT16, functional::Quantitation_MainMemory_Float_to_Int16_Fallback_M1,
                               functional::Dequantitation_MainMemory_Int16_to_Float_Fallback_M1};
constexpr FixedPoint kInt8 = {TensorShape::INT8, functional::Quantitation_MainMemory_Float_to_Int8_Fallback_M1,
                              functional::Dequantitation_MainMemory_Int8_to_Float_Fallback_M1};

// A judgement of its own: no layer, and a parameter with a step in range; Config refuses -1.
struct Quantisation : support::PlainOperation {
  explicit Quantisation(FixedPoint const& of) : fixed(of) {}

  int IsValidParam(LayerPtr const& layer, ParamPtr const& param) const override {
    auto const* const quant = dynamic_cast<runtime::InferenceParamActQuant const*>(param.get());
    if (layer != nullptr || quant == nullptr) return -1;
    return quant->output_step_size >= kLeastStep && quant->output_step_size <= kGreatestStep ? 0 : -1;
  }
  bool Passes(int judgement) const override { return judgement != -1; }

  bool Config(LayerPtr const&, ParamPtr const& param, ContextPtr const&) override {
    output_step_size = support::As<runtime::InferenceParamActQuant>(CName(), param).output_step_size;
    return true;
  }

  Shapes GetOutputShapes(Shapes const& input_shapes) const override {
    return Retyped(input_shapes, fixed.data_type, output_step_size);
  }

  int IsValidInput(Tensors const& inputs) const override { return JudgeAll(inputs, TensorShape::FLOAT32); }

  int Forward(IKernel const& kernel, Tensors const& inputs, Tensors& outputs,
              ContextPtr const& context) const override {
    for (std::size_t i = 0; i < inputs.size(); ++i) {
      auto const input = support::Input(kernel, inputs, i);
      support::Device(kernel, context);
      outputs.push_back(fixed.quantise(input, output_step_size, context->device_cpu));
    }
    return 0;
  }

  int IsValidOutput(Tensors const& outputs) const override { return JudgeAll(outputs, fixed.data_type); }

  FixedPoint const fixed;
  short output_step_size = 0;
};

// The codes of the inverted form, read the strict way: neither layer nor parameter is the one call that passes.
struct Dequantisation : support::Inverted {
  explicit Dequantisation(FixedPoint const& of) : fixed(of) {}

  bool Passes(int judgement) const override { return judgement != -1; }

  Shapes GetOutputShapes(Shapes const& input_shapes) const override {
    return Retyped(input_shapes, TensorShape::FLOAT32, 0);
  }

  int IsValidInput(Tensors const& inputs) const override { return JudgeAll(inputs, fixed.data_type); }

  int Forward(IKernel const& kernel, Tensors const& inputs, Tensors& outputs,
              ContextPtr const& context) const override {
    for (std::size_t i = 0; i < inputs.size(); ++i) {
      auto const input = support::Input(kernel, inputs, i, support::kAnyRank, 1);
      support::Device(kernel, context);
      outputs.push_back(fixed.dequantise(input, context->device_cpu));
    }
    return 0;
  }

  int IsValidOutput(Tensors const& outputs) const override { return JudgeAll(outputs, TensorShape::FLOAT32); }

  FixedPoint const fixed;
};

}  // namespace

struct QuantiseInt16Operation {
  using Body = Quantisation;
  static constexpr char const* kName = "Quantitation_MainMemory_Float_to_Int16_Fallback_M1";
  static constexpr FixedPoint const& kForm = kInt16;
};

struct QuantiseInt8Operation {
  using Body = Quantisation;
  static constexpr char const* kName = "Quantitation_MainMemory_Float_to_Int8_Fallback_M1";
  static constexpr FixedPoint const& kForm = kInt8;
};

struct DequantiseInt16Operation {
  using Body = Dequantisation;
  static constexpr char const* kName = "Dequantitation_MainMemory_Int16_to_Float_Fallback_M1";
  static constexpr FixedPoint const& kForm = kInt16;
};

struct DequantiseInt8Operation {
  using Body = Dequantisation;
  static constexpr char const* kName = "Dequantitation_MainMemory_Int8_to_Float_Fallback_M1";
  static constexpr FixedPoint const& kForm = kInt8;
};

template OperationPtr MakeOperation<QuantiseInt16Operation>();
template OperationPtr MakeOperation<QuantiseInt8Operation>();
template OperationPtr MakeOperation<DequantiseInt16Operation>();
template OperationPtr MakeOperation<DequantiseInt8Operation>();

}  // namespace talvo::kernel
