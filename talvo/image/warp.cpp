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

// A CHW tensor as the warps walk it. An empty tensor may have extents whose product fits nowhere.
struct Planar {
  explicit Planar(Argument const& argument)
      : image(argument),
        channels(image.Extent(0)),
        height(image.Extent(1)),
        width(image.Extent(2)),
        plane(Volume(height, width)),
        element_bytes(runtime::ElementSize(image.shape().data_type)) {}

  bool Holds(std::int64_t x, std::int64_t y) const {
    return x >= 0 && y >= 0 && x < static_cast<std::int64_t>(width) && y < static_cast<std::int64_t>(height);
  }
  rows::PlaneExtents Extents() const { return {static_cast<std::int32_t>(width), static_cast<std::int32_t>(height)}; }
  // Byte position of element `index` of plane `channel`.
  std::size_t Offset(std::size_t channel, std::size_t index) const { return (channel * plane + index) * element_bytes; }
  // Start of the first `count` planes.
  unsigned char* Memory(std::size_t count) const { return image.Memory(Volume(count, plane, element_bytes)); }
  void ValidateMove(std::size_t offset) const {
    std::size_t const bytes = runtime::ByteCount(image.shape());
    if (offset + kMoved > bytes) {
      Refuse("%s: a move of 4 bytes at byte %zu of %s passes its end at %zu", image.function(), offset, image.name(),
             bytes);
    }
  }

  Argument const& image;
  std::size_t channels, height, width, plane, element_bytes;
};

struct Position {
  float u, v;
};

Position Mapped(float const* m, std::size_t x, std::size_t y) {
  auto const fx = static_cast<float>(x), fy = static_cast<float>(y);
  return {m[0] * fx + m[1] * fy + m[2], m[3] * fx + m[4] * fy + m[5]};
}

void ValidateClassCall(Argument const& src, float const* matrix) {
  src.Validate(src.shape().layout == TensorShape::CHW, "needs layout CHW");
  if (matrix == nullptr) Refuse("%s: the matrix is null", src.function());
}

// Calls visit(index in `walked`, index in `other`) for each pixel of `walked` that the matrix maps into `other`.
template <class Visit>
void WalkNearest(Planar const& walked, Planar const& other, float const* matrix, Visit const& visit) {
  for (std::size_t y = 0; y < walked.height; ++y) {
    for (std::size_t x = 0; x < walked.width; ++x) {
      Position const p = Mapped(matrix, x, y);
      std::int64_t const tx = Truncated(p.u + 0.5f), ty = Truncated(p.v + 0.5f);
      if (!other.Holds(tx, ty)) continue;
      visit(y * walked.width + x, static_cast<std::size_t>(ty) * other.width + static_cast<std::size_t>(tx));
    }
  }
}

// Both nearest forms. The forward one walks the source, the inverse one the destination; channels are those of the
// tensor walked. Elements below 4 bytes can be moved past an end, so that all moves are looked at before the first.
void WarpNearest(char const* operation, TensorPtr const& source, TensorPtr const& destination, float const* matrix,
                 bool forward) {
  Argument const src_image(operation, "src", source), dst_image(operation, "dst", destination);
  ValidateClassCall(src_image, matrix);
  Planar const src(src_image), dst(dst_image);
  std::size_t const channels = forward ? src.channels : dst.channels;
  if (channels == 0 || src.plane == 0 || dst.plane == 0) return;
  auto const* const from = src.Memory(channels);
  auto* const to = dst.Memory(channels);
  // Calls visit(byte in src, byte in dst) for each pixel that is moved, in the first plane.
  auto const walk = [&](auto const& visit) {
    std::size_t const src_bytes = src.element_bytes, dst_bytes = dst.element_bytes;
    if (forward) {
      WalkNearest(src, dst, matrix, [=](std::size_t s, std::size_t d) { visit(s * src_bytes, d * dst_bytes); });
    } else {
      WalkNearest(dst, src, matrix, [=](std::size_t d, std::size_t s) { visit(s * src_bytes, d * dst_bytes); });
    }
  };
  std::size_t const src_plane = src.Offset(1, 0), dst_plane = dst.Offset(1, 0);
  if (src.element_bytes < kMoved || dst.element_bytes < kMoved) {
    walk([&](std::size_t s, std::size_t d) {
      for (std::size_t c = 0; c < channels; ++c) {
        src.ValidateMove(c * src_plane + s);
        dst.ValidateMove(c * dst_plane + d);
      }
    });
  }
  walk([=](std::size_t s, std::size_t d) {
    for (std::size_t c = 0; c < channels; ++c) std::memmove(to + c * dst_plane + d, from + c * src_plane + s, kMoved);
  });
}

// The samples of one row and the taps that they take from a plane of floats.
class SampleRow {
 public:
  SampleRow(std::size_t count, rows::PlaneExtents plane)
      : plane_(plane), inside_(count), index_(count), fx_(count), fy_(count), upper_(2 * count), lower_(2 * count) {}

  rows::Samples Samples() { return {inside_.data(), index_.data(), fx_.data(), fy_.data()}; }
  std::int32_t inside(std::size_t i) const { return inside_[i]; }
  std::int32_t index(std::size_t i) const { return index_[i]; }

