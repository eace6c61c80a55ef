#include "talvo/transform/transform_fallback.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <numeric>

#include "tests/support/bits.h"
#include "tests/support/guarded_context.h"
#include "tests/support/log_capture.h"

namespace talvo {
namespace {

using namespace kernel;  // NOLINT: two dozen function names of one header
using runtime::TensorShape;
using Dims = std::vector<unsigned int>;
using TensorPtr = std::shared_ptr<runtime::TensorCPU>;
using DevicePtr = std::shared_ptr<runtime::DeviceCPU>;
using Convert = TensorPtr (*)(TensorPtr, DevicePtr);

// A tensor of random bytes with a step size.
TensorPtr Random(DevicePtr const& device, Dims const& dims, unsigned int layout,
                 unsigned int type = TensorShape::FLOAT32, unsigned int location = TensorShape::MainMemory) {
  TensorShape shape(dims, type, layout, location, TensorShape::Extra());
  shape.extra.step_size = 3;
  auto const bytes = test::Bytes(type + 1, runtime::ByteCount(shape));
  return device->CreateTensor(shape, bytes.data());
}

struct Packing {
  char const* name;
  Convert convert;
  Dims from;
  unsigned int layout;
  Dims to;
  Dims (*place)(unsigned int g, unsigned int n, unsigned int c, unsigned int h, unsigned int w);
};

#define TALVO_PLACE(...)                                                               \
  [](unsigned int g, unsigned int n, unsigned int c, unsigned int h, unsigned int w) { \
    return (void)g, (void)n, (void)c, (void)h, (void)w, Dims{__VA_ARGS__};             \
  }

std::vector<Packing> Packings() {
  // clang-format off
  return {
      {"4n4c", Function_Tensor_GNCHW_To_GN4C4HW4n4c_Fallback, {2, 8, 12, 3, 2}, 12, {2, 2, 3, 3, 2, 4, 4},
       TALVO_PLACE(g, n / 4, c / 4, h, w, n % 4, c % 4)},
      {"4c4n", Function_Tensor_GNCHW_To_GN4C4HW4c4n_Fallback, {2, 8, 12, 3, 2}, 12, {2, 2, 3, 3, 2, 4, 4},
       TALVO_PLACE(g, n / 4, c / 4, h, w, c % 4, n % 4)},
      {"8n8c", Function_Tensor_GNCHW_To_GN8C8HW8n8c_Fallback, {1, 8, 16, 3, 3}, 16, {1, 1, 2, 3, 3, 8, 8},
       TALVO_PLACE(g, n / 8, c / 8, h, w, n % 8, c % 8)},
      {"8c8n", Function_Tensor_GNCHW_To_GN8C8HW8c8n_Fallback, {1, 8, 16, 3, 3}, 36, {1, 1, 2, 3, 3, 8, 8},
       TALVO_PLACE(g, n / 8, c / 8, h, w, c % 8, n % 8)},
      {"4n8c", Function_Tensor_GNCHW_To_GN4C8HW4n8c_Fallback, {2, 12, 8, 1, 5}, 37, {2, 3, 1, 1, 5, 4, 8},
       TALVO_PLACE(g, n / 4, c / 8, h, w, n % 4, c % 8)},
      {"8n4c", Function_Tensor_GNCHW_To_GN8C4HW8n4c_Fallback, {2, 8, 12, 5, 1}, 38, {2, 1, 3, 5, 1, 8, 4},
       TALVO_PLACE(g, n / 8, c / 4, h, w, n % 8, c % 4)},
      {"8c4n", Function_Tensor_GNCHW_To_GN4C8HW8c4n_Fallback, {1, 12, 8, 2, 2}, 39, {1, 3, 1, 2, 2, 8, 4},
       TALVO_PLACE(g, n / 4, c / 8, h, w, c % 8, n % 4)},
      {"2c2n", Function_Tensor_GNCHW_To_GN2C2HW2c2n_Fallback, {3, 6, 4, 2, 3}, 28, {3, 3, 2, 2, 3, 2, 2},
       TALVO_PLACE(g, n / 2, c / 2, h, w, c % 2, n % 2)},
      {"16c16n", Function_Tensor_GNCHW_To_GN16C16HW16c16n_Fallback, {1, 32, 16, 1, 2}, 29, {1, 2, 1, 1, 2, 16, 16},
       TALVO_PLACE(g, n / 16, c / 16, h, w, c % 16, n % 16)},
      {"N4", Function_Tensor_GNCHW_To_GN4CHW4_Fallback, {2, 8, 3, 5, 7}, 19, {2, 2, 3, 5, 7, 4},
       TALVO_PLACE(g, n / 4, c, h, w, n % 4)},
      {"N8", Function_Tensor_GNCHW_To_GN8CHW8_Fallback, {2, 8, 3, 5, 7}, 20, {2, 1, 3, 5, 7, 8},
       TALVO_PLACE(g, n / 8, c, h, w, n % 8)},
      {"C8", Function_Tensor_GNCHW_To_GNC8HW8_Fallback, {2, 3, 16, 5, 7}, 20, {2, 3, 2, 5, 7, 8},
       TALVO_PLACE(g, n, c / 8, h, w, c % 8)},
      {"GCNHW", Function_Tensor_GNCHW_To_GCNHW_Fallback, {2, 3, 5, 2, 3}, 11, {2, 5, 3, 2, 3},
       TALVO_PLACE(g, c, n, h, w)},
      {"GHW", Function_Tensor_GNCHW_To_GHWN4C44c4n_Fallback, {2, 8, 12, 3, 2}, 12, {2, 3, 2, 2, 3, 4, 4},
       TALVO_PLACE(g, h, w, n / 4, c / 4, c % 4, n % 4)},
      {"GC4N4", Function_Tensor_GNCHW_To_GC4N4HW4c4n_Fallback, {2, 8, 12, 3, 2}, 15, {2, 3, 2, 3, 2, 4, 4},
       TALVO_PLACE(g, c / 4, n / 4, h, w, c % 4, n % 4)},
      {"G4", Function_Tensor_GNCHW_To_G4NCHW4_Fallback, {12, 1, 1, 3, 5}, 17, {3, 1, 1, 3, 5, 4},
       TALVO_PLACE(g / 4, 0, 0, h, w, g % 4)},
      {"G8", Function_Tensor_GNCHW_To_G8NCHW8_Fallback, {16, 1, 1, 3, 5}, 18, {2, 1, 1, 3, 5, 8},
       TALVO_PLACE(g / 8, 0, 0, h, w, g % 8)},
  };
  // clang-format on
}

void ExpectPacked(Packing const& packing, runtime::TensorCPU const& from, runtime::TensorCPU const& to) {
  EXPECT_EQ(packing.layout, to.shape.layout);
  EXPECT_EQ(from.shape.data_type, to.shape.data_type);
  EXPECT_EQ(0, to.shape.extra.step_size);
  ASSERT_EQ(packing.to, to.shape.dims);
  Dims const& d = from.shape.dims;
  for (unsigned int g = 0; g < d[0]; ++g)
    for (unsigned int n = 0; n < d[1]; ++n)
      for (unsigned int c = 0; c < d[2]; ++c)
        for (unsigned int h = 0; h < d[3]; ++h)
          for (unsigned int w = 0; w < d[4]; ++w)
            ASSERT_EQ(0, std::memcmp(from.Locate5D(g, n, c, h, w), to.Locate(packing.place(g, n, c, h, w)),
                                     runtime::ElementSize(from.shape.data_type)))
                << g << " " << n << " " << c << " " << h << " " << w;
}

TEST(TransformFallback, PacksWeightsOfEveryTypeIntoEveryArrangement) {
  auto const device = test::GuardedContext()->device_cpu;
  for (Packing const& packing : Packings()) {
    for (unsigned int type = TensorShape::FLOAT32; type <= TensorShape::UINT8; ++type) {
      SCOPED_TRACE(std::string(packing.name) + ", type " + std::to_string(type));
      auto const from = Random(device, packing.from, TensorShape::GNCHW, type);
      auto const to = packing.convert(from, device);
      ASSERT_NE(nullptr, to);
      ExpectPacked(packing, *from, *to);
    }
  }
}

TEST(TransformFallback, PacksAMatrixOfAnyTypeAndLayout) {
  auto const device = test::GuardedContext()->device_cpu;
  for (unsigned int type = TensorShape::FLOAT32; type <= TensorShape::UINT8; ++type) {
    SCOPED_TRACE(type);
    auto const from = Random(device, {16, 24}, TensorShape::SC, type);
    auto const to = Function_Tensor_NC_To_N8C88c8n_Fallback(from, device);
    ASSERT_EQ((Dims{2, 3, 8, 8}), to->shape.dims);
    EXPECT_EQ(35u, to->shape.layout);
    EXPECT_EQ(type, to->shape.data_type);
    unsigned int const bytes = runtime::ElementSize(type);
    for (unsigned int n = 0; n < 16; ++n)
      for (unsigned int c = 0; c < 24; ++c)
        ASSERT_EQ(0, std::memcmp(from->Locate2D(n, c), to->Locate4D(n / 8, c / 8, c % 8, n % 8), bytes))
            << n << " " << c;
  }
}

struct ChannelBlocks {
  unsigned int block, layout;
  Convert block_up, unblock;
};

TEST(TransformFallback, BlocksChannelsWithZerosInTheTailAndTakesThemApart) {
  auto const device = test::GuardedContext()->device_cpu;
  for (ChannelBlocks const& c :
       {ChannelBlocks{4, 2, Function_Tensor_CHW_To_C4HW4_Fallback, Function_Tensor_C4HW4_To_CHW_Fallback},
        ChannelBlocks{8, 3, Function_Tensor_CHW_To_C8HW8_Fallback, Function_Tensor_C8HW8_To_CHW_Fallback}}) {
    for (unsigned int type = TensorShape::FLOAT32; type <= TensorShape::UINT8; ++type) {
      for (unsigned int channels : {0u, 1u, 5u, 8u, 19u}) {
        SCOPED_TRACE(testing::Message() << "block " << c.block << ", type " << type << ", channels " << channels);
        auto const plain = Random(device, {channels, 3, 7}, TensorShape::CHW, type);
        auto const blocked = c.block_up(plain, device);
        unsigned int const blocks = (channels + c.block - 1) / c.block;
        ASSERT_EQ((Dims{blocks, 3, 7, c.block}), blocked->shape.dims);
        EXPECT_EQ(c.layout, blocked->shape.layout);
        EXPECT_EQ(0, blocked->shape.extra.step_size);
        blocked->shape.extra.step_size = 5;
        auto const again = c.unblock(blocked, device);
        ASSERT_EQ((Dims{blocks * c.block, 3, 7}), again->shape.dims);
        EXPECT_EQ(5, again->shape.extra.step_size);
        unsigned int const bytes = runtime::ElementSize(type);
        std::vector<unsigned char> const zero(bytes);
        for (unsigned int i = 0; i < blocks * c.block * 21; ++i) {
          unsigned int const ch = i / 21, y = i / 7 % 3, x = i % 7;
          void const* const want = ch < channels ? plain->Locate3D(ch, y, x) : zero.data();
          ASSERT_EQ(0, std::memcmp(want, blocked->Locate4D(ch / c.block, y, x, ch % c.block), bytes)) << i;
          ASSERT_EQ(0, std::memcmp(want, again->Locate3D(ch, y, x), bytes)) << i;
        }
      }
    }
  }
}

TEST(TransformFallback, StacksChannelBlocksAsOneImage) {
  auto const device = test::GuardedContext()->device_cpu;
  struct Case {
    char const* why;
    int width, height;
  };
  for (unsigned int type = TensorShape::FLOAT32; type <= TensorShape::UINT8; ++type) {
    auto const plain = Random(device, {6, 3, 5}, TensorShape::CHW, type);
    auto const image = Function_Tensor_CHW_To_C4HW4_Image2D_Fallback(plain, device);
    ASSERT_EQ((Dims{1, 6, 5, 4}), image->shape.dims);
    EXPECT_EQ(2u, image->shape.layout);
    image->shape.extra.step_size = 2;
    unsigned int const bytes = runtime::ElementSize(type);
    for (Case const& c : {Case{"the image that it was", 5, 3}, {"columns left over", 2, 3}, {"rows left over", 5, 4}}) {
      SCOPED_TRACE(testing::Message() << c.why << ", type " << type);
      auto const again = Function_Tensor_C4HW4_Image2D_To_CHW_Fallback(image, c.width, c.height, device);
      auto const w = static_cast<unsigned int>(c.width), h = static_cast<unsigned int>(c.height);
      ASSERT_EQ((Dims{6 / h * 4, h, w}), again->shape.dims);
      EXPECT_EQ(2, again->shape.extra.step_size);
      for (unsigned int i = 0; i < again->shape.dims[0] * h * w; ++i) {
        unsigned int const ch = i / (h * w), y = i / w % h, x = i % w;
        ASSERT_EQ(0, std::memcmp(image->Locate4D(0, ch / 4 * h + y, x, ch % 4), again->Locate3D(ch, y, x), bytes)) << i;
        if (c.width == 5 && c.height == 3 && ch < 6) {
          ASSERT_EQ(0, std::memcmp(plain->Locate3D(ch, y, x), again->Locate3D(ch, y, x), bytes)) << i;
        }
      }
    }
  }
}

TEST(TransformFallback, AnswersAnotherLayoutOrLocationWithNothing) {
  auto const device = test::GuardedContext()->device_cpu;
  test::LogCapture const log;
  for (Packing const& packing : Packings()) {
    SCOPED_TRACE(packing.name);
    EXPECT_EQ(nullptr, packing.convert(Random(device, packing.from, TensorShape::FLEXIABLE), device));
    EXPECT_EQ(nullptr,
              packing.convert(Random(device, packing.from, TensorShape::GNCHW, 0, TensorShape::MetalBuffer), device));
  }
  auto const hwc = Random(device, {4, 4, 4}, TensorShape::HWC), c8 = Random(device, {1, 1, 1, 8}, TensorShape::C8HW8);
  EXPECT_EQ(nullptr, Function_Tensor_CHW_To_C4HW4_Fallback(hwc, device));
  EXPECT_EQ(nullptr, Function_Tensor_CHW_To_C4HW4_Image2D_Fallback(hwc, device));
  EXPECT_EQ(nullptr, Function_Tensor_C4HW4_To_CHW_Fallback(c8, device));
  EXPECT_EQ(nullptr, Function_Tensor_C4HW4_Image2D_To_CHW_Fallback(c8, 1, 1, device));
  EXPECT_EQ(nullptr, Function_Tensor_GNCHW_Concat_Value(hwc, 0, device));
  EXPECT_EQ(nullptr, Function_Tensor_NC_To_N8C88c8n_Fallback(Random(device, {8, 8}, 30, 0, 0x20000), device));
  EXPECT_TRUE(log.Lines().empty());
}

TEST(TransformFallback, RefusesWhatWouldLeaveItsMemory) {
  auto const device = test::GuardedContext()->device_cpu;
  auto const refusal = [&](Convert convert, TensorPtr const& input) {
    return test::RefusalOf([&] { convert(input, device); });
  };
  for (Packing const& packing : Packings()) {
    if (std::string(packing.name) == "GCNHW") continue;  // has no blocks
    SCOPED_TRACE(packing.name);
    Dims dims = packing.from;
    for (unsigned int axis = 0; axis < 3; ++axis) dims[axis] += dims[axis] > 2 ? 1 : 0;
    EXPECT_NE(std::string::npos,
              refusal(packing.convert, Random(device, dims, TensorShape::GNCHW)).find("needs a multiple of"));
  }
  EXPECT_NE("", refusal(Function_Tensor_GNCHW_To_GCNHW_Fallback, Random(device, {2, 3}, TensorShape::GNCHW)));
  EXPECT_NE("", refusal(Function_Tensor_GNCHW_To_G4NCHW4_Fallback, Random(device, {4, 1}, TensorShape::GNCHW)));
  EXPECT_NE("", refusal(Function_Tensor_NC_To_N8C88c8n_Fallback, Random(device, {8, 9}, TensorShape::SC)));
  EXPECT_NE("", refusal(Function_Tensor_C4HW4_To_CHW_Fallback, Random(device, {1, 2, 2, 3}, TensorShape::C4HW4)));
  EXPECT_NE("", refusal(Function_Tensor_CHW_To_C4HW4_Fallback, nullptr));
  EXPECT_NE("", refusal(Function_Tensor_CHW_To_C8HW8_Fallback, Random(device, {0xFFFFFFFF, 0, 0}, TensorShape::CHW)));
  auto const external = device->CreateTensorExternal(TensorShape({1, 4, 4, 1, 1}, 0, 11, 0x10001, {}), nullptr);
  EXPECT_NE("", refusal(Function_Tensor_GNCHW_To_GN4CHW4_Fallback, external));
  auto const plain = Random(device, {4, 1, 1}, TensorShape::CHW);
  EXPECT_NE("", test::RefusalOf([&] { Function_Tensor_CHW_To_C4HW4_Fallback(plain, nullptr); }));
  auto const image = Random(device, {1, 6, 5, 4}, TensorShape::C4HW4);
  for (auto const& size : {std::pair<int, int>{5, 0}, {5, -3}, {5, 7}, {6, 3}, {-1, 3}}) {
    SCOPED_TRACE(testing::Message() << size.first << " x " << size.second);
    EXPECT_NE("", test::RefusalOf(
                      [&] { Function_Tensor_C4HW4_Image2D_To_CHW_Fallback(image, size.first, size.second, device); }));
  }
}

TEST(TransformFallbackDeathTest, EndsTheProcessOnDepthwiseWeightsOfSeveralChannels) {
  auto const device = test::GuardedContext()->device_cpu;
  EXPECT_DEATH(Function_Tensor_GNCHW_To_G4NCHW4_Fallback(Random(device, {4, 2, 1, 1, 1}, TensorShape::CHW), device),
               "input->shape.dims\\[1\\] == 1.*Function_Tensor_GNCHW_To_G4NCHW4_Fallback.*transform_fallback");
  EXPECT_DEATH(Function_Tensor_GNCHW_To_G8NCHW8_Fallback(Random(device, {8, 1, 3, 1, 1}, TensorShape::GNCHW), device),
               "input->shape.dims\\[2\\] == 1.*Function_Tensor_GNCHW_To_G8NCHW8_Fallback.*transform_fallback");
}

TEST(TransformFallback, FillsAddedWeightsWithOneByte) {
  auto const device = test::GuardedContext()->device_cpu;
  struct Case {
    float value;
    unsigned char fill;
  };
  for (Case const& c : {Case{0.0f, 0}, {1.0f, 1}, {-1.9f, 0xFF}, {258.5f, 2}, {1e20f, 0xFF}, {-1e20f, 0}, {NAN, 0}}) {
    for (unsigned int type = TensorShape::FLOAT32; type <= TensorShape::UINT8; ++type) {
      SCOPED_TRACE(testing::Message() << c.value << " in type " << type);
      auto const from = Random(device, {2, 3, 5, 2, 3}, TensorShape::GNCHW, type);
      auto const to = Function_Tensor_GNCHW_Concat_Value(from, c.value, device);
      ASSERT_EQ((Dims{2, 4, 8, 2, 3}), to->shape.dims);
      EXPECT_EQ(0, to->shape.extra.step_size);
      unsigned int const bytes = runtime::ElementSize(type);
      std::vector<unsigned char> const added(bytes, c.fill);
      for (unsigned int i = 0; i < 2 * 4 * 8 * 6; ++i) {
        unsigned int const g = i / 192, n = i / 48 % 4, ch = i / 6 % 8, h = i / 3 % 2, w = i % 3;
        void const* const want = n < 3 && ch < 5 ? from->Locate5D(g, n, ch, h, w) : added.data();
        ASSERT_EQ(0, std::memcmp(want, to->Locate5D(g, n, ch, h, w), bytes)) << i;
      }
    }
  }
}

TEST(TransformFallback, PacksArrays) {
  auto const device = test::GuardedContext()->device_cpu;
  std::vector<float> values(2 * 3 * 5 * 2 * 3);
  std::iota(values.begin(), values.end(), 1.0f);  // no zero among them: an added place shows
  std::vector<half_float::half> const halves(values.begin(), values.end());
  auto const by_place = [&](bool positions_first) {
    std::vector<float> want(2 * 4 * 8 * 6);
    for (std::size_t i = 0; i < values.size(); ++i) {
      std::size_t const g = i / 90, n = i / 30 % 3, c = i / 6 % 5, p = i % 6, lane = c % 4 * 4 + n;
      want[positions_first ? ((g * 6 + p) * 2 + c / 4) * 16 + lane : ((g * 2 + c / 4) * 6 + p) * 16 + lane] = values[i];
    }
    return want;
  };
  auto const packed = Function_FloatArray_GNCHW_To_GN4C4HW4c4n_Fallback(values, 2, 3, 5, 2, 3, device);
  EXPECT_EQ(by_place(false), packed);
  EXPECT_EQ(packed, Function_FloatArray_GNCHW_To_GC4N4HW4c4n_Fallback(values, 2, 3, 5, 2, 3, device));
  EXPECT_EQ(by_place(true), Function_FloatArray_GNCHW_To_GHWN4C44c4n_Fallback(values, 2, 3, 5, 2, 3, device));
  auto const packed_halves = Function_HalfArray_GNCHW_To_GN4C4HW4c4n_Fallback(halves, 2, 3, 5, 2, 3, device);
  EXPECT_EQ(packed, std::vector<float>(packed_halves.begin(), packed_halves.end()));

  auto const depthwise = Function_FloatArray_GNCHW_To_G4NCHW4_Fallback(values, 8, 1, 1, 1, 3, device);
  ASSERT_EQ(24u, depthwise.size());  // the leading ones of 180 values
  for (std::size_t i = 0; i < 24; ++i) EXPECT_EQ(values[i], depthwise[i / 12 * 12 + i % 3 * 4 + i / 3 % 4]);
  auto const depthwise_halves = Function_HalfArray_GNCHW_To_G4NCHW4_Fallback(halves, 8, 1, 1, 1, 3, device);
  EXPECT_EQ(depthwise, std::vector<float>(depthwise_halves.begin(), depthwise_halves.end()));

  EXPECT_NE(std::string::npos, test::RefusalOf([&] {
                                 Function_FloatArray_GNCHW_To_GN4C4HW4c4n_Fallback(values, 2, 3, 5, 2, 4, device);
                               }).find("180 values, needs 240"));
  EXPECT_NE("", test::RefusalOf([&] { Function_HalfArray_GNCHW_To_G4NCHW4_Fallback(halves, 6, 1, 1, 1, 3, device); }));
  EXPECT_NE("", test::RefusalOf(
                    [&] { Function_FloatArray_GNCHW_To_GHWN4C44c4n_Fallback(values, 65536, 65536, 1, 1, 1, device); }));
}

}  // namespace
}  // namespace talvo
