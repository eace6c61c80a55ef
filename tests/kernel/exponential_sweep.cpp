// `exponential_sweep [STRIDE]` takes every STRIDE-th of the 2^32 floats, and all near the edges, through each row
// function of rows/exponential.h in each instruction set: differences from the mathematics library, greatest errors
// against double, and a digest. Status 1 for a difference, and for digests other than the golden ones of strides 1
// and 64.
#include "talvo/kernel/rows/exponential.h"

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

using namespace talvo::kernel::rows;

struct Function {
  char const* name;
  Primitive<void(float const*, std::size_t, float*)> const& row;
  float (*library)(float);  // none: the baseline instead
  double (*exact)(double);
  std::uint64_t golden_1, golden_64;
};

Function const kFunctions[] = {
    {"exp", ExpRow, [](float x) { return std::exp(x); }, [](double x) { return std::exp(x); }, 0x009C11EBA897C30E,
     0xE17F2DF8762276BE},
    {"sigmoid", SigmoidRow, [](float x) { return 1.0f / (std::exp(0.0f - x) + 1.0f); },
     [](double x) { return 1.0 / (std::exp(-x) + 1.0); }, 0x0B83F7C3B5966B61, 0x67C2DE43C6588E40},
    {"tanh", TanhRow, [](float x) { return std::tanh(x); }, [](double x) { return std::tanh(x); }, 0x14A7BD3E42C35228,
     0x07F84115BC5F2A60},
    // The nearest a logarithm of a float comes to the middle of two floats is 2^-56.8 of its size.
    {"log", LogRow, [](float x) { return static_cast<float>(std::log(static_cast<long double>(x))); },
     [](double x) { return std::log(x); }, 0x18D153A99E231D92, 0xFC1767B30D38375E},
    {"erf", ErfRow, nullptr, [](double x) { return std::erf(x); }, 0xD225F7A983DF03AE, 0x130C6A2507794D22}};

float FloatOf(std::uint32_t bits) {
  float x;
  std::memcpy(&x, &bits, sizeof x);
  return x;
}

// Every NaN counts as one.
std::uint32_t BitsOf(float x) {
  std::uint32_t bits = 0x7FC00000;
  if (!std::isnan(x)) std::memcpy(&bits, &x, sizeof bits);
  return bits;
}

// Where a step of one of the functions changes its ways, the two exps that a fused reduction rounds otherwise, and the
// four logarithms so near the middle of two floats that a sum not rounded to odd tips them over.
std::vector<float> Edges() {
  std::vector<float> edges;
  for (std::uint32_t const bits : {0x4202422Fu, 0xC27C65D9u, 0x3C413D3Au, 0x41178FEBu, 0x65D890D3u, 0x4C5D65A5u}) {
    edges.push_back(FloatOf(bits));
  }
  for (float const at : {0.0f, 0x1p-126f, 0x1p-28f, 0x1p-25f, 0.3465736f, 1.0f, 1.0397208f, 9.01091f, 10.0f, 22.0f,
                         88.72284f, 87.33655f, 90.0f, 103.97208f, 105.0f, 0x1.fffffep+127f}) {
    for (std::uint32_t near = 0; near < 32; ++near) {
      edges.push_back(FloatOf(BitsOf(at) + near - 16));
      edges.push_back(-edges.back());
    }
  }
  return edges;
}

// glibc's functions give the promised bits where they are compiled with fused multiply-add, and until 2.41 rounds tanhf
// correctly; else sets are compared with the baseline.
bool LibraryCounts() {
#if defined(__x86_64__) && defined(__GLIBC__) && __GLIBC_MINOR__ < 41
  return __builtin_cpu_supports("fma");
#else
  return false;
#endif
}

// In units in the last place, where the result is neither infinite nor 0.
double Error(double exact, float y) {
  int const exponent = std::max(static_cast<int>(BitsOf(static_cast<float>(exact)) >> 23 & 255), 1);
  return std::isfinite(y) && y != 0.0f ? std::abs(static_cast<double>(y) - exact) * std::ldexp(1.0, 150 - exponent) : 0;
}

struct Result {
  bool measures_error;
  double error = 0.0;
  std::uint64_t digest = 0xCBF29CE484222325;  // FNV-1a over the words that the baseline gives
  std::uint64_t differing[kInstructionSets] = {};
};

void Walk(Function const& function, std::vector<float> const& x, Result& result) {
  std::vector<float> want(x.size()), y(x.size());
  function.row(x.data(), x.size(), y.data());
  for (std::size_t i = 0; i < x.size(); ++i) {
    result.digest = (result.digest ^ BitsOf(y[i])) * 0x100000001B3;
    want[i] = function.library != nullptr && LibraryCounts() ? function.library(x[i]) : y[i];
    if (result.measures_error) result.error = std::max(result.error, Error(function.exact(double{x[i]}), y[i]));
  }
  for (auto const set : RunnableSets()) {
    ScopedInstructionSet const use(set);
    function.row(x.data(), x.size(), y.data());
    auto& differing = result.differing[static_cast<std::size_t>(set)];
    for (std::size_t i = 0; i < x.size(); ++i) differing += BitsOf(y[i]) != BitsOf(want[i]);
  }
}

bool Passes(Function const& function, std::uint64_t stride) {
  ScopedInstructionSet const use(InstructionSet::kBaseline);
  Result result = {stride == 1};
  std::uint64_t bits = 0;
  for (auto x = Edges(); !x.empty();) {
    Walk(function, x, result);
    x.clear();
    for (; x.size() < 4096 && bits >> 32 == 0; bits += stride) x.push_back(FloatOf(static_cast<std::uint32_t>(bits)));
  }
  std::printf("%s: digest 0x%016" PRIX64 ", greatest error %.3f", function.name, result.digest, result.error);
  bool good = result.digest == (stride == 1 ? function.golden_1 : function.golden_64) || (stride != 1 && stride != 64);
  for (auto const set : RunnableSets()) {
    auto const differing = result.differing[static_cast<std::size_t>(set)];
    std::printf(", %s differs on %" PRIu64, NameOf(set), differing);
    good = good && differing == 0;
  }
  std::printf("%s\n", good ? "" : ": WRONG");
  return good;
}

}  // namespace

int main(int argc, char** argv) {
  std::uint64_t const stride = std::max(argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 64, 1ull);
  bool good = true;
  for (Function const& function : kFunctions) good = Passes(function, stride) && good;
  return good ? 0 : 1;
}
