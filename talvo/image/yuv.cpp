#include "talvo/image/yuv.h"

#include <algorithm>
#include <cstdint>

#include "talvo/image/image_process_fallback.h"
#include "talvo/image/image_support.h"
#include "talvo/image/yuv_rows_support.h"
#include "talvo/kernel/rows/pixels.h"
#include "talvo/kernel/rows/saturate.h"

namespace talvo::kernel {
namespace {

using namespace image;

// One frame: luminance [H, W], and two chrominance values for each 2 x 2 block, `step` bytes from one block to the
// next.
struct Frame {
  std::size_t height, width;
  unsigned char const* luminance;
  unsigned char const* a;
  unsigned char const* b;
  std::size_t step;
};

// Both conversions walk the frame in bands of two rows: the chrominance part of each plane is worked out once for a
// block, as a `Term` for both of its columns, and then joined with the luminance of both rows. An Algorithm gives
//   Chrominance(plane, a, b, step, blocks, terms)   the parts of a row of blocks, two equal terms for each
//   Join(luminance, terms, columns, to)             the bytes of a row of pixels

template <class Algorithm>
void ConvertFrame(Frame const& frame, Algorithm const& algorithm, Planes const& planes) {
  constexpr std::size_t kBlock = 2048;  // columns whose luminance and terms stay in the first cache
  typename Algorithm::Term terms[kBlock];
  std::size_t const w = frame.width, chrominance_row = w / 2 * frame.step;
  for (std::size_t y = 0; y < frame.height; y += 2) {
    for (std::size_t x = 0; x < w; x += kBlock) {
      std::size_t const columns = std::min(kBlock, w - x), pixel = y * w + x;
      std::size_t const block = y / 2 * chrominance_row + x / 2 * frame.step;
      for (std::size_t k = 0; k < planes.size(); ++k) {
        algorithm.Chrominance(k, frame.a + block, frame.b + block, frame.step, columns / 2, terms);
        algorithm.Join(frame.luminance + pixel, terms, columns, planes[k] + pixel);
        algorithm.Join(frame.luminance + pixel + w, terms, columns, planes[k] + pixel + w);
      }
    }
  }
}

// The class's fixed coefficients, a = U and b = V. As bytes wrap, (64 y + k) >> 6 = y + (k >> 6): the term is a byte.
struct ClassAlgorithm {
  using Term = unsigned char;

  void Chrominance(std::size_t plane, unsigned char const* a, unsigned char const* b, std::size_t step,
                   std::size_t blocks, Term* terms) const {
    constexpr std::int16_t kU[] = {0, -22, 113}, kV[] = {90, -46, 0};
    rows::ChrominanceBytes(a, b, step, kU[plane], kV[plane], blocks, terms);
  }
  void Join(unsigned char const* luminance, Term const* terms, std::size_t columns, unsigned char* to) const {
    rows::AddBytes(luminance, terms, columns, to);
  }
};

enum class Order { kUV, kVU, kUThenV };

void ConvertClassFrame(char const* operation, TensorPtr const& source, TensorPtr const& destination, Order order) {
  Argument const src(operation, "src", source), dst(operation, "dst", destination);
  if (dst.shape().layout != TensorShape::CHW || src.shape().location != TensorShape::MainMemory ||
      dst.shape().location != TensorShape::MainMemory) {
    return;
  }
  std::size_t const h = src.Extent(0), w = src.Extent(1);
  // Chrominance stands for blocks of 2 x 2: a frame that has half of one is left alone.
  if (h % 2 != 0 || w % 2 != 0 || h == 0 || w < 2) return;
  Planes const planes = ThreePlanes(dst, Volume(h, w));
  // A tensor of H x W x 1 holds the frame's 1.5 H W bytes behind its dims: the operations of the class trust that, and
  // see only that there is memory.
  auto const* const luminance = src.tensor().Data<unsigned char>();
  if (luminance == nullptr) Refuse("%s: src has no memory", operation);
  auto const* const chrominance = luminance + h * w;
  if (order == Order::kUThenV) {
    return ConvertFrame({h, w, luminance, chrominance, chrominance + h * w / 4, 1}, ClassAlgorithm(), planes);
  }
  std::size_t const u = order == Order::kUV ? 0 : 1;
  ConvertFrame({h, w, luminance, chrominance + u, chrominance + (1 - u), 2}, ClassAlgorithm(), planes);
}

}  // namespace

void ImageProcessFallback::ConvertYUV2RGB_NV21(TensorPtr& src, TensorPtr& dst, ContextPtr) {
  ConvertClassFrame("ConvertYUV2RGB_NV21", src, dst, Order::kVU);
}

void ImageProcessFallback::ConvertYUV2RGB_NV12(TensorPtr& src, TensorPtr& dst, ContextPtr) {
  ConvertClassFrame("ConvertYUV2RGB_NV12", src, dst, Order::kUV);
}

void ImageProcessFallback::ConvertYUV2RGB_IYUV(TensorPtr& src, TensorPtr& dst, ContextPtr) {
  ConvertClassFrame("ConvertYUV2RGB_IYUV", src, dst, Order::kUThenV);
}

}  // namespace talvo::kernel

