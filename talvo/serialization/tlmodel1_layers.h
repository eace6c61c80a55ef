// The layer records of the first generation's model files, as they stand in the file: what QZNetLoader hands out and
// the conversion to today's records reads. Numbers keep the file's width; weights are widened to float32.
#pragma once

#include <array>
#include <vector>

#include "talvo/utility/export.h"
#include "talvo/utility/half.h"

namespace talvo1 {

/// A plane: width and height as shares of the model's base size, and a count of channels.
struct QZShape {
  half_float::half width, height;
  unsigned short channels = 0;
};

struct QZTensorDescriptor {
  unsigned short dimension_count = 0;  // at most 11
  std::array<unsigned short, 11> dimensions = {};
};

/// The base of all records, which alone has something to export. `input_count` says how many of `input_ids` are in use.
class TALVO_API QZLayerInfo {
 public:
  QZLayerInfo();
  QZLayerInfo(QZLayerInfo const&) = default;
  QZLayerInfo& operator=(QZLayerInfo const&) = default;
  virtual ~QZLayerInfo();

  unsigned short id = 65535, type = 0, input_count = 1, output_count = 1;
  std::vector<unsigned short> input_ids = {0};
  std::vector<QZShape> input_shapes, output_shapes;
};

/// The base of the records that describe tensors in place of planes.
class QZFreezedLayerInfo : public QZLayerInfo {
 public:
  QZTensorDescriptor input_tensor, output_tensor;
};

/// What the kinds of convolution share. `bias` is there whatever `if_bias` says.
struct QZConvolution {
  unsigned short kernel_x = 0, kernel_y = 0, pad_x = 0, pad_y = 0, stride_x = 0, stride_y = 0;
  unsigned short dilation_x = 1, dilation_y = 1;
  unsigned short if_bias = 0, activation = 0;
  std::vector<float> weights, bias;
};

class QZLayerInfo_Input : public QZLayerInfo {
 public:
  unsigned short value = 0;
};

/// Weights [out, row, column, input within the group].
class QZLayerInfo_Conv2D : public QZLayerInfo, public QZConvolution {
 public:
  unsigned short groups = 1;  // files of version 10000 have none
};

/// Weights [out, row, column, in], divided in count by the divisor.
class QZLayerInfo_Conv2DTranspose : public QZLayerInfo, public QZConvolution {
 public:
  unsigned short group_divisor = 1;  // in files from version 10003 on
};

/// Weights [row, column, channel].
class QZLayerInfo_DepthWiseConv2D : public QZLayerInfo, public QZConvolution {
 public:
  unsigned short multiplier = 1;
};

class QZLayerInfo_PixelShuffle : public QZLayerInfo {
 public:
  half_float::half upscale_factor;
};

class QZLayerInfo_Pooling : public QZLayerInfo {
 public:
  unsigned short kernel_x = 0, kernel_y = 0, pad_x = 0, pad_y = 0, stride_x = 0, stride_y = 0;
  unsigned short kind = 0;  // 0 average, 1 maximum
};

class QZLayerInfo_InstanceNormalization : public QZLayerInfo {};

/// Each array has a value for each channel; `raw` holds the four as they came, in this order.
class QZLayerInfo_BatchNormalization : public QZLayerInfo {
 public:
  std::vector<float> scale, shift, variance, mean;
  std::vector<half_float::half> raw;
};

class QZLayerInfo_Activation : public QZLayerInfo {
 public:
  unsigned short kind = 0;
  half_float::half alpha, beta;
};

class QZLayerInfo_Region : public QZLayerInfo {
 public:
  std::array<unsigned short, 3> values = {};
};

/// Ten slots in `input_ids`, however many are in use.
class QZLayerInfo_ElementWiseOperator : public QZLayerInfo {
 public:
  unsigned short op = 0, activation = 0;
};

/// Ten slots in `input_ids` and `input_shapes`, however many are in use.
class QZLayerInfo_Concatenate : public QZLayerInfo {
 public:
  unsigned short axis = 0;
};

class QZLayerInfo_Upsampling : public QZLayerInfo {
 public:
  half_float::half scale_factor;
  unsigned short mode = 0;
  unsigned short align_corner = 0;  // in files from version 10007 on
};

class QZLayerInfo_ChannelShuffle : public QZLayerInfo {
 public:
  std::vector<unsigned short> order;  // one for each channel
};

class QZLayerInfo_DepthWiseConv2DTranspose : public QZLayerInfo, public QZConvolution {
 public:
  unsigned short multiplier = 1;
};

class QZLayerInfo_TensorInput : public QZFreezedLayerInfo {
 public:
  unsigned short location = 0;
};

class QZLayerInfo_TensorReshape : public QZFreezedLayerInfo {};

class QZLayerInfo_TensorTranspose : public QZFreezedLayerInfo {
 public:
  std::array<unsigned short, 10> axes = {};
};

class QZLayerInfo_TensorSqueeze : public QZFreezedLayerInfo {
 public:
  unsigned short dimension = 0;
};

/// `raw` holds weights and bias as they came.
class QZLayerInfo_FullConnection : public QZFreezedLayerInfo {
 public:
  unsigned short in_features = 0, out_features = 0, if_bias = 0;
  std::vector<float> weights, bias;
  std::vector<half_float::half> raw;
};

/// One stacked layer in one direction; the biases are empty without if_bias.
struct QZLSTMWeights {
  std::vector<float> weight_ih, weight_hh, bias_ih, bias_hh;
};

class QZLayerInfo_LSTM : public QZFreezedLayerInfo {
 public:
  unsigned short in_size = 0, hidden_size = 0, num_layers = 0, if_bias = 0, bidirectional = 0;
  unsigned short stacking = 0;                  // in files from version 10009 on
  std::vector<QZLSTMWeights> forward, reverse;  // one for each stacked layer; `reverse` if bidirectional
};

class QZLayerInfo_TensorActivation : public QZFreezedLayerInfo {
 public:
  unsigned short kind = 0;
  half_float::half alpha, beta;
};

}  // namespace talvo1
