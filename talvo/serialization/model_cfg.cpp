#include "talvo/serialization/rapidjson_support.h"

#include "talvo/serialization/model_cfg.h"

#include "talvo/serialization/json_text_support.h"
#include "talvo/serialization/record_support.h"

namespace talvo::runtime {

void KernelCfg::VisitAttr(std::shared_ptr<Visitor> visitor) {
  TALVO_VISIT_FIELD(kernel_type);
  TALVO_VISIT_FIELD(infer_param_type);
  // A type that is unknown or empty makes none; then there is nothing to visit, and what the text holds under
  // "infer_param" is passed over.
  if (infer_param == nullptr) infer_param = CreateInferenceParamPtr(infer_param_type.c_str());
  if (infer_param != nullptr) visitor->Visit(infer_param.get(), "infer_param");
}

void KernelCfgArr::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitTable(visitor, kernel_ids, "kernel_ids", kernels, sizeof(KernelCfg));
}

LayerCfg::LayerCfg()
    : input_converters(std::make_shared<KernelCfgArr>()),
      kernel(std::make_shared<KernelCfg>()),
      output_converters(std::make_shared<KernelCfgArr>()) {}

void LayerCfg::VisitAttr(std::shared_ptr<Visitor> visitor) {
  TALVO_VISIT_FIELD(summary);
  visitor->Visit(input_converters.get(), "input_converters");
  visitor->Visit(kernel.get(), "kernel");
  visitor->Visit(output_converters.get(), "output_converters");
}

void TLModelCfg::VisitAttr(std::shared_ptr<Visitor> visitor) {
  TALVO_VISIT_FIELD(summary);
  // What one entry of the table makes at once: the limit on null records is charged with it.
  constexpr std::size_t kLayerBytes = sizeof(LayerCfg) + 2 * sizeof(KernelCfgArr) + sizeof(KernelCfg);
  support::VisitTable(visitor, squential_ids, "squential_ids", layers, kLayerBytes);
}

TLModelMultiBackendCfgs::TLModelMultiBackendCfgs()
    : cpu_sse(std::make_shared<TLModelCfg>()),
      cpu_avx(std::make_shared<TLModelCfg>()),
      cpu_armv7(std::make_shared<TLModelCfg>()),
      cpu_armv8(std::make_shared<TLModelCfg>()),
      cpu_armv82(std::make_shared<TLModelCfg>()),
      gpu_opengl(std::make_shared<TLModelCfg>()),
      gpu_metal(std::make_shared<TLModelCfg>()),
      gpu_cuda(std::make_shared<TLModelCfg>()) {}

void TLModelMultiBackendCfgs::VisitAttr(std::shared_ptr<Visitor> visitor) {
  visitor->Visit(cpu_sse.get(), "cpu_sse");
  visitor->Visit(cpu_avx.get(), "cpu_avx");
  visitor->Visit(cpu_armv7.get(), "cpu_armv7");
  visitor->Visit(cpu_armv8.get(), "cpu_armv8");
  visitor->Visit(gpu_opengl.get(), "gpu_opengl");
  visitor->Visit(gpu_metal.get(), "gpu_metal");
  visitor->Visit(gpu_cuda.get(), "gpu_cuda");
  // Behind the others, though it is a CPU too: the binary stream has no keys, and what came later stands later.
  if (visitor->_serialization_protocol_version >= 20008) visitor->Visit(cpu_armv82.get(), "cpu_armv82");
}

void TLModelMultiBackendCfgsArr::VisitAttr(std::shared_ptr<Visitor> visitor) {
  constexpr std::size_t kConfigBytes = sizeof(TLModelMultiBackendCfgs) + 8 * sizeof(TLModelCfg);
  support::VisitTable(visitor, squential_ids, "squential_ids", configs, kConfigBytes);
}

std::shared_ptr<TLModelCfg> parseModelCfgFromJsonContent(std::string const& json) {
  auto const cfg = std::make_shared<TLModelCfg>();
  support::ReadRecord(support::JSONText(json), cfg.get(), "Document must be a Object.");
  return cfg;
}

}  // namespace talvo::runtime
