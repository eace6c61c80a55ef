#include "talvo/image/frame.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "talvo/image/bilinear_support.h"
#include "talvo/image/image_process_fallback.h"
#include "talvo/kernel/rows/pixels.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/utility/refuse_support.h"

namespace talvo {
namespace {

using kernel::image::Taps;
using runtime::TensorShape;
using utility::Refuse;
using Bytes = std::vector<unsigned char>;

constexpr unsigned int kMaximumSide = 65535;

bool IsSide(unsigned int extent) { return extent >= 1 && extent <= kMaximumSide; }

// One plane of a format: bytes of a pixel, and how many pixels of the frame stand for one of it along both axes.
struct PlaneForm {
  std::size_t pixel_bytes;
  unsigned int sampling;
};

std::vector<PlaneForm> FormsOf(FrameFormat format) {
  switch (format) {
    case FrameFormat::kNV21:
    case FrameFormat::kNV12:
      return {{1, 1}, {2, 2}};
    case FrameFormat::kI420:
      return {{1, 1}, {1, 2}, {1, 2}};
    case FrameFormat::kRGBA:
    case FrameFormat::kBGRA:
      return {{4, 1}};
    case FrameFormat::kRGB:
      return {{3, 1}};
  }
  Refuse("frame: the format %d does not exist", static_cast<int>(format));
}

std::size_t Sampled(unsigned int extent, unsigned int sampling) {
  return (std::size_t{extent} + sampling - 1) / sampling;
}

void CheckPlanes(Frame const& frame) {
  auto const forms = FormsOf(frame.format);
  if (!IsSide(frame.width) || !IsSide(frame.height))
    Refuse("frame: %u x %u pixels, a side has 1 to %u", frame.width, frame.height, kMaximumSide);
  for (std::size_t k = 0; k < forms.size(); ++k) {
    FramePlane const& plane = frame.planes[k];
    std::size_t const row = Sampled(frame.width, forms[k].sampling) * forms[k].pixel_bytes;
    std::size_t const rows = Sampled(frame.height, forms[k].sampling);
    if (plane.bytes == nullptr) Refuse("frame: plane %zu is null", k);
    if (plane.row_bytes < row) Refuse("frame: rows of plane %zu have %zu bytes, need %zu", k, plane.row_bytes, row);
    if (plane.size < row || (plane.size - row) / plane.row_bytes < rows - 1)
      Refuse("frame: plane %zu holds %zu bytes, %zu rows of %zu need more", k, plane.size, rows, plane.row_bytes);
  }
}

void CheckTarget(FrameTarget const& target) {
  if (!IsSide(target.width) || !IsSide(target.height))
    Refuse("frame: a tensor of %u x %u pixels, a side has 1 to %u", target.width, target.height, kMaximumSide);
  if (target.turn % 90 != 0 || target.turn > 270)
    Refuse("frame: a turn of %u degrees, needs 0, 90, 180 or 270", target.turn);
  if (target.colours != FrameColours::kRGB && target.colours != FrameColours::kBGR &&
      target.colours != FrameColours::kGray)
    Refuse("frame: the colours %d do not exist", static_cast<int>(target.colours));
  bool const whole = target.crop_width == 0 && target.crop_height == 0;
  if (!whole && (!IsSide(target.crop_width) || !IsSide(target.crop_height)))
    Refuse("frame: a crop of %u x %u pixels, a side has 1 to %u", target.crop_width, target.crop_height, kMaximumSide);
}

// A part of the frame as it lies in memory, and the extents that it is resized to before it is turned.
struct Part {
  double left, top;
  unsigned int width, height;
  unsigned int to_width, to_height;
};

Part PartOf(Frame const& frame, FrameTarget const& target) {
  bool const sideways = target.turn % 180 == 90;
  unsigned int const upright_width = sideways ? frame.height : frame.width,
                     upright_height = sideways ? frame.width : frame.height;
  bool const whole = target.crop_width == 0;
  unsigned int const width = whole ? upright_width : target.crop_width,
                     height = whole ? upright_height : target.crop_height;
  double const left = whole ? 0.0 : target.left, top = whole ? 0.0 : target.top;
  double const right = upright_width - left - width, bottom = upright_height - top - height;  // what lies beyond
  switch (target.turn) {
    case 90:
      return {top, right, height, width, target.height, target.width};
    case 180:
      return {right, bottom, width, height, target.width, target.height};
    case 270:
      return {bottom, left, height, width, target.height, target.width};
    default:
      return {left, top, width, height, target.width, target.height};
  }
}

// Plane k of the part, resized.
Bytes Resized(Frame const& frame, std::size_t k, Part const& part) {
  auto const [pixel_bytes, sampling] = FormsOf(frame.format)[k];
  auto const taps = [sampling = sampling](unsigned int extent, double first, unsigned int from, unsigned int to) {
    return Taps(Sampled(extent, sampling), to, kernel::image::Scale(from, to) / sampling, first / sampling);
  };
  Bytes small(std::size_t{part.to_width} * part.to_height * pixel_bytes);
  kernel::image::ResizeBilinear({frame.planes[k].bytes, frame.planes[k].row_bytes},
                                taps(frame.height, part.top, part.height, part.to_height),
                                taps(frame.width, part.left, part.width, part.to_width), pixel_bytes, small.data());
  return small;
}

bool HasLuminance(FrameFormat format) {
  return format == FrameFormat::kNV21 || format == FrameFormat::kNV12 || format == FrameFormat::kI420;
}

// Red, green and blue of the resized part, `pixels` bytes each.
void Colours(Frame const& frame, Part const& part, std::size_t pixels, unsigned char* r, unsigned char* g,
             unsigned char* b) {
  Bytes const first = Resized(frame, 0, part);
  if (!HasLuminance(frame.format)) {
    if (frame.format == FrameFormat::kBGRA) std::swap(r, b);
    auto const& split = frame.format == FrameFormat::kRGB ? kernel::rows::SplitThree : kernel::rows::SplitFour;
    return split(first.data(), pixels, r, g, b);
  }
  Bytes const second = Resized(frame, 1, part);
  if (frame.format == FrameFormat::kI420) {
    Bytes const third = Resized(frame, 2, part);
    return kernel::rows::SaturatedColours(first.data(), second.data(), third.data(), 1, pixels, r, g, b);
  }
  std::size_t const u = frame.format == FrameFormat::kNV21 ? 1 : 0;
  kernel::rows::SaturatedColours(first.data(), second.data() + u, second.data() + 1 - u, 2, pixels, r, g, b);
}

// The planes of the resized part, in the order of the tensor's channels.
Bytes Planes(Frame const& frame, FrameTarget const& target, Part const& part) {
  std::size_t const pixels = std::size_t{part.to_width} * part.to_height;
  bool const gray = target.colours == FrameColours::kGray;
  if (gray && HasLuminance(frame.format)) return Resized(frame, 0, part);
  Bytes planes(3 * pixels);
  unsigned char *const first = planes.data(), *const second = first + pixels, *const third = second + pixels;
  bool const reversed = target.colours == FrameColours::kBGR;
  Colours(frame, part, pixels, reversed ? third : first, second, reversed ? first : third);
  if (!gray) return planes;
  Bytes gray_plane(pixels);
  kernel::rows::GrayRow(first, second, third, pixels, gray_plane.data());
  return gray_plane;
}

// [channels, height, width], turned upright.
std::shared_ptr<runtime::Tensor> Upright(Bytes& planes, unsigned int channels, Part const& part,
                                         FrameTarget const& target, std::shared_ptr<runtime::Context> const& context) {
  runtime::DeviceCPU& device = *context->device_cpu;
  std::shared_ptr<runtime::Tensor> lying =
      device.CreateU8CHWMainMemExternal({channels, part.to_height, part.to_width}, planes.data());
  if (target.turn == 0) return lying;
  std::shared_ptr<runtime::Tensor> upright =
      device.CreateU8CHWMainMem({channels, target.height, target.width}, nullptr);
  kernel::ImageProcessFallback images;
  if (target.turn == 90) images.ClockwiseRotate90(lying, upright, context);
  if (target.turn == 180) images.ClockwiseRotate180(lying, upright, context);
  if (target.turn == 270) images.ClockwiseRotate270(lying, upright, context);
  return upright;
}

}  // namespace

Frame Frame::Packed(FrameFormat format, unsigned int width, unsigned int height, void const* bytes, std::size_t size) {
  Frame frame;
  frame.format = format, frame.width = width, frame.height = height;
  auto const* at = static_cast<unsigned char const*>(bytes);
  FramePlane* plane = frame.planes;
  for (auto const [pixel_bytes, sampling] : FormsOf(format)) {
    std::size_t const row_bytes = Sampled(width, sampling) * pixel_bytes;
    std::size_t const own = std::min(size, row_bytes * Sampled(height, sampling));
    *plane++ = {at, own, row_bytes};
    if (at != nullptr) at += own;
    size -= own;
  }
  return frame;
}

std::shared_ptr<runtime::TensorCPU> TensorFromFrame(Frame const& frame, FrameTarget const& target,
                                                    std::shared_ptr<runtime::Context> const& context) {
  CheckPlanes(frame);
  CheckTarget(target);
  if (context == nullptr || context->device_cpu == nullptr) Refuse("frame: there is no context with a CPU device");
  Part const part = PartOf(frame, target);
  unsigned int const channels = target.colours == FrameColours::kGray ? 1 : 3;
  auto const planar = context->device_cpu->CreateF32CHWMainMem({channels, target.height, target.width}, nullptr);
  Bytes planes = Planes(frame, target, part);
  auto const upright = Upright(planes, channels, part, target, context);
  std::size_t const pixels = std::size_t{target.width} * target.height;
  for (std::size_t c = 0; c < channels; ++c) {
    kernel::rows::NormaliseBytes(static_cast<unsigned char const*>(upright->data) + c * pixels, pixels, target.mean[c],
                                 target.scale[c], planar->Data<float>() + c * pixels);
  }
  if (!target.interleaved) return planar;
  TensorShape const shape({target.height, target.width, channels}, TensorShape::FLOAT32, TensorShape::HWC,
                          TensorShape::MainMemory, TensorShape::Extra());
  auto const interleaved = context->device_cpu->CreateTensor(shape, nullptr);
  std::shared_ptr<runtime::Tensor> from = planar, to = interleaved;
  kernel::ImageProcessFallback().CHW2HWC(from, to, context);
  return interleaved;
}

}  // namespace talvo
