#include "talvo/image/normalise.h"

#include <algorithm>
#include <cstdint>

#include "talvo/image/image_support.h"
#include "talvo/kernel/rows/pixels.h"

namespace talvo::kernel::functional {
namespace {

using namespace image;

enum class Place { kTested, kNotTested };

void NeedValues(TensorCPU const& values, char const* name, char const* rank_format, Place place) {
  Assert(values.shape.dims.size() == 1, rank_format, name);
  NeedType(values, name, TensorShape::FLOAT32, "Float32");
  if (place == Place::kTested) NeedMainMemory(values, name);
}

void NeedEqualShapes(TensorShape const& a, TensorShape const& b) {
  Assert(a.dims == b.dims && a.data_type == b.data_type && a.layout == b.layout && a.location == b.location &&
             a.extra.step_size == b.extra.step_size,
         nullptr);
}

// The four tensors of a normalisation, tested in the order that all forms share; what differs are the types of image
// and output, their names in the messages, and whether the place of the values is tested.
struct Normalisation {
  struct Type {
    unsigned int number;
    char const* name;
  };

  Normalisation(char const* function, TensorPtr const& i_img, TensorPtr const& i_sub, TensorPtr const& i_mul,
                TensorPtr const& o_img, Type from, Type to, Place place_of_values)
      : image(Cast(i_img, "i_img")),
        sub_tensor(Cast(i_sub, "i_sub")),
        mul_tensor(Cast(i_mul, "i_mul")),
        output(Cast(o_img, "o_img")) {
    NeedLayout(image, "i_img", TensorShape::CHW, "CHW");
    NeedType(image, "i_img", from.number, from.name);
    NeedMainMemory(image, "i_img");
    NeedValues(sub_tensor, "i_sub", "%s must be a 1D Tensor.", place_of_values);
    NeedValues(mul_tensor, "i_mul", "%s must be a 1D DataType Tensor.", place_of_values);
    NeedLayout(output, "o_img", TensorShape::CHW, "CHW");
    NeedType(output, "o_img", to.number, to.name);
    NeedMainMemory(output, "o_img");
    NeedEqualShapes(sub_tensor.shape, mul_tensor.shape);
    NeedRank(function, "i_img", image, 3);
    auto const& dims = image.shape.dims;
    Assert(dims[0] == sub_tensor.shape.dims[0], nullptr);
    channels = dims[0];
    plane = Volume(dims[1], dims[2]);
    std::size_t const count = Volume(channels, dims[1], dims[2]);
    if (count == 0) channels = 0;
    in = Memory(function, "i_img", image, Volume(count, runtime::ElementSize(from.number)));
    out = Memory(function, "o_img", output, Volume(count, runtime::ElementSize(to.number)));
    sub = reinterpret_cast<float const*>(Memory(function, "i_sub", sub_tensor, channels * sizeof(float)));
    mul = reinterpret_cast<float const*>(Memory(function, "i_mul", mul_tensor, channels * sizeof(float)));
  }

