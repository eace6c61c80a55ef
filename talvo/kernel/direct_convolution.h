// Direct convolution on bare memory: what the convolution kernels compute once their tensors are checked. Internal.
// Weights are [groups][out_per_group][in_per_group][taps], for the transposed form [groups][in_per_group]
// [out_per_group][taps]; a bias has groups * out_per_group values or is null, which stands for 0.
// Output channels beyond the groups, and all of them when in_per_group is 0, are left alone.
#pragma once

#include <cstddef>

#include "talvo/runtime/device_cpu.h"

namespace talvo::kernel {

/// Channels, kernel and extents; all but the channels are 1 or more, and the window fits the padded input.
struct ConvolutionShape {
  std::size_t groups, in_per_group, out_per_group;
  std::size_t kernel_y, kernel_x, stride_y, stride_x, dilation_y, dilation_x;
  std::size_t in_height, in_width;  // of the input as the function at hand reads it
  std::size_t out_height, out_width;
};

struct ConvolutionData {
  float const* input;
  float const* weights;
  float const* bias;
  float* output;
};

/// The fastest of the three ways below for a padded input; their bits are the same.
enum class Way { kChannels, kColumns, kGroups };
Way FastestWay(ConvolutionShape const& shape);

/// Output channels in the lanes. `input` is padded already. Each result is bias + the sum over the channels' kernel
/// sums, in the order of channels, ky, kx.
void ConvolveByChannels(ConvolutionShape const& shape, ConvolutionData const& data, runtime::DeviceCPU& device);

/// What the two ways below, whose `input` is not padded, lay around it: `top` rows and `left` columns of 0 before it
/// and as many behind it as the windows read or fewer, [padded_height, padded_width] in all.
struct Padding {
  std::size_t top, left, padded_height, padded_width;
};

/// Output columns in the lanes: for few output channels in a group.
void ConvolveByColumns(ConvolutionShape const& shape, Padding const& padding, ConvolutionData const& data,
                       runtime::DeviceCPU& device);

/// Groups in the lanes: for many groups of few channels and narrow planes.
void ConvolveByGroups(ConvolutionShape const& shape, Padding const& padding, ConvolutionData const& data,
                      runtime::DeviceCPU& device);

/// The transposed form: each input element (iy, ix) meets output (y, x) with y - top + ky * dilation_y = iy * stride_y,
/// and so for x, under the weight of the kernel turned by 180 degrees. Each product is added to the result by itself,
/// in the order of channels, ky, kx, starting at the bias.
void ConvolveTransposed(ConvolutionShape const& shape, int top, int left, ConvolutionData const& data,
                        runtime::DeviceCPU& device);

}  // namespace talvo::kernel
