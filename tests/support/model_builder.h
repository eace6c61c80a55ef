// Models made of records, layer by layer, each with the kernel that runs it.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "talvo/serialization/model_info.h"

namespace talvo::test {

class ModelBuilder {
 public:
  /// Appends a layer and returns its record for the caller to fill.
  std::shared_ptr<runtime::LayerInfo> Add(std::shared_ptr<runtime::LayerInfo> const& info, std::string const& id,
                                          std::vector<std::string> inputs, std::string const& kernel) {
    info->id = id;
    info->input_ids = std::move(inputs);
    model->squential_ids.push_back(id);
    model->squential_types.push_back(info->type);
    model->layers[id] = info;
    auto& layer = config->layers[id] = std::make_shared<runtime::LayerCfg>();
    layer->kernel->kernel_type = kernel;
    config->squential_ids.push_back(id);
    return info;
  }

  template <class Info>
  Info& Add(std::string const& id, std::vector<std::string> inputs, std::string const& kernel) {
    auto const info = std::make_shared<Info>();
    Add(info, id, std::move(inputs), kernel);
    return *info;
  }

  runtime::InputInfo& AddInput(std::string const& id) { return Add<runtime::InputInfo>(id, {}, "Input_Fallback_M1"); }

  /// The model `id` with this configuration for the back end "x86", in a package of sdk "test" 3.4 for core 1.0.
  std::shared_ptr<runtime::TLNModel> Package(std::string const& id) const {
    auto package = std::make_shared<runtime::TLNModel>();
    package->sdk_type = "test";
    package->core_major_ver = 1;
    package->sdk_major_ver = 3;
    package->sdk_minor_ver = 4;
    AddTo(*package, id);
    return package;
  }

  /// Enters the model `id` into a package.
  void AddTo(runtime::TLNModel& package, std::string const& id) const {
    auto const configs = std::make_shared<runtime::TLModelMultiBackendCfgs>();
    configs->cpu_sse = config;
    package.model_arr->squential_ids.push_back(id);
    package.model_arr->models[id] = model;
    package.config_arr->squential_ids.push_back(id);
    package.config_arr->configs[id] = configs;
  }

  std::shared_ptr<runtime::TLModelInfo> model = std::make_shared<runtime::TLModelInfo>();
  std::shared_ptr<runtime::TLModelCfg> config = std::make_shared<runtime::TLModelCfg>();
};

/// The model of fuzz/corpus/run_package: some twenty small layers of many kinds. Input "picture" CHW {3, 8, 8}; outputs
/// "classes" {5}, "plane" {2, 8, 8}, "sequence" {4, 4} and "sampled" {10, 2, 8}. Every weight is exact in binary16, so
/// that both forms hold the same.
inline ModelBuilder SmallModel() {
  runtime::TLNModel file;
  EXPECT_TRUE(file.FromFile("fuzz/corpus/run_package/small.json", "json"));
  ModelBuilder small;
  small.model = file.model_arr->models.at("small");
  small.config = file.config_arr->configs.at("small")->cpu_sse;
  return small;
}

}  // namespace talvo::test
