#include "talvo/image/frame.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "tests/image/image_test_support.h"

namespace talvo::test {
namespace {

// A frame with gaps behind its rows; its bytes stand at the end of their memory, which the sanitizer watches.
struct Camera {
  Camera(FrameFormat format, unsigned int width, unsigned int height, std::size_t gap, std::uint32_t seed) {
    frame.format = format, frame.width = width, frame.height = height;
    bool const pixels = format == FrameFormat::kRGBA || format == FrameFormat::kBGRA || format == FrameFormat::kRGB;
    std::size_t const half_width = (width + 1) / 2, half_height = (height + 1) / 2;
    auto const add = [&](std::size_t row, std::size_t rows) {
      memory.push_back(Bytes(seed + static_cast<std::uint32_t>(memory.size()), (row + gap) * (rows - 1) + row));
      frame.planes[memory.size() - 1] = {memory.back().data(), memory.back().size(), row + gap};
    };
    memory.reserve(3);
    add(width * (pixels ? format == FrameFormat::kRGB ? 3 : 4 : 1), height);
    if (format == FrameFormat::kI420) add(half_width, half_height), add(half_width, half_height);
    if (format == FrameFormat::kNV21 || format == FrameFormat::kNV12) add(2 * half_width, half_height);
  }

  Frame frame;
  std::vector<ByteVector> memory;
};

// The plain form, one value at a time.
class Plain {
 public:
  Plain(Frame const& frame, FrameTarget const& target) : frame_(frame), target_(target) {
    bool const sideways = target.turn % 180 == 90;
    double const w = frame.width, h = frame.height, cw = target.crop_width, ch = target.crop_height;
    double const l = target.left, t = target.top;
    to_width_ = sideways ? target.height : target.width, to_height_ = sideways ? target.width : target.height;
    left_ = 0, top_ = 0, width_ = w, height_ = h;
    if (cw == 0) return;
    width_ = sideways ? ch : cw, height_ = sideways ? cw : ch;
    left_ = target.turn == 0 ? l : target.turn == 90 ? t : target.turn == 180 ? w - l - cw : w - t - ch;
    top_ = target.turn == 0 ? t : target.turn == 90 ? h - l - cw : target.turn == 180 ? h - t - ch : l;
  }

  float Value(std::size_t row, std::size_t column, std::size_t channel) const {
    std::size_t const below = target_.height - 1 - row, right = target_.width - 1 - column;
    std::size_t const y = target_.turn == 0 ? row : target_.turn == 90 ? right : target_.turn == 180 ? below : column;
    std::size_t const x = target_.turn == 0 ? column : target_.turn == 90 ? row : target_.turn == 180 ? right : below;
    return (static_cast<float>(Byte(y, x, channel)) - target_.mean[channel]) * target_.scale[channel];
  }

 private:
  int Byte(std::size_t y, std::size_t x, std::size_t channel) const {
    if (target_.colours != FrameColours::kGray)
      return Colour(y, x, target_.colours == FrameColours::kBGR ? 2 - channel : channel);
    if (frame_.format <= FrameFormat::kI420) return Sample(0, 1, 0, 1, y, x);
    return (77 * Colour(y, x, 0) + 150 * Colour(y, x, 1) + 29 * Colour(y, x, 2)) >> 8;
  }

  int Colour(std::size_t y, std::size_t x, std::size_t channel) const {
    if (frame_.format == FrameFormat::kRGB) return Sample(0, 3, channel, 1, y, x);
    if (frame_.format == FrameFormat::kRGBA) return Sample(0, 4, channel, 1, y, x);
    if (frame_.format == FrameFormat::kBGRA) return Sample(0, 4, 2 - channel, 1, y, x);
    bool const planar = frame_.format == FrameFormat::kI420;
    std::size_t const u_place = frame_.format == FrameFormat::kNV21 ? 1 : 0;
    int const luminance = Sample(0, 1, 0, 1, y, x);
    int const u = (planar ? Sample(1, 1, 0, 2, y, x) : Sample(1, 2, u_place, 2, y, x)) - 128;
    int const v = (planar ? Sample(2, 1, 0, 2, y, x) : Sample(1, 2, 1 - u_place, 2, y, x)) - 128;
    int const sums[] = {64 * luminance + 90 * v, 64 * luminance - 22 * u - 46 * v, 64 * luminance + 113 * u};
    return std::clamp(sums[channel] >> 6, 0, 255);
  }

  int Sample(std::size_t plane, std::size_t pixel_bytes, std::size_t byte, int sampling, std::size_t y,
             std::size_t x) const {
    auto const extent = [&](unsigned int side) {
      return (side + static_cast<std::size_t>(sampling) - 1) / static_cast<std::size_t>(sampling);
    };
    double const scale_y = height_ / static_cast<double>(to_height_), scale_x = width_ / static_cast<double>(to_width_);
    Tap const row = TapAt(y, extent(frame_.height), scale_y / sampling, top_ / sampling);
    Tap const column = TapAt(x, extent(frame_.width), scale_x / sampling, left_ / sampling);
    auto const line = [&](std::size_t r) {
      unsigned char const* const bytes = frame_.planes[plane].bytes + r * frame_.planes[plane].row_bytes + byte;
      return (bytes[column.first * pixel_bytes] * column.w0 + bytes[column.second * pixel_bytes] * column.w1) >> 4;
    };
    return (((line(row.first) * row.w0) >> 16) + ((line(row.second) * row.w1) >> 16) + 2) >> 2;
  }

