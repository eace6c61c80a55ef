// Convolution with positions in the lanes: for single taps, few outputs and the phases of the transposed form.
// Internal.
#pragma once

#include <cstddef>

#include "talvo/kernel/rows/convolution_tile.h"
#include "talvo/kernel/rows/instruction_sets.h"

namespace talvo::kernel::rows {

/// Some outputs at positions that follow each other. The input channels go by in links of `link` each; step i of the
/// link that begins at channel c reads position p at input[c * input_plane + steps[i].input + p] and its weight for
/// output o at weights[c * weight_plane + steps[i].weight + o * output_step].
struct PositionRun {
  float const* input;
  std::size_t positions;       // 1 or more
  std::size_t channels, link;  // 1 or more each
  std::size_t input_plane;
  Tap const* steps;       // [link * tap_count], of a link in order
  std::size_t tap_count;  // of a channel; 0 leaves the starts
  float const* weights;
  std::size_t weight_plane, output_step;
  std::size_t outputs;
  float const* starts;  // [outputs]
  float* results;
  std::size_t result_plane;  // from one output to the next
};

/// result [output][position] = its start, to which each product is added in the order of the steps.
extern Primitive<void(PositionRun const&)> const RunPositions;

/// The same by fused steps (see fused_step.h), in one chain, or, with `sums_links`, in a chain for each link: the first
/// begins at the start, the others at 0, and they are added to the result in their order. `positions` is a vector of
/// the set in use or more.
extern Primitive<void(PositionRun const&, bool sums_links)> const RunFusedPositions;

/// to[i] = from[i % phases * phase_pitch + i / phases] for i < count. No overlap.
extern Primitive<void(float const* from, std::size_t phase_pitch, std::size_t phases, std::size_t count,
                      float* to)> const MergePhases;

}  // namespace talvo::kernel::rows
