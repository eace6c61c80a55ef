#include "talvo/image/image_process_fallback.h"

#include "talvo/utility/refuse_support.h"

namespace talvo::kernel {

ImageProcessFallback::~ImageProcessFallback() = default;

void ImageProcessFallback::Affine_Unimplemented(std::shared_ptr<Tensor>&, std::shared_ptr<Tensor>&, float const*,
                                                std::shared_ptr<Context>) {
  utility::Refuse("Not Implemented.");
}

void ImageProcessFallback::Affine_INV_Unimplemented(std::shared_ptr<Tensor>&, std::shared_ptr<Tensor>&, float const*,
                                                    std::shared_ptr<Context>) {
  utility::Refuse("Not Implemented.");
}

void ImageProcessFallback::Crop_Resize_Nearest_C2(std::shared_ptr<Tensor>&, std::shared_ptr<Tensor>&, float, float,
                                                  float, float, std::shared_ptr<Context>) {}

}  // namespace talvo::kernel
