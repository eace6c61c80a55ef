#include <algorithm>
#include <cstdint>
#include <numeric>
#include <vector>

#include "talvo/kernel/convolution_support.h"
#include "talvo/kernel/rows/convolution_tile.h"
#include "talvo/kernel/rows/position_rows.h"
#include "talvo/kernel/rows/transpose.h"

namespace talvo::kernel {
namespace {

using rows::Tap;

constexpr std::size_t kRowStrip = 1024;  // columns of an output row whose results lie in scratch

// The kernel elements that may meet an input element at one output position: `count` of them from `kernel` on, at equal
// distances, and so the input elements that they meet from `input` on, which may lie outside.
struct Line {
  std::size_t kernel, count;
  std::int64_t input;
};

// One axis: output position p meets kernel element k where p - before + k * dilation divides by the stride, and there
// the input element of the quotient. The distance of these k is the same for all p, and the first depends on the
// remainder of p alone.
class Axis {
 public:
  Axis(std::size_t kernel, std::size_t dilation, std::size_t stride, int before, std::size_t extent)
      : kernel_(kernel),
        dilation_(static_cast<std::int64_t>(dilation)),
        stride_(static_cast<std::int64_t>(stride)),
        before_(before),
        extent_(static_cast<std::int64_t>(extent)),
        first_(stride, kernel) {
    std::int64_t const common = std::gcd(stride_, dilation_);
    kernel_step_ = stride_ / common, input_step_ = dilation_ / common;
    for (std::int64_t k = 0; k < std::min(kernel_step_, static_cast<std::int64_t>(kernel)); ++k) {
      std::int64_t const remainder = (before_ - k * dilation_) % stride_;
      first_[static_cast<std::size_t>(remainder < 0 ? remainder + stride_ : remainder)] = static_cast<std::size_t>(k);
    }
  }

  Line At(std::size_t position) const {
    auto const p = static_cast<std::int64_t>(position);
    std::size_t const k = first_[static_cast<std::size_t>(p % stride_)];
    if (k >= kernel_) return {0, 0, 0};
    return {k, (kernel_ - 1 - k) / static_cast<std::size_t>(kernel_step_) + 1,
            (p - before_ + static_cast<std::int64_t>(k) * dilation_) / stride_};
  }

  // The elements [begin, end) of a line that meet an input inside, `shift` strides behind its position, and the shift
  // up to which it is these.
  struct Window {
    std::size_t begin, end;
    std::int64_t next;
  };
  Window Inside(Line const& line, std::int64_t shift) const {
    auto const count = static_cast<std::int64_t>(line.count);
    std::int64_t const begin = std::clamp<std::int64_t>(Steps(-(line.input + shift)), 0, count);
    std::int64_t const end = std::clamp<std::int64_t>(Steps(extent_ - line.input - shift), 0, count);
    std::int64_t next = INT64_MAX;
    if (begin > 0) next = -(line.input + (begin - 1) * input_step_);
    if (end > 0) next = std::min(next, extent_ - line.input - (end - 1) * input_step_);
    return {static_cast<std::size_t>(begin), static_cast<std::size_t>(end), next};
  }

  // Element `number` of a line, and the input that it meets `shift` strides behind the line's position.
  std::size_t KernelAt(Line const& line, std::size_t number) const {
    return line.kernel + number * static_cast<std::size_t>(kernel_step_);
  }
  std::size_t InputAt(Line const& line, std::size_t number, std::int64_t shift) const {
    return static_cast<std::size_t>(line.input + shift + static_cast<std::int64_t>(number) * input_step_);
  }

 private:
  // The steps between inputs that cover a distance.
  std::int64_t Steps(std::int64_t distance) const {
    return distance <= 0 ? 0 : (distance + input_step_ - 1) / input_step_;
  }

