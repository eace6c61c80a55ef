// Layer records of convolutions and of dense layers.
#pragma once

#include "talvo/serialization/layer_info.h"

namespace talvo::runtime {

class TALVO_API Conv1dInfo : public LayerInfo {
 public:
  Conv1dInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  unsigned short in_channels = 0, out_channels = 0, kernel_size = 0, padding_f = 0, padding_b = 0;
  unsigned short stride = 1, dilation = 1, groups = 1;
  bool if_bias = false;      // has no influence on what files hold: an absent bias is an empty string
  std::string weight, bias;  // [out_channels, in_channels / groups, kernel_size]; [out_channels]
};

class TALVO_API Conv2dInfo : public LayerInfo {
 public:
  Conv2dInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  unsigned short in_channels = 0, out_channels = 0, kernel_x = 0, kernel_y = 0;
  unsigned short padding_l = 0, padding_t = 0, padding_r = 0, padding_b = 0;
  unsigned short stride_x = 1, stride_y = 1, dilation_x = 1, dilation_y = 1, groups = 1;
  bool if_bias = false;
  std::string weight, bias;  // [out_channels, in_channels / groups, kernel_y, kernel_x]; [out_channels]
};

class TALVO_API ConvTranspose2dInfo : public LayerInfo {
 public:
  ConvTranspose2dInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  unsigned short in_channels = 0, out_channels = 0, kernel_x = 0, kernel_y = 0;
  short padding_l = 0, padding_t = 0, padding_r = 0, padding_b = 0;
  unsigned short stride_x = 0, stride_y = 0, dilation_x = 0, dilation_y = 0, groups = 0;
  bool if_bias = false;
  std::string weight, bias;  // [in_channels, out_channels / groups, kernel_y, kernel_x]; [out_channels]
};

/// A quantised convolution: `*_clip` and `*_qbit` for weights, bias and activations. Weights stay text in both forms.
class TALVO_API SQFCConv2dInfo : public LayerInfo {
 public:
  SQFCConv2dInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  unsigned short in_channels = 0, out_channels = 0, kernel_x = 0, kernel_y = 0;
  short padding_l = 0, padding_t = 0, padding_r = 0, padding_b = 0;
  unsigned short stride_x = 1, stride_y = 1, dilation_x = 1, dilation_y = 1, groups = 1;
  bool if_bias = false;
  unsigned short w_clip = 1, b_clip = 8, a_clip = 8, w_qbit = 6, b_qbit = 7, a_qbit = 7;
  std::string weight, bias;
};

/// SQFCConv2dInfo with the batch normalisation that was folded into it.
class TALVO_API SQFCConv2dFoldedBNInfo : public LayerInfo {
 public:
  SQFCConv2dFoldedBNInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  unsigned short in_channels = 0, out_channels = 0, kernel_x = 0, kernel_y = 0;
  short padding_l = 0, padding_t = 0, padding_r = 0, padding_b = 0;
  unsigned short stride_x = 1, stride_y = 1, dilation_x = 1, dilation_y = 1, groups = 1;
  bool if_bias = false;
  unsigned short w_clip = 1, b_clip = 8, a_clip = 8, w_qbit = 6, b_qbit = 7, a_qbit = 7;
  std::string weight, bias;
  float eps = 0.00001f, momentum = 0.1f;
  bool if_affine = true, if_track_running_stats = true;
  std::string scale, shift, variance, mean;
};

class TALVO_API FullConnectionInfo : public LayerInfo {
 public:
  FullConnectionInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  unsigned short in_features = 0, out_features = 0;
  bool if_bias = false;
  std::string weight, bias;  // [out_features, in_features]; [out_features]
};

/// alpha * op(A) op(B) + beta * C.
class TALVO_API GemmInfo : public LayerInfo {
 public:
  GemmInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  bool trans_a = false, trans_b = false;
  float alpha = 1.0f, beta = 1.0f;
};

}  // namespace talvo::runtime
