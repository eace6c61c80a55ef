#include "talvo/image/warp.h"

#include <cstdint>
#include <cstring>
#include <vector>

#include "talvo/image/image_process_fallback.h"
#include "talvo/image/image_support.h"

namespace talvo::kernel {
namespace {

using namespace image;

constexpr std::size_t kMoved = 4;  // bytes that a warp reads or writes for an element of any size

// A position as an integer, truncated; -1, which lies outside every image, where it is NaN or no int.
std::int64_t Truncated(float position) {
  bool const is_int = position > -2147483648.0f && position < 2147483648.0f;
  return is_int ? static_cast<int>(position) : -1;
}

// A CHW tensor as the warps walk it.
struct Planar {
  Planar(char const* function, char const* name, TensorCPU const& tensor)
      : width(static_cast<std::int64_t>(Extent(function, name, tensor, 2))),
        height(tensor.shape.dims[1]),
        channels(tensor.shape.dims[0]),
        element_bytes(runtime::ElementSize(tensor.shape.data_type)) {}

  // Byte position of element `index` of plane `channel`.
  std::size_t Offset(std::size_t channel, std::size_t index) const {
    return (channel * static_cast<std::size_t>(width * height) + index) * element_bytes;
  }

  std::int64_t width, height;
  std::size_t channels, element_bytes;
};

// Checked start of `tensor`, of which `channels` planes are touched.
unsigned char* PlanarMemory(Images const& images, char const* name, TensorCPU const& tensor, Planar const& planar,
                            std::size_t channels) {
  std::size_t const plane = Volume(tensor.shape.dims[1], tensor.shape.dims[2], planar.element_bytes);
  return Memory(images.name, name, tensor, Volume(channels, plane));
}

void NeedMove(Images const& images, char const* name, TensorCPU const& tensor, std::size_t offset) {
  std::size_t const bytes = runtime::ByteCount(tensor.shape);
  if (offset + kMoved > bytes) {
    Assert(false, "%s: a move of 4 bytes at byte %zu of %s passes its end at %zu", images.name, offset, name, bytes);
  }
}

struct Position {
  float u, v;
};

Position Mapped(float const* m, std::int64_t x, std::int64_t y) {
  auto const fx = static_cast<float>(x), fy = static_cast<float>(y);
  return {m[0] * fx + m[1] * fy + m[2], m[3] * fx + m[4] * fy + m[5]};
}

void NeedClassArguments(Images const& images, float const* matrix) {
  Assert(images.src.shape.layout == TensorShape::CHW, nullptr);
  Assert(matrix != nullptr, "%s: the matrix is null", images.name);
}

// Calls visit(index in `walked`, index in `other`) for each pixel of `walked` that the matrix maps into `other`.
template <class Visit>
void WalkNearest(Planar const& walked, Planar const& other, float const* matrix, Visit const& visit) {
  for (std::int64_t y = 0; y < walked.height; ++y) {
    for (std::int64_t x = 0; x < walked.width; ++x) {
      Position const p = Mapped(matrix, x, y);
      std::int64_t const tx = Truncated(p.u + 0.5f), ty = Truncated(p.v + 0.5f);
      if (tx < 0 || tx >= other.width || ty < 0 || ty >= other.height) continue;
      visit(static_cast<std::size_t>(y * walked.width + x), static_cast<std::size_t>(ty * other.width + tx));
    }
  }
}

// Both nearest forms. The forward one walks the source, the inverse one the destination; channels are those of the
// tensor walked. Elements below 4 bytes can be moved past an end, so that all moves are looked at before the first.
void WarpNearest(Images const& images, float const* matrix, bool forward) {
  NeedClassArguments(images, matrix);
  Planar const src(images.name, "src", images.src), dst(images.name, "dst", images.dst);
  std::size_t const channels = forward ? src.channels : dst.channels;
  if (channels == 0) return;
  auto const* const from = PlanarMemory(images, "src", images.src, src, channels);
  auto* const to = PlanarMemory(images, "dst", images.dst, dst, channels);
  auto const walk = [&](auto const& visit) {
    WalkNearest(forward ? src : dst, forward ? dst : src, matrix, [&](std::size_t walked, std::size_t other) {
      for (std::size_t c = 0; c < channels; ++c) {
        visit(src.Offset(c, forward ? walked : other), dst.Offset(c, forward ? other : walked));
      }
    });
  };
  if (src.element_bytes < kMoved || dst.element_bytes < kMoved) {
    walk([&](std::size_t from_offset, std::size_t to_offset) {
      NeedMove(images, "src", images.src, from_offset);
      NeedMove(images, "dst", images.dst, to_offset);
    });
  }
  walk([&](std::size_t from_offset, std::size_t to_offset) {
    std::memmove(to + to_offset, from + from_offset, kMoved);
  });
}

// One bilinear sample: the upper left neighbour, the parts towards the right and lower ones, and which of the four lie
// inside.
struct Sample {
  std::int64_t index = 0;  // of t00 in its plane; may lie outside
  float fx = 0.0f, fy = 0.0f;
  unsigned int inside = 0;
};
constexpr unsigned int kT00 = 1, kT10 = 2, kT01 = 4, kT11 = 8, kAll = 15;

float LoadFloat(unsigned char const* at) {
  float value;
  std::memcpy(&value, at, sizeof(value));
  return value;
}

float Blend(Sample const& s, float t00, float t10, float t01, float t11) {
  return (t11 * s.fx + t01 * (1.0f - s.fx)) * s.fy + (t10 * s.fx + t00 * (1.0f - s.fx)) * (1.0f - s.fy);
}

// All four neighbours are inside; elements of `element` bytes, `row` of them in a row of `plane`.
float BlendInside(unsigned char const* plane, std::size_t element, std::size_t row, Sample const& s) {
  unsigned char const* const upper = plane + static_cast<std::size_t>(s.index) * element;
  unsigned char const* const lower = upper + row * element;
  return Blend(s, LoadFloat(upper), LoadFloat(upper + element), LoadFloat(lower), LoadFloat(lower + element));
}

// The class's rule: a pixel has all four neighbours or none.
Sample PixelSample(Position const& p, Planar const& src) {
  std::int64_t const ix = Truncated(p.u), iy = Truncated(p.v);
  if (ix < 0 || ix >= src.width - 1 || iy < 0 || iy >= src.height - 1) return {};
  Sample s;
  s.index = iy * src.width + ix;
  s.fx = p.u < 0.0f ? 0.0f : p.u - static_cast<float>(ix);
  s.fy = p.v < 0.0f ? 0.0f : p.v - static_cast<float>(iy);
  s.inside = kAll;
  return s;
}

// As for the nearest forms, a source of short elements is looked at before anything is written.
void NeedSamples(Images const& images, Planar const& src, Planar const& dst, float const* matrix) {
  if (src.element_bytes >= kMoved) return;
  for (std::int64_t y = 0; y < dst.height; ++y) {
    for (std::int64_t x = 0; x < dst.width; ++x) {
      Sample const s = PixelSample(Mapped(matrix, x, y), src);
      if (s.inside == 0) continue;
      auto const last = static_cast<std::size_t>(s.index + src.width + 1);
      NeedMove(images, "src", images.src, src.Offset(dst.channels - 1, last));
    }
  }
}

void WarpBilinear(Images const& images, float const* matrix) {
  NeedClassArguments(images, matrix);
  Planar const src(images.name, "src", images.src), dst(images.name, "dst", images.dst);
  auto const* const from = PlanarMemory(images, "src", images.src, src, dst.channels);
  auto const& dims = images.dst.shape.dims;
  std::size_t const plane = Volume(dims[1], dims[2], sizeof(float));
  auto* const to = Memory(images.name, "dst", images.dst, Volume(dst.channels, plane));
  if (dst.channels == 0) return;
  NeedSamples(images, src, dst, matrix);
  auto const row = static_cast<std::size_t>(src.width);
  unsigned char* pixel = to;
  for (std::int64_t y = 0; y < dst.height; ++y) {
    for (std::int64_t x = 0; x < dst.width; ++x, pixel += sizeof(float)) {
      Sample const s = PixelSample(Mapped(matrix, x, y), src);
      for (std::size_t c = 0; s.inside != 0 && c < dst.channels; ++c) {
        float const value = BlendInside(from + src.Offset(c, 0), src.element_bytes, row, s);
        std::memcpy(pixel + c * plane, &value, sizeof(value));
      }
    }
  }
}

}  // namespace

void ImageProcessFallback::Affine_Float(TensorPtr& src, TensorPtr& dst, float const* matrix, ContextPtr) {
  WarpNearest(Images("Affine_Float", src, dst), matrix, true);
}

void ImageProcessFallback::Affine_INV_Float(TensorPtr& src, TensorPtr& dst, float const* matrix, ContextPtr) {
  WarpNearest(Images("Affine_INV_Float", src, dst), matrix, false);
}

void ImageProcessFallback::Affine_INV_BILINEAR_Float(TensorPtr& src, TensorPtr& dst, float const* matrix, ContextPtr) {
  WarpBilinear(Images("Affine_INV_BILINEAR_Float", src, dst), matrix);
}

}  // namespace talvo::kernel