  std::size_t kernel_;
  std::int64_t dilation_, stride_, before_, extent_, kernel_step_, input_step_;
  std::vector<std::size_t> first_;  // [remainder], `kernel` where none divides
};

Axis AxisY(ConvolutionShape const& s) { return Axis(s.kernel_y, s.dilation_y, s.stride_y, s.top, s.in_height); }
Axis AxisX(ConvolutionShape const& s) { return Axis(s.kernel_x, s.dilation_x, s.stride_x, s.left, s.in_width); }

// The elements of a line that meet an input, `shift` strides behind the line's position.
struct Meeting {
  Axis const& axis;
  Line const& line;
  Axis::Window window;
  std::int64_t shift;
};

// The taps of a row and a column of the output: a float of input lies `input_step` behind the other, and a weight
// `weight_step`.
void FindTaps(ConvolutionShape const& shape, Meeting const& row, Meeting const& column, std::size_t input_step,
              std::size_t weight_step, std::vector<Tap>& taps) {
  taps.clear();
  for (std::size_t r = row.window.begin; r < row.window.end; ++r) {
    std::size_t const kernel_row = row.axis.KernelAt(row.line, r) * shape.kernel_x;
    std::size_t const input_row = row.axis.InputAt(row.line, r, row.shift) * shape.in_width;
    for (std::size_t c = column.window.begin; c < column.window.end; ++c) {
      std::size_t const turned = shape.Taps() - 1 - (kernel_row + column.axis.KernelAt(column.line, c));
      std::size_t const input = input_row + column.axis.InputAt(column.line, c, column.shift);
      taps.push_back({input * input_step, turned * weight_step});
    }
  }
}

// The channels of a block over all rows of the output, a strip of columns at a time.
class RowTiles {
 public:
  // `results` takes the strip of a block.
  RowTiles(ConvolutionShape const& shape, float* results)
      : shape_(shape),
        axis_y_(AxisY(shape)),
        axis_x_(AxisX(shape)),
        results_(results),
        columns_(std::min(shape.out_width, kRowStrip)) {
    run_.association = rows::Association::kEachProduct;
    run_.channels = shape.in_per_group;
    run_.columns = columns_.data();
  }

  // `input` holds the planes that the lanes read, an element `element` floats behind the other; the output planes of
  // the lanes are `lane_step` apart.
  void Run(LaneBlock const& block, float const* packed, float const* input, std::size_t element,
           float const (&starts)[kMaxBlock], float* output, std::size_t lane_step) {
    run_.lanes = block.lanes;
    run_.result_step = shape_.stride_x * block.lanes;
    run_.weights = packed;
    run_.weight_plane = shape_.Taps() * block.lanes;
    run_.input_step = element;
    run_.input_plane = shape_.InPlane() * element;
    for (std::size_t i = 0; i < columns_.size(); ++i) columns_[i] = input + i * element;
    for (std::size_t y = 0; y < shape_.out_height; ++y) {
      for (std::size_t x = 0; x < shape_.out_width; x += kRowStrip) {
        std::size_t const count = std::min(kRowStrip, shape_.out_width - x);
        FillStarts(starts, block.lanes, count, results_);
        AddStrip(y, x, count);
        rows::TransposeRows(results_, block.lanes, count, block.used, output + y * shape_.out_width + x, lane_step);
      }
    }
  }

 private:
  void AddStrip(std::size_t y, std::size_t x, std::size_t count) {
    Line const rows = axis_y_.At(y);
    Axis::Window const rows_met = axis_y_.Inside(rows, 0);
    if (rows_met.begin >= rows_met.end) return;
    for (std::size_t phase = 0; phase < std::min(shape_.stride_x, count); ++phase) {
      Line const columns = axis_x_.At(x + phase);
      std::size_t const positions = (count - phase - 1) / shape_.stride_x + 1;
      for (std::size_t first = 0; columns.count > 0 && first < positions;) {
        auto const shift = static_cast<std::int64_t>(first);
        Axis::Window const columns_met = axis_x_.Inside(columns, shift);
        auto const end = static_cast<std::size_t>(std::min(columns_met.next, static_cast<std::int64_t>(positions)));
        FindTaps(shape_, {axis_y_, rows, rows_met, 0}, {axis_x_, columns, columns_met, shift}, run_.input_step,
                 run_.lanes, taps_);
        AddProducts(phase + first * shape_.stride_x, end - first);
        first = end;
      }
    }
  }

  void AddProducts(std::size_t column, std::size_t positions) {
    if (taps_.empty()) return;
    run_.taps = taps_.data(), run_.tap_count = taps_.size();
    run_.positions = positions;
    run_.results = results_ + column * run_.lanes;
    rows::RunTiles(run_);
  }

