#include "talvo/kernel/direct_convolution.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#include "talvo/kernel/rows/convolution_tile.h"
#include "talvo/kernel/rows/phase_plane.h"
#include "talvo/runtime/tensor_cpu.h"
#include "talvo/utility/log.h"

namespace talvo::kernel {
namespace {

using rows::Tap;

constexpr std::size_t kStrip = 112;            // positions whose results lie in scratch; whole tiles of 4, 7, 8 and 14
constexpr std::size_t kWeightsAtHand = 4096;   // packed weights that a strip goes through at a time: they stay in L1
constexpr std::size_t kMixedAtHand = 1 << 16;  // floats of groups laid side by side: they stay in L2
constexpr std::size_t kMixingTaps = 22;        // laying groups side by side and their results apart takes as long
constexpr std::size_t kMaxBlock = 2 * rows::kMaxLanes;

// Scratch of one call, from the device's pool; floats at multiples of 64 bytes.
class Scratch {
 public:
  Scratch(runtime::DeviceCPU& device, std::size_t floats) {
    using runtime::TensorShape;
    utility::Assert(floats < std::numeric_limits<unsigned int>::max() / sizeof(float) - kPad,
                    "convolution: scratch of %zu floats is needed, at most 2^30 are served", floats);
    unsigned int const count = static_cast<unsigned int>(floats + kPad);
    TensorShape const shape({count}, TensorShape::FLOAT32, TensorShape::C, TensorShape::MainMemory, {});
    tensor_ = device.CreateTensor(shape, nullptr);
    void* first = tensor_->data;
    std::size_t room = count * sizeof(float);
    first_ = static_cast<float*>(std::align(kPad * sizeof(float), floats * sizeof(float), first, room));
  }
  float* Data() const { return first_; }

