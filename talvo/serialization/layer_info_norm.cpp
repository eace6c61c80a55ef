#include "talvo/serialization/layer_info_norm.h"

#include "talvo/serialization/record_support.h"
#include "talvo/serialization/weight_blob.h"

namespace talvo::runtime {

BatchNorm2dInfo::BatchNorm2dInfo() : LayerInfo(9, "BatchNorm2dInfo") {}

void BatchNorm2dInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  LayerInfo::VisitAttr(visitor);
  TALVO_VISIT_FIELD(num_features);
  TALVO_VISIT_FIELD(eps);
  TALVO_VISIT_FIELD(momentum);
  TALVO_VISIT_FIELD(if_affine);
  TALVO_VISIT_FIELD(if_track_running_stats);
  TALVO_VISIT_WEIGHTS(scale);
  TALVO_VISIT_WEIGHTS(shift);
  TALVO_VISIT_WEIGHTS(variance);
  TALVO_VISIT_WEIGHTS(mean);
  if (visitor->_serialization_protocol_version >= 20005) TALVO_VISIT_FIELD(num_batches_tracked);
}

BatchNorm1dInfo::BatchNorm1dInfo() : LayerInfo(30, "BatchNorm1dInfo") {}

void BatchNorm1dInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  LayerInfo::VisitAttr(visitor);
  TALVO_VISIT_FIELD(num_features);
  TALVO_VISIT_FIELD(eps);
  TALVO_VISIT_FIELD(momentum);
  TALVO_VISIT_FIELD(if_affine);
  TALVO_VISIT_FIELD(if_track_running_stats);
  TALVO_VISIT_WEIGHTS(scale);
  TALVO_VISIT_WEIGHTS(shift);
  TALVO_VISIT_WEIGHTS(variance);
  TALVO_VISIT_WEIGHTS(mean);
  if (visitor->_serialization_protocol_version >= 20005) TALVO_VISIT_FIELD(num_batches_tracked);
}

InstanceNorm2dInfo::InstanceNorm2dInfo() : LayerInfo(8, "InstanceNorm2dInfo") {}

void InstanceNorm2dInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  LayerInfo::VisitAttr(visitor);
  TALVO_VISIT_FIELD(num_features);
  TALVO_VISIT_FIELD(eps);
  TALVO_VISIT_FIELD(momentum);
  TALVO_VISIT_FIELD(if_affine);
  TALVO_VISIT_FIELD(if_track_running_stats);
  TALVO_VISIT_WEIGHTS(scale);
  TALVO_VISIT_WEIGHTS(shift);
}

}  // namespace talvo::runtime