  ConvolutionShape const& shape_;
  Axis const axis_y_, axis_x_;
  float* const results_;
  std::vector<float const*> columns_;
  std::vector<Tap> taps_;
  rows::TileRun run_{};
};

// Floats of a strip, the weights of a block and the inputs that stand side by side, in this order, and the list of
// taps.
struct Scratch {
  std::size_t strip, weights, inputs, taps;
  Scratch(ConvolutionShape const& shape, std::size_t lanes, bool mixes_inputs)
      : strip(std::min(shape.out_width, kRowStrip) * lanes),
        weights(shape.in_per_group * shape.Taps() * lanes),
        inputs(mixes_inputs ? shape.in_per_group * shape.InPlane() * lanes : 0),
        taps(2 * shape.Taps() * sizeof(Tap) / sizeof(float)) {}
  std::size_t Held() const { return strip + weights + inputs; }
};

// Output channels in the lanes.
void TransposeByChannels(ConvolutionShape const& shape, ConvolutionData const& data, Scratch const& floats,
                         runtime::DeviceCPU& device) {
  std::size_t const taps = shape.Taps(), opg = shape.out_per_group, ipg = shape.in_per_group;
  ConvolutionScratch const scratch(device, floats.Held());
  float* const packed = scratch.Data() + floats.strip;
  RowTiles tiles(shape, scratch.Data());
  float starts[kMaxBlock];
  for (std::size_t g = 0; g < shape.groups; ++g) {
    for (std::size_t o = 0; o < opg;) {
      LaneBlock const block = BlockOfChannels(o, opg);
      std::size_t const channel = g * opg + o;
      for (std::size_t c = 0; c < ipg; ++c) {
        float const* const weights = data.weights + ((g * ipg + c) * opg + o) * taps;
        PackLanes(weights, taps, taps, block, packed + c * taps * block.lanes);
      }
      BlockStarts(data.bias == nullptr ? nullptr : data.bias + channel, 1, block, starts);
      tiles.Run(block, packed, data.input + g * ipg * shape.InPlane(), 1, starts,
                data.output + channel * shape.OutPlane(), shape.OutPlane());
      o += block.used;
    }
  }
}

// Groups in the lanes: for many groups of few channels and narrow planes.
void TransposeByGroups(ConvolutionShape const& shape, ConvolutionData const& data, Scratch const& floats,
                       runtime::DeviceCPU& device) {
  std::size_t const taps = shape.Taps(), opg = shape.out_per_group, ipg = shape.in_per_group;
  std::size_t const group = ipg * shape.InPlane();
  ConvolutionScratch const scratch(device, floats.Held());
  float* const packed = scratch.Data() + floats.strip;
  float* const mixed = packed + floats.weights;
  RowTiles tiles(shape, scratch.Data());
  float starts[kMaxBlock];
  for (std::size_t g = 0; g < shape.groups;) {
    LaneBlock const block = BlockOfGroups(g, shape.groups);
    PackLanes(data.input + g * group, group, group, block, mixed);
    for (std::size_t o = 0; o < opg; ++o) {
      std::size_t const channel = g * opg + o;
      for (std::size_t c = 0; c < ipg; ++c) {
        float const* const weights = data.weights + ((g * ipg + c) * opg + o) * taps;
        PackLanes(weights, ipg * opg * taps, taps, block, packed + c * taps * block.lanes);
      }
      BlockStarts(data.bias == nullptr ? nullptr : data.bias + channel, opg, block, starts);
      tiles.Run(block, packed, mixed, block.lanes, starts, data.output + channel * shape.OutPlane(),
                opg * shape.OutPlane());
    }
    g += block.used;
  }
}

// Columns of one phase in the lanes, for fewer outputs than lanes: all outputs of a group at a row of the output.
class PhaseRows {
 public:
  // `results` takes a row for each output.
  PhaseRows(ConvolutionShape const& shape, float* results)
      : shape_(shape), axis_y_(AxisY(shape)), axis_x_(AxisX(shape)), results_(results) {
    run_.channels = shape.in_per_group, run_.link = 1;
    run_.input_plane = shape.InPlane();
    run_.weight_plane = shape.out_per_group * shape.Taps(), run_.output_step = shape.Taps();
    run_.outputs = shape.out_per_group;
    run_.result_plane = Pitch(shape);
  }

  // Columns of the longest phase.
  static std::size_t Pitch(ConvolutionShape const& s) { return (s.out_width + s.stride_x - 1) / s.stride_x; }
  static std::size_t Phases(ConvolutionShape const& s) { return std::min(s.stride_x, s.out_width); }

  void Run(float const* input, float const* weights, float const* starts, float* output) {
    run_.weights = weights, run_.starts = starts;
    for (std::size_t y = 0; y < shape_.out_height; ++y, output += shape_.out_width) {
      for (std::size_t phase = 0; phase < Phases(shape_); ++phase) RunPhase(input, y, phase);
      for (std::size_t o = 0; o < run_.outputs; ++o) {
        rows::MergePhases(results_ + o * run_.result_plane, run_.outputs * run_.result_plane, shape_.stride_x,
                          shape_.out_width, output + o * shape_.OutPlane());
      }
    }
  }

