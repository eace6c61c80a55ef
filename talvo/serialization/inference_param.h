// Parameters that a kernel configuration may carry for its kernel. The records for devices that this library does not
// run are kept in full, so that a configuration written for them loads and saves faithfully.
#pragma once

#include <memory>
#include <string>

#include "talvo/serialization/serializable.h"
#include "talvo/utility/export.h"
#include "talvo/utility/half.h"

namespace talvo::runtime {

/// None of these records keeps "serializable_type" in files. Fields are visited in the order in which they are
/// declared, a base's first; a field's key is its name. A step size is the exponent of a fixed-point value: x is held
/// as round(x * 2^step_size). Classes that add nothing to their base have nothing to export.
class TALVO_API InferenceParam : public Serializable {
 public:
  void VisitAttr(std::shared_ptr<Visitor> visitor) override = 0;

  /// The class's own name, as KernelCfg keeps it.
  virtual std::string GetClassName() const;
};

class TALVO_API InferenceParamActQuant : public InferenceParam {
 public:
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  short output_step_size = 11;
};

class TALVO_API InferenceParamFullConnectionQuant : public InferenceParam {
 public:
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  short weight_step_size = 8, output_step_size = 11;
};

class TALVO_API InferenceParamUpsampling2DQuant : public InferenceParam {
 public:
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  short output_step_size = 11;
};

class TALVO_API InferenceParamConv2DQuant : public InferenceParam {
 public:
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  short weight_step_size = 8, output_step_size = 11;
};

class TALVO_API InferenceParamConv2DCUDA : public InferenceParam {
 public:
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  unsigned int x = 0, y = 0, z = 0;
  std::string activation;
};

class TALVO_API InferenceParamVulkan : public InferenceParam {
 public:
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  unsigned int local_x = 0, local_y = 0, local_z = 0;
};

class TALVO_API InferenceParamConv2DVulkan : public InferenceParamVulkan {
 public:
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  std::string activation;
};

class TALVO_API InferenceParamOpenGLCompute : public InferenceParam {
 public:
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  unsigned int local_x = 1, local_y = 1, local_z = 1;
};

/// What the kernels with a fused activation share; no file names this class.
class TALVO_API InferenceParamFusedActivationOpenGLCompute : public InferenceParamOpenGLCompute {
 public:
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  std::string activation;
  int activation_type = 0;
  half_float::half activation_alpha{0.0f}, activation_beta{0.0f};
  short num_parameters = 0;
  std::string weight;
};

class InferenceParamConv2DOpenGLCompute : public InferenceParamFusedActivationOpenGLCompute {};

class InferenceParamConvTranspose2DOpenGLCompute : public InferenceParamFusedActivationOpenGLCompute {};

class InferenceParamElementwiseOpenGLCompute : public InferenceParamFusedActivationOpenGLCompute {};

class InferenceParamActivationOpenGLCompute : public InferenceParamFusedActivationOpenGLCompute {};

class InferenceParamConcatOpenGLCompute : public InferenceParamOpenGLCompute {};

class InferenceParamUpsampling2DOpenGLCompute : public InferenceParamOpenGLCompute {};

class InferenceParamPixelShuffleOpenGLCompute : public InferenceParamOpenGLCompute {};

class InferenceParamPooling2DOpenGLCompute : public InferenceParamOpenGLCompute {};

class InferenceParamFullConnectionOpenGLCompute : public InferenceParamOpenGLCompute {};

class InferenceParamTensorReshapeOpenGLCompute : public InferenceParamOpenGLCompute {};

class InferenceParamTensorExpandOpenGLCompute : public InferenceParamOpenGLCompute {};

class InferenceParamBroadcastOpenGLCompute : public InferenceParamOpenGLCompute {};

class TALVO_API InferenceParamLuaCustomMetalCompute : public InferenceParam {
 public:
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  std::string lua_script, mtl_shader;
};

class TALVO_API InferenceParamMetalComputeFusedActivation : public InferenceParam {
 public:
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  std::string activation = "none";
  int activation_type = 0;
  float activation_alpha = 1.0f, activation_beta = 0.0f;
};

class InferenceParamConv2dMetalCompute : public InferenceParamMetalComputeFusedActivation {};

class InferenceParamElementwiseMetalCompute : public InferenceParamMetalComputeFusedActivation {};

class InferenceParamConcatenateMetalCompute : public InferenceParamMetalComputeFusedActivation {};

class TALVO_API InferenceParamMetalComputeCommon : public InferenceParam {
 public:
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  std::string lua_script, mtl_shader;
  unsigned int write_slice_offset = 0, activation_type = 0;
  float activation_alpha = 1.0f, activation_beta = 0.0f;
};

/// A fresh record of the class of this name; empty for a name that configurations cannot bring in. Assert: a null name.
TALVO_API std::shared_ptr<InferenceParam> CreateInferenceParamPtr(char const* name);

}  // namespace talvo::runtime
