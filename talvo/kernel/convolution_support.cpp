#include "talvo/kernel/convolution_support.h"

#include <algorithm>
#include <iterator>
#include <limits>

#include "talvo/kernel/kernel_support.h"
#include "talvo/kernel/native/fill_support.h"
#include "talvo/kernel/rows/transpose.h"
#include "talvo/runtime/tensor_cpu.h"

namespace talvo::kernel {
namespace {

constexpr double kMixedAtHand = 1 << 16;    // floats of groups laid side by side: they stay in L2
constexpr std::size_t kMixingTaps = 22;     // laying groups side by side and their results apart takes as long
constexpr double kScratchAtHand = 1 << 20;  // floats that any call may take
constexpr std::size_t kAlignmentFloats = 16;

std::size_t ActiveLanes() { return static_cast<std::size_t>(rows::ActiveLanes()); }

}  // namespace

LaneBlock BlockOfChannels(std::size_t first, std::size_t out_per_group) {
  std::size_t const narrow = ActiveLanes(), left = out_per_group - first;
  std::size_t const lanes = left > narrow ? 2 * narrow : narrow;
  return {first, std::min(left, lanes), lanes};
}

LaneBlock BlockOfGroups(std::size_t first, std::size_t groups) {
  return {first, std::min(groups - first, ActiveLanes()), ActiveLanes()};
}

bool GroupsPay(ConvolutionShape const& shape, double in_plane, std::size_t vectors) {
  std::size_t const lanes = ActiveLanes(), by_groups = (shape.groups + lanes - 1) / lanes * shape.out_per_group;
  std::size_t const sum = shape.in_per_group * shape.Taps();
  return 2 * by_groups * (sum + kMixingTaps) <= vectors * sum &&
         static_cast<double>(shape.in_per_group * lanes) * in_plane <= kMixedAtHand;
}

void PackLanes(float const* from, std::size_t lane_stride, std::size_t count, LaneBlock const& block, float* packed) {
  if (block.used < block.lanes) native::FillFloats(0.0f, count * block.lanes, packed);
  rows::TransposeRows(from, lane_stride, block.used, count, packed, block.lanes);
}

void BlockStarts(float const* bias, std::size_t step, LaneBlock const& block, float (&starts)[kMaxBlock]) {
  std::fill(std::begin(starts), std::end(starts), 0.0f);
  for (std::size_t lane = 0; bias != nullptr && lane < block.used; ++lane) starts[lane] = bias[lane * step];
}

void FillStarts(float const (&starts)[kMaxBlock], std::size_t lanes, std::size_t positions, float* results) {
  for (std::size_t p = 0; p < positions; ++p) results = std::copy_n(starts, lanes, results);
}

double MostScratch(ConvolutionShape const& shape) {
  constexpr std::size_t kMostOfATensor = std::numeric_limits<unsigned int>::max() / sizeof(float) - kAlignmentFloats;
  std::size_t const in = shape.in_per_group * shape.InPlane(), out = shape.out_per_group * shape.OutPlane();
  std::size_t const weights = shape.in_per_group * shape.out_per_group * shape.Taps();
  return std::min(kScratchAtHand + 4.0 * static_cast<double>(shape.groups * (in + out + weights)),
                  static_cast<double>(kMostOfATensor));
}

ConvolutionScratch::ConvolutionScratch(runtime::DeviceCPU& device, std::size_t floats) {
  tensor_ = support::NewScratch(device, floats + kAlignmentFloats);
  void* first = tensor_->data;
  std::size_t room = runtime::ByteCount(tensor_->shape);
  first_ = static_cast<float*>(std::align(kAlignmentFloats * sizeof(float), floats * sizeof(float), first, room));
}

}  // namespace talvo::kernel