  Frame const& frame_;
  FrameTarget const& target_;
  std::size_t to_width_, to_height_;
  double left_, top_, width_, height_;
};

class CameraFrame : public ImageTest {};
INSTANTIATE_TEST_SUITE_P(Sets, CameraFrame, kEverySet);

TEST_P(CameraFrame, IsThePlainFormForEveryFormatTurnCropAndOrder) {
  for (std::uint32_t i = 0; i < 240; ++i) {
    auto const pick = [&](std::uint32_t k, unsigned int from, unsigned int to) { return Size(9 * i + k, from, to); };
    Camera const camera(static_cast<FrameFormat>(i % 6), pick(0, 1, 40), pick(1, 1, 40), pick(2, 0, 3), i);
    FrameTarget target;
    target.width = pick(3, 1, 50), target.height = pick(4, 1, 50), target.turn = i / 6 % 4 * 90;
    target.colours = static_cast<FrameColours>(i / 24 % 3), target.interleaved = i % 5 == 0;
    if (i % 3 != 0) {
      target.left = static_cast<int>(pick(5, 0, 50)) - 10, target.top = static_cast<int>(pick(6, 0, 50)) - 10;
      target.crop_width = pick(7, 1, 50), target.crop_height = pick(8, 1, 50);
    }
    for (std::size_t c = 0; c < 3; ++c)
      target.mean[c] = 100.0f + static_cast<float>(c), target.scale[c] = 0.25f / static_cast<float>(c + 1);
    auto const tensor = TensorFromFrame(camera.frame, target, context_);
    std::size_t const channels = target.colours == FrameColours::kGray ? 1 : 3;
    auto const depth = static_cast<unsigned int>(channels);
    EXPECT_EQ(tensor->shape.dims, target.interleaved ? Dims({target.height, target.width, depth})
                                                     : Dims({depth, target.height, target.width}));
    Plain const plain(camera.frame, target);
    std::size_t differing = 0;
    for (std::size_t y = 0; y < target.height; ++y)
      for (std::size_t x = 0; x < target.width; ++x)
        for (std::size_t c = 0; c < channels; ++c) {
          std::size_t const at =
              target.interleaved ? (y * target.width + x) * channels + c : (c * target.height + y) * target.width + x;
          differing += tensor->Data<float>()[at] != plain.Value(y, x, c);
        }
    EXPECT_EQ(differing, 0u) << i;
  }
}

TEST_P(CameraFrame, IsRefusedWithTheNumbers) {
  ByteVector const bytes = Bytes(1, 12);
  FrameTarget target;
  target.width = target.height = 2;
  auto const refusal = [&](Frame const& frame, FrameTarget const& wanted) {
    LogCapture const quiet;
    return RefusalOf([&] { TensorFromFrame(frame, wanted, context_); });
  };
  auto const packed = [&](unsigned int width, unsigned int height, std::size_t size) {
    return Frame::Packed(FrameFormat::kNV21, width, height, bytes.data(), size);
  };
  EXPECT_EQ(TensorFromFrame(packed(2, 4, 12), target, context_)->shape.dims, Dims({3, 2, 2}));
  EXPECT_EQ(refusal(packed(2, 4, 11), target), Report("frame: plane 1 holds 3 bytes, 2 rows of 2 need more"));
  EXPECT_EQ(refusal(packed(0, 4, 12), target), Report("frame: 0 x 4 pixels, a side has 1 to 65535"));
  EXPECT_EQ(refusal(Frame::Packed(FrameFormat::kRGB, 2, 2, nullptr, 12), target), Report("frame: plane 0 is null"));
  Frame narrow = packed(2, 4, 12);
  narrow.planes[1].row_bytes = 1;
  EXPECT_EQ(refusal(narrow, target), Report("frame: rows of plane 1 have 1 bytes, need 2"));
  auto const with = [&](auto const& change) {
    FrameTarget changed = target;
    change(changed);
    return refusal(packed(2, 4, 12), changed);
  };
  EXPECT_EQ(with([](FrameTarget& t) { t.turn = 45; }), Report("frame: a turn of 45 degrees, needs 0, 90, 180 or 270"));
  EXPECT_EQ(with([](FrameTarget& t) { t.height = 65536; }),
            Report("frame: a tensor of 2 x 65536 pixels, a side has 1 to 65535"));
  EXPECT_EQ(with([](FrameTarget& t) { t.crop_width = 1; }),
            Report("frame: a crop of 1 x 0 pixels, a side has 1 to 65535"));
  EXPECT_EQ(with([](FrameTarget& t) { t.colours = static_cast<FrameColours>(3); }),
            Report("frame: the colours 3 do not exist"));
  LogCapture const quiet;
  EXPECT_EQ(RefusalOf([&] { TensorFromFrame(packed(2, 4, 12), target, nullptr); }),
            Report("frame: there is no context with a CPU device"));
}

}  // namespace
}  // namespace talvo::test
