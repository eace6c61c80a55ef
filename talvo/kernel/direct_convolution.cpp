#include <algorithm>
#include <array>
#include <vector>

#include "talvo/kernel/convolution_support.h"
#include "talvo/kernel/native/fill_support.h"
#include "talvo/kernel/rows/convolution_tile.h"
#include "talvo/kernel/rows/matrix_product.h"
#include "talvo/kernel/rows/phase_plane.h"
#include "talvo/kernel/rows/transpose.h"

namespace talvo::kernel {
namespace {

using rows::PhasePlane;
using rows::Tap;

constexpr std::size_t kWeightsAtHand = 4096;  // packed weights that a strip goes through at a time: they stay in L1

bool HasBorder(ConvolutionShape const& shape) {
  return shape.padded_height != shape.in_height || shape.padded_width != shape.in_width;
}

// The padded planes of a group: an element is `element` floats, the columns are sorted by `stride`.
PhasePlane PaddedPlane(ConvolutionShape const& shape, std::size_t element, std::size_t stride) {
  std::size_t const padded_width = shape.padded_width * element;
  return {shape.in_height,
          shape.in_width * element,
          static_cast<std::size_t>(shape.top),
          static_cast<std::size_t>(shape.left) * element,
          shape.padded_height,
          padded_width,
          stride,
          PhasePlane::PhaseWidth(padded_width, stride)};
}

// Lays planes that follow each other into scratch whose borders are 0 already.
void LayPlanes(float const* from, std::size_t planes, PhasePlane const& plane, float* to) {
  for (; planes > 0; --planes, from += plane.height * plane.width, to += plane.Count()) {
    rows::LayPlane(from, plane, to);
  }
}

// Input planes as the tiles read them: floats from an element, a row and a plane to the next.
struct Source {
  float const* data;
  std::size_t element, row, plane;
};

// The inputs of the output positions [first, first + count), which follow each other row by row.
void FindColumns(ConvolutionShape const& shape, Source const& source, std::size_t channel, std::size_t first,
                 std::size_t count, float const** columns) {
  float const* const input = source.data + channel * source.plane;
  std::size_t y = first / shape.out_width, x = first % shape.out_width;
  for (std::size_t p = 0; p < count; ++p) {
    columns[p] = input + y * shape.stride_y * source.row + x * shape.stride_x * source.element;
    if (++x == shape.out_width) x = 0, ++y;
  }
}

std::vector<Tap> KernelTaps(ConvolutionShape const& shape, Source const& source, std::size_t lanes) {
  std::vector<Tap> taps;
  taps.reserve(shape.Taps());
  for (std::size_t ky = 0; ky < shape.kernel_y; ++ky) {
    for (std::size_t kx = 0; kx < shape.kernel_x; ++kx) {
      std::size_t const input = ky * shape.dilation_y * source.row + kx * shape.dilation_x * source.element;
      taps.push_back({input, taps.size() * lanes});
    }
  }
  return taps;
}

// One block over all positions of the output, a strip at a time; the planes of its lanes are `lane_step` apart. For
// each strip the channels go by in chunks whose weights stay in the innermost cache. `results` takes a strip.
void ConvolveBlock(ConvolutionShape const& shape, Source const& source, LaneBlock const& block, float const* packed,
                   float const (&starts)[kMaxBlock], float* results, float* output, std::size_t lane_step) {
  auto const taps = KernelTaps(shape, source, block.lanes);
  std::size_t const plane = shape.OutPlane(), weight_plane = taps.size() * block.lanes;
  std::size_t const chunk = std::max<std::size_t>(1, kWeightsAtHand / weight_plane);
  std::array<float const*, kStrip> columns;
  float sums[kMaxBlock];
  for (std::size_t lane = 0; lane < kMaxBlock; ++lane) sums[lane] = starts[lane] + 0.0f;  // no -0.0f: see TileRun
  rows::TileRun run{};
  run.association = rows::Association::kSumOfChannel;
  run.lanes = run.result_step = block.lanes;
  run.columns = columns.data();
  run.input_step = source.element, run.input_plane = source.plane;
  run.taps = taps.data(), run.tap_count = taps.size();
  run.weight_plane = weight_plane;
  run.results = results;
  for (std::size_t first = 0; first < plane; first += kStrip) {
    run.positions = std::min(kStrip, plane - first);
    FillStarts(sums, block.lanes, run.positions, results);
    for (std::size_t c = 0; c < shape.in_per_group; c += chunk) {
      FindColumns(shape, source, c, first, run.positions, columns.data());
      run.channels = std::min(chunk, shape.in_per_group - c);
      run.weights = packed + c * weight_plane;
      rows::RunTiles(run);
    }
    rows::TransposeRows(results, block.lanes, run.positions, block.used, output + first, lane_step);
  }
}

// Output channels in the lanes.
void ConvolveByChannels(ConvolutionShape const& shape, ConvolutionData const& data, runtime::DeviceCPU& device) {
  std::size_t const ipg = shape.in_per_group, opg = shape.out_per_group, sum = ipg * shape.Taps();
  std::size_t const lanes = BlockOfChannels(0, opg).lanes;
  PhasePlane const plane = PaddedPlane(shape, 1, 1);
  std::size_t const laid = HasBorder(shape) ? ipg * plane.Count() : 0;
  ConvolutionScratch const scratch(device, (kStrip + sum) * lanes + laid);
  float* const packed = scratch.Data() + kStrip * lanes;
  float* const planes = packed + sum * lanes;
  native::FillFloats(0.0f, laid, planes);
  float starts[kMaxBlock];
  for (std::size_t g = 0; g < shape.groups; ++g) {
    float const* const input = data.input + g * ipg * shape.InPlane();
    if (laid > 0) LayPlanes(input, ipg, plane, planes);
    Source const source = {laid > 0 ? planes : input, 1, plane.RowPitch(), plane.Count()};
    for (std::size_t o = 0; o < opg;) {
      LaneBlock const block = BlockOfChannels(o, opg);
      std::size_t const channel = g * opg + o;
      PackLanes(data.weights + channel * sum, sum, sum, block, packed);
      BlockStarts(data.bias == nullptr ? nullptr : data.bias + channel, 1, block, starts);
      ConvolveBlock(shape, source, block, packed, starts, scratch.Data(), data.output + channel * shape.OutPlane(),
                    shape.OutPlane());
      o += block.used;
    }
  }
}

// Groups in the lanes: for many groups of few channels and narrow planes.
void ConvolveByGroups(ConvolutionShape const& shape, ConvolutionData const& data, runtime::DeviceCPU& device) {
  std::size_t const opg = shape.out_per_group, sum = shape.in_per_group * shape.Taps();
  std::size_t const lanes = BlockOfGroups(0, shape.groups).lanes, group = shape.in_per_group * shape.InPlane();
  PhasePlane const plane = PaddedPlane(shape, lanes, 1);
  std::size_t const laid = shape.in_per_group * plane.Count();
  ConvolutionScratch const scratch(device, (kStrip + sum + group) * lanes + laid);
  float* const packed = scratch.Data() + kStrip * lanes;
  float* const mixed = packed + sum * lanes;
  float* const planes = mixed + group * lanes;
  native::FillFloats(0.0f, laid, planes);
  Source const source = {planes, lanes, plane.RowPitch(), plane.Count()};
  float starts[kMaxBlock];
  for (std::size_t g = 0; g < shape.groups;) {
    LaneBlock const block = BlockOfGroups(g, shape.groups);
    PackLanes(data.input + g * group, group, group, block, mixed);
    LayPlanes(mixed, shape.in_per_group, plane, planes);
    for (std::size_t channel = g * opg; channel < (g + 1) * opg; ++channel) {
      PackLanes(data.weights + channel * sum, opg * sum, sum, block, packed);
      BlockStarts(data.bias == nullptr ? nullptr : data.bias + channel, opg, block, starts);
      ConvolveBlock(shape, source, block, packed, starts, scratch.Data(), data.output + channel * shape.OutPlane(),
                    opg * shape.OutPlane());
    }
    g += block.used;
  }
}

rows::PlaneRun RunOver(ConvolutionShape const& shape, PhasePlane const& plane, float const* planes,
                       std::vector<std::size_t> const& columns) {
  rows::PlaneRun run{};
  run.input = planes;
  run.channels = shape.in_per_group;
  run.input_plane = plane.Count();
  run.input_row = shape.stride_y * plane.RowPitch();
  run.kernel_row = shape.dilation_y * plane.RowPitch();
  run.taps = columns.data();
  run.kernel_rows = shape.kernel_y, run.kernel_columns = shape.kernel_x;
  run.rows = shape.out_height, run.columns = shape.out_width;
  return run;
}

// The sum of a window at (y, x) of the padded plane. A row or column before the input wraps to a huge number.
float WindowSum(ConvolutionShape const& shape, float const* input, float const* weights, std::size_t y, std::size_t x) {
  float sum = 0.0f;
  for (std::size_t ky = 0; ky < shape.kernel_y; ++ky) {
    std::size_t const row = y + ky * shape.dilation_y - static_cast<std::size_t>(shape.top);
    for (std::size_t kx = 0; kx < shape.kernel_x; ++kx) {
      std::size_t const column = x + kx * shape.dilation_x - static_cast<std::size_t>(shape.left);
      bool const inside = row < shape.in_height && column < shape.in_width;
      sum += *weights++ * (inside ? input[row * shape.in_width + column] : 0.0f);
    }
  }
  return sum;
}

// Without scratch.
void ConvolvePlainly(ConvolutionShape const& shape, ConvolutionData const& data) {
  std::size_t const ipg = shape.in_per_group;
  float* result = data.output;
  for (std::size_t o = 0; o < shape.groups * shape.out_per_group; ++o) {
    float const* const weights = data.weights + o * ipg * shape.Taps();
    float const* const input = data.input + o / shape.out_per_group * ipg * shape.InPlane();
    for (std::size_t i = 0; i < shape.OutPlane(); ++i, ++result) {
      std::size_t const y = i / shape.out_width * shape.stride_y, x = i % shape.out_width * shape.stride_x;
      *result = data.bias == nullptr ? 0.0f : data.bias[o];
      for (std::size_t c = 0; c < ipg; ++c) {
        *result += WindowSum(shape, input + c * shape.InPlane(), weights + c * shape.Taps(), y, x);
      }
    }
  }
}

bool IsProduct(ConvolutionShape const& s) {
  return s.Taps() == 1 && s.InPlane() == 1 && s.padded_height * s.padded_width == 1;
}

// A kernel of one element on a plane of one: the product of a matrix and a vector.
void ConvolveAsProduct(ConvolutionShape const& shape, ConvolutionData const& data) {
  std::size_t const ipg = shape.in_per_group, opg = shape.out_per_group;
  std::vector<float> starts(opg);
  for (std::size_t g = 0; g < shape.groups; ++g) {
    for (std::size_t o = 0; data.bias != nullptr && o < opg; ++o) {
      starts[o] = data.bias[g * opg + o] + 0.0f;  // no -0.0f: the sum of a channel is 0 and then its product
    }
    rows::MatrixVector(data.weights + g * opg * ipg, data.input + g * ipg, starts.data(), opg, ipg,
                       data.output + g * opg);
  }
}

// Floats that a way by channels or columns takes, its list of taps included.
double ScratchOf(ConvolutionShape const& shape, bool by_columns) {
  bool const laid = HasBorder(shape) || (by_columns && shape.stride_x != 1);
  double const planes = static_cast<double>(PaddedPlane(shape, 1, by_columns ? shape.stride_x : 1).Count());
  double const lanes = static_cast<double>(BlockOfChannels(0, shape.out_per_group).lanes);
  double const taps = static_cast<double>(shape.Taps()), channels = static_cast<double>(shape.in_per_group);
  return (laid ? channels * planes : 0.0) + (by_columns ? 0.0 : (channels * taps + kStrip) * lanes + 4.0 * taps);
}

}  // namespace

void ConvolveByColumns(ConvolutionShape const& shape, ConvolutionData const& data, runtime::DeviceCPU& device,
                       rows::Primitive<void(rows::PlaneRun const&)> const& run_plane) {
  std::size_t const ipg = shape.in_per_group, opg = shape.out_per_group, sum = ipg * shape.Taps();
  PhasePlane const plane = PaddedPlane(shape, 1, shape.stride_x);
  bool const as_it_lies = !HasBorder(shape) && shape.stride_x == 1;
  std::size_t const laid = as_it_lies ? 0 : ipg * plane.Count();
  ConvolutionScratch const scratch(device, laid);
  native::FillFloats(0.0f, laid, scratch.Data());
  std::vector<std::size_t> columns(shape.kernel_x);
  for (std::size_t kx = 0; kx < shape.kernel_x; ++kx) columns[kx] = plane.Place(kx * shape.dilation_x);
  rows::PlaneRun run = RunOver(shape, plane, scratch.Data(), columns);
  for (std::size_t g = 0; g < shape.groups; ++g) {
    float const* const input = data.input + g * ipg * shape.InPlane();
    if (as_it_lies) {
      run.input = input;
    } else {
      LayPlanes(input, ipg, plane, scratch.Data());
    }
    for (std::size_t o = g * opg; o < (g + 1) * opg; ++o) {
      run.weights = data.weights + o * sum;
      run.start = data.bias == nullptr ? 0.0f : data.bias[o];
      run.results = data.output + o * shape.OutPlane();
      run_plane(run);
    }
  }
}

double ScratchByColumns(ConvolutionShape const& shape) { return ScratchOf(shape, true); }

void ConvolveDirect(ConvolutionShape const& shape, ConvolutionData const& data, runtime::DeviceCPU& device) {
  auto const lanes = static_cast<std::size_t>(rows::ActiveLanes());
  std::size_t row_lanes = lanes;
  while (row_lanes > shape.out_width) row_lanes = row_lanes > 4 ? row_lanes / 2 : 1;
  // Vectors for one element of all results; a step of the columns' way takes about twice as long.
  std::size_t const by_channels = shape.groups * ((shape.out_per_group + lanes - 1) / lanes);
  std::size_t const by_columns = 2 * shape.groups * shape.out_per_group / row_lanes;
  double const padded_plane = static_cast<double>(shape.padded_height) * static_cast<double>(shape.padded_width);
  double const most = MostScratch(shape);
  if (IsProduct(shape) && shape.in_per_group > 1) {
    ConvolveAsProduct(shape, data);
  } else if (GroupsPay(shape, padded_plane, std::min(by_channels, by_columns))) {
    ConvolveByGroups(shape, data, device);
  } else if (by_columns > by_channels && ScratchOf(shape, false) <= most) {
    ConvolveByChannels(shape, data, device);
  } else if (ScratchOf(shape, true) <= most) {
    ConvolveByColumns(shape, data, device, rows::RunPlane);
  } else {
    ConvolvePlainly(shape, data);
  }
}

}  // namespace talvo::kernel
