// A net made by hand: a kernel class written here, four layers wired into a net, run from an input tensor to two
// requested outputs, with the time of each layer.
//
//   0 Input ----> 1 Double ----> 2 Square ----> 3 Add      requested: 2 and 3
//                   \__________________________/
#include <algorithm>
#include <cstdio>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "examples/report.h"
#include "talvo/talvo.h"

namespace {

using namespace talvo::runtime;
using Tensors = std::vector<std::shared_ptr<Tensor>>;

// y[i] = step(a[i], b[i]) over the first and the last input, which are one and the same where there is only one.
class ElementKernel : public IKernel {
 public:
  ElementKernel(std::string name, std::function<float(float, float)> step)
      : name_(std::move(name)), step_(std::move(step)) {}

  std::string GetName() const override { return name_; }
  // Parameters, weights and the layer's record arrive here when a net is built from a model file.
  int IsValidParam(std::shared_ptr<LayerInfo>, std::shared_ptr<InferenceParam>) const override { return 0; }
  bool Config(std::shared_ptr<LayerInfo>, std::shared_ptr<InferenceParam>, std::shared_ptr<Context>) override {
    return true;
  }
  bool IsConfigured() const override { return true; }
  std::vector<TensorShape> GetOutputShapes(std::vector<TensorShape> const& inputs) const override {
    return {inputs.front()};
  }
  int IsValidInput(Tensors const& inputs) const override {
    bool const valid = !inputs.empty() && inputs.front()->shape.dims == inputs.back()->shape.dims;
    return valid ? 0 : -2;
  }
  int IsValidOutput(Tensors const& outputs) const override { return outputs.size() == 1 ? 0 : -2; }

  // A kernel makes its own outputs; while a net runs they come from the device's pool for intermediate tensors.
  int Forward(Tensors const& inputs, Tensors& outputs, std::shared_ptr<Context> context) const override {
    talvo::utility::Assert(IsValidInput(inputs) == 0, "%s: got %zu inputs, needs 1 or 2 of equal dims", name_.c_str(),
                           inputs.size());
    auto const y = context->device_cpu->CreateTensor(GetOutputShapes({inputs[0]->shape})[0], nullptr);
    auto const* const a = static_cast<float const*>(inputs.front()->data);
    auto const* const b = static_cast<float const*>(inputs.back()->data);
    std::transform(a, a + ElementCount(y->shape.dims), b, y->Data<float>(), step_);
    outputs.push_back(y);
    return 0;
  }

 private:
  std::string name_;
  std::function<float(float, float)> step_;
};

// Appends a layer that reads output 0 of the layers `producers`, all earlier ones, and enters it there as a reader.
void AddLayer(std::vector<std::shared_ptr<Layer>>& layers, std::vector<std::uint32_t> const& producers,
              std::shared_ptr<IKernel> kernel) {
  auto layer = std::make_shared<Layer>();
  layer->type = producers.empty() ? "Input" : kernel->GetName();
  layer->kernel = std::move(kernel);
  for (std::uint32_t producer : producers) {
    auto const position = static_cast<std::uint32_t>(layer->input_refs.size());
    layers[producer]->consumers.emplace_back(static_cast<std::uint32_t>(layers.size()), position);
    layer->input_refs.emplace_back(producer, 0);
  }
  layers.push_back(std::move(layer));
}

Net MakeNet() {
  std::vector<std::shared_ptr<Layer>> layers;
  AddLayer(layers, {}, std::make_shared<ElementKernel>("Input", [](float a, float) { return a; }));
  AddLayer(layers, {0}, std::make_shared<ElementKernel>("Double", [](float a, float) { return 2.0f * a; }));
  AddLayer(layers, {1}, std::make_shared<ElementKernel>("Square", [](float a, float) { return a * a; }));
  AddLayer(layers, {2, 1}, std::make_shared<ElementKernel>("Add", [](float a, float b) { return a + b; }));
  return Net(layers, {{"input", 0}});
}

void Run() {
  std::shared_ptr<Context> context;  // outlives every tensor
  talvo::utility::create_context(context, 64);
  Net const net = MakeNet();

  std::vector<float> const values = {-1.0f, 0.0f, 0.5f, 3.0f};
  auto const input = context->device_cpu->CreateF32CMainMemory(static_cast<unsigned int>(values.size()), values.data());
  std::vector<float> layer_times_ms;
  auto const outputs = net.Forward({{0, input}}, {2, 3}, context, &layer_times_ms, nullptr);

  for (unsigned int id : {2u, 3u}) {
    auto const tensor = std::static_pointer_cast<TensorCPU>(outputs.at(id)[0]);
    std::printf("output of layer %u (%s):", id, net.layers[id]->type.c_str());
    for (unsigned int i = 0; i < tensor->shape.dims[0]; ++i) std::printf(" %g", *tensor->Locate1D<float>(i));
    std::printf("\n");
  }
  for (std::size_t i = 0; i < layer_times_ms.size(); ++i) {
    std::printf("layer %zu (%s) took %.3f ms\n", i, net.layers[i]->type.c_str(), layer_times_ms[i]);
  }
}

}  // namespace

int main(int count, char**) {
  if (count != 1) {
    std::fprintf(stderr, "usage: hand_made_net\n");
    return 2;
  }
  examples::KeepLog();
  try {
    Run();
    return examples::Finish("hand_made_net");
  } catch (std::exception const& error) {
    return examples::Fail("hand_made_net", error);
  }
}
