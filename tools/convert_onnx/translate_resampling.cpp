#include <algorithm>
#include <cmath>

#include "tools/convert_onnx/translators.h"

namespace convert_onnx {
namespace {

using Values = std::vector<Value>;

struct Mode {
  std::string kind, positions, nearest;
  double cubic = -0.75;  // the coefficient of the cubic curve
  bool exclude_outside = false;
};

// The position in the source of element `at` of an axis that goes from `in` to `out`.
double Position(Mode const& mode, long long at, long long in, long long out, double scale) {
  auto const x = static_cast<double>(at), extent = static_cast<double>(in);
  if (mode.positions == "asymmetric") return x / scale;
  if (mode.positions == "align_corners") return out == 1 ? 0 : x * (extent - 1) / (extent * scale - 1);
  if (mode.positions == "pytorch_half_pixel" && out == 1) return 0;
  return (x + 0.5) / scale - 0.5;
}

long long Nearest(std::string const& rule, double position) {
  if (rule == "floor") return static_cast<long long>(std::floor(position));
  if (rule == "ceil") return static_cast<long long>(std::ceil(position));
  if (rule != "round_prefer_floor" && rule != "round_prefer_ceil") throw Refusal("attribute nearest_mode = " + rule);
  double const down = std::floor(position);
  bool const half = position - down == 0.5;
  if (half) return static_cast<long long>(rule == "round_prefer_floor" ? down : down + 1);
  return static_cast<long long>(std::round(position));
}

// The weight at `distance` of the cubic convolution with coefficient a. Source: R. Keys, Cubic convolution
// interpolation for digital image processing, 1981.
double Cubic(double a, double distance) {
  double const x = std::abs(distance);
  if (x <= 1) return ((a + 2) * x - (a + 3)) * x * x + 1;
  return x < 2 ? ((a * x - 5 * a) * x + 8 * a) * x - 4 * a : 0;
}

// The four weights around `position`; those outside are left out and the others scaled to 1 where the mode wants it.
template <class Add>
void AddCubic(Mode const& mode, double position, long long in, Add const& add) {
  auto const first = static_cast<long long>(std::floor(position)) - 1;
  auto const out = [&](long long at) { return mode.exclude_outside && (at < 0 || at >= in); };
  double sum = 0;
  for (long long at = first; at < first + 4; ++at) {
    sum += out(at) ? 0 : Cubic(mode.cubic, position - static_cast<double>(at));
  }
  for (long long at = first; at < first + 4; ++at) {
    if (!out(at)) add(at, Cubic(mode.cubic, position - static_cast<double>(at)) / sum);
  }
}

// One axis as a matrix [out, in].
Floats Matrix(Mode const& mode, long long in, long long out, double scale) {
  Floats matrix(Count({out, in}), 0.0f);
  for (long long i = 0; i < out; ++i) {
    double const position = Position(mode, i, in, out, scale);
    auto const add = [&](long long at, double weight) {
      matrix[static_cast<std::size_t>(i * in + std::clamp(at, 0ll, in - 1))] += static_cast<float>(weight);
    };
    if (mode.kind == "cubic") {
      AddCubic(mode, position, in, add);
    } else {
      double const down = std::floor(position);
      add(static_cast<long long>(down), 1 - (position - down));
      add(static_cast<long long>(down) + 1, position - down);
    }
  }
  return matrix;
}

// One axis by the nearest elements.
Value Selected(Value const& x, std::size_t axis, Mode const& mode, long long out, double scale, Builder& builder) {
  std::vector<long long> places;
  long long const in = x.shape[axis];
  Count({out});
  for (long long i = 0; i < out; ++i) {
    places.push_back(std::clamp(Nearest(mode.nearest, Position(mode, i, in, out, scale)), 0ll, in - 1));
  }
  return builder.Take(x, axis, places);
}

// Whole factors whose planes one kernel repeats.
bool RepeatsPlanes(Mode const& mode, Shape const& in, Shape const& out, std::vector<double> const& scales) {
  bool const exact = mode.positions == "asymmetric"
                         ? mode.nearest == "floor"
                         : mode.positions == "half_pixel" && mode.nearest.compare(0, 5, "round") == 0;
  if (mode.kind != "nearest" || !exact || in.size() != 4 || in[0] != out[0] || in[1] != out[1]) return false;
  for (std::size_t i = 2; i < 4; ++i) {
    if (scales[i] != std::floor(scales[i]) || static_cast<double>(in[i]) * scales[i] != static_cast<double>(out[i]))
      return false;
  }
  return true;
}

Value Repeated(Value const& x, Shape const& out, std::vector<double> const& scales, Builder& builder) {
  auto const record = std::make_shared<talvo::runtime::Upsample2dInfo>();
  record->scale_factor_y = static_cast<float>(scales[2]);
  record->scale_factor_x = static_cast<float>(scales[3]);
  Value const planes = builder.Flat(x, {x.shape[0] * x.shape[1], x.shape[2], x.shape[3]});
  return builder.Emit(record, "Upsampling2D_Fallback_CHW_Float_M1", {planes}, {planes.dims[0], out[2], out[3]},
                      talvo::runtime::TensorShape::CHW, out);
}

Values Resized(Value const& x, Mode const& mode, Shape const& out, std::vector<double> const& scales,
               Builder& builder) {
  for (double const scale : scales) {
    if (!(scale > 0) || !std::isfinite(scale)) throw Refusal("a scale of " + Text(scale));
  }
  Count(out);
  if (RepeatsPlanes(mode, x.shape, out, scales)) return {Repeated(x, out, scales, builder)};
  Value result = x;
  for (std::size_t axis = 0; axis < out.size(); ++axis) {
    if (out[axis] < 1) throw Refusal("a result of " + Text(out));
    if (out[axis] == x.shape[axis] && scales[axis] == 1) continue;
    result = mode.kind == "nearest"
                 ? Selected(result, axis, mode, out[axis], scales[axis], builder)
                 : builder.Along(result, axis, Matrix(mode, x.shape[axis], out[axis], scales[axis]), out[axis]);
  }
  return {result};
}

Shape Scaled(Shape const& shape, std::vector<double> const& scales) {
  if (scales.size() != shape.size()) throw Refusal(std::to_string(scales.size()) + " scales for " + Text(shape));
  Shape out;
  for (std::size_t i = 0; i < shape.size(); ++i)
    out.push_back(ToInteger(std::floor(static_cast<double>(shape[i]) * scales[i])));
  return out;
}

Values Upsample(Node const& node, Builder& builder) {
  Value const& x = node.TensorInput(0);
  std::string const kind = node.Word("mode", "nearest");
  if (kind != "nearest" && kind != "linear" && kind != "bilinear") throw Refusal("attribute mode = " + kind);
  std::vector<double> scales;
  if (node.Given(1)) scales = node.ConstantInput(1).values;
  for (float const scale : node.Floats("scales")) scales.push_back(static_cast<double>(scale));
  return Resized(x, {kind == "nearest" ? kind : "linear", "asymmetric", "floor", 0, false}, Scaled(x.shape, scales),
                 scales, builder);
}

Values Resize(Node const& node, Builder& builder) {
  if (node.opset < 11) return Upsample(node, builder);
  Value const& x = node.TensorInput(0);
  Mode const mode{node.Word("mode", "nearest"), node.Word("coordinate_transformation_mode", "half_pixel"),
                  node.Word("nearest_mode", "round_prefer_floor"),
                  static_cast<double>(node.Float("cubic_coeff_a", -0.75f)), node.Int("exclude_outside", 0) != 0};
  if (mode.kind != "nearest" && mode.kind != "linear" && mode.kind != "cubic") {
    throw Refusal("attribute mode = " + mode.kind);
  }
  if (mode.kind == "linear" && mode.exclude_outside) throw Refusal("attribute exclude_outside = 1 with mode = linear");
  for (char const* const known : {"half_pixel", "pytorch_half_pixel", "align_corners", "asymmetric", ""}) {
    if (mode.positions == known) break;
    if (*known == '\0') throw Refusal("attribute coordinate_transformation_mode = " + mode.positions);
  }
  std::vector<double> scales;
  if (node.Given(2)) scales = node.ConstantInput(2).values;
  if (!scales.empty()) return Resized(x, mode, Scaled(x.shape, scales), scales, builder);
  Shape const out = node.ConstantInput(3).Integers();
  if (out.size() != x.shape.size()) throw Refusal(std::to_string(out.size()) + " sizes for " + Text(x.shape));
  for (std::size_t i = 0; i < out.size(); ++i)
    scales.push_back(static_cast<double>(out[i]) / static_cast<double>(x.shape[i]));
  return Resized(x, mode, out, scales, builder);
}

// Pixels as coordinates that end at the pixels' borders, -1 and 1; extents [width, height].
Value FromPixels(Value const& pixels, std::vector<double> const& extents, Builder& b) {
  Array scale{{2}, onnx::TensorProto::FLOAT, {}}, shift = scale;
  for (double const extent : extents) scale.values.push_back(2 / extent), shift.values.push_back(1 / extent - 1);
  return b.Affine(pixels, scale, shift);
}

Value ToPixels(Value const& grid, std::vector<double> const& extents, bool centres, Builder& b) {
  Array scale{{2}, onnx::TensorProto::FLOAT, {}}, shift = scale;
  for (double const extent : extents) {
    scale.values.push_back((centres ? extent - 1 : extent) / 2), shift.values.push_back((extent - 1) / 2);
  }
  return b.Affine(grid, scale, shift);
}

// Pixels folded at the borders of the plane, or at the centres of its outer pixels: a triangle wave.
Value Reflected(Value const& pixels, std::vector<double> const& extents, bool centres, Builder& b) {
  Array scale{{2}, onnx::TensorProto::FLOAT, {}}, shift = scale, back = scale, low = scale;
  for (double const extent : extents) {
    double const span = std::max(centres ? extent - 1 : extent, 1e-6), first = centres ? 0 : -0.5;
    scale.values.push_back(1 / (2 * span)), shift.values.push_back(-first / (2 * span));
    back.values.push_back(2 * span), low.values.push_back(first);
  }
  Value const turns = b.Affine(pixels, scale, shift);
  return b.Affine(b.Absolute(b.Combine(kSub, turns, b.Round(turns))), back, low);
}

// What the kernel counts differently is said in its coordinates: it rounds halves up, folds nothing, and its borders
// are those of the pixels. `extents` are width and height.
Value Coordinates(Node const& node, Value const& grid, std::vector<double> const& extents, Builder& b) {
  bool const centres = node.Int("align_corners", 0) != 0, folds = node.Word("padding_mode", "zeros") == "reflection";
  bool const nearest = node.Word("mode", "bilinear") == "nearest";
  if (nearest || folds) {
    Value pixels = ToPixels(grid, extents, centres, b);
    if (folds) pixels = Reflected(pixels, extents, centres, b);
    return FromPixels(nearest ? b.Round(pixels) : pixels, extents, b);
  }
  if (!centres) return grid;
  Array scale{{2}, onnx::TensorProto::FLOAT, {}};
  for (double const extent : extents) scale.values.push_back((extent - 1) / extent);
  return b.Affine(grid, scale, Scalar(0));
}

// x [1, channels, height, width] at grid [1, rows, columns, 2].
Value Sampled(Node const& node, Value const& x, Value const& grid, Builder& b) {
  long long const height = x.shape[2], width = x.shape[3], rows = grid.shape[1], columns = grid.shape[2];
  Value const pixels = Coordinates(node, grid, {static_cast<double>(width), static_cast<double>(height)}, b);
  auto const record = std::make_shared<talvo::runtime::GridSampleInfo>();
  record->mode = node.Word("mode", "bilinear") == "bilinear";
  record->padding_mode = node.Word("padding_mode", "zeros") != "zeros";
  Value const planes = b.Flat(x, {x.shape[1], height, width}), positions = b.Flat(pixels, {rows, columns, 2});
  return b.Emit(record, "GridSample_Fallback_CHW_Float_M1", {planes, positions}, {x.shape[1], rows, columns},
                talvo::runtime::TensorShape::CHW, {1, x.shape[1], rows, columns});
}

Values GridSample(Node const& node, Builder& builder) {
  Value const& x = node.TensorInput(0);
  Value const grid = builder.Tensor(node.Input(1));
  std::string const mode = node.Word("mode", "bilinear"), padding = node.Word("padding_mode", "zeros");
  if (mode != "bilinear" && mode != "nearest") throw Refusal("attribute mode = " + mode);
  if (padding != "zeros" && padding != "border" && padding != "reflection")
    throw Refusal("attribute padding_mode = " + padding);
  if (x.shape.size() != 4 || grid.shape.size() != 4 || x.shape[0] != grid.shape[0] || grid.shape[3] != 2)
    throw Refusal("planes " + Text(x.shape) + " and grid " + Text(grid.shape) + " do not fit");
  Values samples;
  for (long long n = 0; n < x.shape[0]; ++n)
    samples.push_back(Sampled(node, builder.Slice(x, 0, n, 1, 1), builder.Slice(grid, 0, n, 1, 1), builder));
  return {builder.Join(samples, 0)};
}

}  // namespace

void AddResampling(Translators& table) {
  table.insert({{"GridSample", GridSample}, {"Resize", Resize}, {"Upsample", Upsample}});
}

}  // namespace convert_onnx
