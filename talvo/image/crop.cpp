#include "talvo/image/crop.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "talvo/image/image_process_fallback.h"
#include "talvo/image/image_support.h"

namespace talvo::kernel {
namespace {

using namespace image;

// `rows` rows of `bytes` bytes; the ranges do not overlap.
void CopyRows(unsigned char const* from, std::size_t from_row, std::size_t rows, std::size_t bytes, unsigned char* to,
              std::size_t to_row) {
  for (std::size_t y = 0; y < rows; ++y) std::memcpy(to + y * to_row, from + y * from_row, bytes);
}

// Bytes up to the end of the pixel (y, x) in rows of `width` pixels; the largest number where it does not fit.
std::size_t BytesUpTo(std::int64_t y, std::int64_t x, std::int64_t width, std::size_t pixel_bytes) {
  auto const unsign = [](std::int64_t value) { return static_cast<std::size_t>(value); };
  std::size_t const rows = Volume(unsign(y), unsign(width), pixel_bytes);
  std::size_t const pixels = Volume(unsign(x + 1), pixel_bytes);
  return rows > std::numeric_limits<std::size_t>::max() - pixels ? rows : rows + pixels;
}

// The area from (top, left) to (bottom, right), both included, clipped to the image; a row of `dst` is as long as the
// area is wide before clipping.
void CropPixels(char const* name, TensorPtr const& source, TensorPtr const& destination, float left_share,
                float top_share, float right_share, float bottom_share, std::size_t pixel_bytes) {
  Images const images(name, source, destination);
  auto const& [operation, src, dst] = images;
  auto const w = static_cast<std::int64_t>(Extent(operation, "src", src, 1));
  auto const h = static_cast<std::int64_t>(src.shape.dims[0]);
  std::int64_t const left = PixelOfShare(operation, left_share, src.shape.dims[1]);
  std::int64_t const top = PixelOfShare(operation, top_share, src.shape.dims[0]);
  std::int64_t const right = PixelOfShare(operation, right_share, src.shape.dims[1]);
  std::int64_t const bottom = PixelOfShare(operation, bottom_share, src.shape.dims[0]);
  std::int64_t const x0 = std::max<std::int64_t>(left, 0), x1 = std::min(w - 1, right);
  std::int64_t const y0 = std::max<std::int64_t>(top, 0), y1 = std::min(h - 1, bottom);
  if (x0 > x1 || y0 > y1) return;
  std::int64_t const span = right - left + 1;
  auto const* const from = Memory(operation, "src", src, BytesUpTo(y1, x1, w, pixel_bytes));
  auto* const to = Memory(operation, "dst", dst, BytesUpTo(y1 - top, x1 - left, span, pixel_bytes));
  std::size_t const from_row = static_cast<std::size_t>(w) * pixel_bytes;
  std::size_t const to_row = static_cast<std::size_t>(span) * pixel_bytes;
  CopyRows(from + static_cast<std::size_t>(y0) * from_row + static_cast<std::size_t>(x0) * pixel_bytes, from_row,
           static_cast<std::size_t>(y1 - y0 + 1), static_cast<std::size_t>(x1 - x0 + 1) * pixel_bytes,
           to + static_cast<std::size_t>(y0 - top) * to_row + static_cast<std::size_t>(x0 - left) * pixel_bytes,
           to_row);
}

}  // namespace

void ImageProcessFallback::Crop_C1(TensorPtr& src, TensorPtr& dst, float left, float top, float right, float bottom,
                                   ContextPtr) {
  CropPixels("Crop_C1", src, dst, left, top, right, bottom, 1);
}

void ImageProcessFallback::Crop_C2(TensorPtr& src, TensorPtr& dst, float left, float top, float right, float bottom,
                                   ContextPtr) {
  CropPixels("Crop_C2", src, dst, left, top, right, bottom, 2);
}

void ImageProcessFallback::Crop_C3(TensorPtr& src, TensorPtr& dst, float left, float top, float right, float bottom,
                                   ContextPtr) {
  CropPixels("Crop_C3", src, dst, left, top, right, bottom, 3);
}

void ImageProcessFallback::Crop_C4(TensorPtr& src, TensorPtr& dst, float left, float top, float right, float bottom,
                                   ContextPtr) {
  CropPixels("Crop_C4", src, dst, left, top, right, bottom, 4);
}

}  // namespace talvo::kernel

