#include "examples/read_digits/prepare.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>
#include <vector>

#include "talvo/image/frame.h"

namespace read_digits {
namespace {

using talvo::FrameTarget;
using TensorPtr = std::shared_ptr<talvo::runtime::TensorCPU>;
using ContextPtr = std::shared_ptr<talvo::runtime::Context>;

constexpr unsigned int kInkSide = 20;

// A part of the upright picture as a gray plane of `width` by `height`.
FrameTarget GrayPart(unsigned int turn, unsigned int width, unsigned int height) {
  FrameTarget target;
  target.colours = talvo::FrameColours::kGray;
  target.turn = turn;
  target.width = width, target.height = height;
  return target;
}

// What most of the rim shows is paper; ink is the gray farthest from it.
struct Tones {
  float paper, ink;
};

Tones FindTones(std::string const& path, TensorPtr const& box) {
  std::size_t const height = box->shape.dims[1], width = box->shape.dims[2];
  float const* const gray = box->Data<float>();
  std::vector<float> rim;
  for (std::size_t x = 0; x < width; ++x) rim.insert(rim.end(), {gray[x], gray[(height - 1) * width + x]});
  for (std::size_t y = 0; y < height; ++y) rim.insert(rim.end(), {gray[y * width], gray[y * width + width - 1]});
  std::nth_element(rim.begin(), rim.begin() + static_cast<std::ptrdiff_t>(rim.size() / 2), rim.end());
  float const paper = rim[rim.size() / 2];
  auto const [darkest, brightest] = std::minmax_element(gray, gray + height * width);
  float const ink = paper - *darkest > *brightest - paper ? *darkest : *brightest;
  if (std::fabs(ink - paper) < 32) throw std::runtime_error(path + ": the picture shows no ink");
  return {paper, ink};
}

// The square around the ink, in the box's pixels, of which the ink's longer side takes 20 of 28.
struct Square {
  int left, top, side;
};

Square FindInk(TensorPtr const& box, Tones const& tones) {
  auto const height = static_cast<int>(box->shape.dims[1]), width = static_cast<int>(box->shape.dims[2]);
  int left = width, top = height, right = 0, bottom = 0;
  float const* gray = box->Data<float>();
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      if (3 * std::fabs(*gray++ - tones.paper) < std::fabs(tones.ink - tones.paper)) continue;
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

void CheckBox(std::string const& path, Frame const& frame, View const& view) {
  bool const sideways = view.turn % 180 == 90;
  unsigned int const width = sideways ? frame.height : frame.width, height = sideways ? frame.width : frame.height;
  if (view.width == 0 || view.height == 0 || view.left > width || view.width > width - view.left || view.top > height ||
      view.height > height - view.top) {
    throw std::runtime_error(path + ": the box leaves the upright picture of " + std::to_string(width) + " by " +
                             std::to_string(height) + " pixels");
  }
}

}  // namespace

TensorPtr PrepareInput(std::string const& path, Frame const& frame, View const& view, ContextPtr const& context) {
  CheckBox(path, frame, view);
  auto const camera =
      talvo::Frame::Packed(talvo::FrameFormat::kNV21, frame.width, frame.height, frame.nv21.data(), frame.nv21.size());
  FrameTarget box = GrayPart(view.turn, view.width, view.height);  // pixel for pixel
  box.left = static_cast<int>(view.left), box.top = static_cast<int>(view.top);
  box.crop_width = view.width, box.crop_height = view.height;
  TensorPtr const gray = talvo::TensorFromFrame(camera, box, context);
  Tones const tones = FindTones(path, gray);
  Square const square = FindInk(gray, tones);
  FrameTarget digit = GrayPart(view.turn, kSide, kSide);
  digit.left = box.left + square.left, digit.top = box.top + square.top;
  digit.crop_width = digit.crop_height = static_cast<unsigned int>(square.side);
  digit.mean[0] = tones.paper, digit.scale[0] = 1.0f / (tones.ink - tones.paper);
  return talvo::TensorFromFrame(camera, digit, context);
}

}  // namespace read_digits
