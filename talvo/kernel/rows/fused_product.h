// Products of packed weights by fused steps (see fused_step.h): outputs lie side by side in the lanes of a vector, and
// each result is one chain of steps, or sums of such chains. Internal.
#pragma once

#include <cstddef>

#include "talvo/kernel/rows/convolution_tile.h"
#include "talvo/kernel/rows/instruction_sets.h"

namespace talvo::kernel::rows {

/// Packed weights: blocks of kFusedBlock outputs, the last one of those left, each [inputs][outputs of the block], one
/// behind the other; the same for every set. Input i is a channel's tap where there are taps.
constexpr std::size_t kFusedBlock = 64;

/// Floats of packed weights: as many as there are weights, and a vector that loads may run into.
constexpr std::size_t FusedFloats(std::size_t outputs, std::size_t inputs) { return outputs * inputs + kMaxLanes; }

/// Packs weight [outputs, inputs] into FusedFloats(outputs, inputs) floats, which do not overlap it.
void PackFused(float const* weight, std::size_t outputs, std::size_t inputs, float* packed);

/// Where the chain of a tile begins and ends: at `starts`; at the results that are there; at 0, and then it is added to
/// the results that are there.
enum class Chain { kStarts, kGoesOn, kIsAdded };

/// A block of outputs, `lanes`, at some positions: result [position][lane] is a chain of fused steps, each of which
/// reads the input at steps[i].input from the position on, and all lanes at weights + steps[i].weight.
struct FusedTileRun {
  Chain chain;
  float const* const* columns;  // [positions]: where the input of each position begins
  std::size_t positions;
  Tap const* steps;
  std::size_t step_count;  // 0 leaves the starts
  float const* weights;
  std::size_t lanes;    // 1 .. kFusedBlock
  float const* starts;  // [lanes]
  float* results;
  std::size_t result_step;  // from one position to the next
};
extern Primitive<void(FusedTileRun const&)> const RunFusedTiles;

}  // namespace talvo::kernel::rows
