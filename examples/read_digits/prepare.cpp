#include "examples/read_digits/prepare.h"

#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "talvo/image/crop.h"
#include "talvo/image/image_process_fallback.h"
#include "talvo/image/normalise.h"
#include "talvo/image/resize.h"
#include "talvo/runtime/device_cpu.h"

namespace read_digits {
namespace {

using namespace talvo;
using runtime::TensorShape;
using TensorPtr = std::shared_ptr<runtime::Tensor>;
using ContextPtr = std::shared_ptr<runtime::Context>;

constexpr unsigned int kInkSide = 20;
// ConvertPixel's codes.
constexpr int kNv21ToRgb = 24, kRgbToGray = 7, kRotate90 = 50;

TensorPtr NewBytes(std::vector<unsigned int> const& dims, unsigned int layout, ContextPtr const& context) {
  return context->device_cpu->CreateTensor(
      TensorShape(dims, TensorShape::UINT8, layout, TensorShape::MainMemory, TensorShape::Extra()), nullptr);
}

unsigned char const* BytesOf(TensorPtr const& tensor) { return static_cast<unsigned char const*>(tensor->data); }

// [height, width, 1], upright.
TensorPtr UprightGray(Frame const& frame, unsigned int turn, ContextPtr const& context) {
  kernel::ImageProcessFallback images;
  auto const& [width, height, nv21] = frame;
  // The class takes the luminance's extents; the chrominance stands behind it in the same memory.
  TensorPtr source =
      context->device_cpu->CreateYPlane8BitTensorExternal(height, width, const_cast<unsigned char*>(nv21.data()));
  TensorPtr rgb = NewBytes({3, height, width}, TensorShape::CHW, context);
  images.ConvertPixel(source, rgb, kNv21ToRgb, context);
  TensorPtr planes = NewBytes({1, height, width}, TensorShape::CHW, context);
  images.ConvertPixel(rgb, planes, kRgbToGray, context);
  TensorPtr gray =
      context->device_cpu->CreateGray8TensorExternal(height, width, planes->data);  // one channel: the same bytes
  bool const sideways = turn % 180 == 90;
  TensorPtr upright = NewBytes({sideways ? width : height, sideways ? height : width, 1}, TensorShape::HWC, context);
  if (turn == 0) return context->device_cpu->CreateGray8Tensor(height, width, gray->data);
  images.ConvertPixel(gray, upright, kRotate90 + static_cast<int>(turn / 90) - 1, context);
  return upright;
}

// What most of the rim shows is paper; ink is the gray farthest from it.
struct Tones {
  unsigned char paper, ink;
};

Tones FindTones(std::string const& path, TensorPtr const& box) {
  std::size_t const height = box->shape.dims[0], width = box->shape.dims[1];
  unsigned char const* const gray = BytesOf(box);
  std::vector<unsigned char> rim;
  for (std::size_t x = 0; x < width; ++x) rim.insert(rim.end(), {gray[x], gray[(height - 1) * width + x]});
  for (std::size_t y = 0; y < height; ++y) rim.insert(rim.end(), {gray[y * width], gray[y * width + width - 1]});
  std::nth_element(rim.begin(), rim.begin() + static_cast<std::ptrdiff_t>(rim.size() / 2), rim.end());
  unsigned char const paper = rim[rim.size() / 2];
  auto const [darkest, brightest] = std::minmax_element(gray, gray + height * width);
  unsigned char const ink = paper - *darkest > *brightest - paper ? *darkest : *brightest;
  if (std::abs(ink - paper) < 32) throw std::runtime_error(path + ": the picture shows no ink");
  return {paper, ink};
}

// The square around the ink, in the box's pixels, of which the ink's longer side takes 20 of 28.
struct Square {
  int left, top, side;
};

Square FindInk(TensorPtr const& box, Tones const& tones) {
  auto const height = static_cast<int>(box->shape.dims[0]), width = static_cast<int>(box->shape.dims[1]);
  int left = width, top = height, right = 0, bottom = 0;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      int const gray = BytesOf(box)[y * width + x];
      if (3 * std::abs(gray - tones.paper) < std::abs(tones.ink - tones.paper)) continue;
      left = std::min(left, x);
      top = std::min(top, y);
      right = std::max(right, x + 1);
      bottom = std::max(bottom, y + 1);
    }
  }
  int const ink = std::max(right - left, bottom - top);
  int const side =
      std::max(1, (ink * static_cast<int>(kSide) + static_cast<int>(kInkSide) / 2) / static_cast<int>(kInkSide));
  return {(left + right - side) / 2, (top + bottom - side) / 2, side};
}

TensorPtr PerChannel(float value, ContextPtr const& context) {
  return context->device_cpu->CreateF32CMainMemory(1, &value);
}

}  // namespace

std::shared_ptr<runtime::TensorCPU> PrepareInput(std::string const& path, Frame const& frame, View const& view,
                                                 ContextPtr const& context) {
  TensorPtr const upright = UprightGray(frame, view.turn, context);
  unsigned int const height = upright->shape.dims[0], width = upright->shape.dims[1];
  if (view.width == 0 || view.height == 0 || view.left > width || view.width > width - view.left || view.top > height ||
      view.height > height - view.top) {
    throw std::runtime_error(path + ": the box leaves the upright picture of " + std::to_string(width) + " by " +
                             std::to_string(height) + " pixels");
  }
  TensorPtr box = NewBytes({view.height, view.width, 1}, TensorShape::HWC, context);
  kernel::functional::F_Crop_HWC_Memcpy(upright, view.top, view.left, view.height, view.width, box);
  Tones const tones = FindTones(path, box);
  auto const [left, top, side] = FindInk(box, tones);
  auto const square_side = static_cast<unsigned int>(side);
  TensorPtr square = NewBytes({square_side, square_side, 1}, TensorShape::HWC, context);
  kernel::functional::F_Crop_U8_HWC_Memcpy(box, top, left, side, side, tones.paper, square);
  TensorPtr small = NewBytes({1, kSide, kSide}, TensorShape::CHW, context);
  TensorPtr small_pixels = context->device_cpu->CreateGray8TensorExternal(kSide, kSide, small->data);
  kernel::functional::F_Resize_Bilinear_HWC_U8_C1_Fallback(square, small_pixels);
  std::vector<float> const zeros(std::size_t{kSide} * kSide);
  auto const input = context->device_cpu->CreateF32CHWMainMem({1, kSide, kSide}, zeros.data());
  TensorPtr output = input;
  kernel::functional::F_Normalize_CHW_U8_To_CHW_F32_Fallback(
      small, PerChannel(tones.paper, context), PerChannel(1.0f / static_cast<float>(tones.ink - tones.paper), context),
      output);
  return input;
}

}  // namespace read_digits
