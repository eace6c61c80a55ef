// Free conversions of 8-bit YUV frames to RGB planes, with the coefficients of the caller.
#pragma once

#include <memory>

#include "talvo/runtime/tensor.h"
#include "talvo/utility/export.h"

namespace talvo::kernel {

/// Gains and offsets of a conversion from YUV. a and b are the first and the second chrominance value.
struct YUVCvtMatrix {
  float m0;          // gain of the luminance, in all planes
  float m1, m2;      // gains of a and b for the first plane
  float m3, m4;      // ... for the second plane
  float m5, m6;      // ... for the third plane
  float m7, m8, m9;  // offsets of luminance, a and b, as shares of 256
};

}  // namespace talvo::kernel

namespace talvo::kernel::functional {

using kernel::YUVCvtMatrix;
using runtime::Tensor;

// i_luminancePlane [H, W, ...], H and W even, chrominance with one sample for each 2 x 2 block: interleaved pairs
// [H / 2, W / 2, 2], or two planes [H / 2, W / 2]. o_img CHW, three planes. All UINT8 in main memory. Gains become
// integers of 1/32, offsets integers, truncated and cut to their low 16 bits; each sum is shifted right by 5 and stored
// with wrap-around. Assert, in this order, with "... must be a ..." or "Shapes of ...": place and type of each plane,
// the matrix, layout, type and place of o_img, extents of the planes, CPU tensors (null earlier, where its place would
// be read); then, with numbers, memory that is too small.
TALVO_API void F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8_Fallback(std::shared_ptr<Tensor> const& i_luminancePlane,
                                                                 std::shared_ptr<Tensor> const& i_chrominancePlane,
                                                                 std::shared_ptr<YUVCvtMatrix> const& i_cvtMat,
                                                                 std::shared_ptr<Tensor>& o_img);
TALVO_API void F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8_Arm(std::shared_ptr<Tensor> const& i_luminancePlane,
                                                            std::shared_ptr<Tensor> const& i_chrominancePlane,
                                                            std::shared_ptr<YUVCvtMatrix> const& i_cvtMat,
                                                            std::shared_ptr<Tensor>& o_img);
TALVO_API void F_ColorCvt_YUV_3Plane_UInt8_To_CHW_UInt8_Fallback(std::shared_ptr<Tensor> const& i_luminancePlane,
                                                                 std::shared_ptr<Tensor> const& i_chrominanceBPlane,
                                                                 std::shared_ptr<Tensor> const& i_chrominanceRPlane,
                                                                 std::shared_ptr<YUVCvtMatrix> const& i_cvtMat,
                                                                 std::shared_ptr<Tensor>& o_img);
TALVO_API void F_ColorCvt_YUV_3Plane_UInt8_To_CHW_UInt8_Arm(std::shared_ptr<Tensor> const& i_luminancePlane,
                                                            std::shared_ptr<Tensor> const& i_chrominanceBPlane,
                                                            std::shared_ptr<Tensor> const& i_chrominanceRPlane,
                                                            std::shared_ptr<YUVCvtMatrix> const& i_cvtMat,
                                                            std::shared_ptr<Tensor>& o_img);

// Refuse every call with "Not Implemented.".
TALVO_API void F_ColorCvt_NV21_To_RGB_CHW_UInt8_Arm(std::shared_ptr<Tensor> const& i_luminancePlane,
                                                    std::shared_ptr<Tensor> const& i_chrominancePlane,
                                                    std::shared_ptr<YUVCvtMatrix> const& i_cvtMat,
                                                    std::shared_ptr<Tensor>& o_img);
TALVO_API void F_ColorCvt_NV12_To_RGB_CHW_UInt8_Arm(std::shared_ptr<Tensor> const& i_luminancePlane,
                                                    std::shared_ptr<Tensor> const& i_chrominancePlane,
                                                    std::shared_ptr<YUVCvtMatrix> const& i_cvtMat,
                                                    std::shared_ptr<Tensor>& o_img);

}  // namespace talvo::kernel::functional
