// Convolution by fused steps (see fused_step.h) with positions in the lanes: for single taps and for few outputs.
// Internal.
#pragma once

#include <cstddef>

#include "talvo/kernel/rows/fused_product.h"
#include "talvo/kernel/rows/instruction_sets.h"

namespace talvo::kernel::rows {

/// Some outputs at positions that follow each other: result [output][position] is a chain of fused steps, input channel
/// after channel, tap after tap. Position p of a tap reads input[channel * input_plane + taps[t].input + p], and output
/// o its weight at weights[channel * weight_plane + taps[t].weight + o * output_step].
struct FusedRowRun {
  Chain chain;
  float const* input;
  std::size_t positions;  // a vector of the set in use or more; whole vectors where `chain` is not kStarts
  std::size_t channels, input_plane;
  Tap const* taps;  // in the order of the chain
  std::size_t tap_count;
  float const* weights;
  std::size_t weight_plane, output_step;
  std::size_t outputs;
  float const* starts;  // [outputs]
  float* results;
  std::size_t result_plane;  // from one output to the next
};
extern Primitive<void(FusedRowRun const&)> const RunFusedRows;

/// to[i] = from[i % phases * phase_pitch + i / phases] for i < count. No overlap.
extern Primitive<void(float const* from, std::size_t phase_pitch, std::size_t phases, std::size_t count,
                      float* to)> const MergePhases;

}  // namespace talvo::kernel::rows
