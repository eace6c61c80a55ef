#include "talvo/serialization/tlmodel1.h"

#include <gtest/gtest.h>

#include <cstdio>

#include "tests/support/log_capture.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/tlmodel1_writer.h"

namespace talvo::test {
namespace {

using namespace talvo1;

std::string FailureOf(std::string const& bytes, std::string* notice = nullptr) {
  QZNetLoader loader;
  try {
    ReadOldModel(bytes, loader);
  } catch (LoadFailure const& failure) {
    if (notice != nullptr) *notice = failure.notice;
    return failure.what();
  }
  return "";
}

TEST(TLModel1, ReadsWhatEachVersionHolds) {
  for (unsigned int const version : {10000u, 10001u, 10003u, 10007u, 10008u, 10009u, 10011u}) {
    SCOPED_TRACE(version);
    TLModel1Writer written(version), again(version);
    auto const layers = OneOfEachOldLayer(version);
    for (auto const& layer : layers) written.Add(*layer);
    QZNetLoader loader;
    ASSERT_TRUE(ReadOldModel(written.bytes, loader));
    ASSERT_EQ(loader.id_list.size(), layers.size());
    for (unsigned short const id : loader.id_list) again.Add(*loader.layers.at(id));
    EXPECT_TRUE(written.bytes == again.bytes);
  }
}

// The order of the fields, laid by hand: [out 1] [in 2] [kernel 1 x 2], three weights fewer than the shapes' product.
TEST(TLModel1, FieldsStandInTheirPlaces) {
  TLModel1Writer file(10003);
  file.Put({0x5555, 1, 9, 8, /* out */ 0x3C00, 0x3800, 1, /* in */ 0x4000, 0x3400, 2});
  file.Put({/* kernel */ 1, 2, /* pad */ 3, 4, /* stride */ 5, 6, /* dilation */ 7, 11, /* bias, activation */ 12, 13});
  file.Put({/* groups */ 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, /* weights */ 0x3C00, 0xBC00, /* bias */ 0x4200, 0xAAAA});
  file.Put({0x5555, 2, 10, 9, 0, 0, 1, 0, 0, 2, 1, 1, 21, 22, 23, 24, 25, 26, /* divisor */ 2, 0x4400, 0x4500, 0xAAAA});
  QZNetLoader loader;
  ASSERT_TRUE(ReadOldModel(file.bytes, loader));
  auto const& layer = dynamic_cast<QZLayerInfo_Conv2D&>(*loader.layers.at(9));
  EXPECT_EQ(layer.input_ids, std::vector<unsigned short>{8});
  EXPECT_EQ(layer.output_shapes[0].width, 1.0f);
  EXPECT_EQ(layer.output_shapes[0].height, 0.5f);
  EXPECT_EQ(layer.input_shapes[0].channels, 2);
  unsigned short const fields[] = {layer.kernel_x, layer.kernel_y,   layer.pad_x,      layer.pad_y,   layer.stride_x,
                                   layer.stride_y, layer.dilation_x, layer.dilation_y, layer.if_bias, layer.activation};
  unsigned short const want[] = {1, 2, 3, 4, 5, 6, 7, 11, 12, 13};
  EXPECT_TRUE(std::equal(std::begin(fields), std::end(fields), want));
  EXPECT_EQ(layer.weights, (std::vector<float>{1.0f, -1.0f}));
  EXPECT_EQ(layer.bias, std::vector<float>{3.0f});
  auto const& transposed = dynamic_cast<QZLayerInfo_Conv2DTranspose&>(*loader.layers.at(10));
  EXPECT_EQ(transposed.stride_y, 24);
  EXPECT_EQ(transposed.activation, 26);
  EXPECT_EQ(transposed.weights, std::vector<float>{4.0f});
}

TEST(TLModel1, ServesFilesWithoutLayers) {
  QZNetLoader loader;
  EXPECT_TRUE(ReadOldModel(TLModel1Writer(10000).bytes, loader));
  EXPECT_TRUE(loader.layers.empty());
  EXPECT_EQ(loader.exinfo.AppType(), 77u);
  EXPECT_EQ(loader.exinfo.ModelId(), 88u);
  EXPECT_FALSE(ReadOldModel(TLModel1Writer(9999).bytes, loader)) << "too old";
  EXPECT_TRUE(ReadOldModel(TLModel1Writer(10011).bytes + "U", loader)) << "half a number behind the last record";
  EXPECT_FALSE(loader.LoadFile("/no such file", false));
}

TEST(TLModel1, RefusesBrokenForm) {
  struct Case {
    char const* why;
    unsigned int version;
    std::vector<unsigned int> record;
    char const* failure;
    char const* notice;
  };
  std::vector<Case> const cases = {
      {"head", 10011, {0x5556}, "message_head == 0x5555", ""},
      {"end", 10011, {0x5555, 0, 1, 0, 0, 0, 0, 0xAAAB}, "message_end == 0xaaaa", ""},
      {"gap in the types", 10011, {0x5555, 12}, "false", "\n\n\nError, Unsupport Layer Type 12.\n"},
      {"behind the last type", 10011, {0x5555, 27}, "false", "\n\n\nError, Unsupport Layer Type 27.\n"},
      {"gap in the first version", 10000, {0x5555, 13}, "false", "\n\n\nError, Unsupport Layer Type."},
      {"later than the first version", 10000, {0x5555, 16}, "false", "\n\n\nError, Unsupport Layer Type."},
      {"depthwise transposed", 10002, {0x5555, 16}, "this->exinfo.getVersion() >= 10003", ""},
      {"tensor input", 10007, {0x5555, 17}, "this->exinfo.getVersion() >= 10008", ""},
      {"reshape", 10007, {0x5555, 18}, "this->exinfo.getVersion() >= 10008", ""},
      {"transpose", 10007, {0x5555, 19}, "this->exinfo.getVersion() >= 10008", ""},
      {"squeeze", 10007, {0x5555, 20}, "this->exinfo.getVersion() >= 10008", ""},
      {"dense", 10007, {0x5555, 21}, "this->exinfo.getVersion() >= 10008", ""},
      {"LSTM", 10007, {0x5555, 22}, "this->exinfo.getVersion() >= 10008", ""},
      {"tensor activation", 10010, {0x5555, 26}, "this->exinfo.getVersion() >= 10011", ""},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(c.why);
    TLModel1Writer file(c.version);
    for (unsigned int const number : c.record) file.Put({number});
    std::string notice;
    EXPECT_EQ(FailureOf(file.bytes, &notice), c.failure);
    EXPECT_EQ(notice, c.notice);
  }
  std::string bytes = TLModel1Writer(10011).bytes;
  bytes[0] = 0;
  EXPECT_EQ(FailureOf(bytes), "this->exinfo.ifCorrectlyLoad()");
  EXPECT_EQ(FailureOf(TLModel1Writer(10011).bytes.substr(0, 996)), "this->exinfo.ifCorrectlyLoad()");
  EXPECT_EQ(FailureOf(TLModel1Writer(10011).bytes.substr(0, 999)), "ex_count == 1");
}

TEST(TLModel1, RefusesEveryCutInsideARecord) {
  auto const layers = OneOfEachOldLayer(10011);
  for (auto const& layer : layers) {
    SCOPED_TRACE(layer->type);
    TLModel1Writer file(10011);
    file.Add(*layer);
    for (std::size_t length = 1002; length < file.bytes.size(); ++length)
      ASSERT_EQ(FailureOf(file.bytes.substr(0, length)), "message_end == 0xaaaa") << length;
  }
}

// 65535 to the power of four weights, from a stream that does not know its length and from a file that does.
TEST(TLModel1, TakesNoMemoryForWeightsThatAreNotThere) {
  TLModel1Writer file(10001);
  file.Put({0x5555, 1, 1, 0, 0, 0, 65535, 0, 0, 65535, 65535, 65535, 0, 0, 1, 1, 1, 1, 0, 0, 1});
  file.bytes.append(100000, '\1');
  EXPECT_EQ(FailureOf(file.bytes), "message_end == 0xaaaa");
  ScratchFolder const folder;
  std::string const path = folder.Save("huge.tlmodel1", file.bytes);
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> const stream(std::fopen(path.c_str(), "rb"), &std::fclose);
  QZNetLoader loader;
  EXPECT_THROW(loader.ReadFile(stream.get()), LoadFailure);
}

TEST(TLModel1, RefusesCountsThatDoNotFit) {
  struct Case {
    char const* why;
    std::unique_ptr<QZLayerInfo> layer;
    char const* text;
  };
  auto layers = OneOfEachOldLayer(10011);
  auto const take = [&layers](unsigned short type) {
    for (auto& layer : layers)
      if (layer != nullptr && layer->type == type) return std::move(layer);
    return std::unique_ptr<QZLayerInfo>();
  };
  std::vector<Case> cases;
  auto const add = [&](char const* why, unsigned short type, char const* text) -> QZLayerInfo& {
    cases.push_back({why, take(type), text});
    return *cases.back().layer;
  };
  static_cast<QZLayerInfo_Conv2D&>(add("groups", 1, "groups is 0")).groups = 0;
  static_cast<QZLayerInfo_Conv2DTranspose&>(add("divisor", 2, "divisor of groups is 0")).group_divisor = 0;
  static_cast<QZLayerInfo_DepthWiseConv2D&>(add("multiplier", 3, "multiplier is 0")).multiplier = 0;
  static_cast<QZLayerInfo_DepthWiseConv2DTranspose&>(add("multiplier", 16, "multiplier is 0")).multiplier = 0;
  add("slots", 10, "11 inputs, a record has room for 10").input_count = 11;
  add("slots", 11, "65535 inputs, a record has room for 10").input_count = 65535;
  static_cast<QZFreezedLayerInfo&>(add("dimensions", 17, "12 dimensions")).output_tensor.dimension_count = 12;
  static_cast<QZFreezedLayerInfo&>(add("dimensions", 18, "12 dimensions")).input_tensor.dimension_count = 12;
  static_cast<QZFreezedLayerInfo&>(add("axes", 19, "11 axes, a record has room for 10")).output_tensor.dimension_count =
      11;
  static_cast<QZLayerInfo_LSTM&>(add("no units", 22, "hidden_size is 0")).hidden_size = 0;
  static_cast<QZLayerInfo_FullConnection&>(add("zeros alone", 21, "in_features is 0")).in_features = 0;
  for (Case const& c : cases) {
    SCOPED_TRACE(c.why);
    TLModel1Writer file(10011);
    file.Add(*c.layer);
    QZNetLoader loader;
    EXPECT_NE(RefusalOf([&] { ReadOldModel(file.bytes, loader); }).find(c.text), std::string::npos);
  }
}

TEST(TLModel1, CountsTheReadersOfEachLayer) {
  TLModel1Writer file(10011);
  auto input = OldLayer<QZLayerInfo_Input>(0, 0, {});
  input.output_shapes = {OldShape(1, 1, 1)};
  file.Add(input);
  auto sum = OldLayer<QZLayerInfo_ElementWiseOperator>(10, 1, {0, 0, 1, 300});  // itself and a layer that is not there
  sum.input_ids[5] = 0;                                                         // a slot that is not in use
  sum.output_shapes = {OldShape(1, 1, 1)};
  file.Add(sum);
  auto late = OldLayer<QZLayerInfo_Activation>(8, 1, {1});  // the id is taken
  late.input_shapes = {OldShape(1, 1, 1)};
  file.Add(late);
  QZNetLoader loader;
  ASSERT_TRUE(ReadOldModel(file.bytes, loader));
  EXPECT_EQ(loader.id_list, (std::vector<unsigned short>{0, 1, 1}));
  EXPECT_EQ(loader.layers.at(1)->type, 10);
  EXPECT_EQ(loader.reader_counts, (std::map<unsigned short, unsigned short>{{0, 2}, {1, 0}}));
}

TEST(TLModel1DeathTest, ThePublicDoorEndsTheProcess) {
  ScratchFolder const folder;
  std::string const text = folder.Save("text.tlmodel1", std::string(1000, 'x'));
  QZNetLoader loader;
  EXPECT_DEATH(loader.LoadFile(text.c_str(), false),
               "\\(this->exinfo.ifCorrectlyLoad\\(\\)\\), function ReadFile, file tlmodel1, line [0-9]+");
  EXPECT_DEATH(QZNetLoader("/no such file"), "\\(ifSuccess\\), .*file tlmodel1");
}

}  // namespace
}  // namespace talvo::test