namespace talvo::kernel::functional {
namespace {

// A layout as the crops see it: planes of rows of pixels.
struct RowLayout {
  unsigned int layout;
  char const* name;
  std::size_t rank;
  std::size_t row_axis;  // the columns are the axis behind it
};
constexpr RowLayout kHWC = {TensorShape::HWC, "HWC", 3, 0};
constexpr RowLayout kCHW = {TensorShape::CHW, "CHW", 3, 1};
constexpr RowLayout kC4HW4 = {TensorShape::C4HW4, "C4HW4", 4, 1};
constexpr RowLayout kC8HW8 = {TensorShape::C8HW8, "C8HW8", 4, 1};

struct Area {
  std::uint64_t y, x, height, width;
};

// Without a text: the shapes fit each other and the area.
void NeedArea(TensorShape const& input, TensorShape const& output, std::size_t row_axis, Area const& area) {
  Assert(input.data_type == output.data_type, nullptr);
  for (std::size_t axis = 0; axis < input.dims.size(); ++axis) {
    bool const spatial = axis == row_axis || axis == row_axis + 1;
    Assert(spatial || input.dims[axis] == output.dims[axis], nullptr);
  }
  Assert(area.height == output.dims[row_axis] && area.width == output.dims[row_axis + 1], nullptr);
  Assert(area.height + area.y <= input.dims[row_axis] && area.width + area.x <= input.dims[row_axis + 1], nullptr);
  Assert(input.dims.size() < 4 || input.dims[3] == 4 || input.dims[3] == 8, nullptr);
}

void CropRows(char const* function, TensorPtr const& i_img, Area const& area, TensorPtr const& o_img,
              RowLayout const& rows) {
  TensorCPU const& input = Cast(i_img, "i_img");
  TensorCPU const& output = Cast(o_img, "o_img");
  NeedLayout(input, "i_img", rows.layout, rows.name);
  NeedMainMemory(input, "i_img");
  NeedLayout(output, "o_img", rows.layout, rows.name);
  NeedMainMemory(output, "o_img");
  NeedRank(function, "i_img", input, rows.rank);
  NeedRank(function, "o_img", output, rows.rank);
  NeedArea(input.shape, output.shape, rows.row_axis, area);
  auto const& dims = input.shape.dims;
  std::size_t const pixel_bytes = runtime::ElementSize(input.shape.data_type) *
                                  (rows.row_axis + 2 < rows.rank ? dims[rows.row_axis + 2] : std::size_t{1});
  std::size_t const planes = rows.row_axis == 0 ? 1 : dims[0];
  std::size_t const plane = Volume(dims[rows.row_axis], dims[rows.row_axis + 1], pixel_bytes);
  std::size_t const cropped_plane = Volume(area.height, area.width, pixel_bytes);
  if (planes == 0 || cropped_plane == 0) return;
  auto const* const from = Memory(function, "i_img", input, Volume(planes, plane));
  auto* const to = Memory(function, "o_img", output, Volume(planes, cropped_plane));
  std::size_t const from_row = dims[rows.row_axis + 1] * pixel_bytes, to_row = area.width * pixel_bytes;
  for (std::size_t p = 0; p < planes; ++p) {
    CopyRows(from + p * plane + area.y * from_row + area.x * pixel_bytes, from_row, area.height, to_row,
             to + p * cropped_plane, to_row);
  }
}

void NeedByteFrame(TensorCPU const& tensor, char const* name) {
  NeedType(tensor, name, TensorShape::UINT8, "UInt8");
  NeedLayout(tensor, name, TensorShape::HWC, "HWC");
  NeedMainMemory(tensor, name);
}

void CropFilled(char const* function, TensorPtr const& i_img, std::int64_t y, std::int64_t x, std::int64_t height,
                std::int64_t width, unsigned char fill, TensorPtr const& o_img) {
  TensorCPU const& input = Cast(i_img, "i_img");
  TensorCPU const& output = Cast(o_img, "o_img");
  NeedByteFrame(input, "i_img");
  NeedByteFrame(output, "o_img");
  NeedRank(function, "i_img", input, 3);
  NeedRank(function, "o_img", output, 3);
  auto const &from_dims = input.shape.dims, &to_dims = output.shape.dims;
  Assert(height == to_dims[0], nullptr);
  Assert(width == to_dims[1], nullptr);
  Assert(from_dims[2] == to_dims[2], nullptr);
  std::size_t const bytes = runtime::ByteCount(output.shape), pixel_bytes = to_dims[2];
  auto const* const from = Memory(function, "i_img", input, runtime::ByteCount(input.shape));
  auto* const to = Memory(function, "o_img", output, bytes);
  if (bytes == 0) return;
  std::memset(to, fill, bytes);
  std::int64_t const y0 = std::max<std::int64_t>(y, 0), y1 = std::min<std::int64_t>(y + height, from_dims[0]);
  std::int64_t const x0 = std::max<std::int64_t>(x, 0), x1 = std::min<std::int64_t>(x + width, from_dims[1]);
  if (y0 >= y1 || x0 >= x1) return;  // y1 and x1 are one behind the last
  auto const offset = [&](std::int64_t row, std::int64_t column, std::size_t columns) {
    return (static_cast<std::size_t>(row) * columns + static_cast<std::size_t>(column)) * pixel_bytes;
  };
  CopyRows(from + offset(y0, x0, from_dims[1]), from_dims[1] * pixel_bytes, static_cast<std::size_t>(y1 - y0),
           static_cast<std::size_t>(x1 - x0) * pixel_bytes, to + offset(y0 - y, x0 - x, to_dims[1]),
           to_dims[1] * pixel_bytes);
}

}  // namespace

void F_Crop_HWC_Memcpy(TensorPtr const& i_img, unsigned int const& y, unsigned int const& x, unsigned int const& height,
                       unsigned int const& width, TensorPtr& o_img) {
  CropRows(__func__, i_img, {y, x, height, width}, o_img, kHWC);
}

void F_Crop_HWC_Arm(TensorPtr const& i_img, unsigned int const& y, unsigned int const& x, unsigned int const& height,
                    unsigned int const& width, TensorPtr& o_img) {
  CropRows(__func__, i_img, {y, x, height, width}, o_img, kHWC);
}

void F_Crop_CHW_Memcpy(TensorPtr const& i_img, unsigned int const& y, unsigned int const& x, unsigned int const& height,
                       unsigned int const& width, TensorPtr& o_img) {
  CropRows(__func__, i_img, {y, x, height, width}, o_img, kCHW);
}

void F_Crop_CHW_Arm(TensorPtr const& i_img, unsigned int const& y, unsigned int const& x, unsigned int const& height,
                    unsigned int const& width, TensorPtr& o_img) {
  CropRows(__func__, i_img, {y, x, height, width}, o_img, kCHW);
}

void F_Crop_C4HW4_Memcpy(TensorPtr const& i_img, unsigned int const& y, unsigned int const& x,
                         unsigned int const& height, unsigned int const& width, TensorPtr& o_img) {
  CropRows(__func__, i_img, {y, x, height, width}, o_img, kC4HW4);
}

void F_Crop_C4HW4_Arm(TensorPtr const& i_img, unsigned int const& y, unsigned int const& x, unsigned int const& height,
                      unsigned int const& width, TensorPtr& o_img) {
  CropRows(__func__, i_img, {y, x, height, width}, o_img, kC4HW4);
}

void F_Crop_C8HW8_Memcpy(TensorPtr const& i_img, unsigned int const& y, unsigned int const& x,
                         unsigned int const& height, unsigned int const& width, TensorPtr& o_img) {
  CropRows(__func__, i_img, {y, x, height, width}, o_img, kC8HW8);
}

void F_Crop_C8HW8_Arm(TensorPtr const& i_img, unsigned int const& y, unsigned int const& x, unsigned int const& height,
                      unsigned int const& width, TensorPtr& o_img) {
  CropRows(__func__, i_img, {y, x, height, width}, o_img, kC8HW8);
}

void F_Crop_U8_HWC_Memcpy(TensorPtr const& i_img, int const& y, int const& x, int const& height, int const& width,
                          unsigned char const& fill, TensorPtr& o_img) {
  CropFilled(__func__, i_img, y, x, height, width, fill, o_img);
}

void F_Crop_U8_HWC_Arm(TensorPtr const& i_img, int const& y, int const& x, int const& height, int const& width,
                       unsigned char const& fill, TensorPtr& o_img) {
  CropFilled(__func__, i_img, y, x, height, width, fill, o_img);
}

}  // namespace talvo::kernel::functional
