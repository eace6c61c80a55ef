// Any image operation on tensors of any sizes, layouts and types, with any floats, finishes or throws, and touches
// nothing outside its tensors. Left out is what ends the process by contract: a planar destination of a rank other than
// 3 at a colour copy, and a source that is not UINT8 at the codes with shares. The YUV operations of the class trust
// their frame, which therefore is whole.
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

#include "talvo/talvo.h"

namespace {

using namespace talvo::kernel::functional;
using talvo::runtime::TensorShape;
using Image = std::shared_ptr<talvo::runtime::Tensor>;

// Takes values from the input; zeros when it is used up.
class Source {
 public:
  Source(std::uint8_t const* data, std::size_t size) : data_(data), left_(size) {}

  template <class T>
  T Take() {
    T value{};
    std::size_t const bytes = sizeof(T) < left_ ? sizeof(T) : left_;
    if (bytes != 0) std::memcpy(&value, data_, bytes);
    data_ += bytes;
    left_ -= bytes;
    return value;
  }
  std::uint8_t Byte() { return Take<std::uint8_t>(); }
  unsigned int Below(unsigned int limit) { return Byte() % limit; }

 private:
  std::uint8_t const* data_;
  std::size_t left_;
};

// Tensors over blocks of exactly their size, so that the sanitizer sees every step outside.
class Maker {
 public:
  Maker() { talvo::utility::create_context(context_, 64); }

  Image Make(std::vector<unsigned int> dims, unsigned int type, unsigned int layout, std::size_t more_bytes = 0) {
    TensorShape shape(std::move(dims), type, layout, TensorShape::MainMemory, TensorShape::Extra());
    std::size_t const bytes = talvo::runtime::ByteCount(shape) + more_bytes;
    blocks_.emplace_back(new unsigned char[bytes]);
    for (std::size_t i = 0; i < bytes; ++i) blocks_.back()[i] = static_cast<unsigned char>(i * 37);
    return context_->device_cpu->CreateTensorExternal(std::move(shape), blocks_.back().get());
  }

