// Direct and transposed convolution on bare memory: what the convolution kernels compute once their tensors are
// checked, and what the two share. Internal.
#pragma once

#include <cstddef>
#include <memory>

#include "talvo/kernel/rows/convolution_tile.h"
#include "talvo/runtime/device_cpu.h"

namespace talvo::kernel {

/// Channels and kernel are 1 or more; the output is not empty. One dimension is a plane of height 1.
struct ConvolutionShape {
  std::size_t groups, in_per_group, out_per_group;
  std::size_t kernel_y, kernel_x, stride_y, stride_x, dilation_y, dilation_x;
  std::size_t in_height, in_width, out_height, out_width;  // of the tensors, as they lie
  int top, left;                            // border before the input; the transposed form's may be negative
  std::size_t padded_height, padded_width;  // with all its border, in the direct form

  std::size_t Taps() const { return kernel_y * kernel_x; }
  std::size_t InPlane() const { return in_height * in_width; }
  std::size_t OutPlane() const { return out_height * out_width; }
};

/// Input [groups * in_per_group, in_height, in_width], output likewise. Weights [groups][out_per_group][in_per_group]
/// [taps], for the transposed form [groups][in_per_group][out_per_group][taps]. The bias has groups * out_per_group
/// values or is null, which stands for 0. Output channels beyond the groups are left alone.
struct ConvolutionData {
  float const* input;
  float const* weights;
  float const* bias;
  float* output;
};

/// Each result is bias + the sum over the channels of (the sum of the products with the padded input), in the order of
/// channels, ky, kx. The window fits the padded input.
void ConvolveDirect(ConvolutionShape const& shape, ConvolutionData const& data, runtime::DeviceCPU& device);

/// Each input element (iy, ix) meets output (y, x) with y - top + ky * dilation_y = iy * stride_y, and so for x, under
/// the weight of the kernel turned by 180 degrees. Each product is added to the result by itself, in the order of
/// channels, ky, kx, starting at the bias.
void ConvolveTransposed(ConvolutionShape const& shape, ConvolutionData const& data, runtime::DeviceCPU& device);

// Both forms by fused steps, from packed weights.

/// Input channels whose products one chain of fused steps sums: all for one tap, else 72 / taps, at least 1.
std::size_t FusedChannels(ConvolutionShape const& shape);

/// Floats that a kernel keeps of its weights, and the weights in the order in which they are kept. Of the shape,
/// groups, channels and kernel are read.
std::size_t FusedConvolutionFloats(ConvolutionShape const& shape);
void PackFusedDirect(ConvolutionShape const& shape, float const* weights, float* packed);
void PackFusedTransposed(ConvolutionShape const& shape, float const* weights, float* packed);

/// Each result is a sum, in order, of chains of FusedChannels input channels, the first of which begins at the bias and
/// the others at 0. A chain is one fused step after the other: channels, ky, kx. Inputs beyond the edge are 0 and take
/// part; in the transposed form, those that lie a multiple of the stride off.
void ConvolveFused(ConvolutionShape const& shape, ConvolutionData const& data, runtime::DeviceCPU& device);
void ConvolveTransposedFused(ConvolutionShape const& shape, ConvolutionData const& data, runtime::DeviceCPU& device);

// Shared by the forms: results in lanes.

/// The direct form with output columns in the lanes, for few output channels in a group; `run_plane` is rows::RunPlane,
/// or rows::RunFusedPlane for groups of one input channel.
void ConvolveByColumns(ConvolutionShape const& shape, ConvolutionData const& data, runtime::DeviceCPU& device,
                       rows::Primitive<void(rows::PlaneRun const&)> const& run_plane);

/// Floats of scratch that it takes.
double ScratchByColumns(ConvolutionShape const& shape);

/// The output channels [first, first + used) of a group, or one channel of each of the groups [first, first + used), in
/// the lanes of a block of vectors.
struct LaneBlock {
  std::size_t first, used, lanes;
};
LaneBlock BlockOfChannels(std::size_t first, std::size_t out_per_group);
LaneBlock BlockOfGroups(std::size_t first, std::size_t groups);
constexpr std::size_t kMaxBlock = 2 * rows::kMaxLanes;

/// Whether groups in the lanes take at most half the time of another way, which takes `vectors` for one element of all
/// results, and the inputs of `in_plane` floats that they lay side by side stay in the cache.
bool GroupsPay(ConvolutionShape const& shape, double in_plane, std::size_t vectors);

/// packed[i][lane] from [lane][i], for the weights of a block or the inputs of groups; unused lanes 0.
void PackLanes(float const* from, std::size_t lane_stride, std::size_t count, LaneBlock const& block, float* packed);

/// starts[lane] = bias[lane * step], or 0 without a bias; unused lanes 0.
void BlockStarts(float const* bias, std::size_t step, LaneBlock const& block, float (&starts)[kMaxBlock]);

/// Positions whose results lie in scratch, with outputs in the lanes: whole tiles of 4, 7, 8 and 14 positions.
constexpr std::size_t kStrip = 112;

/// Gives each of some positions the lanes of `starts`.
void FillStarts(float const (&starts)[kMaxBlock], std::size_t lanes, std::size_t positions, float* results);

/// The scratch that a call may take, in floats: a small multiple of what it reads and writes. Shapes whose border or
/// packed weights would take more are computed plainly.
double MostScratch(ConvolutionShape const& shape);

/// Scratch of one call, from the device's pool; floats at multiples of 64 bytes.
class ConvolutionScratch {
 public:
  ConvolutionScratch(runtime::DeviceCPU& device, std::size_t floats);
  float* Data() const { return first_; }

 private:
  std::shared_ptr<runtime::TensorCPU> tensor_;
  float* first_;
};

}  // namespace talvo::kernel
