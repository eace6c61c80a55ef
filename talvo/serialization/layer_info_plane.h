// Layer records of what works on planes and rows without weights: padding, pooling, resampling.
#pragma once

#include <vector>

#include "talvo/serialization/layer_info.h"

namespace talvo::runtime {

class TALVO_API Pad1dInfo : public LayerInfo {
 public:
  Pad1dInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  short padding_l = 0, padding_r = 0;
  float padding_v = 0;  // the fill value
};

class TALVO_API Pad2dInfo : public LayerInfo {
 public:
  Pad2dInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  short padding_l = 0, padding_t = 0, padding_r = 0, padding_b = 0;
  float padding_v = 0;
};

class TALVO_API AvgPool2dInfo : public LayerInfo {
 public:
  AvgPool2dInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  unsigned short kernel_x = 0, kernel_y = 0;
  short padding_l = 0, padding_t = 0, padding_r = 0, padding_b = 0;
  unsigned short stride_x = 0, stride_y = 0;
  bool ceil_mode = false, count_include_pad = false;
};

class TALVO_API MaxPool2dInfo : public LayerInfo {
 public:
  MaxPool2dInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  unsigned short kernel_x = 0, kernel_y = 0;
  short padding_l = 0, padding_t = 0, padding_r = 0, padding_b = 0;
  unsigned short stride_x = 0, stride_y = 0, dilation_x = 0, dilation_y = 0;
  bool ceil_mode = false;
};

class TALVO_API AdaptiveAvgPool2dInfo : public LayerInfo {
 public:
  AdaptiveAvgPool2dInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  std::vector<unsigned short> output_size;
};

class TALVO_API AdaptiveMaxPool2dInfo : public LayerInfo {
 public:
  AdaptiveMaxPool2dInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  std::vector<unsigned short> output_size;
};

class TALVO_API Upsample2dInfo : public LayerInfo {
 public:
  Upsample2dInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  float scale_factor_y = 0, scale_factor_x = 0;
  bool align_corner = false;
  unsigned short unsample_type = 0;  // 0 nearest, 1 bilinear, 2 bicubic
};

class TALVO_API GridSampleInfo : public LayerInfo {
 public:
  GridSampleInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  unsigned short mode = 0;          // 0 nearest, 1 bilinear, 2 bicubic
  unsigned short padding_mode = 0;  // 0 zeros, 1 border, 2 reflection
  bool align_corners = false;
};

class TALVO_API PixelShuffleInfo : public LayerInfo {
 public:
  PixelShuffleInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  float upscale_factor = 0;
};

class TALVO_API SpaceToDepthInfo : public LayerInfo {
 public:
  SpaceToDepthInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  float scale_factor = 0;
};

}  // namespace talvo::runtime