  TensorCPU const& image;
  TensorCPU const& sub_tensor;
  TensorCPU const& mul_tensor;
  TensorCPU const& output;
  std::size_t channels = 0, plane = 0;
  unsigned char* in = nullptr;
  unsigned char* out = nullptr;
  float const* sub = nullptr;
  float const* mul = nullptr;
};

constexpr Normalisation::Type kUInt8 = {TensorShape::UINT8, "UInt8"};
constexpr Normalisation::Type kInt16 = {TensorShape::INT16, "Int16"};
constexpr Normalisation::Type kFloat32 = {TensorShape::FLOAT32, "Float32"};

void SubtractFrom(float const* in, std::size_t count, float const sub, float* out) {
  for (std::size_t i = 0; i < count; ++i) out[i] = in[i] - sub;
}

void MultiplyBy(float const* in, std::size_t count, float const mul, float* out) {
  for (std::size_t i = 0; i < count; ++i) out[i] = in[i] * mul;
}

constexpr std::size_t kGroup = 8;  // pixels that saturate together

template <int kStep>
void NormaliseFixed(Normalisation const& n) {
  for (std::size_t c = 0; c < n.channels; ++c) {
    float const sub = n.sub[c], scale = n.mul[c] * static_cast<float>(1 << kStep);
    unsigned char const* const in = n.in + c * n.plane;
    std::int16_t* const out = reinterpret_cast<std::int16_t*>(n.out) + c * n.plane;
    std::size_t const grouped = n.plane / kGroup * kGroup;
    rows::NormaliseSaturated(in, grouped, sub, scale, out);
    for (std::size_t i = grouped; i < n.plane; ++i) {
      out[i] = static_cast<std::int16_t>(TruncateToInt((static_cast<float>(in[i]) - sub) * scale));
    }
  }
}

void ToFixed(char const* function, TensorPtr const& i_img, TensorPtr const& i_sub, TensorPtr const& i_mul,
             TensorPtr const& o_img) {
  Normalisation const n(function, i_img, i_sub, i_mul, o_img, kUInt8, kInt16, Place::kTested);
  switch (n.output.shape.extra.step_size) {
    case 8:
      return NormaliseFixed<8>(n);
    case 9:
      return NormaliseFixed<9>(n);
    case 10:
      return NormaliseFixed<10>(n);
    case 11:
      return NormaliseFixed<11>(n);
    case 12:
      return NormaliseFixed<12>(n);
    default:
      Assert(false, "Not Implemented.");
  }
}

void BytesToFloats(char const* function, TensorPtr const& i_img, TensorPtr const& i_sub, TensorPtr const& i_mul,
                   TensorPtr const& o_img) {
  Normalisation const n(function, i_img, i_sub, i_mul, o_img, kUInt8, kFloat32, Place::kNotTested);
  for (std::size_t c = 0; c < n.channels; ++c) {
    rows::NormaliseBytes(n.in + c * n.plane, n.plane, n.sub[c], n.mul[c],
                         reinterpret_cast<float*>(n.out) + c * n.plane);
  }
}

void FloatsToFloats(char const* function, TensorPtr const& i_img, TensorPtr const& i_sub, TensorPtr const& i_mul,
                    TensorPtr const& o_img) {
  Normalisation const n(function, i_img, i_sub, i_mul, o_img, kFloat32, kFloat32, Place::kNotTested);
  for (std::size_t c = 0; c < n.channels; ++c) {
    rows::NormaliseFloats(reinterpret_cast<float const*>(n.in) + c * n.plane, n.plane, n.sub[c], n.mul[c],
                          reinterpret_cast<float*>(n.out) + c * n.plane);
  }
}

}  // namespace

void F_Normalize_CHW_U8_To_CHW_S16_Fallback(TensorPtr const& i_img, TensorPtr const& i_sub, TensorPtr const& i_mul,
                                            TensorPtr& o_img) {
  ToFixed(__func__, i_img, i_sub, i_mul, o_img);
}

void F_Normalize_CHW_U8_To_CHW_S16_Arm(TensorPtr const& i_img, TensorPtr const& i_sub, TensorPtr const& i_mul,
                                       TensorPtr& o_img) {
  ToFixed(__func__, i_img, i_sub, i_mul, o_img);
}

void F_Normalize_CHW_U8_To_CHW_F32_Fallback(TensorPtr const& i_img, TensorPtr const& i_sub, TensorPtr const& i_mul,
                                            TensorPtr& o_img) {
  BytesToFloats(__func__, i_img, i_sub, i_mul, o_img);
}

void F_Normalize_CHW_U8_To_CHW_F32_Arm(TensorPtr const& i_img, TensorPtr const& i_sub, TensorPtr const& i_mul,
                                       TensorPtr& o_img) {
  BytesToFloats(__func__, i_img, i_sub, i_mul, o_img);
}

void F_Normalize_CHW_F32_Fallback(TensorPtr const& i_img, TensorPtr const& i_sub, TensorPtr const& i_mul,
                                  TensorPtr& o_img) {
  FloatsToFloats(__func__, i_img, i_sub, i_mul, o_img);
}

void F_Normalize_CHW_F32_Arm(TensorPtr const& i_img, TensorPtr const& i_sub, TensorPtr const& i_mul, TensorPtr& o_img) {
  FloatsToFloats(__func__, i_img, i_sub, i_mul, o_img);
}

void Normalize_CHW_Float_Fallback(TensorPtr& src, TensorPtr& dst, float const* mul, float const* sub) {
  Images const images(__func__, src, dst);
  Assert(images.src.shape.layout == TensorShape::CHW, nullptr);
  NeedRank(images.name, "src", images.src, 3);
  auto const& dims = images.src.shape.dims;
  std::size_t const count = Volume(dims[0], dims[1], dims[2]);
  if (count == 0 || (mul == nullptr && sub == nullptr)) return;
  std::size_t const plane = count / dims[0];
  auto const* in = reinterpret_cast<float const*>(Memory(images.name, "src", images.src, Volume(count, sizeof(float))));
  auto* out = reinterpret_cast<float*>(Memory(images.name, "dst", images.dst, Volume(count, sizeof(float))));
  for (std::size_t c = 0; c < dims[0]; ++c, in += plane, out += plane) {
    if (mul == nullptr) {
      SubtractFrom(in, plane, sub[c], out);
    } else if (sub == nullptr) {
      MultiplyBy(in, plane, mul[c], out);
    } else {
      rows::NormaliseFloats(in, plane, sub[c], mul[c], out);
    }
  }
}

}  // namespace talvo::kernel::functional
