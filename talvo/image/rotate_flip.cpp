#include "talvo/image/rotate_flip.h"

#include <cstring>
#include <utility>

#include "talvo/image/image_process_fallback.h"
#include "talvo/image/image_support.h"
#include "talvo/kernel/rows/transpose.h"

namespace talvo::kernel {
namespace {

using namespace image;

enum class Turn { kClockwise90, kClockwise180, kClockwise270, kHorizontal, kVertical };

// Rotations by 90 and 270 degrees are transpositions whose rows or columns are then laid in reverse order.
void TurnImage(Turn turn, unsigned char const* from, std::size_t height, std::size_t width, std::size_t pixel_bytes,
               unsigned char* to) {
  std::size_t const row = width * pixel_bytes, column = height * pixel_bytes;
  auto const row_step = static_cast<std::ptrdiff_t>(row), pixel_step = static_cast<std::ptrdiff_t>(pixel_bytes);
  auto const column_step = static_cast<std::ptrdiff_t>(column);
  switch (turn) {
    case Turn::kClockwise90:
      return rows::TransposeElements(
          pixel_bytes, {from, row_step, height, width, to + column - pixel_bytes, column_step, -pixel_step});
    case Turn::kClockwise270:
      return rows::TransposeElements(
          pixel_bytes, {from, row_step, height, width, to + (width - 1) * column, -column_step, pixel_step});
    case Turn::kClockwise180:
      return rows::ReverseElements(pixel_bytes, from, height * width, to);
    case Turn::kHorizontal:
      for (std::size_t y = 0; y < height; ++y) rows::ReverseElements(pixel_bytes, from + y * row, width, to + y * row);
      return;
    case Turn::kVertical:
      for (std::size_t y = 0; y < height; ++y) std::memcpy(to + (height - 1 - y) * row, from + y * row, row);
      return;
  }
}

void TurnClassImage(char const* operation, TensorPtr const& source, TensorPtr const& destination, Turn turn) {
  Argument const src(operation, "src", source), dst(operation, "dst", destination);
  unsigned int const layout = dst.shape().layout;
  if (layout != TensorShape::CHW && layout != TensorShape::HWC) return;
  src.Validate(src.shape().layout == layout, "needs the layout of dst");
  bool const planar = layout == TensorShape::CHW;
  std::size_t const h = src.Extent(planar ? 1 : 0), w = src.Extent(planar ? 2 : 1), c = src.Extent(planar ? 0 : 2);
  std::size_t const bytes = Volume(h, w, c);
  if (bytes == 0) return;
  auto const* from = src.Memory(bytes);
  auto* to = dst.Memory(bytes);
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

// A null pointer has a text of its own at the rotations, and comes after tensors of other devices.
void ValidateTensors(Turn turn, Argument const& input, Argument const& output) {
  if (!IsRotation(turn) || input.is_set()) input.ValidateTensorCPU();
  if (!IsRotation(turn) || output.is_set()) output.ValidateTensorCPU();
  input.ValidateSet("%s must not be nullptr.");
  output.ValidateSet("%s must not be nullptr.");
}

// The rotations alone look at the output's shape. Elements are bytes by now, so that their sizes agree.
void ValidateRotatedShape(Turn turn, Argument const& input, Argument const& output) {
  auto dims = input.shape().dims;
  output.Validate(output.shape().dims.size() == dims.size(), "needs the rank of i_img");
  input.Extent(1);  // there are two axes to change places
  if (turn != Turn::kClockwise180) std::swap(dims[0], dims[1]);
  output.Validate(output.shape().dims == dims, "needs the dims of the turned i_img");
}

void TurnFrame(char const* function, TensorPtr const& i_img, TensorPtr const& o_img, Turn turn) {
  Argument const input(function, "i_img", i_img), output(function, "o_img", o_img);
  ValidateTensors(turn, input, output);
  input.ValidateType(TensorShape::UINT8, "UInt8");
  output.ValidateType(TensorShape::UINT8, "UInt8");
  input.ValidateLayout(TensorShape::HWC, "CHW");  // the messages say CHW
  output.ValidateLayout(TensorShape::HWC, "CHW");
  input.ValidateMainMemory();
  output.ValidateMainMemory();
  if (IsRotation(turn)) ValidateRotatedShape(turn, input, output);
  std::size_t const h = input.Extent(0), w = input.Extent(1), c = input.Extent(2), bytes = Volume(h, w, c);
  if (bytes == 0) return;
  auto const* const from = input.Memory(bytes);
  TurnImage(turn, from, h, w, c, output.Memory(bytes));
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
