// From a camera frame to the input of a network in one call: crop, resize, turn upright, colours, normalisation.
#pragma once

#include <cstddef>
#include <memory>

#include "talvo/runtime/context.h"
#include "talvo/runtime/tensor_cpu.h"
#include "talvo/utility/export.h"

namespace talvo {

/// What the planes of a frame hold. Chrominance stands once for each 2 by 2 pixels, an odd row or column having its
/// own.
enum class FrameFormat {
  kNV21,  // Y, then pairs of V, U
  kNV12,  // Y, then pairs of U, V
  kI420,  // Y, U, V
  kRGBA,  // one plane of interleaved pixels
  kBGRA,
  kRGB,
};

/// Rows that stand `row_bytes` apart in `size` bytes of the application, which outlive the call.
struct FramePlane {
  unsigned char const* bytes = nullptr;
  std::size_t size = 0, row_bytes = 0;
};

/// A frame as the camera gives it, in pixels; a side has 1 to 65535. A format of one plane leaves the others empty.
struct TALVO_API Frame {
  /// A frame whose rows and planes follow each other without a gap; too small a size is refused where the frame is
  /// used.
  static Frame Packed(FrameFormat format, unsigned int width, unsigned int height, void const* bytes, std::size_t size);

  FrameFormat format = FrameFormat::kNV21;
  unsigned int width = 0, height = 0;
  FramePlane planes[3];
};

enum class FrameColours { kRGB, kBGR, kGray };  // order of the tensor's channels

/// What a network takes.
struct FrameTarget {
  unsigned int width = 0, height = 0;  // of the tensor, 1 to 65535 each
  FrameColours colours = FrameColours::kRGB;
  bool interleaved = false;                                           // HWC [height, width, channels], not CHW
  float mean[3] = {0.0f, 0.0f, 0.0f}, scale[3] = {1.0f, 1.0f, 1.0f};  // a channel is (byte - mean) * scale
  unsigned int turn = 0;  // degrees clockwise that bring the frame upright: 0, 90, 180 or 270
  /// The part of the upright picture that is taken; without an extent the whole. Its outermost samples blend with the
  /// pixels of the picture around it; where it leaves the picture, the picture's border goes on.
  int left = 0, top = 0;
  unsigned int crop_width = 0, crop_height = 0;  // both or none, up to 65535
};

/// A FLOAT32 tensor of `context`. Bilinear with aligned centres, as the image operations resize, on luminance and
/// chrominance where the frame has these; colours then saturate at 0 and 255, where ImageProcess wraps around. Gray is
/// the luminance, or (77 r + 150 g + 29 b) >> 8. Assert, with "frame: " and the numbers: planes that are missing or too
/// small, extents, turns and colours out of range, no context.
TALVO_API std::shared_ptr<runtime::TensorCPU> TensorFromFrame(Frame const& frame, FrameTarget const& target,
                                                              std::shared_ptr<runtime::Context> const& context);

}  // namespace talvo