 private:
  // The columns of a phase that meet the same kernel elements go together.
  void RunPhase(float const* input, std::size_t y, std::size_t phase) {
    Line const rows = axis_y_.At(y), columns = axis_x_.At(phase);
    std::size_t const count = (shape_.out_width - phase - 1) / shape_.stride_x + 1;
    for (std::size_t first = 0; first < count; first += run_.positions) {
      auto const shift = static_cast<std::int64_t>(first);
      Axis::Window const met = axis_x_.Inside(columns, shift);
      FindTaps(shape_, {axis_y_, rows, axis_y_.Inside(rows, 0), 0}, {axis_x_, columns, met, shift}, 1, 1, taps_);
      run_.steps = taps_.data(), run_.tap_count = taps_.size();
      run_.positions = static_cast<std::size_t>(std::min(met.next, static_cast<std::int64_t>(count))) - first;
      run_.input = input;
      run_.results = results_ + phase * run_.outputs * run_.result_plane + first;
      rows::RunPositions(run_);
    }
  }

  ConvolutionShape const& shape_;
  Axis const axis_y_, axis_x_;
  float* const results_;
  std::vector<Tap> taps_;
  rows::PositionRun run_{};
};

double PhaseRowsFloats(ConvolutionShape const& shape) {
  return static_cast<double>(PhaseRows::Phases(shape) * PhaseRows::Pitch(shape)) *
         static_cast<double>(shape.out_per_group);
}

void TransposeByColumns(ConvolutionShape const& shape, ConvolutionData const& data, runtime::DeviceCPU& device) {
  std::size_t const opg = shape.out_per_group, input = shape.in_per_group * shape.InPlane();
  std::size_t const weights = shape.in_per_group * opg * shape.Taps();
  ConvolutionScratch const scratch(device, static_cast<std::size_t>(PhaseRowsFloats(shape)));
  std::vector<float> const zeros(data.bias == nullptr ? opg : 0);
  PhaseRows rows(shape, scratch.Data());
  for (std::size_t g = 0; g < shape.groups; ++g) {
    rows.Run(data.input + g * input, data.weights + g * weights,
             data.bias == nullptr ? zeros.data() : data.bias + g * opg, data.output + g * opg * shape.OutPlane());
  }
}

// Adds to a result what it meets in one channel.
void AddChannel(ConvolutionShape const& shape, Axis const& axis_y, Axis const& axis_x, std::size_t y, std::size_t x,
                float const* input, float const* weights, float& result) {
  Line const rows = axis_y.At(y), columns = axis_x.At(x);
  auto const rows_met = axis_y.Inside(rows, 0), columns_met = axis_x.Inside(columns, 0);
  for (std::size_t r = rows_met.begin; r < rows_met.end; ++r) {
    float const* const input_row = input + axis_y.InputAt(rows, r, 0) * shape.in_width;
    std::size_t const turned = shape.Taps() - 1 - axis_y.KernelAt(rows, r) * shape.kernel_x;
    for (std::size_t c = columns_met.begin; c < columns_met.end; ++c) {
      result += input_row[axis_x.InputAt(columns, c, 0)] * weights[turned - axis_x.KernelAt(columns, c)];
    }
  }
}

// Without scratch.
void TransposePlainly(ConvolutionShape const& shape, ConvolutionData const& data) {
  Axis const axis_y = AxisY(shape), axis_x = AxisX(shape);
  std::size_t const opg = shape.out_per_group, ipg = shape.in_per_group;
  float* result = data.output;
  for (std::size_t o = 0; o < shape.groups * opg; ++o) {
    for (std::size_t i = 0; i < shape.OutPlane(); ++i, ++result) {
      *result = data.bias == nullptr ? 0.0f : data.bias[o];
      for (std::size_t c = o / opg * ipg; c < (o / opg + 1) * ipg; ++c) {
        AddChannel(shape, axis_y, axis_x, i / shape.out_width, i % shape.out_width, data.input + c * shape.InPlane(),
                   data.weights + (c * opg + o % opg) * shape.Taps(), *result);
      }
    }
  }
}

}  // namespace

void ConvolveTransposed(ConvolutionShape const& shape, ConvolutionData const& data, runtime::DeviceCPU& device) {
  std::size_t const opg = shape.out_per_group, lanes = static_cast<std::size_t>(rows::ActiveLanes());
  bool const by_groups =
      GroupsPay(shape, static_cast<double>(shape.InPlane()), shape.groups * ((opg + lanes - 1) / lanes));
  Scratch const floats(shape, by_groups ? lanes : BlockOfChannels(0, opg).lanes, by_groups);
  double const most = MostScratch(shape);
  if (shape.InPlane() == 0 || static_cast<double>(floats.Held() + floats.taps) > most) {
    TransposePlainly(shape, data);
  } else if (!by_groups && 3 * opg <= lanes && PhaseRows::Pitch(shape) >= 4 && PhaseRowsFloats(shape) <= most) {
    TransposeByColumns(shape, data, device);
  } else {
    (by_groups ? TransposeByGroups : TransposeByChannels)(shape, data, floats, device);
  }
}

}  // namespace talvo::kernel
