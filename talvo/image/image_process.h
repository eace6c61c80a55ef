// The image operations behind one class: an abstract operation for each, and a dispatcher that turns a numeric code
// into a call of one of them. Images are tensors in main memory; the caller makes `dst`, nothing here allocates one.
#pragma once

#include <memory>

#include "talvo/runtime/context.h"
#include "talvo/runtime/tensor.h"
#include "talvo/utility/export.h"

namespace talvo::kernel {

using runtime::Context;
using runtime::Tensor;

/// H rows of W pixels. Interleaved frames are HWC with dims H, W, C; planar ones CHW with dims C, H, W.
/// ImageProcessFallback says what each operation does. No operation uses its context, which may be null.
class TALVO_API ImageProcess {
 public:
  virtual ~ImageProcess();

  virtual void ConvertRGBAtoRGB(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                                std::shared_ptr<Context> context) = 0;
  virtual void ConvertRGBtoBGR(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                               std::shared_ptr<Context> context) = 0;
  virtual void ConvertRGBAtoBGR(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                                std::shared_ptr<Context> context) = 0;
  virtual void ConvertYUV2RGB_NV21(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                                   std::shared_ptr<Context> context) = 0;
  virtual void ConvertYUV2RGB_NV12(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                                   std::shared_ptr<Context> context) = 0;
  virtual void ConvertYUV2RGB_IYUV(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                                   std::shared_ptr<Context> context) = 0;
  virtual void ConvertRGB2Gray(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                               std::shared_ptr<Context> context) = 0;
  virtual void ConvertRGBA2Gray(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                                std::shared_ptr<Context> context) = 0;
  virtual void ConvertBGR2Gray(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                               std::shared_ptr<Context> context) = 0;
  virtual void ClockwiseRotate90(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                                 std::shared_ptr<Context> context) = 0;
  virtual void ClockwiseRotate180(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                                  std::shared_ptr<Context> context) = 0;
  virtual void ClockwiseRotate270(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                                  std::shared_ptr<Context> context) = 0;
  virtual void Flip_Horizintal(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                               std::shared_ptr<Context> context) = 0;
  virtual void Flip_Vertical(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                             std::shared_ptr<Context> context) = 0;
  virtual void Affine_Unimplemented(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst, float const* matrix,
                                    std::shared_ptr<Context> context) = 0;
  virtual void Affine_Float(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst, float const* matrix,
                            std::shared_ptr<Context> context) = 0;
  virtual void Affine_INV_Float(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst, float const* matrix,
                                std::shared_ptr<Context> context) = 0;
  virtual void Affine_INV_BILINEAR_Float(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                                         float const* matrix, std::shared_ptr<Context> context) = 0;
  virtual void Affine_INV_Unimplemented(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst, float const* matrix,
                                        std::shared_ptr<Context> context) = 0;
  virtual void HWC2CHW(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                       std::shared_ptr<Context> context) = 0;
  virtual void CHW2HWC(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                       std::shared_ptr<Context> context) = 0;
  virtual void Convert8U_To_32F(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                                std::shared_ptr<Context> context) = 0;
  virtual void Crop_C1(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst, float left, float top, float right,
                       float bottom, std::shared_ptr<Context> context) = 0;
  virtual void Crop_C2(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst, float left, float top, float right,
                       float bottom, std::shared_ptr<Context> context) = 0;
  virtual void Crop_C3(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst, float left, float top, float right,
                       float bottom, std::shared_ptr<Context> context) = 0;
  virtual void Crop_C4(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst, float left, float top, float right,
                       float bottom, std::shared_ptr<Context> context) = 0;
  virtual void Resize_Nearest_C1(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                                 std::shared_ptr<Context> context) = 0;
  virtual void Resize_Bilinear_C1(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                                  std::shared_ptr<Context> context) = 0;
  virtual void Resize_Bilinear_C2(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                                  std::shared_ptr<Context> context) = 0;
  virtual void Resize_Bilinear_C3(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                                  std::shared_ptr<Context> context) = 0;
  virtual void Resize_Bilinear_C4(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                                  std::shared_ptr<Context> context) = 0;
  virtual void Crop_Resize_Nearest_C1(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst, float left, float top,
                                      float right, float bottom, std::shared_ptr<Context> context) = 0;
  virtual void Crop_Resize_Nearest_C2(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst, float left, float top,
                                      float right, float bottom, std::shared_ptr<Context> context) = 0;
  virtual void Crop_Resize_Nearest_C3(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst, float left, float top,
                                      float right, float bottom, std::shared_ptr<Context> context) = 0;
  virtual void Crop_Resize_Nearest_C4(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst, float left, float top,
                                      float right, float bottom, std::shared_ptr<Context> context) = 0;

  /// Calls the operation of `code`; any other code does nothing.
  ///   1 ConvertRGBAtoRGB     22 ConvertYUV2RGB_NV12   53 Flip_Horizintal     77 Resize_Nearest_C1
  ///   3 ConvertRGBAtoBGR     24 ConvertYUV2RGB_NV21   54 Flip_Vertical       81 Resize_Bilinear_C1
  ///   4 ConvertRGBtoBGR      32 ConvertYUV2RGB_IYUV   60 HWC2CHW             82 Resize_Bilinear_C2
  ///   6 ConvertBGR2Gray      50 ClockwiseRotate90     61 CHW2HWC             83 Resize_Bilinear_C3
  ///   7 ConvertRGB2Gray      51 ClockwiseRotate180    65 Convert8U_To_32F    84 Resize_Bilinear_C4
  ///  11 ConvertRGBA2Gray     52 ClockwiseRotate270
  void ConvertPixel(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst, int code,
                    std::shared_ptr<Context> context);
  /// 85 to 88 call Crop_Resize_Nearest_C1 to _C4, 100 to 103 Crop_C1 to _C4; any other code does nothing. A `src` that
  /// is not UINT8 ends the process, whatever the code. Assert: a null `src`.
  void ConvertPixel(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst, float a, float b, float c, float d,
                    int code, std::shared_ptr<Context> context);
  /// 55 to 58 call Affine_Unimplemented, Affine_Float, Affine_INV_Float, Affine_INV_BILINEAR_Float; any other code does
  /// nothing.
  void ConvertPixel(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst, float const* matrix, int code,
                    std::shared_ptr<Context> context);
};

}  // namespace talvo::kernel
