#include "talvo/serialization/inference_param.h"

#include <string_view>
#include <typeinfo>

#include "talvo/serialization/record_support.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::runtime {
namespace {

template <class Param>
InferenceParam* Make() {  // a plain pointer: a shared one costs each class the class of its block
  return new Param;
}

struct Maker {
  std::string_view name;
  InferenceParam* (*make)();
};

#define TALVO_MAKER(type) \
  { #type, &Make < type> }
// What a configuration can name. The parameters of CUDA and Vulkan are not among them: no file brings them in.
constexpr Maker kMakers[] = {
    TALVO_MAKER(InferenceParamActQuant),
    TALVO_MAKER(InferenceParamFullConnectionQuant),
    TALVO_MAKER(InferenceParamUpsampling2DQuant),
    TALVO_MAKER(InferenceParamConv2DQuant),
    TALVO_MAKER(InferenceParamOpenGLCompute),
    TALVO_MAKER(InferenceParamConv2DOpenGLCompute),
    TALVO_MAKER(InferenceParamElementwiseOpenGLCompute),
    TALVO_MAKER(InferenceParamConcatOpenGLCompute),
    TALVO_MAKER(InferenceParamPixelShuffleOpenGLCompute),
    TALVO_MAKER(InferenceParamPooling2DOpenGLCompute),
    TALVO_MAKER(InferenceParamFullConnectionOpenGLCompute),
    TALVO_MAKER(InferenceParamTensorReshapeOpenGLCompute),
    TALVO_MAKER(InferenceParamTensorExpandOpenGLCompute),
    TALVO_MAKER(InferenceParamBroadcastOpenGLCompute),
    TALVO_MAKER(InferenceParamActivationOpenGLCompute),
    TALVO_MAKER(InferenceParamUpsampling2DOpenGLCompute),
    TALVO_MAKER(InferenceParamLuaCustomMetalCompute),
    TALVO_MAKER(InferenceParamMetalComputeFusedActivation),
    TALVO_MAKER(InferenceParamConv2dMetalCompute),
    TALVO_MAKER(InferenceParamElementwiseMetalCompute),
    TALVO_MAKER(InferenceParamConcatenateMetalCompute),
    TALVO_MAKER(InferenceParamMetalComputeCommon),
};
#undef TALVO_MAKER

}  // namespace

std::string InferenceParam::GetClassName() const { return support::BareName(support::Demangled(typeid(*this).name())); }

void InferenceParamActQuant::VisitAttr(std::shared_ptr<Visitor> visitor) { TALVO_VISIT_FIELD(output_step_size); }

void InferenceParamFullConnectionQuant::VisitAttr(std::shared_ptr<Visitor> visitor) {
  TALVO_VISIT_FIELD(weight_step_size);
  TALVO_VISIT_FIELD(output_step_size);
}

void InferenceParamUpsampling2DQuant::VisitAttr(std::shared_ptr<Visitor> visitor) {
  TALVO_VISIT_FIELD(output_step_size);
}

void InferenceParamConv2DQuant::VisitAttr(std::shared_ptr<Visitor> visitor) {
  TALVO_VISIT_FIELD(weight_step_size);
  TALVO_VISIT_FIELD(output_step_size);
}

void InferenceParamConv2DCUDA::VisitAttr(std::shared_ptr<Visitor> visitor) {
  TALVO_VISIT_FIELD(x);
  TALVO_VISIT_FIELD(y);
  TALVO_VISIT_FIELD(z);
  TALVO_VISIT_FIELD(activation);
}

void InferenceParamVulkan::VisitAttr(std::shared_ptr<Visitor> visitor) {
  TALVO_VISIT_FIELD(local_x);
  TALVO_VISIT_FIELD(local_y);
  TALVO_VISIT_FIELD(local_z);
}

void InferenceParamConv2DVulkan::VisitAttr(std::shared_ptr<Visitor> visitor) {
  InferenceParamVulkan::VisitAttr(visitor);
  TALVO_VISIT_FIELD(activation);
}

void InferenceParamOpenGLCompute::VisitAttr(std::shared_ptr<Visitor> visitor) {
  TALVO_VISIT_FIELD(local_x);
  TALVO_VISIT_FIELD(local_y);
  TALVO_VISIT_FIELD(local_z);
}

void InferenceParamFusedActivationOpenGLCompute::VisitAttr(std::shared_ptr<Visitor> visitor) {
  InferenceParamOpenGLCompute::VisitAttr(visitor);
  TALVO_VISIT_FIELD(activation);
  TALVO_VISIT_FIELD(activation_type);
  TALVO_VISIT_FIELD(activation_alpha);
  TALVO_VISIT_FIELD(activation_beta);
  TALVO_VISIT_FIELD(num_parameters);
  TALVO_VISIT_FIELD(weight);
}

void InferenceParamLuaCustomMetalCompute::VisitAttr(std::shared_ptr<Visitor> visitor) {
  TALVO_VISIT_FIELD(lua_script);
  TALVO_VISIT_FIELD(mtl_shader);
}

void InferenceParamMetalComputeFusedActivation::VisitAttr(std::shared_ptr<Visitor> visitor) {
  TALVO_VISIT_FIELD(activation);
  TALVO_VISIT_FIELD(activation_type);
  TALVO_VISIT_FIELD(activation_alpha);
  TALVO_VISIT_FIELD(activation_beta);
}

void InferenceParamMetalComputeCommon::VisitAttr(std::shared_ptr<Visitor> visitor) {
  TALVO_VISIT_FIELD(lua_script);
  TALVO_VISIT_FIELD(mtl_shader);
  TALVO_VISIT_FIELD(write_slice_offset);
  TALVO_VISIT_FIELD(activation_type);
  TALVO_VISIT_FIELD(activation_alpha);
  TALVO_VISIT_FIELD(activation_beta);
}

std::shared_ptr<InferenceParam> CreateInferenceParamPtr(char const* name) {
  if (name == nullptr) utility::Refuse("an inference parameter record needs the name of its class, got null");
  for (Maker const& maker : kMakers) {
    if (maker.name == name) return std::shared_ptr<InferenceParam>(maker.make());
  }
  return nullptr;
}

}  // namespace talvo::runtime
