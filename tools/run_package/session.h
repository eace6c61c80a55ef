// A package opened as an application opens it, and its net run.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "talvo/entry/load_model.h"
#include "tools/run_package/arguments.h"

namespace run_package {

/// What one run gave.
struct RunResult {
  std::unordered_map<unsigned int, std::vector<std::shared_ptr<talvo::runtime::Tensor>>> outputs;
  double time_ms = 0;                              // median over the repeats
  std::vector<std::vector<float>> layer_times_ms;  // of each repeat, by layer index
};

/// Holds registries, context, package and net; everything that it refuses is a std::runtime_error whose text names the
/// file or the layer.
class Session {
 public:
  explicit Session(Arguments const& arguments);

  /// Runs the net on these inputs `repeat` times; repeats advance the state of recurrent layers. With `keep_all` the
  /// last repeat hands back the tensors of every layer that runs.
  RunResult Run(std::vector<InputFile> const& inputs, unsigned int repeat, bool keep_all);

  talvo::runtime::TLNModel const& File() const { return *file_; }
  talvo::runtime::TLModelInfo const& Model() const { return *model_; }
  /// The layers whose tensors a run hands back.
  std::vector<unsigned int> const& OutputIndices() const { return package_->output_ids; }
  std::string KernelName(unsigned int layer) const;
  /// What the library warned of, each line once.
  static std::vector<std::string> const& Warnings();

 private:
  void ChooseModel(std::string const& wanted);
  void BuildNet(bool prefer_fused);
  std::string RefusedKernel(talvo::runtime::TLModelMultiBackendCfgs const& configs, std::string const& refusal) const;
  void RequestOutputs(std::vector<std::string> const& ids);
  unsigned int IndexOf(std::string const& layer) const;
  std::string LayerRefusal(unsigned int layer, std::string const& refusal) const;
  void FillInputs(std::vector<InputFile> const& inputs);
  void RunOnce(std::vector<unsigned int> const& output_ids, RunResult& result);

  std::string path_, backend_, model_id_;
  talvo::runtime::ClassRegistry<std::shared_ptr<talvo::runtime::IKernel>> kernels_;
  talvo::runtime::ClassRegistry<std::shared_ptr<talvo::runtime::InferenceParam>> params_;
  std::shared_ptr<talvo::runtime::Context> context_;
  std::shared_ptr<talvo::runtime::TLNModel> file_;
  std::shared_ptr<talvo::runtime::TLModelInfo> model_;
  std::shared_ptr<talvo::utility::_NetworkPackage> package_;
};

}  // namespace run_package
