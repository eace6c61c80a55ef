// The portable implementation of the image operations. The free functions beside it (color.h, yuv.h, rotate_flip.h,
// resize.h, crop.h, normalise.h, warp.h) have rules of their own: a free counterpart may give different pixels.
#pragma once

#include <memory>

#include "talvo/image/image_process.h"
#include "talvo/utility/export.h"

namespace talvo::kernel {

/// Images are UINT8 unless told otherwise, and `src` and `dst` do not overlap. Every operation refuses through Assert a
/// null tensor and one whose memory or rank is too small for what it would touch, after the refusals told below.
class TALVO_API ImageProcessFallback : public ImageProcess {
 public:
  ~ImageProcessFallback() override;

  // Colour copies: `dst` is planar, three planes of dims[1] * dims[2] pixels. A `dst` of a rank other than 3 ends the
  // process.

  /// Plane k gets byte k of each 4-byte pixel. Assert: `dst` is not CHW.
  void ConvertRGBAtoRGB(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                        std::shared_ptr<Context> context) override;
  /// Planes in reverse order, from the planes of a CHW `src`, otherwise from 3-byte pixels.
  void ConvertRGBtoBGR(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                       std::shared_ptr<Context> context) override;
  /// Planes 0, 1, 2 get bytes 2, 1, 0 of each 4-byte pixel. Assert: `dst` is not CHW.
  void ConvertRGBAtoBGR(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                        std::shared_ptr<Context> context) override;

  // A whole frame of H * W luminance bytes, then chrominance, one pair for each 2 x 2 block, to three planes. H and W
  // are dims[0] and dims[1] of `src`, whose memory is trusted to hold 1.5 * H * W bytes. With u, v less 128: (64 y + 90
  // v) >> 6, (64 y - 22 u - 46 v) >> 6, (64 y + 113 u) >> 6, which wrap around as bytes. Nothing happens for a `dst`
  // that is not CHW, a place other than main memory, or extents that are odd or 0.

  /// Chrominance rows of V, U pairs.
  void ConvertYUV2RGB_NV21(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                           std::shared_ptr<Context> context) override;
  /// Chrominance rows of U, V pairs.
  void ConvertYUV2RGB_NV12(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                           std::shared_ptr<Context> context) override;
  /// A plane of U, then a plane of V.
  void ConvertYUV2RGB_IYUV(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                           std::shared_ptr<Context> context) override;

  // (77 r + 150 g + 29 b) >> 8 for dims[1] * dims[2] pixels of `dst`, from HWC pixels or CHW planes; another layout of
  // `src` does nothing. Assert: `dst` is not CHW.

  void ConvertRGB2Gray(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                       std::shared_ptr<Context> context) override;
  void ConvertRGBA2Gray(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                        std::shared_ptr<Context> context) override;
  void ConvertBGR2Gray(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                       std::shared_ptr<Context> context) override;

  // Rotations and flips of CHW or HWC images; another layout of `dst` does nothing. H, W, C are those of `src`. Below,
  // where the pixel (y, x) goes. Assert: layouts that differ.

  /// To (x, H - 1 - y) of a W x H image.
  void ClockwiseRotate90(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                         std::shared_ptr<Context> context) override;
  /// To (H - 1 - y, W - 1 - x).
  void ClockwiseRotate180(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                          std::shared_ptr<Context> context) override;
  /// To (W - 1 - x, y) of a W x H image.
  void ClockwiseRotate270(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                          std::shared_ptr<Context> context) override;
  /// To (y, W - 1 - x).
  void Flip_Horizintal(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                       std::shared_ptr<Context> context) override;
  /// To (H - 1 - y, x).
  void Flip_Vertical(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                     std::shared_ptr<Context> context) override;

  // Affine warps of CHW images in pixel coordinates: u = m0 x + m1 y + m2, v = m3 x + m4 y + m5 in float32. A position
  // that is NaN or no int counts as outside; pixels that nothing reaches keep their value. The nearest forms move 32
  // bits for each element, whatever its size. Assert: `src` is not CHW, a null matrix, a move past the end of a tensor.

