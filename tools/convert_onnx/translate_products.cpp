#include <algorithm>
#include <cctype>
#include <sstream>

#include "tools/convert_onnx/translators.h"

namespace convert_onnx {
namespace {

using Values = std::vector<Value>;

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
  return Builder::As(builder.Rows(Builder::As(x, {rows, k}), turned, m), shape);
}

bool IsOne(Shape const& shape) {
  return std::all_of(shape.begin(), shape.end(), [](long long extent) { return extent == 1; });
}

// [.., m, k] as one matrix, or as the matrices of `batch`; an axis of 1 is repeated by a factor of 1.
Value Matrices(Value const& x, Shape const& batch, Builder& b) {
  Shape const matrix(x.shape.end() - 2, x.shape.end()), own(x.shape.begin(), x.shape.end() - 2);
  if (IsOne(own)) return Builder::As(x, matrix);
  Shape all = batch;
  all.insert(all.end(), matrix.begin(), matrix.end());
  Value const spread = Count(all) == Count(x.shape) ? x : b.Combine(kMul, x, b.Filled(all, 1));
  return Builder::As(spread, {Product(batch, 0, batch.size()), matrix[0], matrix[1]});
}

// A vector is a matrix of one row on the left, of one column on the right, and the result has no such axis.
Value TimesTensor(Value a, Value b, Builder& builder) {
  bool const row = a.shape.size() == 1, column = b.shape.size() == 1;
  if (a.shape.empty() || b.shape.empty()) throw Refusal("a product with a scalar");
  if (row) a = Builder::As(a, {1, a.shape[0]});
  if (column) b = Builder::As(b, {b.shape[0], 1});
  long long const m = a.shape[a.shape.size() - 2], n = b.shape.back();
  if (b.shape[b.shape.size() - 2] != a.shape.back())
    throw Refusal("shapes " + Text(a.shape) + " and " + Text(b.shape) + " do not multiply");
  Shape shape = BroadcastShape({a.shape.begin(), a.shape.end() - 2}, {b.shape.begin(), b.shape.end() - 2});
  Value const product = builder.Multiply(Matrices(a, shape, builder), Matrices(b, shape, builder));
  if (!row) shape.push_back(m);
  if (!column) shape.push_back(n);
  return Builder::As(product, shape);
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

Value ScaledProduct(Node const& node, float alpha, Builder& builder) {
  Value a = node.Input(0), b = node.Input(1);
  if (a.shape.size() != 2 || b.shape.size() != 2)
    throw Refusal("shapes " + Text(a.shape) + " and " + Text(b.shape) + " are no matrices");
  bool const turned = node.Int("transB", 0) != 0;
  if (!a.IsTensor()) a = builder.Tensor(a);
  if (node.Int("transA", 0) != 0) a = builder.Permute(a, {1, 0});
  if (!b.IsConstant()) {
    return builder.Linear(TimesTensor(a, turned ? builder.Permute(b, {1, 0}) : b, builder), alpha, 0);
  }
  Floats weight = b.constant->Floats();
  if (!turned) weight = Turned(weight, b.shape[0], b.shape[1]);
  for (float& w : weight) w *= alpha;
  return TimesConstant(a, weight, b.shape[turned ? 1 : 0], b.shape[turned ? 0 : 1], builder);
}

Values Gemm(Node const& node, Builder& builder) {
  Value const product = ScaledProduct(node, node.Float("alpha", 1), builder);
  if (!node.Given(2)) return {product};
  float const beta = node.Float("beta", 1);
  Value const& c = node.Input(2);
  if (c.IsTensor()) return {builder.Combine(kAdd, product, builder.Linear(c, beta, 0))};
  Array scaled = *c.constant;
  for (double& v : scaled.values) v *= static_cast<double>(beta);
  return {builder.Binary(kAdd, product, Constant(scaled))};
}

// The terms of "ij,jk->ik"; "..." stands for capital letters, as many as there are axes left, Z for the last.
struct Terms {
  std::vector<std::string> inputs;
  std::string output;
};

// `axes` are those that the dots stand for.
std::string Spelled(std::string const& term, std::size_t axes) {
  auto const dots = term.find("...");
  std::string spelled = term;
  if (dots != std::string::npos) {
    std::string letters;
    for (std::size_t i = axes; i-- > 0;) letters += static_cast<char>('Z' - static_cast<int>(i));
    spelled.replace(dots, 3, letters);
  }
  for (char const c : spelled) {
    if (!std::isalpha(static_cast<unsigned char>(c))) throw Refusal("attribute equation has a term " + term);
  }
  return spelled;
}

// Without an arrow: the letters that stand once, sorted, behind all that dots stand for.
std::string ImplicitOutput(std::string const& letters, std::size_t dots) {
  std::string output = Spelled("...", dots), sorted = letters;
  std::sort(sorted.begin(), sorted.end());
  for (char const letter : sorted) {
    bool const once = std::count(sorted.begin(), sorted.end(), letter) == 1;
    if (once && output.find(letter) == std::string::npos) output += letter;
  }
  return output;
}

Terms TermsOf(Node const& node) {
  std::string text = node.Word("equation", "");
  text.erase(std::remove(text.begin(), text.end(), ' '), text.end());
  if (std::any_of(text.begin(), text.end(), [](char c) { return std::isupper(static_cast<unsigned char>(c)); }))
    throw Refusal("attribute equation = " + text + " has capital letters");
  auto const arrow = text.find("->");
  Terms terms;
  std::size_t most = 0;  // axes that dots stand for
  std::string all;
  std::istringstream list(text.substr(0, arrow));
  for (std::string term; std::getline(list, term, ',');) {
    std::size_t const rank = node.Input(terms.inputs.size()).shape.size(),
                      letters = term.size() - std::min<std::size_t>(term.size(), 3);
    std::size_t const dots = term.find("...") == std::string::npos || rank < letters ? 0 : rank - letters;
    if (dots > 20) throw Refusal("attribute equation = " + text + " of " + std::to_string(rank) + " axes");
    most = std::max(most, dots);
    terms.inputs.push_back(Spelled(term, dots));
    all += terms.inputs.back();
  }
  terms.output = arrow == std::string::npos ? ImplicitOutput(all, most) : Spelled(text.substr(arrow + 2), most);
  return terms;
}

// A tensor whose axes have letters.
struct Lettered {
  Value value;
  std::string letters;
};

// The axes in the order of `letters`, each of them among the tensor's own.
Value Arranged(Lettered const& x, std::string const& letters, Builder& b) {
  std::vector<std::size_t> axes;
  for (char const letter : letters) axes.push_back(x.letters.find(letter));
  return b.Permute(x.value, axes);
}

// Without the axes that neither another operand nor the output has.
Lettered Summed(Lettered const& x, std::string const& kept, Builder& b) {
  std::vector<std::size_t> axes;
  Lettered result;
  Shape shape;
  for (std::size_t i = 0; i < x.letters.size(); ++i) {
    if (std::count(x.letters.begin(), x.letters.end(), x.letters[i]) > 1)
      throw Refusal("a diagonal in attribute equation");
    if (kept.find(x.letters[i]) == std::string::npos) {
      axes.push_back(i);
    } else {
      result.letters += x.letters[i];
      shape.push_back(x.value.shape[i]);
    }
  }
  result.value = Builder::As(b.Reduce(x.value, axes, false), shape);
  return result;
}

// Letters of both and of the output, then those of one operand alone and those that are summed, as matrices.
Lettered Joined(Lettered const& x, Lettered const& y, std::string const& output, Builder& b) {
  std::string batch, left, sum, right;
  for (char const letter : x.letters) {
    bool const shared = y.letters.find(letter) != std::string::npos;
    (!shared ? left : output.find(letter) != std::string::npos ? batch : sum) += letter;
  }
  for (char const letter : y.letters) {
    if (x.letters.find(letter) == std::string::npos) right += letter;
  }
  Value const a = Arranged(x, batch + left + sum, b), c = Arranged(y, batch + sum + right, b);
  std::size_t const n = batch.size(), l = n + left.size(), s = n + sum.size();
  for (std::size_t i = 0; i < n + sum.size(); ++i) {
    if (a.shape[i < n ? i : i + left.size()] != c.shape[i]) throw Refusal("extents of one letter differ");
  }
  Shape shape(a.shape.begin(), a.shape.begin() + static_cast<std::ptrdiff_t>(l));
  shape.insert(shape.end(), c.shape.begin() + static_cast<std::ptrdiff_t>(s), c.shape.end());
  Shape const p = {Product(a.shape, 0, n), Product(a.shape, n, l), Product(a.shape, l, a.shape.size())};
  Value const product =
      b.Multiply(Builder::As(a, p), Builder::As(c, {p[0], p[2], Product(c.shape, s, c.shape.size())}));
  return {Builder::As(product, shape), batch + left + right};
}

Values Einsum(Node const& node, Builder& b) {
  Terms const terms = TermsOf(node);
  if (terms.inputs.size() > 2 || terms.inputs.size() != node.inputs.size())
    throw Refusal("attribute equation = " + node.Word("equation", "") + " of " + std::to_string(node.inputs.size()) +
                  " inputs; one or two fit");
  std::vector<Lettered> operands;
  for (std::size_t i = 0; i < terms.inputs.size(); ++i) {
    if (terms.inputs[i].size() != node.Input(i).shape.size())
      throw Refusal("attribute equation does not fit " + Text(node.Input(i).shape));
    std::string const others = terms.output + (terms.inputs.size() == 2 ? terms.inputs[1 - i] : "");
    operands.push_back(Summed({b.Tensor(node.Input(i)), terms.inputs[i]}, others, b));
  }
  Lettered const result = operands.size() == 1 ? operands[0] : Joined(operands[0], operands[1], terms.output, b);
  if (result.letters.size() != terms.output.size()) throw Refusal("attribute equation = " + node.Word("equation", ""));
  for (char const letter : terms.output) {
    if (std::count(result.letters.begin(), result.letters.end(), letter) != 1 ||
        std::count(terms.output.begin(), terms.output.end(), letter) != 1)
      throw Refusal("attribute equation = " + node.Word("equation", ""));
  }
  return {Arranged(result, terms.output, b)};
}

}  // namespace

void AddProducts(Translators& table) { table.insert({{"Einsum", Einsum}, {"Gemm", Gemm}, {"MatMul", MatrixProduct}}); }

}  // namespace convert_onnx