namespace talvo::kernel::functional {
namespace {

using MatrixPtr = std::shared_ptr<YUVCvtMatrix>;

// The caller's coefficients, fixed-point with 5 fractional bits. A byte is bits 5 to 12 of its sum, so that sums and
// products modulo 2^16 have all that counts.
struct MatrixAlgorithm {
  using Term = std::uint16_t;

  explicit MatrixAlgorithm(YUVCvtMatrix const& m)
      : y_gain(Fixed(m.m0, 32)),
        a_gain{Fixed(m.m1, 32), Fixed(m.m3, 32), Fixed(m.m5, 32)},
        b_gain{Fixed(m.m2, 32), Fixed(m.m4, 32), Fixed(m.m6, 32)},
        y_offset(Fixed(m.m7, 256)),
        a_offset(Fixed(m.m8, 256)),
        b_offset(Fixed(m.m9, 256)) {}

  static Term Fixed(float value, float scale) {
    return static_cast<Term>(rows::Saturated<std::int32_t>(value * scale));
  }
  void Chrominance(std::size_t plane, unsigned char const* a, unsigned char const* b, std::size_t step,
                   std::size_t blocks, Term* terms) const {
    ChrominanceTerms({a, a_offset, a_gain[plane]}, {b, b_offset, b_gain[plane]}, step, blocks, terms);
  }
  void Join(unsigned char const* luminance, Term const* terms, std::size_t columns, unsigned char* to) const {
    JoinTerms({luminance, y_offset, y_gain}, terms, columns, to);
  }