 private:
  static constexpr std::size_t kPad = 16;
  std::shared_ptr<runtime::TensorCPU> tensor_;
  float* first_;
};

// The output channels [first, first + used) of a group, or one of each of the groups [first, first + used), as lanes of
// one block.
struct Block {
  std::size_t first, used, lanes;
};

Block BlockAt(std::size_t first, std::size_t out_per_group) {
  std::size_t const narrow = static_cast<std::size_t>(rows::ActiveLanes()), left = out_per_group - first;
  std::size_t const lanes = left > narrow ? 2 * narrow : narrow;
  return {first, std::min(left, lanes), lanes};
}

// The next lanes of the groups from `first` on.
Block GroupsAt(std::size_t first, std::size_t groups) {
  std::size_t const lanes = static_cast<std::size_t>(rows::ActiveLanes());
  return {first, std::min(groups - first, lanes), lanes};
}

// starts[lane] for a block: bias[lane * step], or 0 without one; unused lanes 0.
void BlockStarts(float const* bias, std::size_t step, Block const& block, float (&starts)[kMaxBlock]) {
  std::fill(std::begin(starts), std::end(starts), 0.0f);
  for (std::size_t lane = 0; bias != nullptr && lane < block.used; ++lane) starts[lane] = bias[lane * step];
}

void FillStarts(float const (&starts)[kMaxBlock], std::size_t lanes, std::size_t positions, float* results) {
  for (std::size_t p = 0; p < positions; ++p) results = std::copy_n(starts, lanes, results);
}

// The inputs of the output positions [first, first + count), which follow each other row by row.
void FindColumns(ConvolutionShape const& shape, float const* input, std::size_t input_step, std::size_t first,
                 std::size_t count, float const** columns) {
  std::size_t y = first / shape.out_width, x = first % shape.out_width;
  for (std::size_t p = 0; p < count; ++p) {
    columns[p] = input + (y * shape.stride_y * shape.in_width + x * shape.stride_x) * input_step;
    if (++x == shape.out_width) x = 0, ++y;
  }
}

// The taps of the kernel for a padded input.
std::vector<Tap> KernelTaps(ConvolutionShape const& shape, std::size_t input_step, std::size_t lanes) {
  std::vector<Tap> taps;
  for (std::size_t ky = 0; ky < shape.kernel_y; ++ky) {
    for (std::size_t kx = 0; kx < shape.kernel_x; ++kx) {
      std::size_t const input = ky * shape.dilation_y * shape.in_width + kx * shape.dilation_x;
      taps.push_back({input * input_step, taps.size() * lanes});
    }
  }
  return taps;
}

// One block over all positions of the output, a strip at a time; the planes of its lanes are `lane_step` apart. For
// each strip the channels go by in chunks whose weights stay in the innermost cache.
void ConvolveBlock(ConvolutionShape const& shape, Block const& block, rows::TileRun run, float const* input,
                   float const (&starts)[kMaxBlock], float* output, std::size_t lane_step) {
  std::size_t const plane = shape.out_height * shape.out_width;
  std::size_t const chunk = std::max<std::size_t>(1, kWeightsAtHand / run.weight_plane);
  std::array<float const*, kStrip> columns;
  float const* const weights = run.weights;
  float sums[kMaxBlock];
  for (std::size_t lane = 0; lane < kMaxBlock; ++lane) sums[lane] = starts[lane] + 0.0f;  // no -0.0f: see TileRun
  run.columns = columns.data();
  for (std::size_t first = 0; first < plane; first += kStrip) {
    run.positions = std::min(kStrip, plane - first);
    FillStarts(sums, block.lanes, run.positions, run.results);
    for (std::size_t c = 0; c < shape.in_per_group; c += chunk) {
      FindColumns(shape, input + c * run.input_plane, run.input_step, first, run.positions, columns.data());
      run.channels = std::min(chunk, shape.in_per_group - c);
      run.weights = weights + c * run.weight_plane;
      rows::RunTiles(run);
    }
    rows::TransposeRows(run.results, block.lanes, run.positions, block.used, output + first, lane_step);
  }
}

rows::PhasePlane PhasesOf(ConvolutionShape const& shape, Padding const& padding) {
  return {shape.in_height,       shape.in_width,
          padding.top,           padding.left,
          padding.padded_height, padding.padded_width,
          shape.stride_x,        rows::PhasePlane::PhaseWidth(padding.padded_width, shape.stride_x)};
}

// Output columns x = first, first + stride, ... that meet the same kernel columns, whose inputs move on by one.
struct ColumnRun {
  struct Meeting {
    std::size_t kernel, input;  // kernel column, and input column of the first output column
  };
  std::size_t first, count;
  std::vector<Meeting> meetings;  // in the order of the kernel columns
};

// Which kernel elements meet an input element at one output position of an axis.
std::vector<ColumnRun::Meeting> MeetingsAt(std::size_t position, int before, std::size_t kernel, std::size_t dilation,
                                           std::size_t stride, std::size_t extent) {
  std::vector<ColumnRun::Meeting> meetings;
  long long expanded = static_cast<long long>(position) - before;
  for (std::size_t k = 0; k < kernel; ++k, expanded += static_cast<long long>(dilation)) {
    if (expanded < 0) continue;
    auto const input = static_cast<std::size_t>(expanded) / stride;
    if (static_cast<std::size_t>(expanded) % stride == 0 && input < extent) meetings.push_back({k, input});
  }
  return meetings;
}

// Whether the meetings of a column are those of the run's next column.
bool Continues(ColumnRun const& run, std::vector<ColumnRun::Meeting> const& meetings) {
  return std::equal(
      meetings.begin(), meetings.end(), run.meetings.begin(), run.meetings.end(),
      [&](auto const& a, auto const& b) { return a.kernel == b.kernel && a.input == b.input + run.count; });
}

std::vector<ColumnRun> ColumnRuns(ConvolutionShape const& shape, int left) {
  std::vector<ColumnRun> runs;
  for (std::size_t phase = 0; phase < std::min(shape.stride_x, shape.out_width); ++phase) {
    for (std::size_t x = phase; x < shape.out_width; x += shape.stride_x) {
      auto meetings = MeetingsAt(x, left, shape.kernel_x, shape.dilation_x, shape.stride_x, shape.in_width);
      if (x != phase && Continues(runs.back(), meetings)) {
        ++runs.back().count;
      } else {
        runs.push_back({x, 1, std::move(meetings)});
      }
    }
  }
  return runs;
}

// One block of the transposed form, an output row at a time; the planes of its lanes are `lane_step` apart. `run` tells
// where weights and scratch lie.
void ConvolveTransposedBlock(ConvolutionShape const& shape, int top, std::vector<ColumnRun> const& runs,
                             Block const& block, rows::TileRun run, float const* input,
                             float const (&starts)[kMaxBlock], float* output, std::size_t lane_step) {
  std::size_t const last_tap = shape.kernel_y * shape.kernel_x - 1;
  float* const results = run.results;
  std::vector<float const*> columns(shape.out_width);
  std::vector<Tap> taps;
  for (std::size_t x = 0; x < shape.out_width; ++x) columns[x] = input + x * run.input_step;
  run.columns = columns.data();
  run.result_step = shape.stride_x * block.lanes;
  for (std::size_t y = 0; y < shape.out_height; ++y) {
    auto const rows_met = MeetingsAt(y, top, shape.kernel_y, shape.dilation_y, shape.stride_y, shape.in_height);
    FillStarts(starts, block.lanes, shape.out_width, results);
    for (ColumnRun const& columns_met : runs) {
      taps.clear();
      for (auto const& row : rows_met) {
        for (auto const& column : columns_met.meetings) {
          std::size_t const tap = last_tap - (row.kernel * shape.kernel_x + column.kernel);
          taps.push_back({(row.input * shape.in_width + column.input) * run.input_step, tap * block.lanes});
        }
      }
      if (taps.empty()) continue;
      run.taps = taps.data();
      run.tap_count = taps.size();
      run.positions = columns_met.count;
      run.results = results + columns_met.first * block.lanes;
      rows::RunTiles(run);
    }
    rows::TransposeRows(results, block.lanes, shape.out_width, block.used, output + y * shape.out_width, lane_step);
  }
}

// packed[i][lane] from [lane][i], for the weights of a block or the inputs of groups; unused lanes 0.
void PackLanes(float const* from, std::size_t lane_stride, std::size_t count, Block const& block, float* packed) {
  if (block.used < block.lanes) std::fill_n(packed, count * block.lanes, 0.0f);
  rows::TransposeRows(from, lane_stride, block.used, count, packed, block.lanes);
}

// Whether lanes of groups take at most half the time of another way, which takes `vectors` for one element of all
// results, and what is laid side by side stays small.
bool GroupsPay(ConvolutionShape const& shape, std::size_t vectors) {
  std::size_t const lanes = static_cast<std::size_t>(rows::ActiveLanes());
  std::size_t const by_groups = (shape.groups + lanes - 1) / lanes * shape.out_per_group;
  std::size_t const sum = shape.in_per_group * shape.kernel_y * shape.kernel_x;
  return 2 * by_groups * (sum + kMixingTaps) <= vectors * sum &&
         shape.in_per_group * shape.in_height * shape.in_width * lanes <= kMixedAtHand;
}

// Lays the planes of mixed groups, rows of vectors, into padded ones, whose borders are 0 already.
void LayMixed(ConvolutionShape const& shape, Padding const& padding, float const* mixed, std::size_t lanes,
              float* padded) {
  std::size_t const row = shape.in_width * lanes, pitch = padding.padded_width * lanes;
  padded += padding.top * pitch + padding.left * lanes;
  for (std::size_t c = 0; c < shape.in_per_group; ++c, padded += padding.padded_height * pitch) {
    for (std::size_t y = 0; y < shape.in_height; ++y, mixed += row) std::copy_n(mixed, row, padded + y * pitch);
  }
}

rows::TileRun SumsOfChannels(std::vector<Tap> const& taps, Block const& block, std::size_t input_step,
                             std::size_t input_plane, float const* packed, float* results) {
  rows::TileRun run{};
  run.association = rows::Association::kSumOfChannel;
  run.lanes = run.result_step = block.lanes;
  run.input_step = input_step;
  run.input_plane = input_plane;
  run.taps = taps.data();
  run.tap_count = taps.size();
  run.weights = packed;
  run.weight_plane = taps.size() * block.lanes;
  run.results = results;
  return run;
}

}  // namespace

Way FastestWay(ConvolutionShape const& shape) {
  std::size_t const lanes = static_cast<std::size_t>(rows::ActiveLanes());
  std::size_t row_lanes = lanes;
  while (row_lanes > shape.out_width) row_lanes = row_lanes > 4 ? row_lanes / 2 : 1;
  // Vectors for one element of all results; a step of the columns' way takes about twice as long.
  std::size_t const by_channels = shape.groups * ((shape.out_per_group + lanes - 1) / lanes);
  std::size_t const by_columns = 2 * shape.groups * shape.out_per_group / row_lanes;
  if (GroupsPay(shape, std::min(by_channels, by_columns))) return Way::kGroups;
  return by_columns <= by_channels ? Way::kColumns : Way::kChannels;
}

void ConvolveByChannels(ConvolutionShape const& shape, ConvolutionData const& data, runtime::DeviceCPU& device) {
  std::size_t const taps = shape.kernel_y * shape.kernel_x, sum = shape.in_per_group * taps;
  std::size_t const in_plane = shape.in_height * shape.in_width, out_plane = shape.out_height * shape.out_width;
  Scratch const scratch(device, (sum + kStrip) * kMaxBlock);
  float* const packed = scratch.Data() + kStrip * kMaxBlock;
  float starts[kMaxBlock];
  for (std::size_t g = 0; g < shape.groups; ++g) {
    float const* const input = data.input + g * shape.in_per_group * in_plane;
    for (std::size_t o = 0; o < shape.out_per_group;) {
      Block const block = BlockAt(o, shape.out_per_group);
      std::size_t const channel = g * shape.out_per_group + o;
      auto const offsets = KernelTaps(shape, 1, block.lanes);
      PackLanes(data.weights + channel * sum, sum, sum, block, packed);
      BlockStarts(data.bias == nullptr ? nullptr : data.bias + channel, 1, block, starts);
      auto const run = SumsOfChannels(offsets, block, 1, in_plane, packed, scratch.Data());
      ConvolveBlock(shape, block, run, input, starts, data.output + channel * out_plane, out_plane);
      o += block.used;
    }
  }
}

void ConvolveByGroups(ConvolutionShape const& shape, Padding const& padding, ConvolutionData const& data,
                      runtime::DeviceCPU& device) {
  std::size_t const sum = shape.in_per_group * shape.kernel_y * shape.kernel_x, opg = shape.out_per_group;
  std::size_t const group = shape.in_per_group * shape.in_height * shape.in_width;
  std::size_t const padded_plane = padding.padded_height * padding.padded_width,
                    out_plane = shape.out_height * shape.out_width;
  ConvolutionShape padded_shape = shape;
  padded_shape.in_height = padding.padded_height;
  padded_shape.in_width = padding.padded_width;
  Scratch const scratch(device, (kStrip + sum + group + shape.in_per_group * padded_plane) * rows::kMaxLanes);
  float* const packed = scratch.Data() + kStrip * rows::kMaxLanes;
  float* const mixed = packed + sum * rows::kMaxLanes;
  float* const padded = mixed + group * rows::kMaxLanes;
  std::fill_n(padded, shape.in_per_group * padded_plane * rows::kMaxLanes, 0.0f);
  float starts[kMaxBlock];
  for (std::size_t g = 0; g < shape.groups;) {
    Block const block = GroupsAt(g, shape.groups);
    PackLanes(data.input + g * group, group, group, block, mixed);
    LayMixed(shape, padding, mixed, block.lanes, padded);
    auto const offsets = KernelTaps(padded_shape, block.lanes, block.lanes);
    for (std::size_t channel = g * opg; channel < (g + 1) * opg; ++channel) {
      PackLanes(data.weights + channel * sum, opg * sum, sum, block, packed);
      BlockStarts(data.bias == nullptr ? nullptr : data.bias + channel, opg, block, starts);
      auto const run = SumsOfChannels(offsets, block, block.lanes, padded_plane * block.lanes, packed, scratch.Data());
      ConvolveBlock(padded_shape, block, run, padded, starts, data.output + channel * out_plane, opg * out_plane);
    }
    g += block.used;
  }
}

void ConvolveByColumns(ConvolutionShape const& shape, Padding const& padding, ConvolutionData const& data,
                       runtime::DeviceCPU& device) {
  std::size_t const sum = shape.in_per_group * shape.kernel_y * shape.kernel_x;
  rows::PhasePlane const phases = PhasesOf(shape, padding);
  std::size_t const plane = phases.Count(), pitch = phases.RowPitch();
  Scratch const scratch(device, shape.in_per_group * plane);
  std::fill_n(scratch.Data(), shape.in_per_group * plane, 0.0f);
  std::vector<std::size_t> offsets;
  for (std::size_t kx = 0; kx < shape.kernel_x; ++kx) offsets.push_back(phases.Place(kx * shape.dilation_x));
  rows::PlaneRun run{};
  run.input = scratch.Data();
  run.channels = shape.in_per_group;
  run.input_plane = plane;
  run.input_row = shape.stride_y * pitch;
  run.kernel_row = shape.dilation_y * pitch;
  run.taps = offsets.data();
  run.kernel_rows = shape.kernel_y;
  run.kernel_columns = shape.kernel_x;
  run.rows = shape.out_height;
  run.columns = shape.out_width;
  for (std::size_t g = 0; g < shape.groups; ++g) {
    for (std::size_t c = 0; c < shape.in_per_group; ++c) {
      float const* const input = data.input + (g * shape.in_per_group + c) * shape.in_height * shape.in_width;
      rows::LayPlane(input, phases, scratch.Data() + c * plane);
    }
    for (std::size_t o = g * shape.out_per_group; o < (g + 1) * shape.out_per_group; ++o) {
      run.weights = data.weights + o * sum;
      run.start = (data.bias == nullptr ? 0.0f : data.bias[o]) + 0.0f;
      run.results = data.output + o * shape.out_height * shape.out_width;
      rows::RunPlane(run);
    }
  }
}

void ConvolveTransposed(ConvolutionShape const& shape, int top, int left, ConvolutionData const& data,
                        runtime::DeviceCPU& device) {
  std::size_t const taps = shape.kernel_y * shape.kernel_x, opg = shape.out_per_group, ipg = shape.in_per_group;
  std::size_t const in_plane = shape.in_height * shape.in_width, out_plane = shape.out_height * shape.out_width;
  std::size_t const lanes = static_cast<std::size_t>(rows::ActiveLanes()), group = ipg * in_plane;
  bool const by_groups = GroupsPay(shape, shape.groups * ((opg + lanes - 1) / lanes));
  Scratch const scratch(device, (ipg * taps + shape.out_width + (by_groups ? group : 0)) * kMaxBlock);
  float* const packed = scratch.Data() + shape.out_width * kMaxBlock;
  float* const mixed = packed + ipg * taps * kMaxBlock;
  auto const runs = ColumnRuns(shape, left);
  float starts[kMaxBlock];
  rows::TileRun run{};
  run.association = rows::Association::kEachProduct;
  run.channels = ipg;
  run.weights = packed;
  run.results = scratch.Data();
  std::size_t const lane_channels = by_groups ? opg : 1;  // from the output channel of a lane to that of the next
  for (std::size_t g = 0; g < shape.groups;) {
    Block const groups = by_groups ? GroupsAt(g, shape.groups) : Block{g, 1, 0};
    if (by_groups) PackLanes(data.input + g * group, group, group, groups, mixed);
    for (std::size_t o = 0; o < opg;) {
      Block const block = by_groups ? groups : BlockAt(o, opg);
      run.lanes = block.lanes;
      run.weight_plane = taps * block.lanes;
      run.input_step = by_groups ? block.lanes : 1;
      run.input_plane = in_plane * run.input_step;
      float const* weights = data.weights + (g * ipg * opg + o) * taps;
      for (std::size_t c = 0; c < ipg; ++c, weights += opg * taps) {
        PackLanes(weights, by_groups ? ipg * opg * taps : taps, taps, block, packed + c * run.weight_plane);
      }
      std::size_t const channel = g * opg + o;
      BlockStarts(data.bias == nullptr ? nullptr : data.bias + channel, lane_channels, block, starts);
      ConvolveTransposedBlock(shape, top, runs, block, run, by_groups ? mixed : data.input + g * group, starts,
                              data.output + channel * out_plane, lane_channels * out_plane);
      o += by_groups ? 1 : block.used;
    }
    g += groups.used;
  }
}

}  // namespace talvo::kernel
