#include "talvo/image/rotate_flip.h"

#include <algorithm>
#include <cstring>
#include <type_traits>
#include <utility>

#include "talvo/image/image_process_fallback.h"
#include "talvo/image/image_support.h"
#include "talvo/kernel/rows/pixels.h"
#include "talvo/utility/restrict.h"

namespace talvo::kernel {
namespace {

using namespace image;

enum class Turn { kClockwise90, kClockwise180, kClockwise270, kHorizontal, kVertical };

// Bytes of a pixel, known to the compiler where it matters.
template <std::size_t kBytes>
struct FixedSize {
  constexpr explicit FixedSize(std::size_t) {}
  constexpr operator std::size_t() const { return kBytes; }
};

template <class Size>
void ReverseRow(unsigned char const* TALVO_RESTRICT from, std::size_t width, Size const size,
                unsigned char* TALVO_RESTRICT to) {
  if constexpr (std::is_same_v<Size, FixedSize<1>>) return rows::ReverseBytes(from, width, to);
  if constexpr (std::is_same_v<Size, FixedSize<3>>) return rows::ReverseTriples(from, width, to);
  for (std::size_t x = 0; x < width; ++x) std::memcpy(to + x * size, from + (width - 1 - x) * size, size);
}

// The pixel (y, x) of a tile goes to row x, column y of `to`.
template <class Size>
void TransposeTile(unsigned char const* from, std::ptrdiff_t from_row, std::size_t height, std::size_t width,
                   Size const size, unsigned char* to, std::ptrdiff_t to_row, std::ptrdiff_t to_column) {
  if constexpr (std::is_same_v<Size, FixedSize<1>>) {
    rows::TransposeBytes(from, from_row, height, width, to, to_row, to_column);
  } else if constexpr (std::is_same_v<Size, FixedSize<3>>) {
    rows::TransposeTriples(from, from_row, height, width, to, to_row, to_column);
  } else if constexpr (std::is_same_v<Size, FixedSize<4>>) {
    rows::TransposeQuads(from, from_row, height, width, to, to_row, to_column);
  } else {
    for (std::size_t x = 0; x < width; ++x) {
      for (std::size_t y = 0; y < height; ++y) {
        std::memcpy(to + static_cast<std::ptrdiff_t>(x) * to_row + static_cast<std::ptrdiff_t>(y) * to_column,
                    from + static_cast<std::ptrdiff_t>(y) * from_row + x * size, size);
      }
    }
  }
}

// `to_row` and `to_column` are the steps in bytes, of either sign. By tiles, so that the lines that a tile reads and
// writes stay in the first cache.
template <class Size>
void Transpose(unsigned char const* from, std::size_t height, std::size_t width, Size const size, unsigned char* to,
               std::ptrdiff_t to_row, std::ptrdiff_t to_column) {
  constexpr std::size_t kTile = 64;
  std::size_t const row = width * size;
  for (std::size_t y = 0; y < height; y += kTile) {
    for (std::size_t x = 0; x < width; x += kTile) {
      TransposeTile(from + y * row + x * size, static_cast<std::ptrdiff_t>(row), std::min(kTile, height - y),
                    std::min(kTile, width - x), size,
                    to + static_cast<std::ptrdiff_t>(x) * to_row + static_cast<std::ptrdiff_t>(y) * to_column, to_row,
                    to_column);
    }
  }
}

template <class Size>
void TurnPixels(Turn turn, unsigned char const* from, std::size_t height, std::size_t width, Size const size,
                unsigned char* to) {
  std::size_t const row = width * size;
  auto const pixel_step = static_cast<std::ptrdiff_t>(static_cast<std::size_t>(size));
  auto const column_step = static_cast<std::ptrdiff_t>(height * size);  // of the image that stands on its side
  switch (turn) {
    case Turn::kClockwise90:
      return Transpose(from, height, width, size, to + (height - 1) * size, column_step, -pixel_step);
    case Turn::kClockwise270:
      return Transpose(from, height, width, size, to + (width - 1) * height * size, -column_step, pixel_step);
    case Turn::kVertical:
      for (std::size_t y = 0; y < height; ++y) std::memcpy(to + (height - 1 - y) * row, from + y * row, row);
      return;
    case Turn::kClockwise180:
      for (std::size_t y = 0; y < height; ++y) ReverseRow(from + y * row, width, size, to + (height - 1 - y) * row);
      return;
    case Turn::kHorizontal:
      for (std::size_t y = 0; y < height; ++y) ReverseRow(from + y * row, width, size, to + y * row);
      return;
  }
}

// One image of pixels of `pixel_bytes`; no extent is 0.
void TurnImage(Turn turn, unsigned char const* from, std::size_t height, std::size_t width, std::size_t pixel_bytes,
               unsigned char* to) {
  switch (pixel_bytes) {
    case 1:
      return TurnPixels(turn, from, height, width, FixedSize<1>(pixel_bytes), to);
    case 2:
      return TurnPixels(turn, from, height, width, FixedSize<2>(pixel_bytes), to);
    case 3:
      return TurnPixels(turn, from, height, width, FixedSize<3>(pixel_bytes), to);
    case 4:
      return TurnPixels(turn, from, height, width, FixedSize<4>(pixel_bytes), to);
    default:
      return TurnPixels(turn, from, height, width, pixel_bytes, to);
  }
}

void TurnClassImage(char const* name, TensorPtr const& source, TensorPtr const& destination, Turn turn) {
  Images const images(name, source, destination);
  auto const& [operation, src, dst] = images;
  unsigned int const layout = dst.shape.layout;
  if (layout != TensorShape::CHW && layout != TensorShape::HWC) return;
  Assert(src.shape.layout == layout, nullptr);
  bool const planar = layout == TensorShape::CHW;
  std::size_t const last = Extent(operation, "src", src, 2);
  std::size_t const h = src.shape.dims[planar ? 1 : 0], w = planar ? last : src.shape.dims[1];
  std::size_t const c = planar ? src.shape.dims[0] : last;
  std::size_t const bytes = Volume(h, w, c);
  if (bytes == 0) return;
  auto const* from = Memory(operation, "src", src, bytes);
  auto* to = Memory(operation, "dst", dst, bytes);
  if (!planar) return TurnImage(turn, from, h, w, c, to);
  for (std::size_t plane = 0; plane < c; ++plane) TurnImage(turn, from + plane * h * w, h, w, 1, to + plane * h * w);
}

}  // namespace

void ImageProcessFallback::ClockwiseRotate90(TensorPtr& src, TensorPtr& dst, ContextPtr) {
  TurnClassImage("ClockwiseRotate90", src, dst, Turn::kClockwise90);
}

void ImageProcessFallback::ClockwiseRotate180(TensorPtr& src, TensorPtr& dst, ContextPtr) {
  TurnClassImage("ClockwiseRotate180", src, dst, Turn::kClockwise180);
}

void ImageProcessFallback::ClockwiseRotate270(TensorPtr& src, TensorPtr& dst, ContextPtr) {
  TurnClassImage("ClockwiseRotate270", src, dst, Turn::kClockwise270);
}

void ImageProcessFallback::Flip_Horizintal(TensorPtr& src, TensorPtr& dst, ContextPtr) {
  TurnClassImage("Flip_Horizintal", src, dst, Turn::kHorizontal);
}

void ImageProcessFallback::Flip_Vertical(TensorPtr& src, TensorPtr& dst, ContextPtr) {
  TurnClassImage("Flip_Vertical", src, dst, Turn::kVertical);
}

}  // namespace talvo::kernel

