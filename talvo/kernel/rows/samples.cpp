#include "talvo/kernel/rows/samples.h"

#include "talvo/kernel/rows/vectors.h"
#include "talvo/utility/restrict_support.h"

namespace talvo::kernel::rows {
namespace {

// Truncated; -1, which lies outside every plane, for what is NaN or no int.
TALVO_ROWS_INLINE std::int32_t Truncated(float position) {
  bool const is_int = (position > -2147483648.0f) & (position < 2147483648.0f);
  return is_int ? static_cast<std::int32_t>(position) : -1;
}

struct LocatePixelsBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(float const* m, float const y, std::size_t count, PlaneExtents const plane,
                                    Samples const& samples) {
    std::int32_t* TALVO_RESTRICT const inside = samples.inside;
    std::int32_t* TALVO_RESTRICT const index = samples.index;
    float* TALVO_RESTRICT const fx = samples.fx;
    float* TALVO_RESTRICT const fy = samples.fy;
    float const m0 = m[0], m1 = m[1], m2 = m[2], m3 = m[3], m4 = m[4], m5 = m[5];
    auto const length = static_cast<std::int32_t>(count);
    for (std::int32_t x = 0; x < length; ++x) {
      auto const column = static_cast<float>(x);
      float const u = m0 * column + m1 * y + m2, v = m3 * column + m4 * y + m5;
      std::int32_t const ix = Truncated(u), iy = Truncated(v);
      bool const in = (ix >= 0) & (ix < plane.width - 1) & (iy >= 0) & (iy < plane.height - 1);
      inside[x] = in ? kAllFour : 0;
      index[x] = (in ? iy : 0) * plane.width + (in ? ix : 0);
      fx[x] = u < 0.0f ? 0.0f : u - static_cast<float>(ix);
      fy[x] = v < 0.0f ? 0.0f : v - static_cast<float>(iy);
    }
  }
};

struct LocateSumsBody {
  static TALVO_ROWS_INLINE std::int32_t TapsInside(std::int32_t ix, std::int32_t iy, PlaneExtents const& plane) {
    std::int32_t const left = ((0 < ix) & (ix < plane.width)) ? kT00 | kT01 : 0;
    std::int32_t const right = ((0 <= ix) & (ix < plane.width - 1)) ? kT10 | kT11 : 0;
    std::int32_t const upper = ((0 < iy) & (iy < plane.height)) ? kT00 | kT10 : 0;
    std::int32_t const lower = ((0 <= iy) & (iy < plane.height - 1)) ? kT01 | kT11 : 0;
    return (left | right) & (upper | lower);
  }

  template <class Set>
  static TALVO_ROWS_INLINE void Run(AxisSums const& sums, std::size_t count, PlaneExtents const plane,
                                    Samples const& samples) {
    std::int32_t* TALVO_RESTRICT const inside = samples.inside;
    std::int32_t* TALVO_RESTRICT const index = samples.index;
    float* TALVO_RESTRICT const fx = samples.fx;
    float* TALVO_RESTRICT const fy = samples.fy;
    float const* TALVO_RESTRICT const x_terms = sums.x_terms;
    float const* TALVO_RESTRICT const y_terms = sums.y_terms;
    float const x_row = sums.x_row, y_row = sums.y_row, x_offset = sums.x_offset, y_offset = sums.y_offset;
    for (std::size_t i = 0; i < count; ++i) {
      fx[i] = x_terms[i] + x_row + x_offset;
      fy[i] = y_terms[i] + y_row + y_offset;
    }
    // Columns and rows in a loop of their own: behind a choice of -1 the tests below would become branches.
    for (std::size_t i = 0; i < count; ++i) {
      index[i] = Truncated(fx[i]);
      inside[i] = Truncated(fy[i]);
    }
    for (std::size_t i = 0; i < count; ++i) {
      std::int32_t const ix = index[i], iy = inside[i], bits = TapsInside(ix, iy, plane);
      float const du = fx[i] - static_cast<float>(ix), dv = fy[i] - static_cast<float>(iy);
      bool const any = bits != 0;
      inside[i] = bits;
      index[i] = (any ? iy : 0) * plane.width + (any ? ix : 0);
      fx[i] = any ? du : 0.0f;
      fy[i] = any ? dv : 0.0f;
    }
  }
};

struct BlendPairsBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(float const* TALVO_RESTRICT upper, float const* TALVO_RESTRICT lower,
                                    Samples const& samples, bool const keep, std::size_t count,
                                    float* TALVO_RESTRICT results) {
    std::int32_t const* TALVO_RESTRICT const inside = samples.inside;
    float const* TALVO_RESTRICT const fx = samples.fx;
    float const* TALVO_RESTRICT const fy = samples.fy;
    std::int32_t const never = keep ? 0 : -1;  // no sample has these taps
    for (std::size_t i = 0; i < count; ++i) {
      float const t00 = upper[2 * i], t10 = upper[2 * i + 1], t01 = lower[2 * i], t11 = lower[2 * i + 1];
      float const value =
          (t11 * fx[i] + t01 * (1.0f - fx[i])) * fy[i] + (t10 * fx[i] + t00 * (1.0f - fx[i])) * (1.0f - fy[i]);
      results[i] = inside[i] == never ? results[i] : value;
    }
  }
};

// Vectors go down to those of which a row holds one; the last of a row moves back and computes some results again.
template <int kLanes>
TALVO_ROWS_INLINE void BlendRow(float const* top, float const* low, float weight, float rest, std::size_t n, float* y) {
  if constexpr (kLanes > 1) {
    if (n < kLanes) return BlendRow<(kLanes > 4 ? kLanes / 2 : 1)>(top, low, weight, rest, n, y);
  }
  for (std::size_t next = 0; next < n; next += kLanes) {
    std::size_t const i = next + kLanes <= n ? next : n - kLanes;
    Vector<kLanes> a, b;
    Load<kLanes>(top + i, a);
    Load<kLanes>(low + i, b);
    Vector<kLanes> const blend = b * weight + a * rest;
    Store<kLanes>(blend, y + i);
  }
}

struct BlendRowsBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(float const* top, float const* low, float weight, float rest, std::size_t rows,
                                    std::size_t n, float* y, std::size_t y_step) {
    for (std::size_t r = 0; r < rows; ++r) {
      BlendRow<Set::kLanes>(top + r * n, low + r * n, weight, rest, n, y + r * y_step);
    }
  }
};

}  // namespace

Primitive<void(float const*, float, std::size_t, PlaneExtents, Samples const&)> const LocatePixels{LocatePixelsBody()};
Primitive<void(AxisSums const&, std::size_t, PlaneExtents, Samples const&)> const LocateSums{LocateSumsBody()};
Primitive<void(float const*, float const*, Samples const&, bool, std::size_t, float*)> const BlendPairs{
    BlendPairsBody()};
Primitive<void(float const*, float const*, float, float, std::size_t, std::size_t, float*, std::size_t)> const
    BlendRows{BlendRowsBody(), Avx2()};  // it waits for memory

}  // namespace talvo::kernel::rows