  Term y_gain, a_gain[3], b_gain[3], y_offset, a_offset, b_offset;
};

// Place and type come before the question what kind of tensor it is.
void ValidatePlane(Argument const& plane) {
  plane.ValidateSet(Argument::kMustBeTensorCPU);
  plane.ValidateMainMemory();
  plane.ValidateType(TensorShape::UINT8, "UInt8");
}

void ValidateMatrixAndOutput(MatrixPtr const& matrix, Argument const& output) {
  if (matrix == nullptr) Refuse("i_cvtMat must be a vaild shared pointer.");
  output.ValidateSet(Argument::kMustBeTensorCPU);
  output.ValidateLayout(TensorShape::CHW, "CHW");
  output.ValidateType(TensorShape::UINT8, "UInt8");
  output.ValidateMainMemory();
}

void ValidateHalfExtents(Argument const& luminance, Argument const& chrominance, char const* name) {
  for (std::size_t axis = 0; axis < 2; ++axis) {
    if (chrominance.Extent(axis) * 2 != luminance.Extent(axis)) {
      Refuse("Shapes of Luminance Plane and %s Plane mismatched.", name);
    }
  }
}

void TwoPlanes(char const* function, TensorPtr const& i_luminancePlane, TensorPtr const& i_chrominancePlane,
               MatrixPtr const& i_cvtMat, TensorPtr const& o_img) {
  Argument const luminance(function, "i_luminancePlane", i_luminancePlane);
  Argument const chrominance(function, "i_chrominancePlane", i_chrominancePlane), output(function, "o_img", o_img);
  ValidatePlane(luminance);
  ValidatePlane(chrominance);
  ValidateMatrixAndOutput(i_cvtMat, output);
  ValidateHalfExtents(luminance, chrominance, "Chrominance");
  for (auto const* const argument : {&luminance, &chrominance, &output}) argument->ValidateTensorCPU();
  std::size_t const h = luminance.Extent(0), w = luminance.Extent(1);
  if (h == 0 || w == 0) return;
  auto const* const y = luminance.Memory(Volume(h, w));
  auto const* const ab = chrominance.Memory(Volume(h / 2, w / 2, 2));
  ConvertFrame({h, w, y, ab, ab + 1, 2}, MatrixAlgorithm(*i_cvtMat), ThreePlanes(output, Volume(h, w)));
}

void ThreePlaneFrame(char const* function, TensorPtr const& i_luminancePlane, TensorPtr const& i_chrominanceBPlane,
                     TensorPtr const& i_chrominanceRPlane, MatrixPtr const& i_cvtMat, TensorPtr const& o_img) {
  Argument const luminance(function, "i_luminancePlane", i_luminancePlane);
  Argument const first(function, "i_chrominanceBPlane", i_chrominanceBPlane);
  Argument const second(function, "i_chrominanceRPlane", i_chrominanceRPlane), output(function, "o_img", o_img);
  ValidatePlane(luminance);
  ValidatePlane(first);
  ValidatePlane(second);
  ValidateMatrixAndOutput(i_cvtMat, output);
  ValidateHalfExtents(luminance, first, "ChrominanceB");
  ValidateHalfExtents(luminance, second, "ChrominanceR");
  for (auto const* const argument : {&luminance, &first, &second, &output}) argument->ValidateTensorCPU();
  std::size_t const h = luminance.Extent(0), w = luminance.Extent(1), samples = Volume(h / 2, w / 2);
  if (samples == 0) return;
  auto const* const y = luminance.Memory(Volume(h, w));
  auto const* const a = first.Memory(samples);
  auto const* const b = second.Memory(samples);
  ConvertFrame({h, w, y, a, b, 1}, MatrixAlgorithm(*i_cvtMat), ThreePlanes(output, Volume(h, w)));
}

}  // namespace

void F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8_Fallback(TensorPtr const& i_luminancePlane,
                                                       TensorPtr const& i_chrominancePlane, MatrixPtr const& i_cvtMat,
                                                       TensorPtr& o_img) {
  TwoPlanes(__func__, i_luminancePlane, i_chrominancePlane, i_cvtMat, o_img);
}

void F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8_Arm(TensorPtr const& i_luminancePlane,
                                                  TensorPtr const& i_chrominancePlane, MatrixPtr const& i_cvtMat,
                                                  TensorPtr& o_img) {
  TwoPlanes(__func__, i_luminancePlane, i_chrominancePlane, i_cvtMat, o_img);
}

void F_ColorCvt_YUV_3Plane_UInt8_To_CHW_UInt8_Fallback(TensorPtr const& i_luminancePlane,
                                                       TensorPtr const& i_chrominanceBPlane,
                                                       TensorPtr const& i_chrominanceRPlane, MatrixPtr const& i_cvtMat,
                                                       TensorPtr& o_img) {
  ThreePlaneFrame(__func__, i_luminancePlane, i_chrominanceBPlane, i_chrominanceRPlane, i_cvtMat, o_img);
}

void F_ColorCvt_YUV_3Plane_UInt8_To_CHW_UInt8_Arm(TensorPtr const& i_luminancePlane,
                                                  TensorPtr const& i_chrominanceBPlane,
                                                  TensorPtr const& i_chrominanceRPlane, MatrixPtr const& i_cvtMat,
                                                  TensorPtr& o_img) {
  ThreePlaneFrame(__func__, i_luminancePlane, i_chrominanceBPlane, i_chrominanceRPlane, i_cvtMat, o_img);
}

void F_ColorCvt_NV21_To_RGB_CHW_UInt8_Arm(TensorPtr const&, TensorPtr const&, MatrixPtr const&, TensorPtr&) {
  Refuse("Not Implemented.");
}

void F_ColorCvt_NV12_To_RGB_CHW_UInt8_Arm(TensorPtr const&, TensorPtr const&, MatrixPtr const&, TensorPtr&) {
  Refuse("Not Implemented.");
}

}  // namespace talvo::kernel::functional
