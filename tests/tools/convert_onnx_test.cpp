// convert_onnx: the standard's own tests through converter and library, and files that are no models.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <random>

#include "tests/support/scratch_folder.h"
#include "tools/convert_onnx/check.h"

namespace convert_onnx {
namespace {

namespace fs = std::filesystem;
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

// Inputs that are no float32 become constants, and all but the first where `bind_others`.
Options OptionsFor(Recorded const& recorded, bool bind_others) {
  Options options;
  bool first = true;
  for (std::size_t i = 0; i < recorded.inputs.size(); ++i) {
    Array const& input = recorded.inputs[i];
    if (input.type != onnx::TensorProto::FLOAT || (bind_others && !first)) {
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

// What differs, or nothing. Refusal: what cannot be converted.
std::string Compare(Recorded const& recorded, fs::path const& folder, bool bind_others) {
  Conversion const conversion = Convert(recorded.model, folder.string(), OptionsFor(recorded, bind_others));
  if (!conversion.refusals.empty()) throw Refusal(conversion.refusals[0]);
  std::map<std::string, Array> inputs;
  for (std::size_t i = 0; i < recorded.inputs.size(); ++i) inputs[recorded.names[i]] = recorded.inputs[i];
  auto const got = Run(*MakePackage(conversion, "model"), inputs);
  if (got.size() != recorded.outputs.size()) return "the number of outputs";
  for (std::size_t i = 0; i < got.size(); ++i) {
    if (got[i].shape != WithoutBatch(recorded.outputs[i].shape)) {
      return "shape " + Text(got[i].shape) + ", recorded is " + Text(recorded.outputs[i].shape);
    }
    std::string const off = Difference(got[i], recorded.outputs[i], {1e-4, 1e-6});
    if (!off.empty()) return off;
  }
  return "";
}

TEST(ConvertOnnx, AgreesWithTheStandardsTestsOrRefuses) {
  fs::path const data = "/usr/share/libonnx-testdata/data";
  if (!fs::exists(data)) GTEST_SKIP() << "libonnx-testdata is not installed";
  std::size_t right = 0, refused = 0;
  std::map<std::string, std::size_t> reasons;
  for (auto const& entry : fs::recursive_directory_iterator(data)) {
    if (entry.path().filename() != "model.onnx") continue;
    fs::path const folder = entry.path().parent_path();
    if (!fs::exists(folder / "test_data_set_0")) continue;
    SCOPED_TRACE(folder.string());
    try {
      Recorded const recorded = ReadFolder(folder);
      std::string off;
      try {
        off = Compare(recorded, folder, false);
      } catch (Refusal const&) {
        off = Compare(recorded, folder, true);
      }
      EXPECT_EQ("", off);
      right += off.empty();
    } catch (Refusal const& refusal) {
      ++refused;
      std::string const reason = refusal.what();
      ++reasons[reason.substr(std::min(reason.find('('), reason.size()))];
      EXPECT_EQ(std::string::npos, reason.find("the library refuses")) << reason;
    }
  }
  for (auto const& [reason, count] : reasons) std::printf("%4zu refused %s\n", count, reason.c_str());
  std::printf("%zu right, %zu refused\n", right, refused);
  EXPECT_GE(right, 430u);
}

struct Outcome {
  int status;
  std::string text;  // both streams
};

Outcome Program(std::string const& arguments) {
  std::string const command = std::string(TALVO_CONVERT_ONNX) + " " + arguments + " 2>&1";
  std::FILE* const pipe = popen(command.c_str(), "r");
  Outcome outcome{-1, ""};
  for (int c = std::fgetc(pipe); c != EOF; c = std::fgetc(pipe)) outcome.text += static_cast<char>(c);
  outcome.status = WEXITSTATUS(pclose(pipe));
  return outcome;
}

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

TEST(ConvertOnnx, FoldsNormalisationIntoTheConvolutionBefore) {
  Conversion const conversion = Convert(SmallModel(), "", {});
  ASSERT_EQ(2u, conversion.layers.size());  // the input and one convolution
  EXPECT_EQ("y", conversion.layers[1].name);
  Array x{{1, 2, 4, 4}, onnx::TensorProto::FLOAT, {}};
  for (int i = 0; i < 32; ++i) x.values.push_back(i);
  auto const got = convert_onnx::Run(*MakePackage(conversion, "m"), {{"x", x}});
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
  auto const got = convert_onnx::Run(*MakePackage(Convert(model, "", {}), "m"), {{"x", x}});
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

}  // namespace
}  // namespace convert_onnx
