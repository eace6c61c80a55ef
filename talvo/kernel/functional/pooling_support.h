// Pooling on bare pointers, for the kernels. Internal.
#pragma once

#include <cstddef>

namespace talvo::kernel::functional {

/// Input [channels, height, width], output [channels, out_height, out_width], both row-major.
struct PoolingShape {
  std::size_t channels, height, width, out_height, out_width;
};

/// A window that slides over planes with a border. Tap (ky, kx) of output (y, x) is the padded plane's element
/// (y * stride_y + ky * dilation_y, x * stride_x + kx * dilation_x).
struct PoolingWindow {
  std::size_t kernel_y, kernel_x, stride_y, stride_x, dilation_y, dilation_x;
  std::size_t padding_t, padding_b, padding_l, padding_r;
};

/// Floats of scratch that a call of max_pool_f32 or average_pool_f32 needs: a padded plane, where it is not out of
/// proportion to the planes of input and output, and for the average an output plane. They always fit a tensor.
std::size_t max_pool_scratch_f32(PoolingShape const& shape, PoolingWindow const& window);
std::size_t average_pool_scratch_f32(PoolingShape const& shape, PoolingWindow const& window);

/// y = the fold of the window's values by best = v <= best ? best : v, ky outermost, from the lowest finite float,
/// which is also the border's value. A tap behind the padded plane reads its last row or column. Strides are not 0,
/// padded planes not empty; x, scratch and y do not overlap.
void max_pool_f32(float const* x, PoolingShape const& shape, PoolingWindow const& window, float* scratch, float* y);

/// y = (sum of the window's values, ky outermost, the border being 0) / d, where d starts as the window's area and is
/// lowered by 1.0f for each tap in the border unless `count_include_pad`; no taps inside give 0 / 0. No tap lies behind
/// the padded plane; strides are not 0; x, scratch and y do not overlap.
void average_pool_f32(float const* x, PoolingShape const& shape, PoolingWindow const& window, bool count_include_pad,
                      float* scratch, float* y);

/// Floats of scratch that adaptive_average_pool_f32 needs; never more than the input has, but for some at the border.
std::size_t adaptive_pool_scratch_f32(PoolingShape const& shape);

/// y = (sum / rows) / columns over the rows floor(y * H / Ho) to ceil((y + 1) * H / Ho) - 1 and the columns likewise,
/// row by row, the positions in float32. A region that rounding carries beyond its plane goes on in memory: columns
/// behind a row are the next row's, rows behind a plane the next plane's, and behind the last plane stand zeros.
/// x, scratch and y do not overlap.
void adaptive_average_pool_f32(float const* x, PoolingShape const& shape, float* scratch, float* y);

}  // namespace talvo::kernel::functional
