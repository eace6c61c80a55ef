#include "tests/support/small_model.h"

#include <cmath>

#include "talvo/serialization/layer_info_activation.h"
#include "talvo/serialization/layer_info_conv.h"
#include "talvo/serialization/layer_info_plane.h"
#include "talvo/serialization/layer_info_rnn.h"
#include "talvo/serialization/layer_info_tensor.h"
#include "tests/support/bits.h"

namespace talvo::test {
namespace {

using namespace talvo::runtime;

// Multiples of 1/64.
std::string HalfWeights(std::uint32_t seed, std::size_t count) {
  auto values = Floats(seed, count);
  for (float& value : values) value = std::round(value * 64.0f) / 64.0f;
  return WeightText(values);
}

template <class Info>
void FillConvolution(Info& info, unsigned short in, unsigned short out, unsigned short size, unsigned short stride) {
  info.in_channels = in;
  info.out_channels = out;
  info.kernel_x = info.kernel_y = size;
  info.stride_x = info.stride_y = stride;
  info.dilation_x = info.dilation_y = info.groups = 1;
  info.if_bias = true;
  info.weight = HalfWeights(in, std::size_t{in} * out * size * size);
  info.bias = HalfWeights(out, out);
}

template <class Info>
void FillPooling(Info& info, unsigned short size, unsigned short stride, short padding) {
  info.kernel_x = info.kernel_y = size;
  info.stride_x = info.stride_y = stride;
  info.padding_l = info.padding_t = info.padding_r = info.padding_b = padding;
}

// Resampling and a recurrent layer over "both" {8, 4, 4} and "wide" {2, 8, 8}.
void AddFurtherBranches(ModelBuilder& net) {
  net.Add<PixelShuffleInfo>("shuffled", {"both"}, "Pixelshuffle_Fallback_CHW_Float_M1").upscale_factor = 2.0f;
  auto& up = net.Add<Upsample2dInfo>("up", {"both"}, "Upsampling2D_Fallback_CHW_Float_M1");
  up.scale_factor_x = up.scale_factor_y = 2.0f;
  up.unsample_type = 1;
  net.Add<ConcatenateInfo>("stack", {"shuffled", "up"}, "Concatenate_MainMemory_Fallback");
  auto& sampled = net.Add<GridSampleInfo>("sampled", {"stack", "wide"}, "GridSample_Fallback_CHW_Float_M1");
  sampled.mode = sampled.padding_mode = 1;
  net.Add<TensorTransposeInfo>("turned", {"both"}, "Transform_MainMemory_Permute_Fallback").axes = {0, 2, 3, 1};
  net.Add<TensorReshapeInfo>("steps", {"turned"}, "Transform_MainMemory_Reshape_Fallback").new_shape = {1, 4, 32};
  auto& gru = net.Add<GRUInfo>("sequence", {"steps"}, "GRU_Fallback_SC_F32_M1");
  gru.in_size = 32;
  gru.hidden_size = 4;
  gru.num_layers = 1;
  gru.if_bias = true;
  gru.weight_ih_forward = {HalfWeights(11, 384)};
  gru.weight_hh_forward = {HalfWeights(12, 48)};
  gru.bias_ih_forward = gru.bias_hh_forward = {HalfWeights(13, 12)};
}

}  // namespace

ModelBuilder SmallModel() {
  ModelBuilder net;
  net.AddInput("picture");
  auto& conv = net.Add<Conv2dInfo>("conv", {"picture"}, "Conv2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1");
  FillConvolution(conv, 3, 4, 3, 1);
  conv.padding_l = conv.padding_t = conv.padding_r = conv.padding_b = 1;
  net.Add<ActivationInfo>("prelu", {"conv"}, "PReLU_Fallback_Float_M1").weight = HalfWeights(9, 1);
  auto& pool = net.Add<MaxPool2dInfo>("pool", {"prelu"}, "Pooling2D_Max_Fallback_Float_M1");
  FillPooling(pool, 2, 2, 0);
  pool.dilation_x = pool.dilation_y = 1;
  FillConvolution(net.Add<Conv2dInfo>("point", {"pool"}, "Conv2d_K1x1_S1x1_D1x1_G1_SGEMM_CHW_FLOAT_M1"), 4, 4, 1, 1);
  net.Add<ElementWiseOperatorInfo>("sum", {"pool", "point"}, "Elementwise_Fallback_Float_M1");
  FillPooling(net.Add<AvgPool2dInfo>("mean", {"sum"}, "Pooling2D_Avg_Fallback_Float_M1"), 3, 1, 1);
  net.Add<ConcatenateInfo>("both", {"sum", "mean"}, "Concatenate_MainMemory_Fallback");
  auto& wide =
      net.Add<ConvTranspose2dInfo>("wide", {"both"}, "ConvTranspose2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1");
  FillConvolution(wide, 8, 2, 2, 2);
  wide.padding_l = wide.padding_t = 1;  // borders of the input spread by the stride: the extents double
  net.Add<AdaptiveAvgPool2dInfo>("one", {"wide"}, "AdaptivePooling2D_Avg_Fallback_CHW_Float_M1").output_size = {1, 1};
  net.Add<BroadcastOperatorInfo>("plane", {"wide", "one"}, "BroadcastOperator_Fallback_Float_M1").op_type = 2;
  net.Add<TensorSliceInfo>("part", {"both"}, "Slice_Fallback_CHW_Float_M1").slice_dims = {0, 8, 1, 1, 4, 1, 0, 4, 2};
  net.Add<TensorArithmeticInfo>("features", {"part"}, "TensorArithmetic_Fallback_M1").dim = {2, 3};
  auto& dense = net.Add<FullConnectionInfo>("dense", {"features"}, "FullConnection_Fallback_C_Float_M1");
  dense.in_features = 8;
  dense.out_features = 5;
  dense.if_bias = true;
  dense.weight = HalfWeights(7, 40);
  dense.bias = HalfWeights(8, 5);
  net.Add<SoftmaxInfo>("classes", {"dense"}, "Softmax_Fallback_Float_M1").dim = 1;
  AddFurtherBranches(net);
  net.model->squential_output_ids = {"classes", "plane", "sequence", "sampled"};
  return net;
}

}  // namespace talvo::test