namespace talvo::kernel::functional {
namespace {

// Terms of the sums along one output axis: the gains of the two matrix columns, times the input's extent along that
// axis, times the normalised coordinate.
struct AxisTerms {
  AxisTerms(float x_gain, float y_gain, std::size_t from, std::size_t to) : x(to), y(to) {
    auto const extent = static_cast<float>(from);
    float const step = 1.0f / (static_cast<float>(to) * 0.5f);
    for (std::size_t i = 0; i < to; ++i) {
      float const n = (static_cast<float>(i) + 0.5f) * step - 1.0f;
      x[i] = x_gain * 0.5f * extent * n;
      y[i] = y_gain * 0.5f * extent * n;
    }
  }

  std::vector<float> x, y;
};

// The free form's rule: each neighbour has a test of its own, and t00, t10 and t01 take row and column 0 for outside.
Sample FreeSample(float sx, float sy, std::int64_t width, std::int64_t height) {
  std::int64_t const ix = Truncated(sx), iy = Truncated(sy);
  bool const left = 0 < ix && ix < width, upper = 0 < iy && iy < height;
  bool const right = 0 <= ix && ix + 1 < width, lower = 0 <= iy && iy + 1 < height;
  Sample s;
  s.inside = (left && upper ? kT00 : 0) | (right && upper ? kT10 : 0) | (left && lower ? kT01 : 0) |
             (right && lower ? kT11 : 0);
  if (s.inside == 0) return s;
  s.index = iy * width + ix;
  s.fx = sx - static_cast<float>(ix);
  s.fy = sy - static_cast<float>(iy);
  return s;
}

float SampleValue(unsigned char const* plane, std::int64_t width, Sample const& s) {
  if (s.inside == kAll) return BlendInside(plane, sizeof(float), static_cast<std::size_t>(width), s);
  auto const load = [&](unsigned int bit, std::int64_t index) {
    return (s.inside & bit) != 0 ? LoadFloat(plane + static_cast<std::size_t>(index) * sizeof(float)) : 0.0f;
  };
  return Blend(s, load(kT00, s.index), load(kT10, s.index + 1), load(kT01, s.index + width),
               load(kT11, s.index + width + 1));
}

}  // namespace

void F_WarpAffine_Bilinear_CHW_F32_Arm(TensorPtr const& i_img, TensorPtr const& i_mat, TensorPtr& o_img) {
  TensorCPU const& input = Cast(i_img, "i_img", kMustBeValidTensorCPU);
  TensorCPU const& matrix = Cast(i_mat, "i_mat", kMustBeValidTensorCPU);
  TensorCPU const& output = Cast(o_img, "o_img", kMustBeValidTensorCPU);
  NeedRank(__func__, "i_img", input, 3);
  NeedRank(__func__, "o_img", output, 3);
  std::size_t const height = input.shape.dims[1], width = input.shape.dims[2];
  std::size_t const channels = output.shape.dims[0], rows = output.shape.dims[1], columns = output.shape.dims[2];
  float m[6];
  std::memcpy(m, Memory(__func__, "i_mat", matrix, sizeof(m)), sizeof(m));
  std::size_t const plane = Volume(rows, columns, sizeof(float));
  unsigned char* const to = Memory(__func__, "o_img", output, Volume(channels, plane));
  if (channels == 0 || plane == 0) return;
  std::size_t const from_plane = Volume(height, width, sizeof(float));
  unsigned char const* const from = Memory(__func__, "i_img", input, Volume(channels, from_plane));
  AxisTerms const by_row(m[1], m[4], height, rows), by_column(m[0], m[3], width, columns);
  float const ox = (m[2] * 0.5f + 0.5f) * static_cast<float>(width) - 0.5f;
  float const oy = (m[5] * 0.5f + 0.5f) * static_cast<float>(height) - 0.5f;
  auto const w = static_cast<std::int64_t>(width), h = static_cast<std::int64_t>(height);
  unsigned char* pixel = to;
  for (std::size_t j = 0; j < rows; ++j) {
    for (std::size_t i = 0; i < columns; ++i, pixel += sizeof(float)) {
      Sample const s = FreeSample(by_column.x[i] + by_row.x[j] + ox, by_column.y[i] + by_row.y[j] + oy, w, h);
      for (std::size_t c = 0; c < channels; ++c) {
        float const value = SampleValue(from + c * from_plane, w, s);
        std::memcpy(pixel + c * plane, &value, sizeof(value));
      }
    }
  }
}

}  // namespace talvo::kernel::functional
