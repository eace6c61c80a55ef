// The front doors: a model package opened and checked, and each of its models made runnable.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "talvo/runtime/class_registry.h"
#include "talvo/runtime/context.h"
#include "talvo/runtime/kernel.h"
#include "talvo/runtime/net.h"
#include "talvo/runtime/tensor.h"
#include "talvo/serialization/inference_param.h"
#include "talvo/serialization/model_cfg.h"
#include "talvo/serialization/model_info.h"
#include "talvo/utility/export.h"

/// Sets the version of this runtime and returns 0.
TALVO_API int TLN_Get_Core_Version(unsigned int& major, unsigned int& minor);

// Marks of the build.
extern "C" {
TALVO_API extern double const tln_core_iosVersionNumber;
TALVO_API extern char const tln_core_iosVersionString[];
}

namespace talvo::utility {

/// The version fields of a model file.
struct _TLNModelVerInfo {
  std::string sdk_type;              // the kind of application build that the model is for
  std::uint16_t core_major_ver = 0;  // the runtime that it requires
  std::uint16_t core_minor_ver = 0;
  std::uint16_t sdk_major_ver = 0;  // the application's layer that it requires
  std::uint16_t sdk_minor_ver = 0;
};

/// One runnable model with all that Net::Forward needs. Made by load_model, filled by Load_Single_Net.
struct _NetworkPackage {
  runtime::ClassRegistry<std::shared_ptr<runtime::IKernel>>* kernels = nullptr;        // not owned
  runtime::ClassRegistry<std::shared_ptr<runtime::InferenceParam>>* params = nullptr;  // not owned
  std::shared_ptr<runtime::Context> context;
  std::shared_ptr<runtime::Net> net;
  runtime::NetExtraInfo extra_info;
  /// A slot for each input layer, by layer index, for the application to fill; the slot of layer 0 is always there.
  std::unordered_map<unsigned int, std::shared_ptr<runtime::Tensor>> inputs = {{0u, nullptr}};
  std::unordered_map<unsigned int, runtime::TensorShape> tensor_shapes = {{0u, runtime::TensorShape()}};
  /// Layer indices of the model's outputs.
  std::vector<unsigned int> output_ids = {0u};
};

/// 0 when a model of these versions may be used here; -2 otherwise, with the reason on log level 16. `sdk_type` must
/// match as bytes, the model's core version be at most 1 and its minor number 0, the sdk version equal.
TALVO_API int check_version(std::string sdk_type, unsigned short sdk_major, unsigned short sdk_minor,
                            _TLNModelVerInfo model);

/// Reads a ".json" or ".tlnmodel" package, checks its versions, and adds an empty _NetworkPackage for each model id
/// that `packages` does not hold. The registries outlive the packages. Returns 0; -2 for a file that does not open; or
/// what check_version says. Throws std::out_of_range for a path too short to end in either, std::runtime_error (Assert)
/// for another ending and for a damaged file.
TALVO_API int load_model(std::string path, std::map<std::string, std::shared_ptr<_NetworkPackage>>& packages,
                         std::shared_ptr<runtime::Context>& context,
                         runtime::ClassRegistry<std::shared_ptr<runtime::IKernel>>& kernels,
                         runtime::ClassRegistry<std::shared_ptr<runtime::InferenceParam>>& params, std::string sdk_type,
                         unsigned short sdk_major, unsigned short sdk_minor);

/// Builds the net of `model` into `package`, from the configuration of a back end: "x86" takes cpu_sse, "metal"
/// gpu_metal when its summary is not empty, "arm" the first of cpu_armv8, cpu_armv82, cpu_armv7 that names layers. Adds
/// the input slots and replaces the output ids, then the net and the extra info. Assert: no such configuration, an
/// empty package, model or configuration, and all that CreateNet refuses.
TALVO_API void Load_Single_Net(std::shared_ptr<_NetworkPackage>& package,
                               std::shared_ptr<runtime::TLModelInfo> const& model,
                               std::shared_ptr<runtime::TLModelMultiBackendCfgs> const& configs, char const* sdk_type);

}  // namespace talvo::utility
