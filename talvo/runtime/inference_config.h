// The light configuration: which kernel runs each layer, in the model's layer order, from a JSON text or made by hand.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "talvo/runtime/class_registry.h"
#include "talvo/serialization/inference_param.h"
#include "talvo/serialization/serializable.h"
#include "talvo/utility/export.h"

namespace talvo::runtime {

class IKernel;
class TLModelInfo;

/// One kernel by name, with its parameters. Stored without "serializable_type".
class TALVO_API KernelInferenceConfig : public Serializable {
 public:
  /// Visits both names and, if `infer_param_type` is not empty, the parameters, made from `infer_param_registry` when
  /// there are none. Assert: a parameter name that the registry does not hold, where parameters are to be visited.
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  std::string kernel_type;
  std::string infer_param_type;  // empty: no parameters
  std::shared_ptr<InferenceParam> infer_param;
  /// Where `infer_param` is made from; not owned, outlives this object, may be null.
  ClassRegistry<std::shared_ptr<InferenceParam>> const* infer_param_registry = nullptr;
};

/// The kernels of one layer; converters by the position of the input or output that they convert.
struct LayerInferenceConfig {
  std::string summary;  // stays empty
  std::map<unsigned int, std::shared_ptr<KernelInferenceConfig>> input_converters;
  std::shared_ptr<KernelInferenceConfig> kernel;
  std::map<unsigned int, std::shared_ptr<KernelInferenceConfig>> output_converters;
};

/// A record for each layer; its position is the layer index. Must not outlive the registry that it was made with.
class TALVO_API InferenceConfig {
 public:
  /// The text of this configuration, indented by four blanks. A record that has output converters gets an
  /// "output_converters" with the entries of its input converters. Assert: a record without kernel, a number that JSON
  /// cannot hold.
  std::string ToJSON() const;

  std::vector<LayerInferenceConfig> layers;
};

/// Reads {"config": [{"input_converters": {"0": {...}}, "kernel": {...}, "output_converters": {...}}, ...]}; both
/// converter maps are optional, their keys go through atoi, a later duplicate wins. `params` outlives the result.
/// Assert, with the path of keys: text that does not parse, a missing or wrong member, parameters of an unknown type.
TALVO_API std::shared_ptr<InferenceConfig> CreateConfigFromJSON(
    std::string const& json, ClassRegistry<std::shared_ptr<InferenceParam>> const& params);

/// The generators of default configurations. Every one ignores its arguments and returns an empty pointer: this library
/// chooses no kernels.
TALVO_API std::shared_ptr<InferenceConfig> CreateCfg(std::shared_ptr<TLModelInfo> const& model,
                                                     ClassRegistry<std::shared_ptr<IKernel>> const& kernels,
                                                     char const* backend);
TALVO_API std::shared_ptr<InferenceConfig> CreateOpenGLCfg(std::shared_ptr<TLModelInfo> const& model,
                                                           ClassRegistry<std::shared_ptr<IKernel>> const& kernels);
TALVO_API std::shared_ptr<InferenceConfig> CreateMetalCfg(std::shared_ptr<TLModelInfo> const& model,
                                                          ClassRegistry<std::shared_ptr<IKernel>> const& kernels);
TALVO_API std::shared_ptr<InferenceConfig> CreateMetalCfgImgC8HW8F16(
    std::shared_ptr<TLModelInfo> const& model, ClassRegistry<std::shared_ptr<IKernel>> const& kernels);

}  // namespace talvo::runtime
