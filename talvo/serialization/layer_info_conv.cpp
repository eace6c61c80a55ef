#include "talvo/serialization/layer_info_conv.h"

#include "talvo/serialization/record_support.h"
#include "talvo/serialization/weight_blob.h"

namespace talvo::runtime {
namespace {

// What every convolution of planes keeps ahead of its weights.
template <class Record>
void VisitWindow(Record& record, std::shared_ptr<Visitor> const& visitor) {
  TALVO_VISIT_FIELD_OF(record, in_channels);
  TALVO_VISIT_FIELD_OF(record, out_channels);
  TALVO_VISIT_FIELD_OF(record, kernel_x);
  TALVO_VISIT_FIELD_OF(record, kernel_y);
  TALVO_VISIT_FIELD_OF(record, padding_l);
  TALVO_VISIT_FIELD_OF(record, padding_t);
  TALVO_VISIT_FIELD_OF(record, padding_r);
  TALVO_VISIT_FIELD_OF(record, padding_b);
  TALVO_VISIT_FIELD_OF(record, stride_x);
  TALVO_VISIT_FIELD_OF(record, stride_y);
  TALVO_VISIT_FIELD_OF(record, dilation_x);
  TALVO_VISIT_FIELD_OF(record, dilation_y);
  TALVO_VISIT_FIELD_OF(record, groups);
  TALVO_VISIT_FIELD_OF(record, if_bias);
}

template <class Record>
void VisitQuantisedConvolution(Record& record, std::shared_ptr<Visitor> const& visitor) {
  VisitWindow(record, visitor);
  TALVO_VISIT_FIELD_OF(record, w_clip);
  TALVO_VISIT_FIELD_OF(record, b_clip);
  TALVO_VISIT_FIELD_OF(record, a_clip);
  TALVO_VISIT_FIELD_OF(record, w_qbit);
  TALVO_VISIT_FIELD_OF(record, b_qbit);
  TALVO_VISIT_FIELD_OF(record, a_qbit);
  TALVO_VISIT_FIELD_OF(record, weight);
  TALVO_VISIT_FIELD_OF(record, bias);
}

}  // namespace

Conv1dInfo::Conv1dInfo() : LayerInfo(40, "Conv1dInfo") {}

void Conv1dInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  TALVO_VISIT_FIELD(in_channels);
  TALVO_VISIT_FIELD(out_channels);
  TALVO_VISIT_FIELD(kernel_size);
  TALVO_VISIT_FIELD(padding_f);
  TALVO_VISIT_FIELD(padding_b);
  TALVO_VISIT_FIELD(stride);
  TALVO_VISIT_FIELD(dilation);
  TALVO_VISIT_FIELD(groups);
  TALVO_VISIT_FIELD(if_bias);
  TALVO_VISIT_WEIGHTS(weight);
  TALVO_VISIT_WEIGHTS(bias);
}

Conv2dInfo::Conv2dInfo() : LayerInfo(2, "Conv2dInfo") {}

void Conv2dInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  VisitWindow(*this, visitor);
  TALVO_VISIT_WEIGHTS(weight);
  TALVO_VISIT_WEIGHTS(bias);
}

ConvTranspose2dInfo::ConvTranspose2dInfo() : LayerInfo(3, "ConvTranspose2dInfo") {}

void ConvTranspose2dInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  VisitWindow(*this, visitor);
  TALVO_VISIT_WEIGHTS(weight);
  TALVO_VISIT_WEIGHTS(bias);
}

SQFCConv2dInfo::SQFCConv2dInfo() : LayerInfo(23, "SQFCConv2dInfo") {}

void SQFCConv2dInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  VisitQuantisedConvolution(*this, visitor);
}

SQFCConv2dFoldedBNInfo::SQFCConv2dFoldedBNInfo() : LayerInfo(24, "SQFCConv2dFoldedBNInfo") {}

void SQFCConv2dFoldedBNInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  VisitQuantisedConvolution(*this, visitor);
  TALVO_VISIT_FIELD(eps);
  TALVO_VISIT_FIELD(momentum);
  TALVO_VISIT_FIELD(if_affine);
  TALVO_VISIT_FIELD(if_track_running_stats);
  TALVO_VISIT_FIELD(scale);
  TALVO_VISIT_FIELD(shift);
  TALVO_VISIT_FIELD(variance);
  TALVO_VISIT_FIELD(mean);
}

FullConnectionInfo::FullConnectionInfo() : LayerInfo(17, "FullConnectionInfo") {}

void FullConnectionInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  TALVO_VISIT_FIELD(in_features);
  TALVO_VISIT_FIELD(out_features);
  TALVO_VISIT_FIELD(if_bias);
  TALVO_VISIT_WEIGHTS(weight);
  TALVO_VISIT_WEIGHTS(bias);
}

GemmInfo::GemmInfo() : LayerInfo(28, "GemmInfo") {}

void GemmInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  TALVO_VISIT_FIELD(trans_a);
  TALVO_VISIT_FIELD(trans_b);
  TALVO_VISIT_FIELD(alpha);
  TALVO_VISIT_FIELD(beta);
}

}  // namespace talvo::runtime