namespace talvo::kernel::functional {
namespace {

bool IsRotation(Turn turn) { return turn != Turn::kHorizontal && turn != Turn::kVertical; }

// The rotations alone look at the output's shape.
void NeedRotatedShape(Turn turn, TensorCPU const& input, TensorCPU const& output) {
  auto dims = input.shape.dims;
  Assert(output.shape.dims.size() == dims.size(), nullptr);
  if (turn != Turn::kClockwise180) std::swap(dims[0], dims[1]);
  Assert(output.shape.dims == dims, nullptr);
  Assert(runtime::ElementSize(input.shape.data_type) == runtime::ElementSize(output.shape.data_type), nullptr);
}

void TurnFrame(char const* function, TensorPtr const& i_img, TensorPtr const& o_img, Turn turn) {
  char const* const refusal = IsRotation(turn) ? kMustNotBeNull : kMustBeTensorCPU;
  TensorCPU const& input = Cast(i_img, "i_img", refusal);
  TensorCPU const& output = Cast(o_img, "o_img", refusal);
  NeedType(input, "i_img", TensorShape::UINT8, "UInt8");
  NeedType(output, "o_img", TensorShape::UINT8, "UInt8");
  NeedLayout(input, "i_img", TensorShape::HWC, "CHW");  // the messages say CHW
  NeedLayout(output, "o_img", TensorShape::HWC, "CHW");
  NeedMainMemory(input, "i_img");
  NeedMainMemory(output, "o_img");
  NeedRank(function, "i_img", input, 3);
  if (IsRotation(turn)) NeedRotatedShape(turn, input, output);
  auto const& dims = input.shape.dims;
  std::size_t const bytes = Volume(dims[0], dims[1], dims[2]);
  if (bytes == 0) return;
  auto const* const from = Memory(function, "i_img", input, bytes);
  TurnImage(turn, from, dims[0], dims[1], dims[2], Memory(function, "o_img", output, bytes));
}

}  // namespace

void F_Rotate_Clockwise90_HWC_Fallback(TensorPtr const& i_img, TensorPtr& o_img) {
  TurnFrame(__func__, i_img, o_img, Turn::kClockwise90);
}

void F_Rotate_Clockwise90_HWC_Arm(TensorPtr const& i_img, TensorPtr& o_img) {
  TurnFrame(__func__, i_img, o_img, Turn::kClockwise90);
}

void F_Rotate_Clockwise180_HWC_Fallback(TensorPtr const& i_img, TensorPtr& o_img) {
  TurnFrame(__func__, i_img, o_img, Turn::kClockwise180);
}

void F_Rotate_Clockwise180_HWC_Arm(TensorPtr const& i_img, TensorPtr& o_img) {
  TurnFrame(__func__, i_img, o_img, Turn::kClockwise180);
}

void F_Rotate_Clockwise270_HWC_Fallback(TensorPtr const& i_img, TensorPtr& o_img) {
  TurnFrame(__func__, i_img, o_img, Turn::kClockwise270);
}

void F_Rotate_Clockwise270_HWC_Arm(TensorPtr const& i_img, TensorPtr& o_img) {
  TurnFrame(__func__, i_img, o_img, Turn::kClockwise270);
}

void F_HFlip_HWC_Fallback(TensorPtr const& i_img, TensorPtr& o_img) {
  TurnFrame(__func__, i_img, o_img, Turn::kHorizontal);
}

void F_HFlip_HWC_Arm(TensorPtr const& i_img, TensorPtr& o_img) { TurnFrame(__func__, i_img, o_img, Turn::kHorizontal); }

void F_VFlip_HWC_Fallback(TensorPtr const& i_img, TensorPtr& o_img) {
  TurnFrame(__func__, i_img, o_img, Turn::kVertical);
}

void F_VFlip_HWC_Arm(TensorPtr const& i_img, TensorPtr& o_img) { TurnFrame(__func__, i_img, o_img, Turn::kVertical); }

}  // namespace talvo::kernel::functional
