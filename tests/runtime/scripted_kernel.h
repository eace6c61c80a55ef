// A kernel whose Forward is a function of the test.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "talvo/runtime/context.h"
#include "talvo/runtime/kernel.h"

namespace talvo::test {

using Tensors = std::vector<std::shared_ptr<runtime::Tensor>>;

class ScriptedKernel : public runtime::IKernel {
 public:
  using Script = std::function<void(Tensors const&, Tensors&, runtime::Context const&)>;

  explicit ScriptedKernel(Script script) : script_(std::move(script)) {}

  std::string GetName() const override { return "ScriptedKernel"; }
  int IsValidParam(std::shared_ptr<runtime::LayerInfo>, std::shared_ptr<runtime::InferenceParam>) const override {
    return 0;
  }
  bool Config(std::shared_ptr<runtime::LayerInfo>, std::shared_ptr<runtime::InferenceParam>,
              std::shared_ptr<runtime::Context>) override {
    return true;
  }
  bool IsConfigured() const override { return configured; }
  std::vector<runtime::TensorShape> GetOutputShapes(std::vector<runtime::TensorShape> const& shapes) const override {
    return shapes;
  }
  int PrepareForward(std::shared_ptr<runtime::Context> const&, Tensors const& inputs, bool const& intermediate,
                     Tensors& outputs) override {
    if (prepared) prepared(inputs, intermediate, outputs);
    return -1;  // nobody looks at it
  }
  int IsValidInput(Tensors const&) const override { return -2; }
  int Forward(Tensors const& inputs, Tensors& outputs, std::shared_ptr<runtime::Context> context) const override {
    script_(inputs, outputs, *context);
    return -1;  // nobody looks at it
  }
  int IsValidOutput(Tensors const&) const override { return -2; }

  bool configured = true;
  std::function<void(Tensors const&, bool, Tensors&)> prepared;

 private:
  Script script_;
};

}  // namespace talvo::test
