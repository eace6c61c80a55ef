// The inner parts of direct convolution, transposed or not. Every result is summed in the order of the plain loops;
// what is spread over lanes and registers are independent results. Lengths and strides are in floats.
#pragma once

#include <cstddef>

#include "talvo/kernel/rows/instruction_sets.h"

namespace talvo::kernel::rows {

/// One tap of a kernel: where its input lies, from the address of the output position, and where its weight lies.
struct Tap {
  std::size_t input, weight;
};

/// How the products of one input channel reach the result.
enum class Association { kSumOfChannel, kEachProduct };

/// A block of output channels, its lanes, at some output positions. Result [position][lane] goes on from what it holds:
/// channel after channel, kSumOfChannel adds the sum of the taps' products, kEachProduct each product by itself. A sum
/// of a channel starts at the first product, so that a result of -0.0f must not come in there.
struct TileRun {
  Association association;
  std::size_t lanes;                  // ActiveLanes(), or twice as many where input_step is 1
  float const* const* columns;        // [positions]: the input of each position in the first channel
  std::size_t input_step;             // from one input element to the next: 1, or `lanes`, and each lane has its own
  std::size_t positions;              // 1 or more
  std::size_t channels, input_plane;  // input channels, and from one to the next
  Tap const* taps;                    // in the order of summation
  std::size_t tap_count;              // 1 or more
  float const* weights;               // the first channel's; weights + taps[t].weight has all lanes
  std::size_t weight_plane;           // from one input channel to the next
  float* results;                     // the first position's lanes
  std::size_t result_step;            // from one position to the next
};
extern Primitive<void(TileRun const&)> const RunTiles;

/// One output channel, whose lanes are columns: results [row][column] = start + the sums of its input channels, one
/// after the other. Column x of row y reads its tap (ky, kx) at input + y * input_row + ky * kernel_row + taps[kx] + x.
struct PlaneRun {
  float const* input;                       // first channel
  std::size_t channels, input_plane;        // input channels, and from one to the next
  std::size_t input_row, kernel_row;        // to the input of the next output row, and to that of the next ky
  std::size_t const* taps;                  // [kernel_columns]
  std::size_t kernel_rows, kernel_columns;  // 1 or more each
  float const* weights;                     // [channels][kernel_rows][kernel_columns]
  float start;
  float* results;
  std::size_t rows, columns;  // 1 or more each; rows of results lie side by side
};
extern Primitive<void(PlaneRun const&)> const RunPlane;

/// The same for one input channel, each result a chain of fused steps (see fused_step.h) from start on, ky by ky, kx by
/// kx.
extern Primitive<void(PlaneRun const&)> const RunFusedPlane;

}  // namespace talvo::kernel::rows
