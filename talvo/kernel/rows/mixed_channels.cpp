#include "talvo/kernel/rows/mixed_channels.h"

#include "talvo/kernel/rows/vectors.h"

namespace talvo::kernel::rows {
namespace {

template <int kLanes>
TALVO_ROWS_INLINE void LoadPixel(float const* mixed, std::uint32_t pixel, Vector<kLanes>& v) {
  Load<kLanes>(mixed + pixel * kChannelsTogether, v);
}

template <int kLanes>
TALVO_ROWS_INLINE void At(float const* mixed, std::uint32_t place, Vector<kLanes>& y) {
  LoadPixel<kLanes>(mixed, place, y);
}

template <int kLanes>
TALVO_ROWS_INLINE void At(float const* mixed, TwoPixels const& place, Vector<kLanes>& y) {
  Vector<kLanes> low, high;
  LoadPixel<kLanes>(mixed, place.low, low);
  LoadPixel<kLanes>(mixed, place.high, high);
  y = high * place.weight + low * place.rest;
}

template <int kLanes>
TALVO_ROWS_INLINE void At(float const* mixed, FourPixels const& place, Vector<kLanes>& y) {
  float const wx = place.weight_x, wy = place.weight_y, rest_x = 1.0f - wx, rest_y = 1.0f - wy;
  Vector<kLanes> top_left, top_right, low_left, low_right;
  LoadPixel<kLanes>(mixed, place.top_left, top_left);
  LoadPixel<kLanes>(mixed, place.top_right, top_right);
  LoadPixel<kLanes>(mixed, place.low_left, low_left);
  LoadPixel<kLanes>(mixed, place.low_right, low_right);
  Vector<kLanes> const low = low_right * wx + rest_x * low_left, top = top_right * wx + top_left * rest_x;
  y = low * wy + rest_y * top;
}

template <class Place>
struct PixelsBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(float const* mixed, Place const* places, std::size_t n, float* y) {
    constexpr int kLanes = Set::kLanes;
    for (std::size_t i = 0; i < n; ++i, y += kChannelsTogether) {
      for (std::size_t lane = 0; lane < kChannelsTogether; lane += kLanes) {
        Vector<kLanes> pixel;
        At<kLanes>(mixed + lane, places[i], pixel);
        Store<kLanes>(pixel, y + lane);
      }
    }
  }
};

}  // namespace

Primitive<void(float const*, std::uint32_t const*, std::size_t, float*)> const TakePixels{PixelsBody<std::uint32_t>()};
Primitive<void(float const*, TwoPixels const*, std::size_t, float*)> const BlendTwoPixels{PixelsBody<TwoPixels>()};
Primitive<void(float const*, FourPixels const*, std::size_t, float*)> const BlendFourPixels{PixelsBody<FourPixels>()};

}  // namespace talvo::kernel::rows