  /// Refuses every call.
  void Affine_Unimplemented(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst, float const* matrix,
                            std::shared_ptr<Context> context) override;
  /// Forward: the pixel (x, y) of `src` goes to (int)(u + 0.5), (int)(v + 0.5) of `dst`.
  void Affine_Float(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst, float const* matrix,
                    std::shared_ptr<Context> context) override;
  /// Inverse: the pixel (x, y) of `dst` comes from (int)(u + 0.5), (int)(v + 0.5) of `src`.
  void Affine_INV_Float(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst, float const* matrix,
                        std::shared_ptr<Context> context) override;
  /// Inverse and bilinear, to FLOAT32. The last row and column of `src` are neighbours only.
  void Affine_INV_BILINEAR_Float(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst, float const* matrix,
                                 std::shared_ptr<Context> context) override;
  /// Refuses every call; no code leads here.
  void Affine_INV_Unimplemented(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst, float const* matrix,
                                std::shared_ptr<Context> context) override;

  /// dst[c, y, x] = src[y, x, c], UINT8 or FLOAT32, with the extents of `dst`. Assert: `dst` is not CHW, another type.
  void HWC2CHW(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst, std::shared_ptr<Context> context) override;
  /// dst[y, x, c] = src[c, y, x], UINT8 or FLOAT32, with the extents of `dst`. Assert: `dst` is not HWC, another type.
  void CHW2HWC(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst, std::shared_ptr<Context> context) override;
  /// Each byte as a float of the same value; three axes. Assert: `src` is not UINT8.
  void Convert8U_To_32F(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                        std::shared_ptr<Context> context) override;

  // Copies the rows (int)(top * H) to (int)(bottom * H) and the columns (int)(left * W) to (int)(right * W), both ends
  // included, as far as they lie in `src`. A row of `dst` is as long as that span, whatever its dims say; the rest
  // keeps its bytes. Assert: shares that are NaN or beyond int.

  void Crop_C1(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst, float left, float top, float right,
               float bottom, std::shared_ptr<Context> context) override;
  void Crop_C2(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst, float left, float top, float right,
               float bottom, std::shared_ptr<Context> context) override;
  void Crop_C3(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst, float left, float top, float right,
               float bottom, std::shared_ptr<Context> context) override;
  void Crop_C4(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst, float left, float top, float right,
               float bottom, std::shared_ptr<Context> context) override;

  // Resize with aligned centres, of FLEXIABLE tensors (Assert: others). An output without pixels stays as it is; a
  // source without pixels is refused.

  /// H and W are dims[0] and dims[1].
  void Resize_Nearest_C1(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                         std::shared_ptr<Context> context) override;
  /// H and W are dims[1] and dims[2]: the images have three axes, the first being 1.
  void Resize_Bilinear_C1(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                          std::shared_ptr<Context> context) override;
  // H and W are dims[0] and dims[1].
  void Resize_Bilinear_C2(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                          std::shared_ptr<Context> context) override;
  void Resize_Bilinear_C3(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                          std::shared_ptr<Context> context) override;
  void Resize_Bilinear_C4(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                          std::shared_ptr<Context> context) override;

  // Nearest resize of the same span of shares as Crop, of FLEXIABLE tensors (Assert: others). Pixels whose source lies
  // outside keep their bytes.

  void Crop_Resize_Nearest_C1(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst, float left, float top,
                              float right, float bottom, std::shared_ptr<Context> context) override;
  /// Does nothing, whatever it is given.
  void Crop_Resize_Nearest_C2(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst, float left, float top,
                              float right, float bottom, std::shared_ptr<Context> context) override;
  void Crop_Resize_Nearest_C3(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst, float left, float top,
                              float right, float bottom, std::shared_ptr<Context> context) override;
  void Crop_Resize_Nearest_C4(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst, float left, float top,
                              float right, float bottom, std::shared_ptr<Context> context) override;
};

}  // namespace talvo::kernel
