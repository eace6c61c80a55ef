#include "talvo/image/normalise.h"

#include <cstdint>

#include "talvo/image/image_support.h"
#include "talvo/kernel/rows/elementwise_rows.h"
#include "talvo/kernel/rows/pixels.h"
#include "talvo/kernel/rows/saturate.h"

namespace talvo::kernel::functional {
namespace {

using namespace image;

struct Type {
  unsigned int number;
  char const* name;
};
constexpr Type kUInt8 = {TensorShape::UINT8, "UInt8"};
constexpr Type kInt16 = {TensorShape::INT16, "Int16"};
constexpr Type kFloat32 = {TensorShape::FLOAT32, "Float32"};

// The four tensors of a normalisation.
struct Arguments {
  Arguments(char const* function, TensorPtr const& i_img, TensorPtr const& i_sub, TensorPtr const& i_mul,
            TensorPtr const& o_img)
      : image(function, "i_img", i_img),
        sub(function, "i_sub", i_sub),
        mul(function, "i_mul", i_mul),
        output(function, "o_img", o_img) {}

  Argument image, sub, mul, output;
};

void ValidateImage(Argument const& image, Type type) {
  image.ValidateLayout(TensorShape::CHW, "CHW");
  image.ValidateType(type.number, type.name);
  image.ValidateMainMemory();
}

void ValidateValues(Argument const& values, char const* rank_format, bool look_at_place) {
  if (values.shape().dims.size() != 1) Refuse(rank_format, values.name());
  values.ValidateType(TensorShape::FLOAT32, "Float32");
  if (look_at_place) values.ValidateMainMemory();
}

void ValidateEqualShapes(Argument const& first, Argument const& second) {
  TensorShape const &a = first.shape(), &b = second.shape();
  second.Validate(a.dims == b.dims && a.data_type == b.data_type && a.layout == b.layout && a.location == b.location &&
                      a.extra.step_size == b.extra.step_size,
                  "needs the shape of the values before it");
}

// In the order that all forms share; what differs are the types of image and output, and that the fixed-point form
// alone looks at the place of the values.
void ValidateArguments(Arguments const& call, Type from, Type to, bool look_at_place) {
  for (auto const* const argument : {&call.image, &call.sub, &call.mul, &call.output}) argument->ValidateTensorCPU();
  ValidateImage(call.image, from);
  ValidateValues(call.sub, "%s must be a 1D Tensor.", look_at_place);
  ValidateValues(call.mul, "%s must be a 1D DataType Tensor.", look_at_place);
  ValidateImage(call.output, to);
  ValidateEqualShapes(call.sub, call.mul);
  call.sub.Validate(call.image.Extent(0) == call.sub.Extent(0), "needs a value for each channel");
}

// Calls row(in, pixels, sub, mul, out) for the plane of each channel.
template <class In, class Out, class Row>
void ForEachChannel(Arguments const& call, Row const& row) {
  std::size_t const channels = call.image.Extent(0), plane = call.image.Pixels(1);
  std::size_t const count = Volume(channels, plane);
  if (count == 0) return;
  In const* const in = call.image.Memory<In>(count);
  Out* const out = call.output.Memory<Out>(count);
  float const* const sub = call.sub.Memory<float>(channels);
  float const* const mul = call.mul.Memory<float>(channels);
  for (std::size_t c = 0; c < channels; ++c) row(in + c * plane, plane, sub[c], mul[c], out + c * plane);
}

// Groups of eight pixels saturate; what is left of a plane wraps around. The two agree as long as results fit.
void ToFixed(Arguments const& call) {
  ValidateArguments(call, kUInt8, kInt16, true);
  int const step = call.output.shape().extra.step_size;
  if (step < 8 || step > 12) Refuse("Not Implemented.");
  auto const one = static_cast<float>(1 << step);
  auto const row = [one](unsigned char const* in, std::size_t count, float sub, float mul, std::int16_t* out) {
    float const scale = mul * one;
    std::size_t const grouped = count / 8 * 8;
    rows::NormaliseSaturated(in, grouped, sub, scale, out);
    for (std::size_t i = grouped; i < count; ++i) {
      out[i] = static_cast<std::int16_t>(rows::Saturated<std::int32_t>((static_cast<float>(in[i]) - sub) * scale));
    }
  };
  ForEachChannel<unsigned char, std::int16_t>(call, row);
}

void BytesToFloats(Arguments const& call) {
  ValidateArguments(call, kUInt8, kFloat32, false);
  ForEachChannel<unsigned char, float>(call, rows::NormaliseBytes);
}

void FloatsToFloats(Arguments const& call) {
  ValidateArguments(call, kFloat32, kFloat32, false);
  ForEachChannel<float, float>(call, rows::NormaliseFloats);
}

}  // namespace

void F_Normalize_CHW_U8_To_CHW_S16_Fallback(TensorPtr const& i_img, TensorPtr const& i_sub, TensorPtr const& i_mul,
                                            TensorPtr& o_img) {
  ToFixed({__func__, i_img, i_sub, i_mul, o_img});
}

void F_Normalize_CHW_U8_To_CHW_S16_Arm(TensorPtr const& i_img, TensorPtr const& i_sub, TensorPtr const& i_mul,
                                       TensorPtr& o_img) {
  ToFixed({__func__, i_img, i_sub, i_mul, o_img});
}

void F_Normalize_CHW_U8_To_CHW_F32_Fallback(TensorPtr const& i_img, TensorPtr const& i_sub, TensorPtr const& i_mul,
                                            TensorPtr& o_img) {
  BytesToFloats({__func__, i_img, i_sub, i_mul, o_img});
}

void F_Normalize_CHW_U8_To_CHW_F32_Arm(TensorPtr const& i_img, TensorPtr const& i_sub, TensorPtr const& i_mul,
                                       TensorPtr& o_img) {
  BytesToFloats({__func__, i_img, i_sub, i_mul, o_img});
}

void F_Normalize_CHW_F32_Fallback(TensorPtr const& i_img, TensorPtr const& i_sub, TensorPtr const& i_mul,
                                  TensorPtr& o_img) {
  FloatsToFloats({__func__, i_img, i_sub, i_mul, o_img});
}

void F_Normalize_CHW_F32_Arm(TensorPtr const& i_img, TensorPtr const& i_sub, TensorPtr const& i_mul, TensorPtr& o_img) {
  FloatsToFloats({__func__, i_img, i_sub, i_mul, o_img});
}

void Normalize_CHW_Float_Fallback(TensorPtr& source, TensorPtr& destination, float const* mul, float const* sub) {
  Argument const src(__func__, "src", source), dst(__func__, "dst", destination);
  src.Validate(src.shape().layout == TensorShape::CHW, "needs layout CHW");
  // dst stays as it is: nothing is asked of the values, not even a copy.
  if (mul == nullptr && sub == nullptr) return;
  std::size_t const channels = src.Extent(0), plane = src.Pixels(1);
  std::size_t const count = Volume(channels, plane);
  if (count == 0) return;
  float const* in = src.Memory<float>(count);
  float* out = dst.Memory<float>(count);
  for (std::size_t c = 0; c < channels; ++c, in += plane, out += plane) {
    if (mul == nullptr) {
      rows::CombineRow(rows::Operation::kSub, {in, false}, {&sub[c], true}, plane, out);
    } else if (sub == nullptr) {
      rows::CombineRow(rows::Operation::kMul, {in, false}, {&mul[c], true}, plane, out);
    } else {
      rows::NormaliseFloats(in, plane, sub[c], mul[c], out);
    }
  }
}

}  // namespace talvo::kernel::functional
