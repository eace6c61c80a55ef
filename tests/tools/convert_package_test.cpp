// convert_package as a user runs it: what its packages hold, what it says, and that a refusal writes nothing.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "talvo/entry/open_package.h"
#include "talvo/serialization/layer_info_conv.h"
#include "talvo/utility/base64.h"
#include "tests/support/model_builder.h"
#include "tests/support/run_program.h"
#include "tests/support/scratch_folder.h"

namespace talvo::test {
namespace {

using namespace runtime;

Outcome Convert(std::string const& arguments) { return RunProgram(TALVO_CONVERT_PACKAGE " " + arguments); }

void ConvertWell(std::string const& arguments) {
  Outcome const outcome = Convert(arguments);
  EXPECT_EQ(outcome.status, 0) << outcome.text;
}

std::string Bytes(std::string const& path) {
  std::ifstream stream(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

std::string Encoded(std::vector<float> const& values) {
  return Base64Encode(reinterpret_cast<unsigned char const*>(values.data()), values.size() * sizeof(float));
}

std::vector<float> Decoded(std::string const& text) {
  std::string const bytes = Base64Decode(text);
  std::vector<float> values(bytes.size() / sizeof(float));
  std::memcpy(values.data(), bytes.data(), values.size() * sizeof(float));
  return values;
}

// A convolution "taps" of points, another, "wide", of two taps, and a dense layer.
ModelBuilder ThreeLayers(std::vector<float> const& taps, std::vector<float> const& wide = {1, 2}) {
  ModelBuilder net;
  net.AddInput("x");
  for (char const* const id : {"taps", "wide"}) {
    auto& layer = net.Add<Conv2dInfo>(id, {"x"}, "Conv2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1");
    layer.in_channels = layer.out_channels = layer.kernel_x = layer.kernel_y = 1;
  }
  auto& points = static_cast<Conv2dInfo&>(*net.model->layers["taps"]);
  points.out_channels = static_cast<unsigned short>(taps.size());
  points.weight = Encoded(taps);
  auto& second = static_cast<Conv2dInfo&>(*net.model->layers["wide"]);
  second.kernel_x = 2;
  second.weight = Encoded(wide);
  net.Add<FullConnectionInfo>("dense", {"wide"}, "FullConnection_Fallback_C_Float_M1");
  return net;
}

std::string Kernels(TLModelCfg const& config) {
  std::string text;
  for (std::string const& id : config.squential_ids) text += config.layers.at(id)->kernel->kernel_type + " ";
  return text;
}

TEST(ConvertPackage, FormsAndFamiliesGoThereAndBack) {
  ScratchFolder const folder;
  auto const package = SmallModel().Package("small");
  std::string const json = folder.Path("a.json"), binary = folder.Path("a.tlnmodel");
  package->ToFile(json.c_str(), "json");
  package->ToFile(binary.c_str(), "bin");
  ConvertWell(json + " " + folder.Path("b.tlnmodel") + " --kernels fused");
  ConvertWell(folder.Path("b.tlnmodel") + " " + folder.Path("c.tlnmodel") + " --kernels portable");
  ConvertWell(folder.Path("c.tlnmodel") + " " + folder.Path("d.json") + " --kernels blas");
  std::string const fused =
      Kernels(*utility::OpenPackage(folder.Path("b.tlnmodel"))->config_arr->configs["small"]->cpu_sse);
  std::string const portable =
      Kernels(*utility::OpenPackage(folder.Path("c.tlnmodel"))->config_arr->configs["small"]->cpu_sse);
  EXPECT_NE(fused.find("Conv2D_Knxm_Snxm_Dnxm_Gn_Fused_CHW"), std::string::npos) << fused;
  EXPECT_EQ(portable.find("SGEMM"), std::string::npos) << portable;
  EXPECT_EQ(portable.find("Fused"), std::string::npos) << portable;
  ConvertWell(json + " " + folder.Path("e.tlnmodel"));
  EXPECT_EQ(Bytes(binary), Bytes(folder.Path("e.tlnmodel")));
  ConvertWell(binary + " " + folder.Path("f.json"));
  EXPECT_EQ(Bytes(json), Bytes(folder.Path("f.json")));
  EXPECT_NE(Bytes(folder.Path("d.json")).find("GRU_SGEMM_SC"), std::string::npos);
}

TEST(ConvertPackage, TakesTheMatrixProductWhereTheRecordFits) {
  ScratchFolder const folder;
  ThreeLayers({1}).Package("net")->ToFile(folder.Path("a.json").c_str(), "json");
  ConvertWell(folder.Path("a.json") + " " + folder.Path("b.json") +
              " --set-back-end cpu_armv8=cpu_sse --kernels cpu_armv8=blas");
  auto const configs = utility::OpenPackage(folder.Path("b.json"))->config_arr->configs.at("net");
  EXPECT_EQ(Kernels(*configs->cpu_armv8),
            "Input_Fallback_M1 Conv2d_K1x1_S1x1_D1x1_G1_SGEMM_CHW_FLOAT_M1 "
            "Conv2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1 FullConnection_SGEMM_C_Float_M1 ");
  EXPECT_EQ(Kernels(*configs->cpu_sse), Kernels(*ThreeLayers({1}).config));
}

// A half behind 1 stands for steps of 2^-10; below 2^-14 the steps are 2^-24.
TEST(ConvertPackage, RoundsToTheNearestHalfOrCuts) {
  ScratchFolder const folder;
  std::vector<float> const taps = {1 + 0x1.8p-11f, -1 - 0x1p-11f, -1 - 0x1.8p-10f, 65519.0f,
                                   0x1.8p-24f,     0x1p-25f,      0x1.2p-25f,      -INFINITY};
  ThreeLayers(taps).Package("net")->ToFile(folder.Path("a.json").c_str(), "json");
  auto const through = [&](std::string const& options) {
    Outcome const outcome = Convert(folder.Path("a.json") + " " + folder.Path("b.tlnmodel") + options);
    EXPECT_EQ(outcome.status, 0) << outcome.text;
    auto const package = utility::OpenPackage(folder.Path("b.tlnmodel"));
    auto const& layers = package->model_arr->models.at("net")->layers;
    return std::pair(outcome.text, Decoded(static_cast<Conv2dInfo&>(*layers.at("taps")).weight));
  };
  auto const [text, nearest] = through("");
  EXPECT_EQ(nearest, (std::vector<float>{1 + 0x1p-10f, -1, -1 - 0x1p-9f, 65504, 0x1p-23f, 0, 0x1p-24f, -INFINITY}));
  EXPECT_EQ(text,
            "largest rounding of the binary form: 0.000488043, of element 1 of weight of layer taps, -1.00049 held as "
            "-1; of weights below 6.1e-05 2 change and 1 become 0\n");
  auto const [other, cut] = through(" --half cut");
  EXPECT_EQ(cut, (std::vector<float>{1, -1, -1 - 0x1p-10f, 65504, 0x1p-24f, 0, 0, -INFINITY}));
}

TEST(ConvertPackage, RefusesEachFaultInOneLineAndWritesNothing) {
  ScratchFolder const folder;
  std::string const in = folder.Path("a.json"), out = folder.Path("out.tlnmodel");
  ThreeLayers({1, 65536}, {-1e9f, 1e9f}).Package("net")->ToFile(in.c_str(), "json");
  folder.Save("cut.json", Bytes(in).substr(0, 700));
  folder.Save("out.tlnmodel", "kept");
  std::string const overflows = out + ": model net, layer ",
                    bound = ", the binary form holds numbers to 65504; write a .json package\n";
  std::string const none = "convert_package: " + in + ": model net has no configuration for gpu_cuda\n";
  for (auto const& [arguments, text] : std::vector<std::pair<std::string, std::string>>{
           {in + " " + out, "convert_package: " + overflows + "taps: weight element 1 is 65536" + bound +
                                "convert_package: " + overflows + "wide: weight element 0 is -1e+09" + bound},
           {in + " " + folder.Path("new.json") + " --set-back-end cpu_avx=gpu_cuda --kernels gpu_cuda=fused",
            none + none},
           {folder.Path("cut.json") + " " + out, "convert_package: " + folder.Path("cut.json") + ": no JSON: line"},
           {"none.json " + out, "convert_package: none.json: cannot be opened: No such file or directory\n"},
           {in + " " + folder.Path("no/new.json"),
            "convert_package: " + folder.Path("no/new.json") + ": cannot be written\n"},
           {in + " out.bin", "convert_package: out.bin: a package ends in .tlnmodel or .json\n"}}) {
    Outcome const outcome = Convert(arguments);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.text.substr(0, text.size()), text);
  }
  EXPECT_EQ(Bytes(out), "kept");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.Path()), {}), 3);
  for (char const* const arguments :
       {"", "a.json", "a.json b.json c.json", "a.json b.json --kernels quick", "a.json b.json --set-back-end cpu_avx",
        "a.json b.json --kernels cpu=fused", "a.json b.json --half up"}) {
    EXPECT_EQ(Convert(arguments).status, 2) << arguments;
  }
}

}  // namespace
}  // namespace talvo::test