 private:
  std::shared_ptr<talvo::runtime::Context> context_;
  std::vector<std::unique_ptr<unsigned char[]>> blocks_;
};

// Mostly three axes, mostly of a layout that the operations look for.
Image AnyImage(Source& source, Maker& maker) {
  constexpr unsigned int kLayouts[] = {TensorShape::CHW,   TensorShape::HWC,   TensorShape::FLEXIABLE,
                                       TensorShape::C4HW4, TensorShape::C8HW8, TensorShape::C};
  constexpr unsigned int kTypes[] = {TensorShape::UINT8, TensorShape::FLOAT32, TensorShape::INT16};
  constexpr std::size_t kRanks[] = {3, 3, 3, 3, 1, 2, 3, 4};
  unsigned int const layout = kLayouts[source.Below(6)], type = kTypes[source.Below(3)];
  std::vector<unsigned int> dims(kRanks[source.Below(8)]);
  for (auto& extent : dims) extent = source.Below(40);
  auto image = maker.Make(dims, type, layout);
  image->shape.extra.step_size = static_cast<short>(source.Below(14));
  return image;
}

// A second image: any one, or one whose shape has to do with the first.
Image Partner(Source& source, Maker& maker, Image const& image) {
  TensorShape const& shape = image->shape;
  unsigned int const kind = source.Below(5);
  if (kind == 0 || shape.dims.size() != 3) return AnyImage(source, maker);
  auto const [a, b, c] = std::array<unsigned int, 3>{shape.dims[0], shape.dims[1], shape.dims[2]};
  unsigned int const type = source.Below(2) == 0 ? shape.data_type : unsigned{TensorShape::FLOAT32};
  switch (kind) {
    case 1:
      return maker.Make({a, b, c}, type, shape.layout);
    case 2:
      return maker.Make({b, a, c}, type, shape.layout);
    case 3:
      return maker.Make({3, a, b}, type, TensorShape::CHW);
    default:
      return maker.Make({a / 2, b / 2, c}, type, shape.layout);
  }
}

void RunClass(Source& source, Maker& maker) {
  talvo::kernel::ImageProcessFallback process;
  Image src = AnyImage(source, maker), dst = Partner(source, maker, src);
  int const code = source.Byte();
  bool const colour_copy = code == 1 || code == 3 || code == 4;
  bool const yuv = code == 22 || code == 24 || code == 32;
  if (colour_copy && dst->shape.dims.size() != 3) return;
  if (yuv && src->shape.dims.size() >= 2) {
    std::size_t const frame = std::size_t{src->shape.dims[0]} * src->shape.dims[1] * 3 / 2;
    src = maker.Make(src->shape.dims, src->shape.data_type, src->shape.layout, frame);
  }
  switch (source.Below(3)) {
    case 0:
      return process.ConvertPixel(src, dst, code, nullptr);
    case 1: {
      if (src->shape.data_type != TensorShape::UINT8) return;
      auto const shares = source.Take<std::array<float, 4>>();
      return process.ConvertPixel(src, dst, shares[0], shares[1], shares[2], shares[3], code, nullptr);
    }
    default: {
      auto const matrix = source.Take<std::array<float, 6>>();
      return process.ConvertPixel(src, dst, matrix.data(), code, nullptr);
    }
  }
}

void RunUnary(Source& source, Maker& maker) {
  constexpr void (*kFunctions[])(Image const&, Image&) = {F_ColorCvt_RGBA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback,
                                                          F_ColorCvt_BGRA2RGB_HWC_UInt8_To_CHW_UInt8_Arm,
                                                          F_ColorCvt_RGB2RGB_HWC_UInt8_To_CHW_UInt8_Arm,
                                                          F_ColorCvt_BGR888_To_Gray8_Fallback,
                                                          F_ColorCvt_RGBA8888_To_Gray8_Fallback,
                                                          F_Rotate_Clockwise90_HWC_Fallback,
                                                          F_Rotate_Clockwise180_HWC_Fallback,
                                                          F_Rotate_Clockwise270_HWC_Fallback,
                                                          F_HFlip_HWC_Fallback,
                                                          F_VFlip_HWC_Fallback,
                                                          F_Resize_Nearest_HWC_U8_C1_Fallback,
                                                          F_Resize_Nearest_HWC_U8_C2_Fallback,
                                                          F_Resize_Nearest_HWC_U8_C3_Fallback,
                                                          F_Resize_Nearest_HWC_U8_C4_Fallback,
                                                          F_Resize_Bilinear_HWC_U8_C1_Fallback,
                                                          F_Resize_Bilinear_HWC_U8_C2_Fallback,
                                                          F_Resize_Bilinear_HWC_U8_C3_Fallback,
                                                          F_Resize_Bilinear_HWC_U8_C4_Fallback};
  auto const function = kFunctions[source.Below(sizeof(kFunctions) / sizeof(kFunctions[0]))];
  Image const input = AnyImage(source, maker);
  Image output = Partner(source, maker, input);
  function(input, output);
}

void RunCrop(Source& source, Maker& maker) {
  constexpr void (*kFunctions[])(Image const&, unsigned int const&, unsigned int const&, unsigned int const&,
                                 unsigned int const&, Image&) = {F_Crop_HWC_Memcpy, F_Crop_CHW_Memcpy,
                                                                 F_Crop_C4HW4_Memcpy, F_Crop_C8HW8_Memcpy};
  unsigned int const which = source.Below(5);
  Image const input = AnyImage(source, maker);
  Image output = Partner(source, maker, input);
  auto const at = source.Take<std::array<int, 2>>();
  // Extents that the function accepts, unless the input asks for others.
  std::size_t const axis = input->shape.layout == TensorShape::HWC ? 0 : 1;
  auto size = source.Take<std::array<int, 2>>();
  for (std::size_t i = 0; i < 2 && source.Below(4) != 0 && axis + i < output->shape.dims.size(); ++i) {
    size[i] = static_cast<int>(output->shape.dims[axis + i]);
  }
  if (which == 4) return F_Crop_U8_HWC_Memcpy(input, at[0], at[1], size[0], size[1], source.Byte(), output);
  auto const unsign = [](int value) { return static_cast<unsigned int>(value); };
  kFunctions[which](input, unsign(at[0]), unsign(at[1]), unsign(size[0]), unsign(size[1]), output);
}

void RunYuv(Source& source, Maker& maker) {
  auto const matrix = std::make_shared<YUVCvtMatrix>(source.Take<YUVCvtMatrix>());
  Image const y = AnyImage(source, maker), a = Partner(source, maker, y), b = Partner(source, maker, y);
  Image output = Partner(source, maker, y);
  if (source.Below(2) == 0) return F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8_Fallback(y, a, matrix, output);
  F_ColorCvt_YUV_3Plane_UInt8_To_CHW_UInt8_Fallback(y, a, b, matrix, output);
}

void RunFloats(Source& source, Maker& maker) {
  Image input = AnyImage(source, maker), sub = AnyImage(source, maker), mul = AnyImage(source, maker);
  Image output = Partner(source, maker, input);
  if (source.Below(2) == 0 && !input->shape.dims.empty()) {  // values that fit the image
    sub = maker.Make({input->shape.dims[0]}, TensorShape::FLOAT32, TensorShape::C);
    mul = maker.Make({input->shape.dims[0]}, TensorShape::FLOAT32, TensorShape::C);
  }
  switch (source.Below(5)) {
    case 0:
      return F_Normalize_CHW_U8_To_CHW_S16_Fallback(input, sub, mul, output);
    case 1:
      return F_Normalize_CHW_U8_To_CHW_F32_Fallback(input, sub, mul, output);
    case 2:
      return F_Normalize_CHW_F32_Fallback(input, sub, mul, output);
    case 3: {
      std::vector<float> const values(40, 0.5f);  // as many as an image of the fuzzer can have channels
      return Normalize_CHW_Float_Fallback(input, output, source.Below(2) == 0 ? nullptr : values.data(), values.data());
    }
    default: {
      auto values = source.Take<std::array<float, 6>>();
      Image const matrix = maker.Make({6}, TensorShape::FLOAT32, TensorShape::C);
      std::memcpy(matrix->data, values.data(), sizeof(values));
      return F_WarpAffine_Bilinear_CHW_F32_Arm(input, matrix, output);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  talvo::utility::SetLogCallback([](char const*) { return 0; });
  Source source(data, size);
  Maker maker;
  constexpr void (*kFamilies[])(Source&, Maker&) = {RunClass, RunClass, RunUnary, RunCrop, RunYuv, RunFloats};
  try {
    kFamilies[source.Below(6)](source, maker);
  } catch (std::runtime_error const&) {
  }
  return 0;
}
