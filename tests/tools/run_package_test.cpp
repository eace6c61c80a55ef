// run_package from outside: what it prints and writes, its exit status, and that an error is one line.
#include <gtest/gtest.h>
#include <rapidjson/document.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>

#include "talvo/serialization/layer_info_activation.h"
#include "talvo/serialization/layer_info_conv.h"
#include "talvo/serialization/layer_info_tensor.h"
#include "tests/support/bits.h"
#include "tests/support/model_builder.h"
#include "tests/support/scratch_folder.h"

namespace talvo {
namespace {

using test::ModelBuilder;
namespace fs = std::filesystem;

struct Result {
  int status;
  std::string out, err;
};

std::string ReadAll(fs::path const& path) {
  std::ifstream stream(path, std::ios::binary);
  EXPECT_TRUE(stream) << path;
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

void ExpectHolds(std::string const& text, std::initializer_list<char const*> parts) {
  for (char const* part : parts) EXPECT_NE(text.find(part), std::string::npos) << part << "\nin\n" << text;
}

void Write(fs::path const& path, std::string const& bytes) { std::ofstream(path, std::ios::binary) << bytes; }

class RunPackageTest : public testing::Test {
 protected:
  RunPackageTest() { WriteNpy("in.npy", "<f4", "3, 8, 8", test::Floats(1, 192)); }

  // The words are split by the shell, which runs in the test's folder.
  Result Run(std::string const& words) {
    std::string const command = "cd " + folder_.string() + " && " TALVO_RUN_PACKAGE " " + words + " >out 2>err";
    int const status = std::system(command.c_str());
    EXPECT_TRUE(WIFEXITED(status)) << words;
    return {WEXITSTATUS(status), ReadAll(folder_ / "out"), ReadAll(folder_ / "err")};
  }

  Result RunWell(std::string const& words) {
    Result result = Run(words);
    EXPECT_EQ(result.status, 0) << result.err;
    return result;
  }

  // Fails with 1, says nothing but one line, and the line holds `named`.
  void ExpectError(std::string const& words, std::string const& named) {
    SCOPED_TRACE(words);
    Result const result = Run(words);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err.rfind("run_package: ", 0), 0u) << result.err;
    EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << result.err;
    ExpectHolds(result.err, {named.c_str()});
  }

  template <typename T>
  void WriteNpy(std::string const& name, std::string const& type, std::string const& shape,
                std::vector<T> const& values, char const* fortran = "False") {
    std::string const header = "{'descr': '" + type + "', 'fortran_order': " + fortran + ", 'shape': (" + shape +
                               "), }" + std::string(20, ' ') + "\n";
    Write(folder_ / name, std::string("\x93NUMPY\x01\x00", 8) + static_cast<char>(header.size()) + '\0' + header +
                              std::string(reinterpret_cast<char const*>(values.data()), values.size() * sizeof(T)));
  }

  void Save(runtime::TLNModel& package, std::string const& name) {
    package.ToFile((folder_ / name).c_str(), fs::path(name).extension() == ".json" ? "json" : "bin");
  }

  test::ScratchFolder const scratch_;
  fs::path const folder_ = scratch_.Path();
};

TEST_F(RunPackageTest, BothFormsGiveTheSameBits) {
  auto const package = test::SmallModel().Package("small");
  for (std::string const name : {"a.json", "a.tlnmodel"}) {
    Save(*package, name);
    Result const result = RunWell(name + " --input picture=in.npy --output-dir out_" + name);
    ExpectHolds(result.out, {"classes: [5] C", "plane: [2, 8, 8] "});
    EXPECT_EQ(result.err, "");
  }
  for (std::string const file : {"classes.npy", "plane.npy"}) {
    std::string const bytes = ReadAll(folder_ / "out_a.json" / file);
    EXPECT_EQ(bytes, ReadAll(folder_ / "out_a.tlnmodel" / file)) << file;
    EXPECT_EQ(bytes.size() % 64, file == "plane.npy" ? 0u : 20u) << "the data begins at a multiple of 64";
  }
}

TEST_F(RunPackageTest, ChecksAPackageAndTellsItsMemory) {
  ModelBuilder small = test::SmallModel();
  Save(*small.Package("small"), "good.tlnmodel");
  EXPECT_EQ(RunWell("good.tlnmodel --check --input picture=in.npy").out, "nothing found\ntried on picture [3, 8, 8]\n");
  ExpectHolds(RunWell("good.tlnmodel --memory --shape picture=3x8x8").out,
              {"picture", "[2, 8, 8]", "the dynamic pool takes "});
  small.model->layers.at("conv")->input_ids = {"pictur"};
  Save(*small.Package("small"), "bad.tlnmodel");
  Result const bad = Run("bad.tlnmodel --check");
  EXPECT_EQ(bad.status, 1);
  ExpectHolds(bad.out, {"refused: layer conv: reads \"pictur\", which no layer is called; nearest: picture\n"});
  EXPECT_EQ(bad.err, "run_package: bad.tlnmodel: has faults\n");
  EXPECT_EQ(Run("good.tlnmodel --memory --shape picture=3x0x8").status, 2);
}

TEST_F(RunPackageTest, ListsWhatThePackageHolds) {
  auto const package = test::SmallModel().Package("small");
  ModelBuilder other;
  other.AddInput("in");
  other.AddTo(*package, "other");
  package->config_arr->configs.erase("other");
  package->config_arr->squential_ids.pop_back();
  Save(*package, "two.tlnmodel");
  ExpectHolds(RunWell("two.tlnmodel --list").out,
              {"sdk type \"test\", needs core 1.0 and sdk 3.4; models: 2", "model \"small\"",
               "outputs classes, plane, sequence, sampled", "22 layers, 2800 bytes of weights", "back end cpu_sse",
               "Conv2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1", "reads sum, mean", "no configuration"});
  Result const chosen = RunWell("two.tlnmodel --model small --input picture=in.npy --output sum --repeat 3 --profile");
  ExpectHolds(chosen.out, {"sum: [4, 4, 4]", "Pooling2D_Max_Fallback_Float_M1"});
  EXPECT_EQ(chosen.out.find("Softmax"), std::string::npos) << "layers behind the output do not run\n" << chosen.out;
  ExpectError("two.tlnmodel --input picture=in.npy", "holds 2 models (small, other)");
  ExpectError("two.tlnmodel --model third", "has no model \"third\"");
  ExpectError("two.tlnmodel --model other", "has no configurations");
}

TEST_F(RunPackageTest, ListsNumbersThatJSONCannotHold) {
  auto const package = test::SmallModel().Package("small");
  auto const clip = std::make_shared<runtime::ClipInfo>();
  clip->maximum_value = half_float::half(std::numeric_limits<float>::infinity());
  runtime::TLModelInfo& model = *package->model_arr->models.at("small");
  model.squential_ids.push_back("open");
  model.squential_types.push_back(clip->type);
  model.layers["open"] = clip;
  Save(*package, "open.tlnmodel");
  ExpectHolds(RunWell("open.tlnmodel --list").out, {"  open                    ClipInfo "});
}

TEST_F(RunPackageTest, RunsOnWithTheNextInputsAndWritesEachOutputToAFileOfItsOwn) {
  ModelBuilder builder;
  for (char const* id : {"in/1", "in_1", "other"}) builder.AddInput(id);
  builder.model->squential_output_ids = {"in_1", "in/1", "in_1"};
  Save(*builder.Package("m"), "p.json");
  WriteNpy("a.npy", "<f4", "2,", std::vector<float>{1, 2});
  WriteNpy("b.npy", "<f4", "1, 2", std::vector<float>{3, 5});
  Result const result = RunWell(
      "p.json --input in/1=a.npy --input in_1=b.npy --input other=a.npy --next --input in/1=b.npy --next "
      "--input in/1=CL:b.npy --output-dir d");
  ExpectHolds(result.out,
              {"run 0\nin_1: [1, 2] SC float32, minimum 3, maximum 5, mean 4\n  values 3 5\nin/1: [2] C float32",
               "run 1\nin_1", "in/1: [1, 2] SC", "in/1: [1, 2] CL"});
  auto const values = [&](fs::path const& file) {
    return ReadAll(folder_ / file).substr(fs::file_size(folder_ / file) - 8);
  };
  for (auto const& [file, input] : {std::pair{"d/0/in_1.npy", "b.npy"},
                                    {"d/0/in_1_2.npy", "a.npy"},
                                    {"d/1/in_1.npy", "b.npy"},
                                    {"d/2/in_1_2.npy", "b.npy"}})
    EXPECT_EQ(values(file), values(input)) << file;
  EXPECT_FALSE(fs::exists(folder_ / "d/0/in_1_3.npy")) << "an output that is named twice";
  ExpectError("p.json --input in/1=a.npy --output other", "input \"in_1\" has no tensor");
}

TEST_F(RunPackageTest, ConvertsArraysAndSaysSo) {
  ModelBuilder builder;
  builder.AddInput("in");
  builder.model->squential_output_ids = {"in"};
  Save(*builder.Package("m"), "p.json");
  WriteNpy("half.npy", "<f2", "2, 3", std::vector<std::uint16_t>{0x3C00, 0x4000, 0x4200, 0x4400, 0x4500, 0x4600});
  WriteNpy("double.npy", "<f8", "2, 3", std::vector<double>{1, 2, 3, 4, 5, 6});
  WriteNpy("turned.npy", "<f4", "2, 3", std::vector<float>{1, 4, 2, 5, 3, 6}, "True");
  std::vector<double> big = {1, 4, 2, 5, 3, 6};
  for (double& value : big) {
    auto* const bytes = reinterpret_cast<char*>(&value);
    std::reverse(bytes, bytes + sizeof value);
  }
  WriteNpy("big.npy", ">f8", "2, 3", big, "True");
  for (auto const& [file, held] : {std::pair{"half.npy", "float16"},
                                   {"double.npy", "float64"},
                                   {"turned.npy", "float32, in Fortran order"},
                                   {"big.npy", "float64, big-endian, in Fortran order"}}) {
    Result const result = RunWell(std::string("p.json --input in=") + file);
    ExpectHolds(result.out, {"in: [2, 3] SC float32", "  values 1 2 3 4 5 6\n"});
    ExpectHolds(result.err, {(file + std::string(": holds ") + held + "; converted to float32 in C order\n").c_str()});
  }
}

TEST_F(RunPackageTest, SaysTheSameForMachines) {
  Save(*test::SmallModel().Package("small"), "p.json");
  auto const parsed = [](std::string const& text) {
    rapidjson::Document json;
    EXPECT_FALSE(json.Parse<rapidjson::kParseFullPrecisionFlag>(text.c_str()).HasParseError()) << text;
    return json;
  };
  auto const run =
      parsed(RunWell("p.json --input picture=in.npy --repeat 3 --profile --json --output-dir d --trace t.json").out);
  auto const& first = run["runs"][0];
  auto const& classes = first["outputs"][0];
  EXPECT_STREQ(classes["id"].GetString(), "classes");
  EXPECT_EQ(classes["values"].Size(), 5u);
  float stored = 0;
  std::memcpy(&stored, ReadAll(folder_ / classes["file"].GetString()).substr(128).data(), sizeof stored);
  EXPECT_EQ(classes["values"][0].GetDouble(), double{stored});
  EXPECT_EQ(first["outputs"][1]["strides"][0].GetUint(), 64u) << "of plane, [2, 8, 8]";
  auto const& time = first["time_ms"];
  EXPECT_LE(time["minimum"].GetDouble(), time["median"].GetDouble());
  EXPECT_LE(time["median"].GetDouble(), time["percentile_95"].GetDouble());
  EXPECT_EQ(first["layers"].Size(), 22u);
  auto const trace = parsed(ReadAll(folder_ / "t.json"));
  EXPECT_EQ(trace["traceEvents"].Size(), 3u * (1 + 22 + 23)) << "a run, its layers, the tensors before and behind each";

  auto const list = parsed(RunWell("p.json --list --json").out);
  auto const& conv = list["models"][0]["layers"][1];
  EXPECT_EQ(conv["fields"]["in_channels"].GetInt(), 3);
  EXPECT_EQ(conv["weights"]["weight"].GetInt(), 108);
  auto const memory = parsed(RunWell("p.json --memory --shape picture=3x8x8 --json").out);
  EXPECT_EQ(memory["first_bytes"].GetInt64(),
            parsed(RunWell("p.json --input picture=in.npy --json").out)["runs"][0]["pool_bytes"].GetInt64());
  EXPECT_EQ(memory["layers"][1]["live_bytes"].GetInt64(), 4 * (3 * 64 + 4 * 64)) << "picture and conv";
  EXPECT_EQ(parsed(RunWell("p.json --check --json").out)["findings"].Size(), 0u);
}

// The page is opened in a browser, clicked at, and read back.
TEST_F(RunPackageTest, WritesAPageThatABrowserShows) {
  if (std::system("command -v chromium >/dev/null") != 0) GTEST_SKIP() << "there is no chromium";
  ModelBuilder const small = test::SmallModel();
  small.model->extra_info.summary = "a </script> & <b>";
  Save(*small.Package("small"), "p.json");
  RunWell("p.json --input picture=in.npy --html page.html");
  Write(folder_ / "clicked.html", ReadAll(folder_ / "page.html") + R"js(<script>
    const seen = [read("#summary"), document.querySelectorAll(".node").length, document.querySelectorAll(".edge").length];
    function read(selector) { return document.querySelector(selector).textContent; }
    function click(selector) { document.querySelector(selector).dispatchEvent(new MouseEvent("click", {bubbles: true})); }
    click(".node[data-layer='13']");
    seen.push(read("#chosen"), read("[data-field='in_features'] dd"), read(".chart h3"));
    seen.push([...document.querySelectorAll(".chart:first-child title")].reduce((sum, count) => sum + +count.textContent, 0));
    click("[data-column='8']");
    seen.push(read("tbody tr td:nth-child(2)"));
  click("tbody tr");
  seen.push(read("#chosen"));
  click(".hit[data-layer='1']");
  seen.push(read("#chosen"), document.querySelectorAll("#bars .bar").length > 0);
  document.body.textContent = "seen: " + seen.join("|") + ".";
  </script>)js");
  std::string const browser =
      "timeout 120 chromium --headless --no-sandbox --disable-gpu --user-data-dir=profile --dump-dom clicked.html";
  ASSERT_EQ(std::system(("cd " + folder_.string() + " && " + browser + " >dom 2>/dev/null").c_str()), 0);
  ExpectHolds(
      ReadAll(folder_ / "dom"),
      {"seen: p.json \u00b7 a &lt;/script&gt; &amp; &lt;b&gt;|22|26|dense|8|weight, 40 weights|40|sequence|sequence|"
       "conv|true."});
}

TEST_F(RunPackageTest, WarnsByItself) {
  ModelBuilder builder;
  builder.AddInput("in");
  auto& dense = builder.Add<runtime::FullConnectionInfo>("dense", {"in"}, "FullConnection_Fallback_C_Float_M1");
  dense.in_features = 2;
  dense.out_features = 1;
  dense.weight = test::WeightText({1, 2});
  builder.model->squential_output_ids = {"dense"};
  Save(*builder.Package("m"), "p.json");
  WriteNpy("a.npy", "<f4", "3,", std::vector<float>{1, 2, 3});
  EXPECT_EQ(RunWell("p.json --input in=a.npy").err, "warning: layer dense: reads 2 of the 3 elements of [3]\n");
}

TEST_F(RunPackageTest, PrefersFusedKernels) {
  auto const package = test::SmallModel().Package("small");
  Save(*package, "p.json");
  auto const run = [&](std::string const& words) {
    std::string const out = RunWell("p.json --input picture=in.npy --profile --output-dir d " + words).out;
    std::string const bytes = ReadAll(folder_ / "d/sequence.npy");
    std::vector<float> values(16);  // [4, 4], behind the header
    std::memcpy(values.data(), bytes.data() + bytes.size() - 64, 64);
    return std::pair(out, values);
  };
  auto const portable = run(""), fused = run("--prefer fused");
  ExpectHolds(portable.first, {"GRU_Fallback_SC_F32_M1"});
  ExpectHolds(fused.first, {"GRU_Fused_SC_F32_M1", "Pooling2D_Max_Fallback_Float_M1"});
  EXPECT_EQ(fused.first.find("GRU_Fallback"), std::string::npos) << fused.first;
  test::ExpectNearSum(portable.second, fused.second, 32, 32.0f);  // the inputs of a step
}

TEST_F(RunPackageTest, NamesTheFirstLayerAndElementThatDiffer) {
  Save(*test::SmallModel().Package("small"), "p.json");
  std::string const run = "p.json --input picture=in.npy --output sum ";
  RunWell(run + "--manifest digests");
  RunWell(run + "--manifest values --values --verify digests");
  std::string lines = ReadAll(folder_ / "digests");
  auto const at = lines.find('\n', lines.find("layer pool")) - 1;  // the last digit of the digest
  lines[at] = lines[at] == '0' ? '1' : '0';
  Write(folder_ / "other", lines);
  ExpectError(run + "--verify other", "other: run 0,layer pool,output 0 (Pooling2D_Max_Fallback_Float_M1 [");
  auto picture = test::Floats(1, 192);
  picture[5] = 2.0f;
  WriteNpy("in.npy", "<f4", "3, 8, 8", picture);
  ExpectError(run + "--verify digests", "digests: run 0,layer picture,output 0");
  ExpectError(run + "--verify values --values", "; element 5 is 40000000 here and ");
  ExpectError(run + "--verify in.npy", "in.npy: is no manifest");
  ExpectError(run + "--verify none", "none: cannot be opened");
}

TEST_F(RunPackageTest, ReportsBadInputInOneLine) {
  auto const small = test::SmallModel().Package("small");
  Save(*small, "p.tlnmodel");
  Save(*small, "p.json");
  std::string const whole = ReadAll(folder_ / "p.tlnmodel");
  std::string const half = std::to_string(whole.size() / 2);
  Write(folder_ / "cut.tlnmodel", whole.substr(0, whole.size() / 2));
  Write(folder_ / "cut.json", ReadAll(folder_ / "p.json").substr(0, 500));
  Write(folder_ / "empty.tlnmodel", "");
  Write(folder_ / "array.json", "[]");
  Write(folder_ / "keyless.json", "{}");
  fs::create_directory(folder_ / "folder.json");
  ASSERT_EQ(mkfifo((folder_ / "pipe.tlnmodel").c_str(), 0600), 0);
  Write(folder_ / "version.npy", "\x93NUMPY\x09" + std::string(9, '\0'));
  Write(folder_ / "cut.npy", ReadAll(folder_ / "in.npy").substr(0, 300));
  WriteNpy("whole.npy", "<i4", "3, 8, 8", test::Floats(1, 192));
  WriteNpy("rank.npy", "<f4", "192,", test::Floats(1, 192));
  WriteNpy("channels.npy", "<f4", "2, 8, 12", test::Floats(1, 192));
  WriteNpy("huge.npy", "<f4", "4000000000, 4000000000, 4000000000", std::vector<float>());
  std::string axes;
  for (int i = 0; i < 65; ++i) axes += "1,";
  WriteNpy("axes.npy", "<f4", axes, std::vector<float>{1});
  std::string const run = " --input picture=in.npy";
  for (auto const& [words, named] : std::vector<std::pair<std::string, std::string>>{
           {"none.tlnmodel", "none.tlnmodel: cannot be opened"},
           {"none.json", "none.json"},
           {"folder.json", "folder.json: is a folder"},
           {"pipe.tlnmodel --list", "pipe.tlnmodel: is a pipe or a device; a package is read from a file"},
           {"p.onnx", "p.onnx: a package ends in"},
           {"cut.tlnmodel", "cut.tlnmodel: at byte " + half + " of " + half + ", where it is cut short: failed"},
           {"cut.json", "cut.json: no JSON: line "},
           {"array.json", "array.json: the text is no JSON object"},
           {"keyless.json --list", "path \"sdk_type\""},
           {"empty.tlnmodel --list", "at byte 0 of 0, where it is cut short: failed"},
           {"p.json", "\"picture\" has no tensor"},
           {"p.json" + run + " --output clases", "no layer \"clases\"; nearest: classes"},
           {"p.json --input nope=in.npy", "no layer \"nope\""},
           {"p.json --input conv=in.npy", "layer \"conv\" is no input"},
           {"p.json" + run + " --backend arm", "model \"small\" has no configuration for \"arm\""},
           {"p.json" + run + " --output-dir in.npy/d", "in.npy"},
           {"p.json --input picture=none.npy", "none.npy: cannot be opened"},
           {"p.json --input picture=version.npy", "of version 9"},
           {"p.json --input picture=folder.json", "folder.json: is a folder"},
           {"p.json --input picture=/dev/zero", "/dev/zero: is no .npy file"},
           {"p.json --input picture=cut.npy", "shape [3, 8, 8] needs 768"},
           {"p.json --input picture=whole.npy", "whole.npy: holds '<i4'; float16"},
           {"p.json --input picture=huge.npy", "huge.npy: its shape [4000000000"},
           {"p.json --input picture=axes.npy", "axes.npy: its shape has more than 64 axes"},
           {"p.json --input picture=rank.npy", "Float_M1 of layer conv: input 0 has dims [192]"},
           {"p.json --input picture=channels.npy", "of layer conv: input 0 has dims [2, 8, 12], needs 3 channels"}}) {
    ExpectError(words, named);
  }
  EXPECT_EQ(Run("p.json" + run + " >/dev/full 2>full; test $? = 1 && cat full").out,
            "run_package: standard output cannot be written\n");
}

TEST_F(RunPackageTest, ReportsSpoiledModelsInOneLine) {
  auto const kernel_of = [](runtime::TLNModel& package, std::string const& layer) -> std::string& {
    return package.config_arr->configs.at("small")->cpu_sse->layers.at(layer)->kernel->kernel_type;
  };
  auto const layer_of = [](runtime::TLNModel& package, std::string const& layer) -> runtime::LayerInfo& {
    return *package.model_arr->models.at("small")->layers.at(layer);
  };
  using Spoil = std::function<void(runtime::TLNModel&)>;
  for (auto const& [spoil, named] : std::vector<std::pair<Spoil, std::string>>{
           {[&](auto& p) { kernel_of(p, "pool") = "Nope"; },
            "spoiled.tlnmodel: layer pool names the kernel \"Nope\", which there is not; nearest: none"},
           {[&](auto& p) { kernel_of(p, "sum") = "Softmax_Fallback_Float_M1"; },
            "layer sum (ElementWiseOperatorInfo): its kernel Softmax_Fallback_Float_M1 refuses"},
           {[](auto& p) { p.config_arr->configs.at("small")->cpu_sse->squential_ids.clear(); }, "layer picture"},
           {[](auto& p) { p.core_major_ver = 2; }, "needs a runtime of version 2.0, this one is 1.0"},
           {[&](auto& p) { layer_of(p, "conv").input_ids = {"pool"}; }, "layer conv (Conv2D_"},
           {[&](auto& p) {
              static_cast<runtime::FullConnectionInfo&>(layer_of(p, "dense")).weight = test::WeightText({1.0f});
            },
            "layer dense"},
           {[&](auto& p) {
              layer_of(p, "both").input_ids = {"sum", "conv"};
            },
            "layer both (Concatenate_MainMemory_Fallback)"},
           {[&](auto& p) { static_cast<runtime::ElementWiseOperatorInfo&>(layer_of(p, "sum")).op_type = 99; },
            "layer sum (ElementWiseOperatorInfo): its kernel Elementwise_Fallback_Float_M1 refuses the layer's record: "
            "Invalid element wise type"},
           {[&](auto& p) { kernel_of(p, "pool") = "two\nlines\x1B[2J"; }, "\"two lines [2J\""}}) {
    auto const package = test::SmallModel().Package("small");
    spoil(*package);
    Save(*package, "spoiled.tlnmodel");
    ExpectError("spoiled.tlnmodel --input picture=in.npy", named);
  }
}

TEST_F(RunPackageTest, AnswersBadUsageWithTwo) {
  for (char const* words :
       {"", "a.json b.json", "a.json --bogus", "a.json --input", "a.json --input picture", "a.json --input =x.npy",
        "a.json --input picture=CHW:", "a.json --model ''", "a.json --prefer sgemm", "a.json --repeat 0",
        "a.json --repeat -1", "a.json --repeat 1x", "a.json --list --model m", "a.json --check --html page", "-x"}) {
    Result const result = Run(words);
    EXPECT_EQ(result.status, 2) << words;
    ExpectHolds(result.err, {"usage: run_package PACKAGE"});
    EXPECT_EQ(result.out, "") << words;
  }
  for (std::string const program : {TALVO_RUN_PACKAGE, TALVO_UPGRADE_MODEL}) {
    EXPECT_EQ(std::system((program + " --help | grep -q '^usage: '").c_str()), 0);
    EXPECT_EQ(std::system((program + " a.json --version | grep -q '(talvo) 1.0$'").c_str()), 0);
  }
}

}  // namespace
}  // namespace talvo
