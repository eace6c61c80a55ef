#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "talvo/kernel/convolution_support.h"
#include "talvo/kernel/native/fill_support.h"
#include "talvo/kernel/rows/fused_product.h"
#include "talvo/kernel/rows/matrix_product.h"
#include "talvo/kernel/rows/phase_plane.h"
#include "talvo/kernel/rows/position_rows.h"
#include "talvo/kernel/rows/transpose.h"

namespace talvo::kernel {
namespace {

using rows::Chain;
using rows::kFusedBlock;
using rows::Tap;

constexpr std::size_t kPackedFrom = 16;       // fewer outputs in a group stay as they were decoded
constexpr std::size_t kStepsOfAChain = 72;    // of kernels with more than one tap
constexpr std::size_t kStrip = 112;           // positions whose results lie in scratch, with outputs in the lanes
constexpr std::size_t kRowFloats = 1024;      // about as many positions at a time, with positions in the lanes
constexpr std::size_t kFewSteps = 160;        // to a result: turning blocks of results would show
constexpr std::size_t kChannelsAtHand = 128;  // of one tap, whose weights stay in the innermost cache
constexpr std::size_t kMostPhases = 4096;     // of a transposed output
constexpr std::size_t kLaidFloats = 1 << 16;  // of all channels at a time: they stay in the second cache

bool IsPacked(ConvolutionShape const& s) { return s.out_per_group >= kPackedFrom; }
std::size_t SumOf(ConvolutionShape const& s) { return s.in_per_group * s.Taps(); }

// Where the kept weight of (output, channel, tap) of a group lies: its block's first, and the steps from there.
struct Kept {
  float const* weights;
  std::size_t channel, tap, output;
};
Kept KeptAt(ConvolutionShape const& s, bool transposed, float const* group, std::size_t output) {
  if (IsPacked(s)) {
    std::size_t const first = output - output % kFusedBlock, width = std::min(kFusedBlock, s.out_per_group - first);
    return {group + first * SumOf(s) + output % kFusedBlock, s.Taps() * width, width, 1};
  }
  if (transposed) return {group + output * s.Taps(), s.out_per_group * s.Taps(), 1, s.Taps()};
  return {group + output * SumOf(s), s.Taps(), 1, SumOf(s)};
}

// Results at distances of one another that read their inputs at the same taps: all of the direct form, and those of one
// phase by the strides of the transposed form.
struct Part {
  std::size_t rows, columns;
  std::vector<Tap> taps;  // `weight` is the number of the tap
};

// The input planes with their border and what is read from them, a band of result rows at a time. The direct form sorts
// rows and columns by the strides into sub-planes, so that what neighbouring results read at one tap stands side by
// side, in rows `pitch` apart.
struct Plan {
  bool transposed, as_it_lies;
  std::size_t phases_y, phases_x;  // of the output
  std::size_t top, left, stride_y, stride_x, padded_width;
  std::size_t band, laid_rows;          // rows of a part at a time, and rows of a sub-plane that they read
  std::size_t pitch, sub_plane, plane;  // floats of a row, of a sub-plane and of all of a channel
  double scratch;                       // floats of the laid band of a group
  std::vector<Part> parts;              // [phases_y][phases_x]

