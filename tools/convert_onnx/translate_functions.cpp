// Functions that no kernel has: series and formulas that hold in a range, which each of them says.
#include <algorithm>
#include <cmath>

#include "talvo/utility/half.h"
#include "tools/convert_onnx/translators.h"

namespace convert_onnx {
namespace {

using Values = std::vector<Value>;

constexpr double kPi = 3.14159265358979323846;

float NextHalf(double value) { return half_float::half(static_cast<float>(value)); }

// scale * x + shift, each constant as the sum of two halves, so that both forms of a package hold them.
Value Fine(Value const& x, double scale, double shift, Builder& b) {
  constexpr double kDown = 0x1p-12;
  Value scaled = x;
  for (; std::abs(scale) < 0x1p-4; scale /= kDown) scaled = b.Linear(scaled, static_cast<float>(kDown), 0);
  float const high = NextHalf(scale), high_shift = NextHalf(shift);
  float const low = NextHalf(scale - static_cast<double>(high)),
              low_shift = NextHalf(shift - static_cast<double>(high_shift));
  Value const most = b.Linear(scaled, high, high_shift);
  return low == 0 && low_shift == 0 ? most : b.Combine(kAdd, most, b.Linear(scaled, low, low_shift));
}

// x (c[0] + c[1] x^2 + c[2] x^4 + ...).
Value Odd(Value const& x, std::vector<double> const& c, Builder& b) {
  Value const square = b.Combine(kMul, x, x);
  Value sum = Fine(square, c.back(), c[c.size() - 2], b);
  for (std::size_t i = c.size() - 2; i-- > 0;) {
    sum = Fine(b.Combine(kMul, sum, square), 1, c[i], b);
  }
  return b.Combine(kMul, x, sum);
}

// x - k pi, pi in four parts of which the first two have products with k that are exact.
Value WithoutTurns(Value const& x, Value const& k, Builder& b) {
  Value rest = x;
  for (double const part : {3.140625, 0x1.fbp-11, 0x1.51p-21, kPi - 3.140625 - 0x1.fbp-11 - 0x1.51p-21}) {
    rest = b.Combine(kSub, rest, Fine(k, part, 0, b));
  }
  return rest;
}

// sin of x = (turns + shift) pi + rest, or cos with a shift of 1/2: (-1)^turns sin(rest), by the series up to x^11.
Value Wave(Value const& x, bool cosine, Builder& b) {
  b.Approximate("sines and cosines hold to 2e-6 for angles up to 8192");
  float const shift = cosine ? 0.5f : 0.0f;
  Value const turns = b.Round(Fine(x, 1 / kPi, static_cast<double>(-shift), b));
  Value const rest = WithoutTurns(x, b.Linear(turns, 1, shift), b);
  Value const odd = b.Absolute(b.Combine(kSub, turns, b.Linear(b.Round(b.Linear(turns, 0.5f, 0)), 2, 0)));
  Value const sign = cosine ? b.Linear(odd, 2, -1) : b.Linear(odd, -2, 1);
  return b.Combine(kMul, sign, Odd(rest, {1, -1.0 / 6, 1.0 / 120, -1.0 / 5040, 1.0 / 362880, -1.0 / 39916800}, b));
}

Values Sine(Node const& node, Builder& b) { return {Wave(node.TensorInput(0), false, b)}; }
Values Cosine(Node const& node, Builder& b) { return {Wave(node.TensorInput(0), true, b)}; }
Values Tangent(Node const& node, Builder& b) {
  return {b.Combine(kDiv, Wave(node.TensorInput(0), false, b), Wave(node.TensorInput(0), true, b))};
}

// atan(x) = 2 atan(x / (1 + sqrt(1 + x^2))), three times, then the series up to x^11.
Value Arc(Value const& x, Builder& b) {
  b.Approximate("inverse tangents hold to 1e-6 for values below 1e19 in size");
  Value t = x;
  for (int i = 0; i < 3; ++i) {
    Value const length = b.SquareRoot(b.Linear(b.Combine(kMul, t, t), 1, 1));
    t = b.Combine(kDiv, t, b.Linear(length, 1, 1));
  }
  return b.Linear(Odd(t, {1, -1.0 / 3, 1.0 / 5, -1.0 / 7, 1.0 / 9, -1.0 / 11}, b), 8, 0);
}

// 2 atan(x / (1 + sqrt((1 - x) (1 + x)))).
Value ArcSine(Value const& x, Builder& b) {
  Value const other = b.SquareRoot(b.Combine(kMul, b.Linear(x, -1, 1), b.Linear(x, 1, 1)));
  return b.Linear(Arc(b.Combine(kDiv, x, b.Linear(other, 1, 1)), b), 2, 0);
}

Values InverseTangent(Node const& node, Builder& b) { return {Arc(node.TensorInput(0), b)}; }
Values InverseSine(Node const& node, Builder& b) { return {ArcSine(node.TensorInput(0), b)}; }
Values InverseCosine(Node const& node, Builder& b) { return {Fine(ArcSine(node.TensorInput(0), b), -1, kPi / 2, b)}; }

// f(max(x, 0)) - f(max(-x, 0)), for odd functions.
template <class Function>
Value BothSides(Value const& x, Builder& b, Function const& f) {
  return b.Combine(kSub, f(b.Relu(x)), f(b.Relu(b.Negative(x))));
}

// log(1 + (x + x^2 / (1 + sqrt(1 + x^2)))).
Values InverseHyperbolicSine(Node const& node, Builder& b) {
  b.Approximate("inverse hyperbolic sines hold below 1e19 in size");
  return {BothSides(node.TensorInput(0), b, [&b](Value const& x) {
    Value const square = b.Combine(kMul, x, x);
    Value const length = b.SquareRoot(b.Linear(square, 1, 1));
    return b.LogarithmOfOneMore(b.Combine(kAdd, x, b.Combine(kDiv, square, b.Linear(length, 1, 1))));
  })};
}

// log(1 + (t + sqrt(t (t + 2)))) with t = x - 1.
Values InverseHyperbolicCosine(Node const& node, Builder& b) {
  b.Approximate("inverse hyperbolic cosines hold below 1e19");
  Value const t = b.Linear(node.TensorInput(0), 1, -1);
  return {b.LogarithmOfOneMore(b.Combine(kAdd, t, b.SquareRoot(b.Combine(kMul, t, b.Linear(t, 1, 2)))))};
}

// log(1 + 2 x / (1 - x)) / 2.
Values InverseHyperbolicTangent(Node const& node, Builder& b) {
  b.Approximate("inverse hyperbolic tangents hold between -1 and 1, both left out");
  Value const made = BothSides(node.TensorInput(0), b, [&b](Value const& x) {
    return b.LogarithmOfOneMore(b.Combine(kDiv, b.Linear(x, 2, 0), b.Linear(x, -1, 1)));
  });
  return {b.Linear(made, 0.5f, 0)};
}

// Exponents that are whole from 1 to 8, in size, and halves of them.
Value WholePower(Value const& x, double exponent, Builder& b) {
  Value const base = exponent == std::floor(exponent) ? x : b.SquareRoot(x);
  int const times = static_cast<int>(std::abs(exponent == std::floor(exponent) ? exponent : 2 * exponent));
  Value result = base;
  for (int i = 1; i < times; ++i) result = b.Combine(kMul, result, base);
  return exponent < 0 ? b.Inverse(result) : result;
}

// Whole exponents take bases below 0 as well: |x|^y, with the sign of x where y is odd.
Value ConstantPower(Value const& x, Array exponents, Builder& b) {
  auto const& list = exponents.values;
  bool const whole = std::all_of(list.begin(), list.end(), [](double v) { return v == std::floor(v); });
  b.Approximate("powers as e^(y log x) hold for bases " + std::string(whole ? "other than 0" : "above 0") +
                ", to 2e-7 |y log x| of the result");
  exponents.type = onnx::TensorProto::FLOAT;
  Value const logarithm = b.Logarithm(whole ? b.Absolute(x) : x);
  Value const power = b.Exponential(b.Binary(kMul, logarithm, Constant(exponents)));
  if (!whole) return power;
  Array odd = exponents, even = exponents;
  for (double& v : odd.values) v = std::fmod(v, 2) != 0 ? 1 : 0;
  for (std::size_t i = 0; i < odd.values.size(); ++i) even.values[i] = 1 - odd.values[i];
  Value const sign = b.Combine(kSub, b.Step(x), b.Step(b.Negative(x)));
  return b.Combine(kMul, power, b.Binary(kAdd, b.Binary(kMul, sign, Constant(odd)), Constant(even)));
}

Values Power(Node const& node, Builder& b) {
  Value const &x = node.Input(0), &exponent = node.Input(1);
  if (x.IsTensor() && exponent.IsConstant() && !exponent.constant->values.empty()) {
    auto const& list = exponent.constant->values;
    double const e = list[0];
    bool const one = std::all_of(list.begin(), list.end(), [e](double v) { return v == e; });
    bool const whole = e == std::floor(e) && e != 0 && std::abs(e) <= 8, half = std::abs(e) == 0.5;
    if (one && (whole || half) && BroadcastShape(exponent.shape, x.shape) == x.shape) return {WholePower(x, e, b)};
  }
  Value const base = b.Tensor(x);
  if (exponent.IsConstant()) return {ConstantPower(base, *exponent.constant, b)};
  b.Approximate("powers as e^(y log x) hold for bases above 0, to 2e-7 |y log x| of the result");
  return {b.Exponential(b.Combine(kMul, b.Logarithm(base), exponent))};
}

// x - q y with q = x / y, rounded to a whole number: down, or towards zero with fmod = 1.
Values Modulo(Node const& node, Builder& b) {
  b.Approximate("remainders hold for quotients below 2^22 that are not within rounding of a whole number");
  Value const x = b.Tensor(node.Input(0)), y = b.Tensor(node.Input(1)), q = b.Combine(kDiv, x, y);
  auto const down = [&b](Value const& v) {
    Value const round = b.Round(v);
    return b.Combine(kSub, round, b.Step(b.Combine(kSub, round, v)));
  };
  Value whole = down(q);
  if (node.Int("fmod", 0) != 0) {
    Value const sign = b.Combine(kSub, b.Step(q), b.Step(b.Negative(q)));
    whole = b.Combine(kMul, sign, down(b.Absolute(q)));
  }
  return {b.Combine(kSub, x, b.Combine(kMul, whole, y))};
}

}  // namespace

void AddFunctions(Translators& table) {
  table.insert({{"Acos", InverseCosine},
                {"Acosh", InverseHyperbolicCosine},
                {"Asin", InverseSine},
                {"Asinh", InverseHyperbolicSine},
                {"Atan", InverseTangent},
                {"Atanh", InverseHyperbolicTangent},
                {"Cos", Cosine},
                {"Mod", Modulo},
                {"Pow", Power},
                {"Sin", Sine},
                {"Tan", Tangent}});
}

}  // namespace convert_onnx
