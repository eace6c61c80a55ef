// Convolution with positions in the lanes: for single taps, few outputs and the phases of the transposed form.
// Internal.
#pragma once

#include <cstddef>

#include "talvo/kernel/rows/convolution_tile.h"
#include "talvo/kernel/rows/instruction_sets.h"

namespace talvo::kernel::rows {

/// Some outputs at positions that follow each other. Position p of a tap reads input[channel * input_plane +
/// taps[t].input + p], and output o its weight at weights[channel * weight_plane + taps[t].weight + o * output_step].
struct PositionRun {
  float const* input;
  std::size_t positions;  // 1 or more
  std::size_t channels, input_plane;
  Tap const* taps;  // in the order of the sum
  std::size_t tap_count;
  float const* weights;
  std::size_t weight_plane, output_step;
  std::size_t outputs;
  float const* starts;  // [outputs]
  float* results;
  std::size_t result_plane;  // from one output to the next
};

/// result [output][position] = its start, then each product is added to it, channel after channel, tap after tap.
extern Primitive<void(PositionRun const&)> const RunPositions;

/// The same by fused steps (see fused_step.h) in chains of `chain` channels each, 1 or more: the first begins at the
/// start, the others at 0, and they are added to the result in their order. `positions` is a vector of the set in use
/// or more.
extern Primitive<void(PositionRun const&, std::size_t chain)> const RunFusedPositions;

/// to[i] = from[i % phases * phase_pitch + i / phases] for i < count. No overlap.
extern Primitive<void(float const* from, std::size_t phase_pitch, std::size_t phases, std::size_t count,
                      float* to)> const MergePhases;

}  // namespace talvo::kernel::rows