  std::size_t SubX() const { return std::min(stride_x, padded_width); }
};

// Cuts `rows` result rows, of which each reads from its laid row to `reach` rows further, into bands of about one size.
void TakeBands(ConvolutionShape const& s, std::size_t rows, std::size_t reach, std::size_t sub_planes, Plan& plan) {
  double const row =
      static_cast<double>(plan.pitch * sub_planes) * static_cast<double>(std::max<std::size_t>(1, s.in_per_group));
  auto const at_hand = static_cast<std::size_t>(static_cast<double>(kLaidFloats) / row);
  std::size_t const most = plan.as_it_lies ? rows : std::max(std::max(at_hand, reach) - reach, 4 * reach + 4);
  std::size_t const bands = (rows + most - 1) / most;
  plan.band = (rows + bands - 1) / bands;
  plan.laid_rows = plan.as_it_lies ? s.in_height : plan.band + reach;
  plan.sub_plane = plan.laid_rows * plan.pitch;
  plan.plane = plan.sub_plane * sub_planes;
  plan.scratch = row * static_cast<double>(plan.laid_rows);
}

Plan PlanDirect(ConvolutionShape const& s) {
  Plan plan{};
  plan.phases_y = plan.phases_x = 1;
  plan.stride_y = s.stride_y, plan.stride_x = s.stride_x;
  plan.top = static_cast<std::size_t>(s.top), plan.left = static_cast<std::size_t>(s.left);
  plan.padded_width = s.padded_width;
  plan.pitch = (s.padded_width + s.stride_x - 1) / s.stride_x;
  plan.as_it_lies =
      s.padded_height == s.in_height && s.padded_width == s.in_width && s.stride_x == 1 && s.stride_y == 1;
  std::size_t const sub_x = plan.SubX(), sub_y = std::min(s.stride_y, s.padded_height);
  TakeBands(s, s.out_height, (s.kernel_y - 1) * s.dilation_y / s.stride_y, sub_x * sub_y, plan);
  plan.parts.push_back({s.out_height, s.out_width, {}});
  for (std::size_t k = 0; k < s.Taps(); ++k) {
    std::size_t const y = k / s.kernel_x * s.dilation_y, x = k % s.kernel_x * s.dilation_x;
    std::size_t const sub = y % s.stride_y * sub_x + x % s.stride_x;
    plan.parts[0].taps.push_back({sub * plan.sub_plane + y / s.stride_y * plan.pitch + x / s.stride_x, k});
  }
  return plan;
}

// One axis of the transposed form: the outputs of a phase, from the first, meet kernel element k at an input `offset`
// further on each time; which may lie before the input.
struct Meeting {
  std::size_t k;
  std::int64_t offset;
};
std::vector<Meeting> Meetings(std::size_t phase, std::size_t kernel, std::size_t dilation, std::size_t stride,
                              int before) {
  std::vector<Meeting> met;
  for (std::size_t k = 0; k < kernel; ++k) {
    std::int64_t const at = static_cast<std::int64_t>(phase) - before + static_cast<std::int64_t>(k * dilation);
    if (at % static_cast<std::int64_t>(stride) == 0) met.push_back({k, at / static_cast<std::int64_t>(stride)});
  }
  return met;
}

// The extent from the first to the last input that an axis reads, with the input itself, and what stands before that.
struct Reach {
  std::size_t before, extent;
};
Reach ReachOf(std::vector<std::vector<Meeting>> const& phases, std::size_t out, std::size_t in) {
  std::int64_t low = 0, high = static_cast<std::int64_t>(in);
  for (std::size_t phase = 0; phase < phases.size(); ++phase) {
    auto const results = static_cast<std::int64_t>((out - phase - 1) / phases.size() + 1);
    for (Meeting const& m : phases[phase]) low = std::min(low, m.offset), high = std::max(high, m.offset + results);
  }
  auto const results = static_cast<std::int64_t>((out - 1) / phases.size() + 1);  // of a phase that meets nothing too
  return {static_cast<std::size_t>(-low), static_cast<std::size_t>(std::max(high - low, results))};
}

std::size_t PhasesY(ConvolutionShape const& s) { return std::min(s.stride_y, s.out_height); }
std::size_t PhasesX(ConvolutionShape const& s) { return std::min(s.stride_x, s.out_width); }

// What the results of one phase read; of a plane whose border before it is planned.
std::vector<Tap> MeetingTaps(ConvolutionShape const& s, Plan const& plan, std::vector<Meeting> const& ys,
                             std::vector<Meeting> const& xs) {
  std::vector<Tap> taps;
  for (Meeting const& y : ys) {
    for (Meeting const& x : xs) {
      auto const row = static_cast<std::size_t>(y.offset + static_cast<std::int64_t>(plan.top));
      auto const column = static_cast<std::size_t>(x.offset + static_cast<std::int64_t>(plan.left));
      taps.push_back({row * plan.pitch + column, s.Taps() - 1 - (y.k * s.kernel_x + x.k)});
    }
  }
  return taps;
}

Plan PlanTransposed(ConvolutionShape const& s) {
  Plan plan{};
  plan.transposed = true;
  plan.phases_y = PhasesY(s), plan.phases_x = PhasesX(s);
  plan.stride_y = plan.stride_x = 1;
  std::vector<std::vector<Meeting>> ys, xs;
  for (std::size_t p = 0; p < plan.phases_y; ++p) {
    ys.push_back(Meetings(p, s.kernel_y, s.dilation_y, s.stride_y, s.top));
  }
  for (std::size_t p = 0; p < plan.phases_x; ++p) {
    xs.push_back(Meetings(p, s.kernel_x, s.dilation_x, s.stride_x, s.left));
  }
  Reach const y = ReachOf(ys, s.out_height, s.in_height);
  Reach const x = ReachOf(xs, s.out_width, s.in_width);
  plan.top = y.before, plan.left = x.before;
  plan.pitch = plan.padded_width = x.extent;
  plan.as_it_lies = y.extent == s.in_height && x.extent == s.in_width;
  std::size_t reach = 0;
  for (auto const& met : ys) {
    for (Meeting const& m : met)
      reach = std::max(reach, static_cast<std::size_t>(m.offset + static_cast<std::int64_t>(y.before)));
  }
  TakeBands(s, (s.out_height - 1) / plan.phases_y + 1, reach, 1, plan);
  for (std::size_t py = 0; py < plan.phases_y; ++py) {
    for (std::size_t px = 0; px < plan.phases_x; ++px) {
      std::size_t const rows = (s.out_height - py - 1) / plan.phases_y + 1;
      plan.parts.push_back({rows, (s.out_width - px - 1) / plan.phases_x + 1, MeetingTaps(s, plan, ys[py], xs[px])});
    }
  }
  return plan;
}

// The laid rows of a band, of those that hold every stride-th row from `phase` on, that lie inside the input.
struct Inside {
  std::size_t begin, end;
};
Inside InsideOf(ConvolutionShape const& s, Plan const& plan, std::size_t first, std::size_t phase) {
  auto const before = [&](std::size_t padded_row) {  // laid rows that hold earlier ones
    std::size_t const all = padded_row > phase ? (padded_row - phase + plan.stride_y - 1) / plan.stride_y : 0;
    return std::min(std::max(all, first) - first, plan.laid_rows);
  };
  return {before(plan.top), before(plan.top + s.in_height)};
}

// Lays what the band of result rows from `first` on reads of a plane into scratch, whose borders beside the rows are 0
// already.
void LayBand(ConvolutionShape const& s, Plan const& plan, std::size_t first, float const* from, float* to) {
  std::size_t const pitch = plan.pitch, sub_x = plan.SubX(), row_phases = plan.plane / (plan.sub_plane * sub_x);
  bool const whole = plan.stride_y == 1 && plan.stride_x == 1;
  rows::PhasePlane plane = {1, s.in_width, 0, plan.left, 1, plan.padded_width, plan.stride_x, plan.sub_plane};
  for (std::size_t phase = 0; phase < row_phases; ++phase, to += sub_x * plan.sub_plane) {
    Inside const inside = InsideOf(s, plan, first, phase);
    for (std::size_t k = 0; k < sub_x; ++k) {
      float* const sub = to + k * plan.sub_plane;
      std::fill(sub, sub + inside.begin * pitch, 0.0f);
      std::fill(sub + inside.end * pitch, sub + plan.sub_plane, 0.0f);
    }
    std::size_t const step = whole ? inside.end - inside.begin : 1;
    if (whole) plane.height = plane.padded_height = step, plane.phase_pitch = pitch;
    for (std::size_t j = inside.begin; j < inside.end; j += step) {
      rows::LayPlane(from + ((first + j) * plan.stride_y + phase - plan.top) * s.in_width, plane, to + j * pitch);
    }
  }
}

// Channels that go by at a time: those of a chain, or some of one that goes on.
std::size_t LinkOf(ConvolutionShape const& s) {
  return std::min(s.in_per_group, s.Taps() == 1 ? kChannelsAtHand : FusedChannels(s));
}

// What is at hand while a group is computed.
struct Group {
  ConvolutionShape const& shape;
  Plan const& plan;
  float const* input;    // its laid band, or its planes as they lie
  float const* weights;  // its kept ones
  float const* starts;   // [out_per_group]
  float* output;
};

// The steps of a link.
std::vector<Tap> StepsOf(ConvolutionShape const& s, Part const& part, Kept const& kept, std::size_t input_plane) {
  std::vector<Tap> steps;
  steps.reserve(LinkOf(s) * part.taps.size());
  for (std::size_t c = 0; c < LinkOf(s); ++c) {
    for (Tap const& tap : part.taps) {
      steps.push_back({c * input_plane + tap.input, c * kept.channel + tap.weight * kept.tap});
    }
  }
  return steps;
}

// A block of outputs and its weights.
struct Block {
  std::size_t first, outputs;
  Kept kept;
  std::vector<std::vector<Tap>> steps;  // of each part
};
std::vector<Block> BlocksOf(Group const& group) {
  ConvolutionShape const& s = group.shape;
  std::vector<Block> blocks;
  for (std::size_t first = 0; first < s.out_per_group; first += kFusedBlock) {
    Kept const kept = KeptAt(s, group.plan.transposed, group.weights, first);
    blocks.push_back({first, std::min(kFusedBlock, s.out_per_group - first), kept, {}});
    for (Part const& part : group.plan.parts) blocks.back().steps.push_back(StepsOf(s, part, kept, group.plan.plane));
  }
  return blocks;
}

// Rows of results of each part: from `first` on, where the input of the first one begins at `input`.
struct Band {
  std::size_t first, count;
  float const* input;
};

// Results [first, first + count) of a band of the direct form, row by row.
void RunTiles(Group const& group, Block const& block, float const* input, std::size_t first, std::size_t count,
              float* results) {
  ConvolutionShape const& s = group.shape;
  float const* columns[kStrip];
  std::size_t y = first / s.out_width, x = first % s.out_width;
  for (std::size_t p = 0; p < count; ++p) {
    columns[p] = input + y * group.plan.pitch + x;
    if (++x == s.out_width) x = 0, ++y;
  }
  rows::FusedTileRun run{};
  run.columns = columns, run.positions = count;
  run.steps = block.steps[0].data();
  run.lanes = run.result_step = block.outputs;
  run.starts = group.starts + block.first;
  run.results = results;
  std::size_t const link = LinkOf(s);
  for (std::size_t c = 0; c < s.in_per_group; c += link) {
    run.chain = c == 0 ? Chain::kStarts : s.Taps() == 1 ? Chain::kGoesOn : Chain::kIsAdded;
    run.step_count = std::min(link, s.in_per_group - c) * s.Taps();
    run.weights = block.kept.weights + c * block.kept.channel;
    rows::RunFusedTiles(run);
    for (std::size_t p = 0; p < count; ++p) columns[p] += link * group.plan.plane;
  }
}

// Outputs in the lanes, for the direct form. `scratch` takes a strip of a block.
void ByOutputs(Group const& group, Block const& block, Band const& band, float* scratch) {
  ConvolutionShape const& s = group.shape;
  std::size_t const results = band.count * s.out_width;
  float* const output = group.output + block.first * s.OutPlane() + band.first * s.out_width;
  for (std::size_t first = 0; first < results; first += kStrip) {
    std::size_t const count = std::min(kStrip, results - first);
    RunTiles(group, block, band.input, first, count, scratch);
    rows::TransposeRows(scratch, block.outputs, count, block.outputs, output + first, s.OutPlane());
  }
}

// Positions from `input` on, for all outputs of a block and a part.
void RunPositions(Group const& group, Block const& block, std::size_t part, float const* input, std::size_t positions,
                  float* results, std::size_t result_plane) {
  ConvolutionShape const& s = group.shape;
  Kept const& kept = block.kept;
  rows::PositionRun run{};
  run.input = input, run.positions = positions;
  run.channels = s.in_per_group, run.link = LinkOf(s), run.input_plane = group.plan.plane;
  run.steps = block.steps[part].data(), run.tap_count = group.plan.parts[part].taps.size();
  run.weights = kept.weights, run.weight_plane = kept.channel, run.output_step = kept.output;
  run.outputs = block.outputs;
  run.starts = group.starts + block.first;
  run.results = results, run.result_plane = result_plane;
  rows::RunFusedPositions(run, s.Taps() > 1);
}

std::size_t Lanes() { return static_cast<std::size_t>(rows::ActiveLanes()); }
std::size_t WholeVectors(std::size_t positions) { return (positions + Lanes() - 1) / Lanes() * Lanes(); }

// Rows of a part whose results lie in scratch, and their floats for one output.
std::size_t RowsAtATime(Plan const& plan) {
  return std::min(plan.band, std::max<std::size_t>(1, kRowFloats / plan.pitch));
}
std::size_t RowResults(Plan const& plan) { return WholeVectors(RowsAtATime(plan) * plan.pitch); }

// Some rows of a vertical phase.
void PositionRows(Group const& group, Block const& block, std::size_t py, Band const& rows, float* results) {
  ConvolutionShape const& s = group.shape;
  Plan const& plan = group.plan;
  std::size_t const pitch = RowResults(plan), outputs = block.outputs;
  for (std::size_t px = 0; px < plan.phases_x; ++px) {
    std::size_t const part = py * plan.phases_x + px;
    std::size_t const positions = (rows.count - 1) * plan.pitch + plan.parts[part].columns;
    RunPositions(group, block, part, rows.input, std::max(positions, Lanes()), results + px * outputs * pitch, pitch);
  }
  float* output = group.output + block.first * s.OutPlane() + (rows.first * plan.phases_y + py) * s.out_width;
  for (std::size_t o = 0; o < outputs; ++o, output += s.OutPlane()) {
    for (std::size_t r = 0; r < rows.count; ++r) {
      rows::MergePhases(results + o * pitch + r * plan.pitch, outputs * pitch, plan.phases_x, s.out_width,
                        output + r * plan.phases_y * s.out_width);
    }
  }
}

// Positions in the lanes, with those between the rows. `scratch` takes RowResults for each output of a block and phase
// of a row.
void ByPositions(Group const& group, Block const& block, Band const& band, float* scratch) {
  Plan const& plan = group.plan;
  std::size_t const step = RowsAtATime(plan);
  for (std::size_t done = 0; done < band.count; done += step) {
    for (std::size_t py = 0; py < plan.phases_y; ++py) {
      std::size_t const first = band.first + done, all = plan.parts[py * plan.phases_x].rows;
      if (first >= all) continue;
      Band const rows = {first, std::min({step, band.count - done, all - first}), band.input + done * plan.pitch};
      PositionRows(group, block, py, rows, scratch);
    }
  }
}

// The direct form with the positions of a row in the lanes: results go where they belong.
void ByRows(Group const& group, Block const& block, Band const& band) {
  ConvolutionShape const& s = group.shape;
  float* const output = group.output + block.first * s.OutPlane() + band.first * s.out_width;
  for (std::size_t r = 0; r < band.count; ++r) {
    RunPositions(group, block, 0, band.input + r * group.plan.pitch, s.out_width, output + r * s.out_width,
                 s.OutPlane());
  }
}

// The same of the whole plane: single taps whose inputs and results lie side by side without a gap.
void ByPositionsAsTheyLie(Group const& group, Block const& block) {
  std::size_t const plane = group.shape.OutPlane();
  RunPositions(group, block, 0, group.input, plane, group.output + block.first * plane, plane);
}

// The input that tap (ky, kx) meets at result (y, x), 0 beyond the edge; or none, in the transposed form.
bool Meets(ConvolutionShape const& s, bool transposed, std::size_t result, std::size_t tap, float const* plane,
           float& input) {
  auto const at = [&](std::size_t p, std::size_t k, std::size_t stride, std::size_t dilation, int before) {
    return static_cast<std::int64_t>(p * (transposed ? 1 : stride) + k * dilation) - before;
  };
  std::int64_t y = at(result / s.out_width, tap / s.kernel_x, s.stride_y, s.dilation_y, s.top);
  std::int64_t x = at(result % s.out_width, tap % s.kernel_x, s.stride_x, s.dilation_x, s.left);
  if (transposed) {
    auto const stride_y = static_cast<std::int64_t>(s.stride_y), stride_x = static_cast<std::int64_t>(s.stride_x);
    if (y % stride_y != 0 || x % stride_x != 0) return false;
    y /= stride_y, x /= stride_x;
  }
  bool const inside =
      y >= 0 && x >= 0 && y < static_cast<std::int64_t>(s.in_height) && x < static_cast<std::int64_t>(s.in_width);
  input = inside ? plane[static_cast<std::size_t>(y) * s.in_width + static_cast<std::size_t>(x)] : 0.0f;
  return true;
}

// Without scratch: for borders that would dwarf their input.
void Plainly(Group const& group) {
  ConvolutionShape const& s = group.shape;
  bool const transposed = group.plan.transposed;
  std::size_t const chain = FusedChannels(s);
  for (std::size_t i = 0; i < s.out_per_group * s.OutPlane(); ++i) {
    std::size_t const o = i / s.OutPlane();
    Kept const kept = KeptAt(s, transposed, group.weights, o);
    float result = 0.0f, sum = group.starts[o], x = 0.0f;
    for (std::size_t c = 0; c < s.in_per_group; ++c) {
      for (std::size_t k = 0; k < s.Taps(); ++k) {
        if (!Meets(s, transposed, i % s.OutPlane(), k, group.input + c * s.InPlane(), x)) continue;
        std::size_t const tap = transposed ? s.Taps() - 1 - k : k;
        sum = std::fmaf(kept.weights[c * kept.channel + tap * kept.tap], x, sum);
      }
      if ((c + 1) % chain != 0 && c + 1 != s.in_per_group) continue;
      result = c < chain ? sum : result + sum;
      sum = 0.0f;
    }
    group.output[i] = result;
  }
}

// A kernel of one element on a plane of one: the product of a matrix and a vector.
bool IsProduct(ConvolutionShape const& s) {
  return IsPacked(s) && s.Taps() == 1 && s.InPlane() == 1 && s.padded_height * s.padded_width == 1;
}
void ConvolveAsProducts(ConvolutionShape const& s, ConvolutionData const& data) {
  rows::PackedProductRun run{};
  run.rows = 1, run.inputs = s.in_per_group, run.outputs = run.y_stride = s.out_per_group;
  for (std::size_t g = 0; g < s.groups; ++g) {
    run.packed = data.weights + g * run.outputs * run.inputs;
    run.x = data.input + g * run.inputs;
    run.bias = data.bias == nullptr ? nullptr : data.bias + g * run.outputs;
    run.y = data.output + g * run.outputs;
    rows::FusedProduct(run);
  }
}

// How a plan is gone through, and the floats that it takes beside the laid planes.
enum class Way { kOutputs, kPositions, kRows, kPositionsAsTheyLie };
Way WayOf(ConvolutionShape const& s, Plan const& plan) {
  std::size_t const lanes = Lanes();
  bool const flat = plan.as_it_lies && s.Taps() == 1 && plan.parts.size() == 1 && s.out_width == plan.pitch;
  if (flat && s.OutPlane() >= (IsPacked(s) ? 6 * lanes : lanes)) return Way::kPositionsAsTheyLie;
  bool const fills = s.out_width >= 3 * lanes && 8 * WholeVectors(s.out_width) <= 9 * s.out_width;
  if (!plan.transposed && fills && (!IsPacked(s) || SumOf(s) <= kFewSteps)) return Way::kRows;
  return IsPacked(s) && !plan.transposed ? Way::kOutputs : Way::kPositions;
}
double WorkOf(ConvolutionShape const& s, Plan const& plan, Way way) {
  if (way == Way::kPositionsAsTheyLie || way == Way::kRows) return 0.0;
  if (way == Way::kOutputs) return static_cast<double>(kStrip * kFusedBlock);
  return static_cast<double>(plan.phases_x) * static_cast<double>(std::min(kFusedBlock, s.out_per_group)) *
         static_cast<double>(RowResults(plan));
}

// Positions in the lanes may read a vector where there are fewer.
bool Lays(Plan const& plan, Way way) {
  return !plan.as_it_lies || (way == Way::kPositions && plan.parts.back().columns < Lanes());
}

// The inputs, kept weights and results of group g.
Group GroupAt(ConvolutionShape const& s, Plan const& plan, ConvolutionData const& data, float const* starts,
              std::size_t g) {
  return {s,
          plan,
          data.input + g * s.in_per_group * s.InPlane(),
          data.weights + g * s.out_per_group * SumOf(s),
          starts + g * s.out_per_group,
          data.output + g * s.out_per_group * s.OutPlane()};
}

void AllPlainly(ConvolutionShape const& s, Plan const& plan, ConvolutionData const& data, float const* starts) {
  for (std::size_t g = 0; g < s.groups; ++g) Plainly(GroupAt(s, plan, data, starts, g));
}

// Band by band, and all outputs of each; `laid` takes a band of all channels, or is null where planes are read as they
// lie.
void RunGroup(Group const& group, Way way, float* laid, float* work) {
  Plan const& plan = group.plan;
  std::vector<Block> const blocks = BlocksOf(group);
  std::size_t const rows = plan.parts[0].rows;
  for (std::size_t first = 0; first < rows; first += plan.band) {
    for (std::size_t c = 0; laid != nullptr && c < group.shape.in_per_group; ++c) {
      LayBand(group.shape, plan, first, group.input + c * group.shape.InPlane(), laid + c * plan.plane);
    }
    float const* const input = laid != nullptr ? laid : group.input + first * plan.pitch;
    Band const band = {first, std::min(plan.band, rows - first), input};
    for (Block const& block : blocks) {
      if (way == Way::kOutputs) ByOutputs(group, block, band, work);
      if (way == Way::kPositions) ByPositions(group, block, band, work);
      if (way == Way::kRows) ByRows(group, block, band);
      if (way == Way::kPositionsAsTheyLie) ByPositionsAsTheyLie(group, block);
    }
  }
}

void Convolve(ConvolutionShape const& s, Plan const& plan, ConvolutionData const& data, runtime::DeviceCPU& device) {
  std::vector<float> const zeros(data.bias == nullptr ? s.groups * s.out_per_group : 0);
  float const* const starts = data.bias == nullptr ? zeros.data() : data.bias;
  if (plan.parts.empty()) return AllPlainly(s, plan, data, starts);
  Way const way = WayOf(s, plan);
  bool const lays = Lays(plan, way);
  double const laid = lays ? plan.scratch + rows::kMaxLanes : 0.0, work = WorkOf(s, plan, way);
  if (laid + work > MostScratch(s)) return AllPlainly(s, plan, data, starts);
  auto const held = static_cast<std::size_t>(laid);
  ConvolutionScratch const scratch(device, held + static_cast<std::size_t>(work));
  native::FillFloats(0.0f, held, scratch.Data());
  for (std::size_t g = 0; g < s.groups; ++g) {
    RunGroup(GroupAt(s, plan, data, starts, g), way, lays ? scratch.Data() : nullptr, scratch.Data() + held);
  }
}

}  // namespace

std::size_t FusedChannels(ConvolutionShape const& s) {
  if (s.Taps() == 1) return s.in_per_group;
  return std::max<std::size_t>(1, kStepsOfAChain / s.Taps());
}

std::size_t FusedConvolutionFloats(ConvolutionShape const& s) {
  return rows::FusedFloats(s.groups * s.out_per_group, SumOf(s));
}

void PackFusedDirect(ConvolutionShape const& s, float const* weights, float* packed) {
  std::size_t const group = s.out_per_group * SumOf(s);
  if (!IsPacked(s)) std::copy_n(weights, s.groups * group, packed);
  for (std::size_t g = 0; IsPacked(s) && g < s.groups; ++g) {
    rows::PackFused(weights + g * group, s.out_per_group, SumOf(s), packed + g * group);
  }
}

void PackFusedTransposed(ConvolutionShape const& s, float const* weights, float* packed) {
  std::size_t const group = s.out_per_group * SumOf(s), taps = s.Taps(), opg = s.out_per_group;
  native::FillFloats(0.0f, rows::kMaxLanes, packed + s.groups * group);
  if (!IsPacked(s)) std::copy_n(weights, s.groups * group, packed);
  for (std::size_t g = 0; IsPacked(s) && g < s.groups; ++g) {
    for (std::size_t o = 0; o < opg; o += kFusedBlock) {
      std::size_t const width = std::min(kFusedBlock, opg - o);
      for (std::size_t c = 0; c < s.in_per_group; ++c) {
        float const* const from = weights + ((g * s.in_per_group + c) * opg + o) * taps;
        float* const to = packed + g * group + o * SumOf(s) + c * taps * width;
        if (taps == 1) {
          std::copy_n(from, width, to);
        } else {
          rows::TransposeRows(from, taps, width, taps, to, width);
        }
      }
    }
  }
}

void ConvolveFused(ConvolutionShape const& shape, ConvolutionData const& data, runtime::DeviceCPU& device) {
  if (shape.in_per_group == 1 && !IsPacked(shape) && ScratchByColumns(shape) <= MostScratch(shape)) {
    return ConvolveByColumns(shape, data, device, rows::RunFusedPlane);
  }
  if (IsProduct(shape)) return ConvolveAsProducts(shape, data);
  Convolve(shape, PlanDirect(shape), data, device);
}

void ConvolveTransposedFused(ConvolutionShape const& shape, ConvolutionData const& data, runtime::DeviceCPU& device) {
  if (shape.InPlane() > 0 && PhasesY(shape) * PhasesX(shape) <= kMostPhases) {
    Convolve(shape, PlanTransposed(shape), data, device);
  } else {
    Plan plain{};
    plain.transposed = true;
    Convolve(shape, plain, data, device);
  }
}

}  // namespace talvo::kernel