  // Blends the taps of each sample in one plane.
  void Blend(float const* plane, bool keep, float* results) {
    std::size_t const count = inside_.size();
    std::int32_t const *const inside = inside_.data(), *const index = index_.data();
    float *const upper = upper_.data(), *const lower = lower_.data();
    std::ptrdiff_t const width = plane_.width;
    for (std::size_t i = 0; i < count; ++i) Take(plane, index[i], width, inside[i], upper + 2 * i, lower + 2 * i);
    rows::BlendPairs(upper, lower, Samples(), keep, count, results);
  }

 private:
  // The taps of a sample, the first of which is element `index` where it lies inside.
  static void Take(float const* plane, std::ptrdiff_t index, std::ptrdiff_t width, std::int32_t inside, float* upper,
                   float* lower) {
    if (inside == rows::kAllFour) {
      std::memcpy(upper, plane + index, 2 * sizeof(float));
      std::memcpy(lower, plane + index + width, 2 * sizeof(float));
      return;
    }
    if (inside == 0) {
      upper[0] = upper[1] = lower[0] = lower[1] = 0.0f;
      return;
    }
    upper[0] = (inside & rows::kT00) != 0 ? plane[index] : 0.0f;
    upper[1] = (inside & rows::kT10) != 0 ? plane[index + 1] : 0.0f;
    lower[0] = (inside & rows::kT01) != 0 ? plane[index + width] : 0.0f;
    lower[1] = (inside & rows::kT11) != 0 ? plane[index + width + 1] : 0.0f;
  }

  rows::PlaneExtents const plane_;
  std::vector<std::int32_t> inside_, index_;
  std::vector<float> fx_, fy_;
  std::vector<float> upper_, lower_;  // pairs of taps
};

// As for the nearest forms, a source of short elements is looked at before anything is written.
void ValidateSamples(Planar const& src, Planar const& dst, float const* matrix, SampleRow& row) {
  for (std::size_t y = 0; y < dst.height; ++y) {
    rows::LocatePixels(matrix, static_cast<float>(y), dst.width, src.Extents(), row.Samples());
    for (std::size_t x = 0; x < dst.width; ++x) {
      if (row.inside(x) == 0) continue;
      std::size_t const last = static_cast<std::size_t>(row.index(x)) + src.width + 1;
      src.ValidateMove(src.Offset(dst.channels - 1, last));
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

void WarpBilinear(char const* operation, TensorPtr const& source, TensorPtr const& destination, float const* matrix) {
  Argument const src_image(operation, "src", source), dst_image(operation, "dst", destination);
  ValidateClassCall(src_image, matrix);
  Planar const src(src_image), dst(dst_image);
  if (dst.channels == 0 || dst.plane == 0 || src.width < 2 || src.height < 2) return;  // nothing lies inside
  auto const* const bytes = src.Memory(dst.channels);
  if (src.plane > std::numeric_limits<std::int32_t>::max()) {
    Refuse("%s: a plane of src has %zu elements, needs fewer than 2^31", operation, src.plane);
  }
  auto* const results = dst_image.Memory<float>(Volume(dst.channels, dst.plane));
  SampleRow row(dst.width, src.Extents());
  std::vector<float> widened;
  if (src.element_bytes < kMoved) {
    ValidateSamples(src, dst, matrix, row);
    widened = Widened(bytes, runtime::ByteCount(src_image.shape()), src.element_bytes);
  }
  auto const* const values = widened.empty() ? src_image.Memory<float>(src.plane) : widened.data();
  for (std::size_t y = 0; y < dst.height; ++y) {
    rows::LocatePixels(matrix, static_cast<float>(y), dst.width, src.Extents(), row.Samples());
    for (std::size_t c = 0; c < dst.channels; ++c) {
      row.Blend(values + c * src.plane, true, results + c * dst.plane + y * dst.width);
    }
  }
}

}  // namespace

void ImageProcessFallback::Affine_Float(TensorPtr& src, TensorPtr& dst, float const* matrix, ContextPtr) {
  WarpNearest("Affine_Float", src, dst, matrix, true);
}

void ImageProcessFallback::Affine_INV_Float(TensorPtr& src, TensorPtr& dst, float const* matrix, ContextPtr) {
  WarpNearest("Affine_INV_Float", src, dst, matrix, false);
}

void ImageProcessFallback::Affine_INV_BILINEAR_Float(TensorPtr& src, TensorPtr& dst, float const* matrix, ContextPtr) {
  WarpBilinear("Affine_INV_BILINEAR_Float", src, dst, matrix);
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
  Argument const input(__func__, "i_img", i_img), matrix(__func__, "i_mat", i_mat), output(__func__, "o_img", o_img);
  for (auto const* const argument : {&input, &matrix, &output}) {
    argument->ValidateTensorCPU("%s must be a vaild TensorCPUPtr.");
  }
  std::size_t const height = input.Extent(1), width = input.Extent(2), from_plane = Volume(height, width);
  std::size_t const channels = output.Extent(0), lines = output.Extent(1), columns = output.Extent(2);
  std::size_t const plane = Volume(lines, columns);
  if (channels == 0 || plane == 0) return;
  float const* const m = matrix.Memory<float>(6);
  float* const to = output.Memory<float>(Volume(channels, plane));
  if (from_plane == 0) {
    std::fill_n(to, channels * plane, 0.0f);
    return;
  }
  float const* const from = input.Memory<float>(Volume(channels, from_plane));
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
