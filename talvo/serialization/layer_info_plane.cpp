#include "talvo/serialization/layer_info_plane.h"

#include "talvo/serialization/record_support.h"

namespace talvo::runtime {

Pad1dInfo::Pad1dInfo() : LayerInfo(42, "Pad1dInfo") {}

void Pad1dInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  TALVO_VISIT_FIELD(padding_l);
  TALVO_VISIT_FIELD(padding_r);
  TALVO_VISIT_FIELD(padding_v);
}

Pad2dInfo::Pad2dInfo() : LayerInfo(43, "Pad2dInfo") {}

void Pad2dInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  TALVO_VISIT_FIELD(padding_l);
  TALVO_VISIT_FIELD(padding_t);
  TALVO_VISIT_FIELD(padding_r);
  TALVO_VISIT_FIELD(padding_b);
  TALVO_VISIT_FIELD(padding_v);
}

AvgPool2dInfo::AvgPool2dInfo() : LayerInfo(6, "AvgPool2dInfo") {}

void AvgPool2dInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  TALVO_VISIT_FIELD(kernel_x);
  TALVO_VISIT_FIELD(kernel_y);
  TALVO_VISIT_FIELD(padding_l);
  TALVO_VISIT_FIELD(padding_t);
  TALVO_VISIT_FIELD(padding_r);
  TALVO_VISIT_FIELD(padding_b);
  TALVO_VISIT_FIELD(stride_x);
  TALVO_VISIT_FIELD(stride_y);
  TALVO_VISIT_FIELD(ceil_mode);
  TALVO_VISIT_FIELD(count_include_pad);
}

MaxPool2dInfo::MaxPool2dInfo() : LayerInfo(7, "MaxPool2dInfo") {}

void MaxPool2dInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  TALVO_VISIT_FIELD(kernel_x);
  TALVO_VISIT_FIELD(kernel_y);
  TALVO_VISIT_FIELD(padding_l);
  TALVO_VISIT_FIELD(padding_t);
  TALVO_VISIT_FIELD(padding_r);
  TALVO_VISIT_FIELD(padding_b);
  TALVO_VISIT_FIELD(stride_x);
  TALVO_VISIT_FIELD(stride_y);
  TALVO_VISIT_FIELD(dilation_x);
  TALVO_VISIT_FIELD(dilation_y);
  TALVO_VISIT_FIELD(ceil_mode);
}

AdaptiveAvgPool2dInfo::AdaptiveAvgPool2dInfo() : LayerInfo(26, "AdaptiveAvgPool2dInfo") {}

void AdaptiveAvgPool2dInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  TALVO_VISIT_FIELD(output_size);
}

AdaptiveMaxPool2dInfo::AdaptiveMaxPool2dInfo() : LayerInfo(27, "AdaptiveMaxPool2dInfo") {}

void AdaptiveMaxPool2dInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  TALVO_VISIT_FIELD(output_size);
}

Upsample2dInfo::Upsample2dInfo() : LayerInfo(10, "Upsample2dInfo") {}

void Upsample2dInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  TALVO_VISIT_FIELD(scale_factor_y);
  TALVO_VISIT_FIELD(scale_factor_x);
  TALVO_VISIT_FIELD(align_corner);
  TALVO_VISIT_FIELD(unsample_type);
}

GridSampleInfo::GridSampleInfo() : LayerInfo(44, "GridSampleInfo") {}

void GridSampleInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  TALVO_VISIT_FIELD(mode);
  TALVO_VISIT_FIELD(padding_mode);
  TALVO_VISIT_FIELD(align_corners);
}

PixelShuffleInfo::PixelShuffleInfo() : LayerInfo(21, "PixelShuffleInfo") {}

void PixelShuffleInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  TALVO_VISIT_FIELD(upscale_factor);
}

SpaceToDepthInfo::SpaceToDepthInfo() : LayerInfo(39, "SpaceToDepthInfo") {}

void SpaceToDepthInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  TALVO_VISIT_FIELD(scale_factor);
}

}  // namespace talvo::runtime
