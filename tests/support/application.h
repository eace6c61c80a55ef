// An application, from a package's file to the outputs of its first model.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "talvo/entry/create_context.h"
#include "talvo/entry/load_model.h"
#include "talvo/entry/register_operators.h"
#include "talvo/entry/reset_rnn_state.h"
#include "tests/support/guarded_context.h"

namespace talvo::test {

class Application {
 public:
  using Input = std::function<std::shared_ptr<runtime::Tensor>(runtime::Context const&)>;

  explicit Application(std::string const& path) : path_(path) {}

  /// Opens the package for a back end, unless that is done, and runs the model from its first state on the input of
  /// layer 0. The values of the outputs, in the model's order. What a failure left undone is done by the next call.
  std::vector<std::vector<float>> Run(Input const& input, char const* backend = "x86") {
    if (package_ == nullptr || package_->net == nullptr) Open(backend);
    utility::ResetRNNState(*package_->net);
    package_->inputs[0] = input(*context_);
    auto const outputs = package_->net->Forward(package_->inputs, package_->output_ids, context_, nullptr, nullptr);
    std::vector<std::vector<float>> values;
    for (unsigned int id : package_->output_ids) values.push_back(Values(*outputs.at(id).at(0)));
    return values;
  }

 private:
  void Open(char const* backend) {
    if (context_ == nullptr) utility::create_context(context_, 64);
    utility::init_register_operators(kernels_, params_);
    runtime::TLNModel file;
    bool const read = file.FromFile(path_.c_str(), path_.back() == 'n' ? "json" : "bin");
    if (!read || utility::load_model(path_, packages_, context_, kernels_, params_, file.sdk_type, file.sdk_major_ver,
                                     file.sdk_minor_ver) != 0)
      throw std::runtime_error(path_ + " does not open");
    std::string const& id = file.model_arr->squential_ids.at(0);
    package_ = packages_.at(id);
    Load_Single_Net(package_, file.model_arr->models.at(id), file.config_arr->configs.at(id), backend);
  }

  std::string const path_;
  runtime::ClassRegistry<std::shared_ptr<runtime::IKernel>> kernels_;
  runtime::ClassRegistry<std::shared_ptr<runtime::InferenceParam>> params_;
  std::shared_ptr<runtime::Context> context_;  // its pools end the process when a tensor is left
  std::map<std::string, std::shared_ptr<utility::_NetworkPackage>> packages_;
  std::shared_ptr<utility::_NetworkPackage> package_;
};

}  // namespace talvo::test
