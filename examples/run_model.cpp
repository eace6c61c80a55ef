// The shortest complete application: a model package, one input tensor, the outputs.
//
//   run_model PACKAGE     (.tlnmodel or .json, made for the sdk type "x86" and sdk version 1.0)
//
// Every input of the package's first model gets a tensor of the model's base size, filled with 0.5.
#include <cstdio>
#include <exception>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "examples/report.h"
#include "talvo/talvo.h"

namespace {

using namespace talvo;

constexpr unsigned int kMaximumSide = 4096;

bool EndsIn(std::string const& path, std::string const& ending) {
  return path.size() > ending.size() && path.compare(path.size() - ending.size(), ending.size(), ending) == 0;
}

// One channel of the height and width that the model was made for.
std::shared_ptr<runtime::Tensor> MakeInput(runtime::Context const& context, runtime::NetExtraInfo const& info) {
  auto const is_side = [](unsigned int extent) { return extent > 0 && extent <= kMaximumSide; };
  if (!is_side(info.model_base_h) || !is_side(info.model_base_w)) {
    throw std::runtime_error("the model's base size is " + std::to_string(info.model_base_h) + " by " +
                             std::to_string(info.model_base_w) + ", needs pictures of 1 to 4096 pixels a side");
  }
  std::vector<float> const gray(std::size_t{info.model_base_h} * info.model_base_w, 0.5f);
  return context.device_cpu->CreateF32CHWMainMem({1, info.model_base_h, info.model_base_w}, gray.data());
}

void Run(std::string const& path) {
  // 1. One context serves all packages: the CPU device with its two pools. 64 is the alignment of every tensor.
  std::shared_ptr<runtime::Context> context;
  utility::create_context(context, 64);

  // 2. The registries hold the kernels and parameters that a package may name. They outlive the packages.
  runtime::ClassRegistry<std::shared_ptr<runtime::IKernel>> kernels;
  runtime::ClassRegistry<std::shared_ptr<runtime::InferenceParam>> params;
  utility::init_register_operators(kernels, params);

  // 3. Open the file and check that it was made for this runtime and this application.
  std::map<std::string, std::shared_ptr<utility::_NetworkPackage>> packages;
  int const refused = utility::load_model(path, packages, context, kernels, params, "x86", 1, 0);
  if (refused != 0) throw std::runtime_error(examples::log_text);  // where the reason stands

  // 4. Build the net of one model from its records.
  runtime::TLNModel file;
  file.FromFile(path.c_str(), EndsIn(path, ".json") ? "json" : "bin");
  if (packages.empty()) throw std::runtime_error("the package holds no model");
  std::string const id = file.model_arr->squential_ids.at(0);
  auto& package = packages.at(id);
  utility::Load_Single_Net(package, file.model_arr->models[id], file.config_arr->configs[id], "x86");

  // 5. Run it: tensors in under the indices of the input layers, tensors out under those of the output layers.
  for (auto const& input : package->net->input_ids)
    package->inputs[input.second] = MakeInput(*context, package->extra_info);
  auto outputs = package->net->Forward(package->inputs, package->output_ids, package->context, nullptr, nullptr);
  for (unsigned int index : package->output_ids) {
    for (auto const& output : outputs.at(index))
      std::printf("layer %u: %s\n", index, runtime::DimsText(output->shape.dims).c_str());
  }

  // 6. A recurrent model goes on from here with the next run, unless that is the start of another sequence.
  utility::ResetRNNState(*package->net);

  // 7. Tensors go first, then the packages, then the context; the registries go last.
  outputs.clear();
  package->inputs.clear();
  packages.clear();
  context.reset();
}

}  // namespace

int main(int count, char** words) {
  if (count != 2 || !(EndsIn(words[1], ".tlnmodel") || EndsIn(words[1], ".json"))) {
    std::fprintf(stderr, "usage: run_model PACKAGE, where PACKAGE ends in .tlnmodel or .json\n");
    return 2;
  }
  examples::KeepLog();
  try {
    Run(words[1]);
    return examples::Finish("run_model");
  } catch (std::exception const& error) {
    return examples::Fail("run_model", std::string(words[1]) + ": " + error.what());
  }
}
