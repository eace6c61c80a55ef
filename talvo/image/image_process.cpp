#include "talvo/image/image_process.h"

#include "talvo/utility/invariant.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::kernel {
namespace {

using Image = std::shared_ptr<Tensor>;
using ContextPtr = std::shared_ptr<Context>;

template <class... Extra>
struct Entry {
  int code;
  void (ImageProcess::*operation)(Image&, Image&, Extra..., ContextPtr);
};

// Codes are the interface's; one that stands in no table does nothing.
constexpr Entry<> kOperations[] = {
    {1, &ImageProcess::ConvertRGBAtoRGB},
    {3, &ImageProcess::ConvertRGBAtoBGR},
    {4, &ImageProcess::ConvertRGBtoBGR},
    {6, &ImageProcess::ConvertBGR2Gray},
    {7, &ImageProcess::ConvertRGB2Gray},
    {11, &ImageProcess::ConvertRGBA2Gray},
    {22, &ImageProcess::ConvertYUV2RGB_NV12},
    {24, &ImageProcess::ConvertYUV2RGB_NV21},
    {32, &ImageProcess::ConvertYUV2RGB_IYUV},
    {50, &ImageProcess::ClockwiseRotate90},
    {51, &ImageProcess::ClockwiseRotate180},
    {52, &ImageProcess::ClockwiseRotate270},
    {53, &ImageProcess::Flip_Horizintal},
    {54, &ImageProcess::Flip_Vertical},
    {60, &ImageProcess::HWC2CHW},
    {61, &ImageProcess::CHW2HWC},
    {65, &ImageProcess::Convert8U_To_32F},
    {77, &ImageProcess::Resize_Nearest_C1},
    {81, &ImageProcess::Resize_Bilinear_C1},
    {82, &ImageProcess::Resize_Bilinear_C2},
    {83, &ImageProcess::Resize_Bilinear_C3},
    {84, &ImageProcess::Resize_Bilinear_C4},
};

constexpr Entry<float, float, float, float> kShareOperations[] = {
    {85, &ImageProcess::Crop_Resize_Nearest_C1},
    {86, &ImageProcess::Crop_Resize_Nearest_C2},
    {87, &ImageProcess::Crop_Resize_Nearest_C3},
    {88, &ImageProcess::Crop_Resize_Nearest_C4},
    {100, &ImageProcess::Crop_C1},
    {101, &ImageProcess::Crop_C2},
    {102, &ImageProcess::Crop_C3},
    {103, &ImageProcess::Crop_C4},
};

constexpr Entry<float const*> kMatrixOperations[] = {
    {55, &ImageProcess::Affine_Unimplemented},
    {56, &ImageProcess::Affine_Float},
    {57, &ImageProcess::Affine_INV_Float},
    {58, &ImageProcess::Affine_INV_BILINEAR_Float},
};

}  // namespace

ImageProcess::~ImageProcess() = default;

void ImageProcess::ConvertPixel(Image& src, Image& dst, int code, ContextPtr context) {
  for (auto const& entry : kOperations) {
    if (entry.code == code) (this->*entry.operation)(src, dst, context);
  }
}

void ImageProcess::ConvertPixel(Image& src, Image& dst, float a, float b, float c, float d, int code,
                                ContextPtr context) {
  if (src == nullptr) utility::Refuse("ConvertPixel: src is null");
  TALVO_INVARIANT(src->shape.data_type == runtime::TensorShape::UINT8);
  for (auto const& entry : kShareOperations) {
    if (entry.code == code) (this->*entry.operation)(src, dst, a, b, c, d, context);
  }
}

void ImageProcess::ConvertPixel(Image& src, Image& dst, float const* matrix, int code, ContextPtr context) {
  for (auto const& entry : kMatrixOperations) {
    if (entry.code == code) (this->*entry.operation)(src, dst, matrix, context);
  }
}

}  // namespace talvo::kernel
