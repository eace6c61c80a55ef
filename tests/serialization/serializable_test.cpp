// The file operations of a record: endings, type words, versions, what is refused and what is left behind.
#include "talvo/serialization/serializable.h"

#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <cmath>
#include <filesystem>
#include <limits>
#include <stdexcept>

#include "talvo/serialization/json_visitors.h"
#include "talvo/serialization/layer_info_activation.h"
#include "talvo/serialization/layer_info_conv.h"
#include "talvo/serialization/layer_info_plane.h"
#include "talvo/serialization/model_info.h"
#include "talvo/utility/json_file.h"
#include "tests/serialization/record_catalogue.h"
#include "tests/support/log_capture.h"
#include "tests/support/scratch_folder.h"

namespace talvo::test {
namespace {

using namespace runtime;

TEST(Serializable, NamesItsClassAndKeepsTheStoredNameUntilItIsWritten) {
  TimeInfo time;
  EXPECT_EQ(time.GetClassTypeName(), "TimeInfo");
  EXPECT_EQ(time.serializable_type, "talvo::runtime::TimeInfo");
  EXPECT_EQ(time.GetClassTypeNameWithNamespace(), "talvo::runtime::TimeInfo");
  std::string text = Written(time, "json");
  ReadFrom(time, text.replace(text.find("TimeInfo"), 8, "Whatever"), "json");
  EXPECT_EQ(time.serializable_type, "Whatever");
  EXPECT_NE(Written(time, "json").find("\"TimeInfo\""), std::string::npos);
}

TEST(Serializable, ChoosesTheFormByTheEnding) {
  TimeInfo written;
  written.year = 2023;
  ScratchFolder const folder;
  for (std::string const ending : {".json", ".tlmod", ".tlcfg", ".tlmods", ".tlcfgs"}) {
    SCOPED_TRACE(ending);
    std::string const path = folder.Path("talvo" + ending);
    written.ToFile(path.c_str(), ending == ".json" ? "json" : "bin");
    TimeInfo read;
    EXPECT_TRUE(read.FromFile(path.c_str()));
    EXPECT_EQ(read.year, 2023u);
  }
  for (char const* path : {"model.tlnmodel", "model.JSON", "long_enough"})
    EXPECT_EQ(RefusalOf([&] { TimeInfo().FromFile(path); }),
              std::string("[TLN]: Unknow nets file type, file path: ") + path + ".\n");
  for (char const* path : {"", "json", "model", "a.tlmo"})
    EXPECT_THROW(TimeInfo().FromFile(path), std::out_of_range) << path;
}

TEST(Serializable, ReportsWhatItCannotOpenOrWrite) {
  TimeInfo time;
  EXPECT_TRUE(time.ToFile("/nowhere/at/all", "json"));  // silent by design
  EXPECT_NE(RefusalOf([&] { time.ToFile("/nowhere/at/all", "bin"); }).find("/nowhere/at/all"), std::string::npos);
  for (char const* form : {"bin", "json"})
    EXPECT_NE(RefusalOf([&] { time.ToFile("/dev/full", form); }).find("/dev/full"), std::string::npos) << form;
  ScratchFile const whole;
  time.ToFile(whole.Path(), "json");
  EXPECT_EQ(RefusalOf([&] { time.ToFile("/dev/full", "json"); }),
            "[TLN]: failed to write the file /dev/full: " + std::to_string(whole.Bytes().size()) + " bytes\n");
  LogCapture const log;
  EXPECT_FALSE(time.FromFile("/nowhere", "bin"));
  EXPECT_FALSE(time.FromFile("/nowhere", "BIN"));
  EXPECT_FALSE(time.ToFile("/nowhere", ""));
  EXPECT_EQ(log.Lines(), (std::vector<std::string>{"[TLN]: Failed to open model file, file path: /nowhere.\n",
                                                   "[TLN]: Unknow file type, file path: /nowhere.\n",
                                                   "[TLN]: Unknow file type, file path: /nowhere.\n"}));
}

// Long texts go to the file by themselves, what is between them in pieces.
TEST(Serializable, WritesTheTextOfTheValueWhateverItsLength) {
  LayerPlaceholderInfo layer;
  for (std::size_t length : {0u, 10u, 65535u, 65536u, 200000u}) {
    layer.desc.assign(length, 'w');
    if (length > 100000) layer.desc[70000] = '"';
    layer.input_ids.push_back(layer.desc);
    layer.output_shape.assign(length, 12345);
    ScratchFile const file;
    layer.ToFile(file.Path(), "json");
    JSONAllocator allocator;
    rapidjson::Document document;
    document.Parse(file.Bytes().c_str());
    EXPECT_EQ(SerializeJSONValue(document), SerializeJSONValue(ToJSONValue(&layer, allocator))) << length;
    LayerPlaceholderInfo read;
    ReadFrom(read, file.Bytes(), "json");
    EXPECT_TRUE(read.desc == layer.desc && read.input_ids == layer.input_ids) << length;
  }
}

TEST(Serializable, RefusesNumbersThatJSONCannotHoldBeforeTheFileIsTouched) {
  float const infinity = std::numeric_limits<float>::infinity();
  for (float number : {infinity, -infinity, std::nanf("")}) {
    ScratchFile const file("as it was");
    PixelShuffleInfo shuffle;
    shuffle.upscale_factor = number;
    EXPECT_NE(RefusalOf([&] { shuffle.ToFile(file.Path(), "json"); }).find("\"upscale_factor\""), std::string::npos);
    ActivationInfo activation;
    activation.activation_beta = half_float::half(number);
    EXPECT_NE(RefusalOf([&] { activation.ToFile(file.Path(), "json"); }).find("\"activation_beta\""),
              std::string::npos);
    EXPECT_EQ(file.Bytes(), "as it was");
    PixelShuffleInfo back;
    ReadFrom(back, Written(shuffle, "bin"), "bin");
    EXPECT_EQ(std::isnan(back.upscale_factor), std::isnan(number));
  }
}

TEST(Serializable, JudgesTheVersion) {
  ActivationInfo activation, unnamed;
  activation.num_parameters = 3;
  std::string const binary = Written(activation, "bin").substr(2);
  std::string json = Written(activation, "json");
  EXPECT_EQ(RefusalOf([&] { ReadFrom(activation, "\x30\x4e" + binary, "bin"); }),
            "[TLN]: _serialization_protocol_version > __SERIALIZATION_PROTOCOL_VERSION__.\n");
  EXPECT_NE(RefusalOf([&] { ReadFrom(activation, std::string(2, '\0') + binary, "bin"); }), "");
  ReadFrom(unnamed, json.replace(json.find("serialization_protocol_version"), 13, "another______"), "json");
  EXPECT_EQ(unnamed.num_parameters, 3);
  EXPECT_NE(
      RefusalOf([&] { ReadFrom(unnamed, json.replace(0, 1, "{\"serialization_protocol_version\": -1,"), "json"); }),
      "");
  LogCapture const quiet;
  TLNModel package;  // the version goes on to nested records, which need not have what it does not hold
  std::string text = Golden("package.json").replace(Golden("package.json").find("20015"), 5, "20011");
  for (char const* key : {"num_parameters", "weight\": \"zcz"}) text.replace(text.find(key), 1, "_");
  ReadFrom(package, text, "json");
}

std::ptrdiff_t OpenFiles() {
  std::filesystem::directory_iterator const files("/proc/self/fd");
  return std::distance(begin(files), end(files));
}

TEST(Serializable, ClosesItsFilesOnEveryWayOut) {
  LogCapture const quiet;
  TimeInfo time;
  PixelShuffleInfo shuffle;
  shuffle.upscale_factor = std::nanf("");
  std::ptrdiff_t const before = OpenFiles();
  for (char const* form : {"bin", "json"}) EXPECT_THROW(ReadFrom(time, "short", form), std::runtime_error);
  EXPECT_THROW(ReadFrom(time, Written(time, "bin").substr(0, 20), "bin"), std::runtime_error);
  EXPECT_THROW(Written(shuffle, "json"), std::runtime_error);
  LayerCfg cfg;
  cfg.kernel = nullptr;
  for (char const* form : {"bin", "json"}) EXPECT_THROW(Written(cfg, form), std::runtime_error) << form;
  EXPECT_EQ(OpenFiles(), before);
}

TEST(JSONText, IsReadUpToAZeroCharacterAndOnlyFromFiles) {
  NetExtraInfo info, back;
  info.device.assign(2000001, 'x');
  ReadFrom(back, Written(info, "json") + std::string(1, '\0') + "no JSON", "json");
  EXPECT_TRUE(back.device == info.device);
  ScratchFile const file(std::string("ab\0cd", 5));
  EXPECT_EQ(utility::ReadJsonFile2StrStream(file.Path()).str(), "ab");
  std::string const text(5000001, 'x');
  ScratchFile const long_file(text + std::string(1, '\0'));
  EXPECT_TRUE(utility::ReadJsonFile2StrStream(long_file.Path()).str() == text);
  EXPECT_EQ(RefusalOf([] { utility::ReadJsonFile2StrStream("/nowhere"); }),
            "[TLN]: Error in opening the file [/nowhere].\n");
  EXPECT_EQ(RefusalOf([] { utility::ReadJsonFile2StrStream("/"); }), "[TLN]: Error in read the whole file [/].\n");
}

TEST(JSONText, OfAnyDepthCostsNoStack) {
  std::string const deep(1000000, '[');
  std::string const whole = deep + std::string(deep.size(), ']');
  TimeInfo time;
  for (std::string const& text : {deep, whole})
    EXPECT_EQ(RefusalOf([&] { time.FromJsonString(text.c_str()); }), "[TLN]: ");
  EXPECT_TRUE(time.FromJsonString(("{\"deep\": " + whole + "," + Written(time, "json").substr(1)).c_str()));
}

}  // namespace
}  // namespace talvo::test
