// convert_onnx: the standard's own tests through converter and library, and files that are no models.
#include <gtest/gtest.h>
#include <rapidjson/document.h>
#include <rapidjson/istreamwrapper.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>

#include "talvo/utility/features.h"
#include "tests/support/run_program.h"
#include "tests/support/scratch_folder.h"
#include "tools/common/rounding.h"
#include "tools/convert_onnx/check.h"

namespace convert_onnx {
namespace {

namespace fs = std::filesystem;
using talvo::test::Outcome;
using talvo::test::RunProgram;
using talvo::test::ScratchFolder;

struct Recorded {
  onnx::ModelProto model;
  std::vector<std::string> names;  // of the inputs without initialisers
  std::vector<Array> inputs, outputs;
};

Recorded ReadFolder(fs::path const& folder) {
  Recorded recorded{ReadModel((folder / "model.onnx").string()), {}, {}, {}};
  auto const& graph = recorded.model.graph();
  for (auto const& input : graph.input()) {
    bool const free = std::none_of(graph.initializer().begin(), graph.initializer().end(),
                                   [&](auto const& tensor) { return tensor.name() == input.name(); });
    if (free) recorded.names.push_back(input.name());
  }
  recorded.inputs = ReadArrays((folder / "test_data_set_0").string(), "input");
  recorded.outputs = ReadArrays((folder / "test_data_set_0").string(), "output");
  if (recorded.inputs.size() > recorded.names.size()) throw Refusal("more inputs than the graph has");
  return recorded;
}

bool IsWide(int type) { return type == onnx::TensorProto::DOUBLE || type == onnx::TensorProto::FLOAT16; }

// Inputs that tensors cannot hold become constants, and all but the first where `bind_others`.
Options OptionsFor(Recorded const& recorded, Options options, bool bind_others) {
  bool first = true;
  for (std::size_t i = 0; i < recorded.inputs.size(); ++i) {
    Array const& input = recorded.inputs[i];
    bool const held = input.type == onnx::TensorProto::FLOAT || (options.narrow && IsWide(input.type));
    if (!held || (bind_others && !first)) {
      options.bound[recorded.names[i]] = input;
    } else {
      options.shapes[recorded.names[i]] = input.shape;
      first = false;
    }
  }
  return options;
}

Shape WithoutBatch(Shape shape) {
  if (shape.size() > 1 && shape[0] == 1) shape.erase(shape.begin());
  return shape.empty() ? Shape{1} : shape;
}

struct Way {
  char const* why;
  Options options;
  bool binary;  // through a file of the binary form, with weights rounded to the nearest half
  Bounds bounds;
  std::size_t least;  // tests that are right
};

std::vector<Array> Computed(Recorded const& recorded, Conversion const& conversion, bool binary) {
  std::map<std::string, Array> inputs;
  for (std::size_t i = 0; i < recorded.inputs.size(); ++i) inputs[recorded.names[i]] = recorded.inputs[i];
  if (!binary) return Run(*MakePackage(conversion, "model"), inputs).values;
  ScratchFolder const folder;
  auto const package = MakePackage(conversion, "model");
  if (!tools::RoundToHalves(*package, true).overflowing.empty()) throw Refusal("(binary): weights beyond 65504");
  package->ToFile(folder.Path("m.tlnmodel").c_str(), "bin");
  talvo::runtime::TLNModel read;
  read.FromFile(folder.Path("m.tlnmodel").c_str(), "bin");
  return Run(read, inputs).values;
}

// What differs, or nothing. Refusal: what cannot be converted.
std::string Compare(Recorded const& recorded, fs::path const& folder, Way const& way, bool bind_others) {
  Options const options = OptionsFor(recorded, way.options, bind_others);
  Conversion const conversion = Convert(recorded.model, folder.string(), options);
  if (!conversion.refusals.empty()) throw Refusal(conversion.refusals[0]);
  auto const got = Computed(recorded, conversion, way.binary);
  if (got.size() != recorded.outputs.size()) return "the number of outputs";
  for (std::size_t i = 0; i < got.size(); ++i) {
    if (got[i].shape != WithoutBatch(recorded.outputs[i].shape)) {
      return "shape " + Text(got[i].shape) + ", recorded is " + Text(recorded.outputs[i].shape);
    }
    std::string const off = Difference(got[i], recorded.outputs[i], way.bounds);
    if (!off.empty()) return off;
  }
  return "";
}

std::vector<fs::path> Folders() {
  std::vector<fs::path> folders;
  for (auto const& entry : fs::recursive_directory_iterator("/usr/share/libonnx-testdata/data")) {
    fs::path const folder = entry.path().parent_path();
    if (entry.path().filename() == "model.onnx" && fs::exists(folder / "test_data_set_0")) folders.push_back(folder);
  }
  return folders;
}

struct Tally {
  std::size_t right = 0, refused = 0, off = 0;
  std::map<std::string, std::size_t> reasons;
};

void Try(fs::path const& folder, Way const& way, Tally& tally) {
  SCOPED_TRACE(folder.string());
  try {
    Recorded const recorded = ReadFolder(folder);
    std::string off;
    try {
      off = Compare(recorded, folder, way, false);
    } catch (Refusal const&) {
      off = Compare(recorded, folder, way, true);
    }
    ++(off.empty() ? tally.right : tally.off);
    if (way.binary && !off.empty()) std::printf("%s: %s\n", folder.filename().c_str(), off.c_str());
    EXPECT_TRUE(way.binary || off.empty()) << off;
  } catch (Refusal const& refusal) {
    ++tally.refused;
    std::string const reason = refusal.what();
    ++tally.reasons[reason.substr(std::min(reason.find('('), reason.size()))];
    EXPECT_EQ(std::string::npos, reason.find("the library refuses")) << reason;
  }
}

TEST(ConvertOnnx, AgreesWithTheStandardsTestsOrRefuses) {
  if (!fs::exists("/usr/share/libonnx-testdata/data")) GTEST_SKIP() << "libonnx-testdata is not installed";
  Options plain, approximate, narrow, fused, blas;
  approximate.approximate = narrow.approximate = narrow.narrow = fused.approximate = blas.approximate = true;
  fused.kernels = Kernels::kFused;
  blas.kernels = Kernels::kBlas;
  Bounds const close = {1e-4, 1e-6}, half = {1e-3, 0}, narrowed = {1e-3, 1e-30};
  auto const folders = Folders();
  for (Way const& way : {Way{"without options", plain, false, close, 556},
                         {"--approximate", approximate, false, close, 584},
                         {"--approximate --kernels fused", fused, false, close, 584},
                         {"--approximate --kernels blas", blas, false, close, 584},
                         {"--approximate --narrow", narrow, false, narrowed, 619},
                         {"--approximate, binary form", approximate, true, half, 584}}) {
    if (!TALVO_WITH_BLAS && way.options.kernels == Kernels::kBlas) continue;
    SCOPED_TRACE(way.why);
    Tally tally;
    for (fs::path const& folder : folders) Try(folder, way, tally);
    if (std::string(way.why) == "--approximate") {
      for (auto const& [reason, count] : tally.reasons) std::printf("%4zu refused %s\n", count, reason.c_str());
    }
    std::printf("%s: %zu right, %zu off, %zu refused of %zu\n", way.why, tally.right, tally.off, tally.refused,
                folders.size());
    EXPECT_GE(tally.right, way.least);
  }
}

Outcome Program(std::string const& arguments) { return RunProgram(TALVO_CONVERT_ONNX " " + arguments); }

// y = conv(x, w) with x [1, 2, 4, 4], w [3, 2, 1, 1], and a batch normalisation behind it.
onnx::ModelProto SmallModel() {
  onnx::ModelProto model;
  model.add_opset_import()->set_version(13);
  auto& graph = *model.mutable_graph();
  auto const tensor = [&](std::string const& name, Shape const& shape, std::vector<float> const& values) {
    auto& made = *graph.add_initializer();
    made.set_name(name);
    made.set_data_type(onnx::TensorProto::FLOAT);
    for (long long const extent : shape) made.add_dims(extent);
    for (float const value : values) made.add_float_data(value);
  };
  tensor("w", {3, 2, 1, 1}, {1, 2, 3, 4, 5, 6});
  tensor("scale", {3}, {1, 2, 3});
  tensor("shift", {3}, {4, 5, 6});
  tensor("mean", {3}, {1, 1, 2});
  tensor("variance", {3}, {4, 4, 9});
  auto& input = *graph.add_input();
  input.set_name("x");
  auto& type = *input.mutable_type()->mutable_tensor_type();
  type.set_elem_type(onnx::TensorProto::FLOAT);
  for (int const extent : {1, 2, 4, 4}) type.mutable_shape()->add_dim()->set_dim_value(extent);
  auto const node = [&](char const* operation, std::vector<std::string> const& inputs, char const* output) {
    auto& made = *graph.add_node();
    made.set_op_type(operation);
    for (std::string const& name : inputs) made.add_input(name);
    made.add_output(output);
  };
  node("Conv", {"x", "w"}, "c");
  node("BatchNormalization", {"c", "scale", "shift", "mean", "variance"}, "y");
  graph.add_output()->set_name("y");
  return model;
}

// y = operation(x, further...), further inputs as constants.
onnx::ModelProto OneNode(char const* operation, Shape const& shape, std::vector<Array> const& further = {}) {
  onnx::ModelProto model;
  model.add_opset_import()->set_version(15);
  auto& graph = *model.mutable_graph();
  auto& type = *graph.add_input()->mutable_type()->mutable_tensor_type();
  graph.mutable_input(0)->set_name("x");
  type.set_elem_type(onnx::TensorProto::FLOAT);
  for (long long const extent : shape) type.mutable_shape()->add_dim()->set_dim_value(extent);
  auto& node = *graph.add_node();
  node.set_op_type(operation), node.add_input("x"), node.add_output("y");
  for (Array const& array : further) {
    auto& tensor = *graph.add_initializer();
    tensor.set_name("c" + std::to_string(graph.initializer_size())), tensor.set_data_type(array.type);
    node.add_input(tensor.name());
    for (long long const extent : array.shape) tensor.add_dims(extent);
    for (double const value : array.values) {
      if (array.type == onnx::TensorProto::INT64) tensor.add_int64_data(static_cast<long long>(value));
      if (array.type == onnx::TensorProto::FLOAT) tensor.add_float_data(static_cast<float>(value));
    }
  }
  graph.add_output()->set_name("y");
  return model;
}

std::vector<double> Through(onnx::ModelProto const& model, Array const& x, bool halves = false) {
  Options options;
  options.approximate = true;
  Conversion const conversion = Convert(model, "", options);
  if (!conversion.refusals.empty()) throw Refusal(conversion.refusals[0]);
  auto const package = MakePackage(conversion, "m");
  if (halves) tools::RoundToHalves(*package, true);
  return convert_onnx::Run(*package, {{"x", x}}).values.at(0).values;
}

// Between bounds, and near 0 where they meet there: errors against the result, unless that is smaller than `least`,
// in both forms of a package.
TEST(ConvertOnnx, CompositionsHoldOverTheirRange) {
  struct Case {
    char const* operation;
    double low, high, bound, least;
    double (*exact)(double);
  };
  auto const softplus = [](double x) { return std::max(x, 0.0) + std::log1p(std::exp(-std::abs(x))); };
  auto const elu = [](double x) { return x > 0 ? x : std::expm1(x); };
  Case const cases[] = {{"Sqrt", 0, 1e30, 1e-7, 0, std::sqrt},
                        {"Log", 1e-38, 1e38, 1e-7, 0, std::log},
                        {"Erf", -5, 5, 1e-7, 0, std::erf},
                        {"Exp", -87, 87, 2e-6, 0, std::exp},
                        {"Elu", -80, 80, 1e-6, 0, elu},
                        {"Softplus", -80, 80, 1e-6, 0, softplus},
                        {"Sinh", -80, 80, 2e-6, 0, std::sinh},
                        {"Cosh", -80, 80, 2e-6, 0, std::cosh},
                        {"Sin", -8192, 8192, 2e-6, 1, std::sin},
                        {"Cos", -8192, 8192, 2e-6, 1, std::cos},
                        {"Atan", -1e18, 1e18, 1e-6, 0, std::atan},
                        {"Asin", -1, 1, 1e-6, 0, std::asin},
                        {"Acos", -1, 1, 1e-6, 1, std::acos},
                        {"Asinh", -1e18, 1e18, 1e-6, 0, std::asinh},
                        {"Acosh", 1, 1e18, 1e-6, 1e-3, std::acosh},
                        {"Atanh", -0.999, 0.999, 1e-6, 0, std::atanh}};
  constexpr int kCount = 4001;
  for (Case const& c : cases) {
    SCOPED_TRACE(c.operation);
    Array x{{kCount}, onnx::TensorProto::FLOAT, {}};
    for (int i = 0; i < kCount; ++i) {
      double const even = c.low + (c.high - c.low) * i / (kCount - 1), small = std::pow(10.0, -i % 30);
      bool const fits = i % 2 != 0 && c.low <= 0;
      x.values.push_back(double{static_cast<float>(fits ? std::clamp(even * small, c.low, c.high) : even)});
    }
    for (bool const halves : {false, true}) {
      auto const got = Through(OneNode(c.operation, x.shape), x, halves);
      double worst = 0;
      for (std::size_t i = 0; i < got.size(); ++i) {
        double const want = c.exact(x.values[i]), size = std::max({std::abs(want), c.least, 1e-37});
        worst = std::max(worst, std::abs(got[i] - want) / size);
      }
      EXPECT_LE(worst, c.bound) << halves;
    }
  }
}

TEST(ConvertOnnx, SelectionsAndThresholdsKeepInfinitiesAndTinyNumbersApart) {
  double const nan = std::nan(""), infinity = INFINITY, tiny = 0x1p-149;
  Array const x{{5}, onnx::TensorProto::FLOAT, {nan, tiny, infinity, -tiny, -infinity}};
  auto const same = [](std::vector<double> const& want, std::vector<double> const& got) {
    ASSERT_EQ(want.size(), got.size());
    for (std::size_t i = 0; i < want.size(); ++i)
      EXPECT_TRUE(want[i] == got[i] || (std::isnan(want[i]) && std::isnan(got[i]))) << i << ": " << got[i];
  };
  Array const places{{6}, onnx::TensorProto::INT64, {4, 1, 1, 3, 2, 0}};
  same({-infinity, tiny, tiny, -tiny, infinity, nan}, Through(OneNode("Gather", {5}, {places}), x));
  same({nan, 1, 1, -1, -1}, Through(OneNode("Sign", {5}), x));
  same({nan, 0, infinity, 0, 0}, Through(OneNode("ThresholdedRelu", {5}), x));
  same({nan, 0, infinity, 0, -infinity}, Through(OneNode("Shrink", {5}), x));
  Array const y{{5}, onnx::TensorProto::FLOAT, {1, 0, infinity, -tiny, nan}};
  same({0, 1, 0, 0, 0}, Through(OneNode("Greater", {5}, {y}), x));
  same({0, 0, 0, 0, 0}, Through(OneNode("Less", {5}, {y}), x));
  same({0, 0, 1, 1, 0}, Through(OneNode("Equal", {5}, {y}), x));
  same({0, 1, 1, 1, 0}, Through(OneNode("GreaterOrEqual", {5}, {y}), x));
  same({0, 0, 1, 1, 0}, Through(OneNode("LessOrEqual", {5}, {y}), x));
  Array const low{{}, onnx::TensorProto::FLOAT, {-infinity}}, truth{{5}, onnx::TensorProto::FLOAT, {0, 1, 1, 0, 0}};
  same({-infinity, 0, infinity, -infinity, nan}, Through(OneNode("Where", {5}, {y, low}), truth));
}

// x [2, 3, 4] with a constant [2, 4, 5], against the plain loops.
TEST(ConvertOnnx, EinsumSumsOverTheLettersThatTheOutputLacks) {
  Array x{{2, 3, 4}, onnx::TensorProto::FLOAT, {}}, c{{2, 4, 5}, onnx::TensorProto::FLOAT, {}};
  for (int i = 0; i < 24; ++i) x.values.push_back(i % 7 - 3);
  for (int i = 0; i < 40; ++i) c.values.push_back(i % 5 - 2);
  auto const run = [&](char const* equation) {
    onnx::ModelProto model = OneNode("Einsum", x.shape, {c});
    auto& attribute = *model.mutable_graph()->mutable_node(0)->add_attribute();
    attribute.set_name("equation"), attribute.set_type(onnx::AttributeProto::STRING), attribute.set_s(equation);
    return Through(model, x);
  };
  std::vector<double> product(30), turned(30), sums(3);  // [2, 3, 5], [5, 2, 3], [3]
  for (int i = 0; i < 30 * 4; ++i) {
    int const b = i / 60, r = i / 20 % 3, k = i / 5 % 4, n = i % 5;
    double const one = x.values[static_cast<std::size_t>((b * 3 + r) * 4 + k)] *
                       c.values[static_cast<std::size_t>((b * 4 + k) * 5 + n)];
    product[static_cast<std::size_t>((b * 3 + r) * 5 + n)] += one;
    turned[static_cast<std::size_t>((n * 2 + b) * 3 + r)] += one;
    sums[static_cast<std::size_t>(r)] += one;
  }
  EXPECT_EQ(product, run("bij, bjk -> bik"));
  EXPECT_EQ(product, run("...ij,...jk"));
  EXPECT_EQ(turned, run("bij,bjn->nbi"));
  EXPECT_EQ(sums, run("bij,bjn->i"));
  for (char const* const bad : {"bij,bjk->bix", "bij,bj->bi", "bii,bjk->bk", "bij,jbk->ik", "b.j,bjk->bk", ""}) {
    EXPECT_THROW(run(bad), Refusal) << bad;
  }
}

TEST(ConvertOnnx, MemoryOfConstantsAndWeightsHasABound) {
  Array const large{{1024, 64}, onnx::TensorProto::FLOAT, std::vector<double>(65536, 0.1)};
  Options options;
  options.most_elements = 65535;
  EXPECT_THROW(Convert(OneNode("MatMul", {3, 1024}, {large}), "", options), Refusal);
  options.most_elements = 65536;
  EXPECT_TRUE(Convert(OneNode("MatMul", {3, 1024}, {large}), "", options).refusals.empty());
  // A kernel with weights of its own for each sample of a batch.
  Array const w{{1, 64, 1024}, onnx::TensorProto::FLOAT, std::vector<double>(65536, 0.1)},
      r{{1, 64, 64}, onnx::TensorProto::FLOAT, std::vector<double>(4096, 0.1)};
  onnx::ModelProto model = OneNode("RNN", {2, 100, 1024}, {w, r});
  auto& size = *model.mutable_graph()->mutable_node(0)->add_attribute();
  size.set_name("hidden_size"), size.set_type(onnx::AttributeProto::INT), size.set_i(64);
  options.most_elements = 50 * 70000;
  EXPECT_NE(std::string::npos, Convert(model, "", options).refusals.at(0).find("elements in all weights"));
}

TEST(ConvertOnnx, FoldsNormalisationIntoTheConvolutionBefore) {
  Conversion const conversion = Convert(SmallModel(), "", {});
  ASSERT_EQ(2u, conversion.layers.size());  // the input and one convolution
  EXPECT_EQ("y", conversion.layers[1].name);
  Array x{{1, 2, 4, 4}, onnx::TensorProto::FLOAT, {}};
  for (int i = 0; i < 32; ++i) x.values.push_back(i);
  auto const got = convert_onnx::Run(*MakePackage(conversion, "m"), {{"x", x}}).values;
  // Channel 2 at element 0: (5 * 0 + 6 * 16 - 2) / 3 * 3 + 6.
  EXPECT_NEAR(100.0, got.at(0).values.at(32), 1e-3);
}

TEST(ConvertOnnx, SplitsByAllOutputsReadOrNot) {
  onnx::ModelProto model = SmallModel();
  auto& graph = *model.mutable_graph();
  auto &split = *graph.mutable_node(0), &behind = *graph.mutable_node(1);
  split.set_op_type("Split");
  split.clear_input(), split.add_input("x"), split.add_output("unread");
  behind.set_op_type("Relu");
  behind.clear_input(), behind.add_input("c");
  auto& axis = *split.add_attribute();
  axis.set_name("axis"), axis.set_type(onnx::AttributeProto::INT), axis.set_i(1);
  Array x{{1, 2, 4, 4}, onnx::TensorProto::FLOAT, std::vector<double>(32, 7)};
  auto const got = convert_onnx::Run(*MakePackage(Convert(model, "", {}), "m"), {{"x", x}}).values;
  EXPECT_EQ(std::vector<double>(16, 7), got.at(0).values);
}

TEST(ConvertOnnx, RefusesBadFilesInOneLineAndWritesNothing) {
  ScratchFolder const folder;
  std::string const good = SmallModel().SerializeAsString();
  std::string random(300, '\0');
  std::minstd_rand generator(7);
  for (char& c : random) c = static_cast<char>(generator() >> 8);
  auto const changed = [](auto const& change) {
    onnx::ModelProto model = SmallModel();
    change(model, *model.mutable_graph());
    return model.SerializeAsString();
  };
  using Graph = onnx::GraphProto;
  using Model = onnx::ModelProto;
  struct Case {
    char const *why, *text;
    std::string bytes;
  };
  std::vector<Case> const cases = {
      {"empty", "holds no graph", ""},
      {"cut short", "cut short", good.substr(0, good.size() - 5)},
      {"random bytes", "no ONNX model", random},
      {"a cycle", "which nothing before it makes",
       changed([](Model&, Graph& g) { g.mutable_node(0)->set_input(0, "y"); })},
      {"no initialiser", "reads w, which nothing",
       changed([](Model&, Graph& g) { g.mutable_initializer(0)->set_name("v"); })},
      {"a short initialiser", "holds 5 elements",
       changed([](Model&, Graph& g) { g.mutable_initializer(0)->mutable_float_data()->RemoveLast(); })},
      {"an extent below 0", "no shape", changed([](Model&, Graph& g) { g.mutable_initializer(0)->set_dims(0, -3); })},
      {"a huge extent", "no shape",
       changed([](Model&, Graph& g) { g.mutable_initializer(0)->set_dims(0, 1ll << 62); })},
      {"external data", "external data \"gone.bin\"", changed([](Model&, Graph& g) {
         auto& tensor = *g.mutable_initializer(0);
         tensor.set_data_location(onnx::TensorProto::EXTERNAL);
         tensor.add_external_data()->set_key("location");
         tensor.mutable_external_data(0)->set_value("gone.bin");
       })},
      {"shapes that disagree", "weights 2x3x1x1", changed([](Model&, Graph& g) {
         g.mutable_initializer(0)->set_dims(0, 2);
         g.mutable_initializer(0)->set_dims(1, 3);
       })},
      {"an axis that is cut twice", "axis 2 is cut twice", changed([](Model&, Graph& g) {
         auto& node = *g.mutable_node(0);
         node.set_op_type("Slice");
         node.clear_input(), node.add_input("x");
         for (char const* const name : {"starts", "ends", "axes"}) {
           auto& bounds = *g.add_initializer();
           bounds.set_name(name), bounds.set_data_type(onnx::TensorProto::INT64), bounds.add_dims(2);
           for (int const value : {2, -2}) bounds.add_int64_data(value);
           node.add_input(name);
         }
       })},
      {"an opset of tomorrow", "opset 900",
       changed([](Model& m, Graph&) { m.mutable_opset_import(0)->set_version(900); })},
      {"a name of two lines", "two?lines",
       changed([](Model&, Graph& g) { g.mutable_node(0)->set_input(0, "two\nlines"); })},
      {"an unknown operator", "no layers for this operator",
       changed([](Model&, Graph& g) { g.mutable_node(0)->set_op_type("Loop"); })},
      {"an open shape", "give one with --shape", changed([](Model&, Graph& g) {
         g.mutable_input(0)->mutable_type()->mutable_tensor_type()->mutable_shape()->mutable_dim(0)->set_dim_param("n");
       })},
  };
  std::string const model = folder.Path("m.onnx"), out = folder.Path("m.json");
  for (Case const& c : cases) {
    SCOPED_TRACE(c.why);
    folder.Save("m.onnx", c.bytes);
    Outcome const outcome = Program(model + " " + out);
    EXPECT_EQ(1, outcome.status);
    EXPECT_NE(std::string::npos, outcome.text.find(c.text)) << outcome.text;
    EXPECT_EQ(std::string::npos, outcome.text.find("\n\n"));
    EXPECT_FALSE(fs::exists(out));
  }
  folder.Save("m.onnx", good);
  EXPECT_EQ(0, Program(model + " " + out).status);
  EXPECT_TRUE(fs::exists(out));
}

void SaveTensor(ScratchFolder const& folder, std::string const& file, Array const& array) {
  onnx::TensorProto tensor;
  tensor.set_data_type(onnx::TensorProto::FLOAT);
  for (long long const extent : array.shape) tensor.add_dims(extent);
  for (float const value : array.Floats()) tensor.add_float_data(value);
  folder.Save(file, tensor.SerializeAsString());
}

TEST(ConvertOnnx, ChecksNameTheFirstLayerThatIsOffAndReportsAreJson) {
  ScratchFolder const folder;
  onnx::ModelProto model = SmallModel();
  auto& node = *model.mutable_graph()->add_node();
  node.set_op_type("Relu"), node.add_input("y"), node.add_output("z");
  model.mutable_graph()->mutable_output(0)->set_name("z");
  folder.Save("m.onnx", model.SerializeAsString());
  Array const x{{1, 2, 4, 4}, onnx::TensorProto::FLOAT, std::vector<double>(32, 0.5)};
  Array const z{{1, 3, 4, 4},
                onnx::TensorProto::FLOAT,
                convert_onnx::Run(*MakePackage(Convert(model, "", {}), "m"), {{"x", x}}).values.at(0).values};
  Array off = z;
  off.values[7] += 1;
  SaveTensor(folder, "input_0.pb", x), SaveTensor(folder, "output_0.pb", off), SaveTensor(folder, "y.pb", off);
  std::string const out = folder.Path("m.tlnmodel"), report = folder.Path("report.json");
  std::string const call = folder.Path("m.onnx") + " --report " + report + " --check " + folder.Path("");
  for (std::string const& how : {call + " " + out, call + " --dry-run"}) {
    Outcome const wrong = Program(how);
    EXPECT_EQ(1, wrong.status);
    EXPECT_NE(std::string::npos, wrong.text.find("output z: element 7 is ")) << wrong.text;
    EXPECT_NE(std::string::npos, wrong.text.find("the first that is off is y of node c (Conv2D_")) << wrong.text;
    EXPECT_FALSE(fs::exists(out) || fs::exists(report));
  }
  SaveTensor(folder, "output_0.pb", z);
  Outcome const right = Program(call + " " + out + " --kernels fused");
  ASSERT_EQ(0, right.status) << right.text;
  std::ifstream stream(report);
  rapidjson::IStreamWrapper wrapped(stream);
  rapidjson::Document json;
  ASSERT_FALSE(json.ParseStream(wrapped).HasParseError());
  EXPECT_STREQ("Conv2D_Knxm_Snxm_Dnxm_Gn_Fused_CHW_Float_M1", json["layers"][1]["kernel"].GetString());
  EXPECT_EQ(36u, json["layers"][1]["weight_bytes"].GetUint());
  EXPECT_GE(json["peak_bytes"].GetUint(), (32 + 48 + 9) * sizeof(float));
}

TEST(ConvertOnnx, BinaryFormsRefuseWeightsThatHalvesDoNotHold) {
  ScratchFolder const folder;
  onnx::ModelProto model = SmallModel();
  model.mutable_graph()->mutable_initializer(0)->set_float_data(2, 3e5f);
  folder.Save("m.onnx", model.SerializeAsString());
  Outcome const binary = Program(folder.Path("m.onnx") + " " + folder.Path("m.tlnmodel"));
  EXPECT_EQ(1, binary.status);
  EXPECT_NE(std::string::npos,
            binary.text.find("layer y: weight element 2 is 300000, the binary form holds numbers to 65504"))
      << binary.text;
  EXPECT_EQ(0, Program(folder.Path("m.onnx") + " " + folder.Path("m.json")).status);
}

}  // namespace
}  // namespace convert_onnx
