#include <algorithm>
#include <cmath>

#include "tools/convert_onnx/translators.h"

namespace convert_onnx {
namespace {

using Values = std::vector<Value>;

struct Mode {
  std::string kind, positions, nearest;
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
  double const down = std::floor(position);
  bool const half = position - down == 0.5;
  if (half) return static_cast<long long>(rule == "round_prefer_floor" ? down : down + 1);
  return static_cast<long long>(std::round(position));
}

// One axis as a matrix [out, in].
Floats Matrix(Mode const& mode, long long in, long long out, double scale) {
  Floats matrix(Count({out, in}), 0.0f);
  for (long long i = 0; i < out; ++i) {
    double const position = Position(mode, i, in, out, scale);
    auto const add = [&](long long at, double weight) {
      matrix[static_cast<std::size_t>(i * in + std::clamp(at, 0ll, in - 1))] += static_cast<float>(weight);
    };
    if (mode.kind == "nearest") {
      add(Nearest(mode.nearest, position), 1);
    } else {
      double const down = std::floor(position);
      add(static_cast<long long>(down), 1 - (position - down));
      add(static_cast<long long>(down) + 1, position - down);
    }
  }
  return matrix;
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
    result = builder.Along(result, axis, Matrix(mode, x.shape[axis], out[axis], scales[axis]), out[axis]);
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
  return Resized(x, {kind == "nearest" ? kind : "linear", "asymmetric", "floor"}, Scaled(x.shape, scales), scales,
                 builder);
}

Values Resize(Node const& node, Builder& builder) {
  if (node.opset < 11) return Upsample(node, builder);
  Value const& x = node.TensorInput(0);
  Mode const mode{node.Word("mode", "nearest"), node.Word("coordinate_transformation_mode", "half_pixel"),
                  node.Word("nearest_mode", "round_prefer_floor")};
  if (mode.kind != "nearest" && mode.kind != "linear") throw Refusal("attribute mode = " + mode.kind);
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

}  // namespace

void AddResampling(Translators& table) { table.insert({{"Resize", Resize}, {"Upsample", Upsample}}); }

}  // namespace convert_onnx
