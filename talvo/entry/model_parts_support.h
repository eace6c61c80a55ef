// The inside of the facade, which the checks look into. Internal.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "talvo/entry/check_model.h"
#include "talvo/entry/load_model.h"
#include "talvo/entry/model.h"

namespace talvo::utility::support {

/// Every kernel that this library has.
void RegisterEverything(runtime::ClassRegistry<std::shared_ptr<runtime::IKernel>>& kernels,
                        runtime::ClassRegistry<std::shared_ptr<runtime::InferenceParam>>& params);

/// The back end that was asked for, or that of the processor built for.
std::string BackendOf(ModelOptions const& options);

/// "layer ID TEXT".
std::string Sentence(ModelFinding const& finding);

/// What a model names that it does not have: layers, and kernels of a registry. All are refusals of Model.
std::vector<ModelFinding> UnknownIds(runtime::TLModelInfo const& model);
std::vector<ModelFinding> UnknownKernels(runtime::TLModelInfo const& model, runtime::TLModelCfg const& config,
                                         runtime::ClassRegistry<std::shared_ptr<runtime::IKernel>> const& kernels);

}  // namespace talvo::utility::support

namespace talvo {

struct ModelOutputs::Content {
  using ByLayer = std::unordered_map<unsigned int, std::vector<std::shared_ptr<runtime::Tensor>>>;

  Content(std::shared_ptr<runtime::Context> const& maker, std::shared_ptr<std::vector<std::string> const> const& names,
          ByLayer results)
      : context(maker), ids(names), tensors(std::move(results)) {}

  std::vector<std::shared_ptr<runtime::Tensor>> const& All(std::string_view id) const;

  std::shared_ptr<runtime::Context> const context;  // outlives the tensors
  std::shared_ptr<std::vector<std::string> const> const ids;
  ByLayer const tensors;
};

struct Model::Parts {
  Parts(runtime::TLNModel& file, std::string const& package_name, ModelOptions const& options);
  Parts(Parts const&) = delete;
  Parts& operator=(Parts const&) = delete;

  void ChooseModel(runtime::TLNModel const& file, std::string const& wanted);
  void CheckVersion(runtime::TLNModel const& file) const;
  std::shared_ptr<runtime::TLModelInfo> ModelOf(runtime::TLNModel const& file) const;
  void BuildNet(runtime::TLNModel& file, ModelOptions const& options);
  std::string RefusedKernel(runtime::TLModelInfo const& model, runtime::TLModelCfg const& config) const;
  void NamePorts(runtime::TLModelInfo const& model);

  unsigned int LayerOf(std::string_view layer) const;
  std::vector<unsigned int> LayersOf(std::vector<std::string> const& ids) const;
  std::string KernelName(unsigned int layer) const;
  std::shared_ptr<runtime::Tensor> TensorOf(ModelInput const& input) const;
  void SetInputs(std::vector<ModelInput> const& inputs, std::vector<unsigned int> const& wanted);
  ModelOutputs Forward(std::vector<ModelInput> const& inputs, std::vector<std::string> const& outputs_by_id,
                       std::vector<float>* times);
  std::string LayerRefusal(std::string const& refusal) const;

  std::string const prefix;  // "NAME: " in refusals, or nothing for records without a name
  std::string id;            // of the model
  std::vector<ModelPort> inputs, outputs;
  std::shared_ptr<std::vector<std::string> const> layer_ids;

  // Destroyed from the last to the first: tensors before their pools, nets before registries.
  runtime::ClassRegistry<std::shared_ptr<runtime::IKernel>> kernels;
  runtime::ClassRegistry<std::shared_ptr<runtime::InferenceParam>> params;
  std::shared_ptr<runtime::Context> context;
  std::shared_ptr<utility::_NetworkPackage> package = std::make_shared<utility::_NetworkPackage>();
};

}  // namespace talvo
