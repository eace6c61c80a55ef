#include "tools/convert_onnx/translators.h"

namespace convert_onnx {
namespace {

using Values = std::vector<Value>;

constexpr long long kMaximumProducts = 1ll << 24;  // of a product of two tensors by broadcasting and summing

// [k, m] to [m, k].
Floats Turned(Floats const& matrix, long long k, long long m) {
  Floats turned(matrix.size());
  for (long long i = 0; i < k; ++i) {
    for (long long j = 0; j < m; ++j)
      turned[static_cast<std::size_t>(j * k + i)] = matrix[static_cast<std::size_t>(i * m + j)];
  }
  return turned;
}

// x [.., k] times a constant [k, m] that is given as [m, k].
Value TimesConstant(Value const& x, Floats const& turned, long long k, long long m, Builder& builder) {
  if (x.shape.empty() || x.shape.back() != k)
    throw Refusal("shapes " + Text(x.shape) + " and " + Text({k, m}) + " do not multiply");
  Shape shape = x.shape;
  shape.back() = m;
  long long const rows = static_cast<long long>(Count(x.shape)) / k;
  if (rows == 1) return Builder::As(builder.Dense(x, turned, {}, m), shape);
  return Builder::As(builder.Along(Builder::As(x, {rows, k}), 1, turned, m), shape);
}

Value TimesTensor(Value a, Value b, Builder& builder) {
  if (a.shape.size() < 2 || b.shape.size() < 2)
    throw Refusal("a product of two tensors of which one has a single axis");
  long long const m = a.shape[a.shape.size() - 2], k = a.shape.back(), n = b.shape.back();
  if (b.shape[b.shape.size() - 2] != k)
    throw Refusal("shapes " + Text(a.shape) + " and " + Text(b.shape) + " do not multiply");
  Shape left = a.shape, right = b.shape;
  Shape shape = BroadcastShape({left.begin(), left.end() - 2}, {right.begin(), right.end() - 2});
  if (Product(shape, 0, shape.size()) * m > kMaximumProducts / k / n) {
    throw Refusal("a product of two tensors " + Text(left) + " and " + Text(right) + " of more than 2^24 products");
  }
  left.push_back(1);
  right.insert(right.end() - 2, 1);
  Value const products = builder.Combine(kMul, Builder::As(a, left), Builder::As(b, right));
  shape.insert(shape.end(), {m, n});
  return Builder::As(builder.Reduce(products, {products.shape.size() - 2}, false), shape);
}

Values MatrixProduct(Node const& node, Builder& builder) {
  Value const &a = node.Input(0), &b = node.Input(1);
  if (a.IsTensor() && b.IsConstant() && b.shape.size() == 2) {
    Floats const turned = Turned(b.constant->Floats(), b.shape[0], b.shape[1]);
    return {TimesConstant(a, turned, b.shape[0], b.shape[1], builder)};
  }
  if (b.IsTensor() && a.IsConstant() && a.shape.size() == 2 && b.shape.size() >= 2) {
    std::size_t const axis = b.shape.size() - 2;
    if (b.shape[axis] != a.shape[1])
      throw Refusal("shapes " + Text(a.shape) + " and " + Text(b.shape) + " do not multiply");
    return {builder.Along(b, axis, a.constant->Floats(), a.shape[0])};
  }
  return {TimesTensor(builder.Tensor(a), builder.Tensor(b), builder)};
}

Value Product(Node const& node, float alpha, Builder& builder) {
  Value a = node.Input(0), b = node.Input(1);
  if (a.shape.size() != 2 || b.shape.size() != 2)
    throw Refusal("shapes " + Text(a.shape) + " and " + Text(b.shape) + " are no matrices");
  bool const turned = node.Int("transB", 0) != 0;
  if (!a.IsTensor()) a = builder.Tensor(a);
  if (node.Int("transA", 0) != 0) a = builder.Permute(a, {1, 0});
  if (!b.IsConstant()) {
    Value const product = TimesTensor(a, turned ? builder.Permute(b, {1, 0}) : b, builder);
    return builder.Linear(product, alpha, 0);
  }
  Floats weight = b.constant->Floats();
  if (!turned) weight = Turned(weight, b.shape[0], b.shape[1]);
  for (float& w : weight) w *= alpha;
  return TimesConstant(a, weight, b.shape[turned ? 1 : 0], b.shape[turned ? 0 : 1], builder);
}

Values Gemm(Node const& node, Builder& builder) {
  Value const product = Product(node, node.Float("alpha", 1), builder);
  if (!node.Given(2)) return {product};
  float const beta = node.Float("beta", 1);
  Value const& c = node.Input(2);
  if (c.IsTensor()) return {builder.Combine(kAdd, product, builder.Linear(c, beta, 0))};
  Array scaled = *c.constant;
  for (double& v : scaled.values) v *= static_cast<double>(beta);
  return {builder.Binary(kAdd, product, Constant(scaled))};
}

}  // namespace

void AddProducts(Translators& table) { table.insert({{"Gemm", Gemm}, {"MatMul", MatrixProduct}}); }

}  // namespace convert_onnx
