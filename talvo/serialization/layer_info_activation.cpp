#include "talvo/serialization/layer_info_activation.h"

#include "talvo/serialization/record_support.h"

namespace talvo::runtime {

ActivationInfo::ActivationInfo() : LayerInfo(1, "ActivationInfo") {}

void ActivationInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  TALVO_VISIT_FIELD(activation_type);
  TALVO_VISIT_FIELD(activation_alpha);
  TALVO_VISIT_FIELD(activation_beta);
  if (visitor->_serialization_protocol_version < 20012) return;
  TALVO_VISIT_FIELD(num_parameters);
  TALVO_VISIT_FIELD(weight);
}

ClipInfo::ClipInfo() : LayerInfo(31, "ClipInfo") {}

void ClipInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  TALVO_VISIT_FIELD(minimum_value);
  TALVO_VISIT_FIELD(maximum_value);
}

SoftmaxInfo::SoftmaxInfo() : LayerInfo(32, "SoftmaxInfo") {}

void SoftmaxInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  TALVO_VISIT_FIELD(dim);
}

}  // namespace talvo::runtime
