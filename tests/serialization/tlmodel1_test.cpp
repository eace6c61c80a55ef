#include "talvo/serialization/tlmodel1.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <tuple>

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

// Every record is laid by hand and written again, field by field by name, from what was read.
TEST(TLModel1, ReadsWhatEachVersionHolds) {
  for (unsigned int version = 10000; version <= 10012; ++version) {
    SCOPED_TRACE(version);
    TLModel1Writer const laid = EveryOldLayer(version);
    TLModel1Writer again(version);
    QZNetLoader loader;
    ASSERT_TRUE(ReadOldModel(laid.bytes, loader));
    ASSERT_EQ(loader.id_list.size() + 1, laid.ends.size());
    for (unsigned short const id : loader.id_list) again.Add(*loader.layers.at(id));
    auto const [want, got] =
        std::mismatch(laid.bytes.begin(), laid.bytes.end(), again.bytes.begin(), again.bytes.end());
    EXPECT_TRUE(want == laid.bytes.end() && got == again.bytes.end()) << "from byte " << want - laid.bytes.begin();
  }
}

TEST(TLModel1, ServesFilesWithoutLayers) {
  QZNetLoader loader;
  EXPECT_TRUE(ReadOldModel(TLModel1Writer(10000).bytes, loader));
  EXPECT_TRUE(loader.layers.empty());
  QZExInfo const& header = loader.exinfo;
  EXPECT_EQ((std::vector<unsigned int>{header.AppType(), header.ModelId(), header.BaseHeight(), header.BaseWidth()}),
            (std::vector<unsigned int>{77, 88, 128, 64}));
  EXPECT_FALSE(ReadOldModel(TLModel1Writer(9999).bytes, loader)) << "too old";
  EXPECT_FALSE(loader.LoadFile("/no such file", false));
  EXPECT_NE(RefusalOf([&] { loader.ReadFile(nullptr); }).find("null"), std::string::npos);
  EXPECT_NE(RefusalOf([&] { loader.LoadFile(nullptr, false); }).find("null"), std::string::npos);
}

TEST(TLModel1, RefusesBrokenForm) {
  using Case = std::tuple<unsigned int, std::vector<unsigned int>, std::string, std::string>;
  std::vector<Case> cases = {{10011, {0x5556}, "message_head == 0x5555", ""},
                             {10011, {0x5555, 0, 1, 0, 0, 0, 0, 0xAAAB}, "message_end == 0xaaaa", ""},
                             {10011, {0x5555, 12}, "false", "\n\n\nError, Unsupport Layer Type 12.\n"},
                             {10011, {0x5555, 27}, "false", "\n\n\nError, Unsupport Layer Type 27.\n"},
                             {10000, {0x5555, 13}, "false", "\n\n\nError, Unsupport Layer Type."},
                             {10000, {0x5555, 16}, "false", "\n\n\nError, Unsupport Layer Type."}};
  for (auto const& [type, first] : std::vector<std::pair<unsigned int, unsigned int>>{
           {16, 10003}, {17, 10008}, {18, 10008}, {19, 10008}, {20, 10008}, {21, 10008}, {22, 10008}, {26, 10011}})
    cases.emplace_back(first - 1, std::vector{0x5555u, type}, "this->exinfo.getVersion() >= " + std::to_string(first),
                       "");
  for (auto const& [version, record, failure, want_notice] : cases) {
    TLModel1Writer file(version);
    for (unsigned int const number : record) file.Put({number});
    std::string notice;
    EXPECT_EQ(FailureOf(file.bytes, &notice), failure) << record.back();
    EXPECT_EQ(notice, want_notice) << record.back();
  }
  std::string bytes = TLModel1Writer(10011).bytes;
  EXPECT_EQ(FailureOf(bytes.substr(0, 999)), "ex_count == 1");
  bytes[0] = 0;
  EXPECT_EQ(FailureOf(bytes), "this->exinfo.ifCorrectlyLoad()");
  EXPECT_EQ(FailureOf(TLModel1Writer(10011).bytes.substr(0, 996)), "this->exinfo.ifCorrectlyLoad()");
}

TEST(TLModel1, RefusesEveryCutInsideARecord) {
  TLModel1Writer const file = EveryOldLayer(10011);
  for (std::size_t length = 1000; length < file.bytes.size(); ++length) {
    std::size_t const into = length - *(std::upper_bound(file.ends.begin(), file.ends.end(), length) - 1);
    // Half a number behind the last record is no record.
    ASSERT_EQ(FailureOf(file.bytes.substr(0, length)), into < 2 ? "" : "message_end == 0xaaaa") << length;
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

// Records of zeros, but for one number.
TEST(TLModel1, RefusesCountsThatDoNotFit) {
  using Case = std::tuple<unsigned int, int, unsigned int, char const*>;  // the number stands behind so many zeros
  for (auto const& [type, zeros, number, want] :
       {Case{1, 0, 0, "groups is 0"}, Case{2, 0, 0, "divisor of groups is 0"}, Case{3, 0, 0, "multiplier is 0"},
        Case{16, 0, 0, "multiplier is 0"}, Case{10, 1, 11, "11 inputs, a record has room for 10"},
        Case{11, 1, 65535, "65535 inputs, a record has room for 10"}, Case{17, 4, 12, "12 dimensions"},
        Case{18, 4, 12, "12 dimensions"}, Case{19, 18, 11, "11 axes, a record has room for 10"},
        Case{21, 0, 0, "in_features is 0"}, Case{22, 0, 0, "hidden_size is 0"}, Case{26, 4, 12, "12 dimensions"}}) {
    TLModel1Writer file(10011);
    file.Start(type);
    for (int i = 0; i < 60; ++i) file.Put({i == zeros ? number : 0});
    QZNetLoader loader;
    std::string const text = RefusalOf([&] { ReadOldModel(file.bytes, loader); });
    EXPECT_NE(text.find(want), std::string::npos) << type << ": " << text;
  }
}

TEST(TLModel1, CountsTheReadersOfEachLayer) {
  TLModel1Writer file(10011);
  file.Add(OldLayer<QZLayerInfo_Input>(0, {}));
  auto sum = OldLayer<QZLayerInfo_ElementWiseOperator>(1, {0, 0, 1, 300});  // itself and a layer that is not there
  sum.input_ids[5] = 0;                                                     // a slot that is not in use
  file.Add(sum);
  file.Add(OldLayer<QZLayerInfo_Activation>(1, {1}));  // the id is taken
  QZNetLoader loader;
  ASSERT_TRUE(ReadOldModel(file.bytes, loader));
  EXPECT_EQ(loader.id_list, (std::vector<unsigned short>{0, 1, 1}));
  EXPECT_EQ(loader.layers.at(1)->type, 10);
  EXPECT_EQ(loader.reader_counts, (std::map<unsigned short, unsigned short>{{0, 2}, {1, 0}}));
}

TEST(TLModel1, NamesTheKindsOfLayers) {
  std::string names;
  for (unsigned short type = 0; type < 29; ++type) names += QZLayerTypeName(type) + std::string(" ");
  EXPECT_EQ(
      names,
      "Input Conv2D Conv2DTranspose DepthWiseConv2D PixelShuffle Pooling InstanceNormalization BatchNormalization "
      "Activation Region ElementWiseOperator Concatenate   Upsampling ChannelShuffle DepthWiseConv2DTranspose "
      "TensorInput TensorReshape TensorTranspose TensorSqueeze FullConnection LSTM    TensorActivation   ");
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
