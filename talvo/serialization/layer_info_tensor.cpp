#include "talvo/serialization/layer_info_tensor.h"

#include <cstddef>
#include <string>

#include "talvo/serialization/record_support.h"

namespace talvo::runtime {

ElementWiseOperatorInfo::ElementWiseOperatorInfo() : LayerInfo(11, "ElementWiseOperatorInfo") {}

void ElementWiseOperatorInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  TALVO_VISIT_FIELD(op_type);
}

BroadcastOperatorInfo::BroadcastOperatorInfo() : LayerInfo(29, "BroadcastOperatorInfo") {}

void BroadcastOperatorInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  TALVO_VISIT_FIELD(op_type);
}

ConcatenateInfo::ConcatenateInfo() : LayerInfo(12, "ConcatenateInfo") {}

void ConcatenateInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  TALVO_VISIT_FIELD(dim);
}

TensorReshapeInfo::TensorReshapeInfo() : LayerInfo(13, "TensorReshapeInfo") {}

void TensorReshapeInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  TALVO_VISIT_FIELD(new_shape);
}

TensorExpandInfo::TensorExpandInfo() : LayerInfo(41, "TensorExpandInfo") {}

void TensorExpandInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  TALVO_VISIT_FIELD(new_shape);
}

TensorTransposeInfo::TensorTransposeInfo() : LayerInfo(14, "TensorTransposeInfo") {}

void TensorTransposeInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  TALVO_VISIT_FIELD(axes);
}

TensorArithmeticInfo::TensorArithmeticInfo() : LayerInfo(45, "TensorArithmeticInfo") {}

void TensorArithmeticInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  TALVO_VISIT_FIELD(dim);
  TALVO_VISIT_FIELD(arith_type);
}

TensorSliceInfo::TensorSliceInfo() : LayerInfo(46, "TensorSliceInfo") {}

void TensorSliceInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  TALVO_VISIT_FIELD(slice_dims);
}

TensorSqueezeInfo::TensorSqueezeInfo() : LayerInfo(15, "TensorSqueezeInfo") {}

void TensorSqueezeInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  TALVO_VISIT_FIELD(dim);
}

TensorUnSqueezeInfo::TensorUnSqueezeInfo() : LayerInfo(15, "TensorUnSqueezeInfo") {}

void TensorUnSqueezeInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  TALVO_VISIT_FIELD(dim);
}

void TensorDimemsionSamplingInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  TALVO_VISIT_FIELD(sampling_type);
  TALVO_VISIT_FIELD(data);
}

TensorGetItemInfo::TensorGetItemInfo() : LayerInfo(22, "TensorGetItemInfo") {}

void TensorGetItemInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  TALVO_VISIT_FIELD(num_sampling_infos);
  if (sampling_infos.size() > num_sampling_infos) sampling_infos.resize(num_sampling_infos);
  for (std::size_t i = 0; i < num_sampling_infos; ++i) {
    if (i == sampling_infos.size()) sampling_infos.emplace_back();  // one by one: a file's number may be a lie
    visitor->Visit(&sampling_infos[i], std::to_string(i).c_str());
  }
}

}  // namespace talvo::runtime
