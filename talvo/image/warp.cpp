#include "talvo/image/warp.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include "talvo/image/image_process_fallback.h"
#include "talvo/image/image_support.h"
#include "talvo/kernel/rows/samples.h"

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

  rows::PlaneExtents Extents() const { return {static_cast<std::int32_t>(width), static_cast<std::int32_t>(height)}; }
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

// The samples of one row and the neighbours that they take from a plane of floats.
class SampleRow {
 public:
  SampleRow(std::size_t count, rows::PlaneExtents plane)
      : plane_(plane), inside_(count), index_(count), fx_(count), fy_(count), upper_(2 * count), lower_(2 * count) {}

  rows::Samples Samples() { return {inside_.data(), index_.data(), fx_.data(), fy_.data()}; }
  std::int32_t inside(std::size_t i) const { return inside_[i]; }
  std::int32_t index(std::size_t i) const { return index_[i]; }

  // Blends the neighbours of each sample in one plane.
  void Blend(float const* plane, bool keep, float* results) {
    std::size_t const count = inside_.size();
    for (std::size_t i = 0; i < count; ++i) Take(plane, i);
    rows::BlendPairs(upper_.data(), lower_.data(), Samples(), keep, count, results);
  }

 private:
  void Take(float const* plane, std::size_t i) {
    std::int32_t const inside = inside_[i];
    std::ptrdiff_t const index = index_[i];
    float* const upper = upper_.data() + 2 * i;
    float* const lower = lower_.data() + 2 * i;
    if (inside == rows::kAllFour) {
      std::memcpy(upper, plane + index, 2 * sizeof(float));
      std::memcpy(lower, plane + index + plane_.width, 2 * sizeof(float));
      return;
    }
    if (inside == 0) {
      upper[0] = upper[1] = lower[0] = lower[1] = 0.0f;
      return;
    }
    upper[0] = (inside & rows::kT00) != 0 ? plane[index] : 0.0f;
    upper[1] = (inside & rows::kT10) != 0 ? plane[index + 1] : 0.0f;
    lower[0] = (inside & rows::kT01) != 0 ? plane[index + plane_.width] : 0.0f;
    lower[1] = (inside & rows::kT11) != 0 ? plane[index + plane_.width + 1] : 0.0f;
  }

  rows::PlaneExtents const plane_;
  std::vector<std::int32_t> inside_, index_;
  std::vector<float> fx_, fy_;
  std::vector<float> upper_, lower_;  // pairs of neighbours
};

// As for the nearest forms, a source of short elements is looked at before anything is written.
void NeedSamples(Images const& images, Planar const& src, Planar const& dst, float const* matrix, SampleRow& row) {
  for (std::int64_t y = 0; y < dst.height; ++y) {
    auto const columns = static_cast<std::size_t>(dst.width);
    rows::LocatePixels(matrix, static_cast<float>(y), columns, src.Extents(), row.Samples());
    for (std::size_t x = 0; x < columns; ++x) {
      if (row.inside(x) == 0) continue;
      auto const last = static_cast<std::size_t>(row.index(x) + src.width + 1);
      NeedMove(images, "src", images.src, src.Offset(dst.channels - 1, last));
    }
  }
}

// The 32 bits at every element of a source of short elements; 0 where they would pass the end.
std::vector<float> Widened(unsigned char const* bytes, std::size_t byte_count, std::size_t element_bytes) {
  std::vector<float> values(byte_count / element_bytes);
  for (std::size_t i = 0; i * element_bytes + kMoved <= byte_count; ++i) {
    std::memcpy(&values[i], bytes + i * element_bytes, kMoved);
  }
  return values;
}

void WarpBilinear(Images const& images, float const* matrix) {
  NeedClassArguments(images, matrix);
  Planar const src(images.name, "src", images.src), dst(images.name, "dst", images.dst);
  auto const* const from = PlanarMemory(images, "src", images.src, src, dst.channels);
  Assert(src.width * src.height <= std::numeric_limits<std::int32_t>::max(),
         "%s: a plane of src has %zu elements, needs fewer than 2^31", images.name,
         static_cast<std::size_t>(src.width * src.height));
  auto const& dims = images.dst.shape.dims;
  std::size_t const plane = Volume(dims[1], dims[2]), columns = dims[2];
  auto* const to = Memory(images.name, "dst", images.dst, Volume(dst.channels, plane, sizeof(float)));
  if (dst.channels == 0 || plane == 0 || src.width < 2 || src.height < 2) return;  // nothing lies inside
  SampleRow row(columns, src.Extents());
  std::vector<float> widened;
  if (src.element_bytes < kMoved) {
    NeedSamples(images, src, dst, matrix, row);
    widened = Widened(from, runtime::ByteCount(images.src.shape), src.element_bytes);
  }
  auto const* const values = widened.empty() ? reinterpret_cast<float const*>(from) : widened.data();
  auto* const results = reinterpret_cast<float*>(to);
  for (std::size_t y = 0; y < dims[1]; ++y) {
    rows::LocatePixels(matrix, static_cast<float>(y), columns, src.Extents(), row.Samples());
    for (std::size_t c = 0; c < dst.channels; ++c) {
      row.Blend(values + c * static_cast<std::size_t>(src.width * src.height), true, results + c * plane + y * columns);
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

}  // namespace

void F_WarpAffine_Bilinear_CHW_F32_Arm(TensorPtr const& i_img, TensorPtr const& i_mat, TensorPtr& o_img) {
  TensorCPU const& input = Cast(i_img, "i_img", kMustBeValidTensorCPU);
  TensorCPU const& matrix = Cast(i_mat, "i_mat", kMustBeValidTensorCPU);
  TensorCPU const& output = Cast(o_img, "o_img", kMustBeValidTensorCPU);
  NeedRank(__func__, "i_img", input, 3);
  NeedRank(__func__, "o_img", output, 3);
  std::size_t const height = input.shape.dims[1], width = input.shape.dims[2];
  std::size_t const channels = output.shape.dims[0], lines = output.shape.dims[1], columns = output.shape.dims[2];
  float m[6];
  std::memcpy(m, Memory(__func__, "i_mat", matrix, sizeof(m)), sizeof(m));
  std::size_t const plane = Volume(lines, columns);
  auto* const to = reinterpret_cast<float*>(Memory(__func__, "o_img", output, Volume(channels, plane, sizeof(float))));
  if (channels == 0 || plane == 0) return;
  std::size_t const from_plane = Volume(height, width);
  auto const* const from =
      reinterpret_cast<float const*>(Memory(__func__, "i_img", input, Volume(channels, from_plane, sizeof(float))));
  if (from_plane == 0) {
    std::fill_n(to, channels * plane, 0.0f);
    return;
  }
  AxisTerms const by_row(m[1], m[4], height, lines), by_column(m[0], m[3], width, columns);
  float const ox = (m[2] * 0.5f + 0.5f) * static_cast<float>(width) - 0.5f;
  float const oy = (m[5] * 0.5f + 0.5f) * static_cast<float>(height) - 0.5f;
  rows::PlaneExtents const extents = {static_cast<std::int32_t>(width), static_cast<std::int32_t>(height)};
  SampleRow row(columns, extents);
  for (std::size_t j = 0; j < lines; ++j) {
    rows::LocateSums({by_column.x.data(), by_column.y.data(), by_row.x[j], by_row.y[j], ox, oy}, columns, extents,
                     row.Samples());
    for (std::size_t c = 0; c < channels; ++c) {
      row.Blend(from + c * from_plane, false, to + c * plane + j * columns);
    }
  }
}

}  // namespace talvo::kernel::functional
