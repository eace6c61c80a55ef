#include "talvo/serialization/layer_info_norm.h"

#include "talvo/serialization/record_support.h"
#include "talvo/serialization/weight_blob.h"

namespace talvo::runtime {
namespace {

template <class Record>
void VisitNorm(Record& record, std::shared_ptr<Visitor> const& visitor) {
  TALVO_VISIT_FIELD_OF(record, num_features);
  TALVO_VISIT_FIELD_OF(record, eps);
  TALVO_VISIT_FIELD_OF(record, momentum);
  TALVO_VISIT_FIELD_OF(record, if_affine);
  TALVO_VISIT_FIELD_OF(record, if_track_running_stats);
  TALVO_VISIT_WEIGHTS_OF(record, scale);
  TALVO_VISIT_WEIGHTS_OF(record, shift);
}

template <class Record>
void VisitBatchNorm(Record& record, std::shared_ptr<Visitor> const& visitor) {
  VisitNorm(record, visitor);
  TALVO_VISIT_WEIGHTS_OF(record, variance);
  TALVO_VISIT_WEIGHTS_OF(record, mean);
  if (visitor->_serialization_protocol_version >= 20005) TALVO_VISIT_FIELD_OF(record, num_batches_tracked);
}

}  // namespace

BatchNorm2dInfo::BatchNorm2dInfo() : LayerInfo(9, "BatchNorm2dInfo") {}

void BatchNorm2dInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  VisitBatchNorm(*this, visitor);
}

BatchNorm1dInfo::BatchNorm1dInfo() : LayerInfo(30, "BatchNorm1dInfo") {}

void BatchNorm1dInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  VisitBatchNorm(*this, visitor);
}

InstanceNorm2dInfo::InstanceNorm2dInfo() : LayerInfo(8, "InstanceNorm2dInfo") {}

void InstanceNorm2dInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  VisitNorm(*this, visitor);
}

}  // namespace talvo::runtime
