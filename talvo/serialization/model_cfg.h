// Which kernel runs each layer on which back end, with which converters around it and which parameters: the packaged
// form. None of these records keeps "serializable_type" in files.
#pragma once

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "talvo/serialization/inference_param.h"
#include "talvo/serialization/serializable.h"
#include "talvo/utility/export.h"

namespace talvo::runtime {

/// One kernel or converter by name.
class TALVO_API KernelCfg : public Serializable {
 public:
  /// Makes `infer_param` from `infer_param_type` where it is empty; visits it if there is one then.
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  std::string kernel_type;       // the kernel's name in the registry
  std::string infer_param_type;  // class name of the parameter record, or empty
  std::shared_ptr<InferenceParam> infer_param;
};

/// Converters, in order of application. In this and the following tables each id of the list names one record; reading
/// makes records that are absent. Assert: an id that stands more than 8 times in the list.
class TALVO_API KernelCfgArr : public Serializable {
 public:
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  std::vector<std::string> kernel_ids;
  std::unordered_map<std::string, std::shared_ptr<KernelCfg>> kernels;
};

/// The kernel of one layer and the converters around it.
class TALVO_API LayerCfg : public Serializable {
 public:
  LayerCfg();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  std::string summary;
  std::shared_ptr<KernelCfgArr> input_converters;
  std::shared_ptr<KernelCfg> kernel;
  std::shared_ptr<KernelCfgArr> output_converters;
};

/// One model on one back end.
class TALVO_API TLModelCfg : public Serializable {
 public:
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  std::string summary;
  std::vector<std::string> squential_ids;  // layer ids
  std::unordered_map<std::string, std::shared_ptr<LayerCfg>> layers;
};

/// One model on all back ends. In files "cpu_armv82" comes last, and only from version 20008 on.
class TALVO_API TLModelMultiBackendCfgs : public Serializable {
 public:
  TLModelMultiBackendCfgs();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  std::shared_ptr<TLModelCfg> cpu_sse, cpu_avx, cpu_armv7, cpu_armv8, cpu_armv82, gpu_opengl, gpu_metal, gpu_cuda;
};

/// All models of a package; paired by id with the models beside it.
class TALVO_API TLModelMultiBackendCfgsArr : public Serializable {
 public:
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  std::vector<std::string> squential_ids;
  std::unordered_map<std::string, std::shared_ptr<TLModelMultiBackendCfgs>> configs;
};

/// A configuration from its JSON text. Assert: a text that is no JSON object, and whatever FromJsonString refuses.
TALVO_API std::shared_ptr<TLModelCfg> parseModelCfgFromJsonContent(std::string const& json);

}  // namespace talvo::runtime
