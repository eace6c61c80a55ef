#include "talvo/transform/transform_fallback.h"

#include <cmath>
#include <numeric>

#include "tests/transform/transform_test_support.h"

namespace talvo::test {
namespace {

using namespace kernel;  // NOLINT: two dozen function names of one header
using Convert = TensorPtr (*)(TensorPtr, DevicePtr);

constexpr unsigned int kTypes[] = {TensorShape::FLOAT32, TensorShape::INT16, TensorShape::UINT8};  // the three sizes

class TransformFallback : public TransformTest {};
using TransformFallbackDeathTest = TransformFallback;

struct Packing {
  Convert convert;
  char const* name;
  unsigned int layout;
  Dims (*place)(unsigned int g, unsigned int n, unsigned int c, unsigned int h, unsigned int w);

  // Only depthwise weights are blocked by groups, and have one channel each.
  Dims From() const {
    bool const is_depthwise = layout == TensorShape::G4NCHW4 || layout == TensorShape::G8NCHW8;
    return is_depthwise ? Dims{16, 1, 1, 3, 5} : Dims{2, 32, 16, 2, 3};
  }
};

#define TALVO_PACKING(name, layout, ...)                                                     \
  {                                                                                          \
    Function_Tensor_GNCHW_To_##name##_Fallback, #name, layout,                               \
        [](unsigned int g, unsigned int n, unsigned int c, unsigned int h, unsigned int w) { \
          return (void)g, (void)n, (void)c, (void)h, (void)w, Dims{__VA_ARGS__};             \
        }                                                                                    \
  }

Packing const kPackings[] = {TALVO_PACKING(GN4C4HW4n4c, 12, g, n / 4, c / 4, h, w, n % 4, c % 4),
                             TALVO_PACKING(GN4C4HW4c4n, 12, g, n / 4, c / 4, h, w, c % 4, n % 4),
                             TALVO_PACKING(GN8C8HW8n8c, 16, g, n / 8, c / 8, h, w, n % 8, c % 8),
                             TALVO_PACKING(GN8C8HW8c8n, 36, g, n / 8, c / 8, h, w, c % 8, n % 8),
                             TALVO_PACKING(GN4C8HW4n8c, 37, g, n / 4, c / 8, h, w, n % 4, c % 8),
                             TALVO_PACKING(GN8C4HW8n4c, 38, g, n / 8, c / 4, h, w, n % 8, c % 4),
                             TALVO_PACKING(GN4C8HW8c4n, 39, g, n / 4, c / 8, h, w, c % 8, n % 4),
                             TALVO_PACKING(GN2C2HW2c2n, 28, g, n / 2, c / 2, h, w, c % 2, n % 2),
                             TALVO_PACKING(GN16C16HW16c16n, 29, g, n / 16, c / 16, h, w, c % 16, n % 16),
                             TALVO_PACKING(GN4CHW4, 19, g, n / 4, c, h, w, n % 4),
                             TALVO_PACKING(GN8CHW8, 20, g, n / 8, c, h, w, n % 8),
                             TALVO_PACKING(GNC8HW8, 20, g, n, c / 8, h, w, c % 8),
                             TALVO_PACKING(GCNHW, 11, g, c, n, h, w),
                             TALVO_PACKING(GHWN4C44c4n, 12, g, h, w, n / 4, c / 4, c % 4, n % 4),
                             TALVO_PACKING(GC4N4HW4c4n, 15, g, c / 4, n / 4, h, w, c % 4, n % 4),
                             TALVO_PACKING(G4NCHW4, 17, g / 4, 0, 0, h, w, g % 4),
                             TALVO_PACKING(G8NCHW8, 18, g / 8, 0, 0, h, w, g % 8)};

TEST_F(TransformFallback, PacksWeightsOfEveryTypeIntoEveryArrangement) {
  for (Packing const& packing : kPackings) {
    for (unsigned int type : kTypes) {
      SCOPED_TRACE(std::string(packing.name) + ", type " + std::to_string(type));
      auto const from = Random(packing.From(), TensorShape::GNCHW, type);
      auto const to = packing.convert(from, device_);
      ASSERT_NE(nullptr, to);
      EXPECT_EQ(packing.layout, to->shape.layout);
      EXPECT_EQ(type, to->shape.data_type);
      EXPECT_EQ(0, to->shape.extra.step_size);
      Dims const& d = from->shape.dims;
      Dims want_dims = packing.place(d[0] - 1, d[1] - 1, d[2] - 1, d[3] - 1, d[4] - 1);  // where the last one goes
      for (unsigned int& extent : want_dims) ++extent;
      ASSERT_EQ(want_dims, to->shape.dims);
      for (unsigned int i = 0; i < runtime::ElementCount(d); ++i) {
        unsigned int const w = i % d[4], h = i / d[4] % d[3], plane = i / d[4] / d[3];
        unsigned int const c = plane % d[2], n = plane / d[2] % d[1], g = plane / d[2] / d[1];
        ASSERT_EQ(0, std::memcmp(from->Locate5D(g, n, c, h, w), to->Locate(packing.place(g, n, c, h, w)),
                                 runtime::ElementSize(type)))
            << g << " " << n << " " << c << " " << h << " " << w;
      }
    }
  }
}

TEST_F(TransformFallback, PacksAMatrixOfAnyLayout) {
  auto const from = Random({16, 24}, TensorShape::SC);
  auto const to = Function_Tensor_NC_To_N8C88c8n_Fallback(from, device_);
  ASSERT_EQ((Dims{2, 3, 8, 8}), to->shape.dims);
  EXPECT_EQ(35u, to->shape.layout);
  for (unsigned int i = 0; i < 16 * 24; ++i) {
    unsigned int const n = i / 24, c = i % 24;
    ASSERT_EQ(0, std::memcmp(from->Locate2D(n, c), to->Locate4D(n / 8, c / 8, c % 8, n % 8), 4)) << i;
  }
}

TEST_F(TransformFallback, BlocksChannelsWithZerosInTheTailAndTakesThemApart) {
  struct Case {
    unsigned int block, layout;
    Convert block_up, unblock;
  };
  for (Case const& c : {Case{4, 2, Function_Tensor_CHW_To_C4HW4_Fallback, Function_Tensor_C4HW4_To_CHW_Fallback},
                        {8, 3, Function_Tensor_CHW_To_C8HW8_Fallback, Function_Tensor_C8HW8_To_CHW_Fallback}}) {
    for (unsigned int type : kTypes) {
      for (unsigned int channels : {0u, 1u, 5u, 8u, 19u}) {
        SCOPED_TRACE(testing::Message() << "block " << c.block << ", type " << type << ", channels " << channels);
        auto const plain = Random({channels, 3, 7}, TensorShape::CHW, type);
        auto const blocked = c.block_up(plain, device_);
        unsigned int const blocks = (channels + c.block - 1) / c.block;
        ASSERT_EQ((Dims{blocks, 3, 7, c.block}), blocked->shape.dims);
        EXPECT_EQ(c.layout, blocked->shape.layout);
        EXPECT_EQ(0, blocked->shape.extra.step_size);
        blocked->shape.extra.step_size = 5;
        auto const again = c.unblock(blocked, device_);
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

TEST_F(TransformFallback, StacksChannelBlocksAsOneImage) {
  for (unsigned int type : kTypes) {
    auto const plain = Random({6, 3, 5}, TensorShape::CHW, type);
    auto const image = Function_Tensor_CHW_To_C4HW4_Image2D_Fallback(plain, device_);
    ASSERT_EQ((Dims{1, 6, 5, 4}), image->shape.dims);
    EXPECT_EQ(2u, image->shape.layout);
    image->shape.extra.step_size = 2;
    unsigned int const bytes = runtime::ElementSize(type);
    // The image that it was; columns, then rows left over; no block.
    for (auto const& [w, h] : {std::pair(5u, 3u), {2u, 3u}, {5u, 4u}, {9u, 7u}}) {
      SCOPED_TRACE(testing::Message() << w << " by " << h << ", type " << type);
      auto const again =
          Function_Tensor_C4HW4_Image2D_To_CHW_Fallback(image, static_cast<int>(w), static_cast<int>(h), device_);
      ASSERT_EQ((Dims{6 / h * 4, h, w}), again->shape.dims);
      EXPECT_EQ(2, again->shape.extra.step_size);
      for (unsigned int i = 0; i < again->shape.dims[0] * h * w; ++i) {
        unsigned int const ch = i / (h * w), y = i / w % h, x = i % w;
        ASSERT_EQ(0, std::memcmp(image->Locate4D(0, ch / 4 * h + y, x, ch % 4), again->Locate3D(ch, y, x), bytes)) << i;
        if (w == 5 && h == 3 && ch < 6) {
          ASSERT_EQ(0, std::memcmp(plain->Locate3D(ch, y, x), again->Locate3D(ch, y, x), bytes)) << i;
        }
      }
    }
  }
}

TEST_F(TransformFallback, AnswersAnotherLayoutOrLocationWithNothing) {
  LogCapture const log;
  for (Packing const& packing : kPackings) {
    SCOPED_TRACE(packing.name);
    EXPECT_EQ(nullptr, packing.convert(Random(packing.From(), TensorShape::FLEXIABLE), device_));
    EXPECT_EQ(nullptr,
              packing.convert(Random(packing.From(), TensorShape::GNCHW, 0, TensorShape::MetalBuffer), device_));
  }
  auto const hwc = Random({4, 4, 4}, TensorShape::HWC), c8 = Random({1, 1, 1, 8}, TensorShape::C8HW8);
  EXPECT_EQ(nullptr, Function_Tensor_CHW_To_C4HW4_Fallback(hwc, device_));
  EXPECT_EQ(nullptr, Function_Tensor_CHW_To_C4HW4_Image2D_Fallback(hwc, device_));
  EXPECT_EQ(nullptr, Function_Tensor_C4HW4_To_CHW_Fallback(c8, device_));
  EXPECT_EQ(nullptr, Function_Tensor_C4HW4_Image2D_To_CHW_Fallback(c8, 1, 1, device_));
  EXPECT_EQ(nullptr, Function_Tensor_GNCHW_Concat_Value(hwc, 0, device_));
  EXPECT_EQ(nullptr, Function_Tensor_NC_To_N8C88c8n_Fallback(Random({8, 8}, 30, 0, 0x20000), device_));
  EXPECT_TRUE(log.Lines().empty());
}

TEST_F(TransformFallback, RefusesWhatWouldLeaveItsMemory) {
  for (Packing const& packing : kPackings) {
    if (packing.layout == TensorShape::GNCHW) continue;  // has no blocks
    SCOPED_TRACE(packing.name);
    Dims dims = packing.From();
    for (unsigned int axis = 0; axis < 3; ++axis) dims[axis] += dims[axis] > 2 ? 1 : 0;
    EXPECT_NE(std::string::npos,
              Refusal(packing.convert, Random(dims, TensorShape::GNCHW), device_).find("needs a multiple of"));
  }
  struct Case {
    Convert convert;
    TensorPtr input;
    char const* text;
  };
  TensorShape const unmade({1, 4, 4, 1, 1}, 0, TensorShape::GNCHW, TensorShape::MainMemory, {});
  for (Case const& c :
       {Case{Function_Tensor_GNCHW_To_GCNHW_Fallback, Random({2, 3}, TensorShape::GNCHW), "of rank 2, needs rank 5"},
        {Function_Tensor_GNCHW_To_G4NCHW4_Fallback, Random({4, 1}, TensorShape::GNCHW), "no axes N and C"},
        {Function_Tensor_NC_To_N8C88c8n_Fallback, Random({8, 9}, TensorShape::SC), "axis C needs a multiple of 8"},
        {Function_Tensor_C4HW4_To_CHW_Fallback, Random({1, 2, 2, 3}, TensorShape::C4HW4), "the last one needs to be 4"},
        {Function_Tensor_CHW_To_C4HW4_Fallback, nullptr, "the input is null"},
        {Function_Tensor_CHW_To_C8HW8_Fallback, Random({0xFFFFFFFF, 0, 0}), "does not fit 32 bits"},
        {Function_Tensor_GNCHW_To_GN4CHW4_Fallback, device_->CreateTensorExternal(unmade, nullptr), "no memory"}}) {
    std::string const text = Refusal(c.convert, c.input, device_);
    EXPECT_NE(std::string::npos, text.find(c.text)) << text;
  }
  auto const image = Random({1, 6, 5, 4}, TensorShape::C4HW4);
  for (auto const& [width, height] : {std::pair<int, int>{5, 0}, {5, -3}, {6, 3}, {-1, 3}, {-1, 7}}) {
    std::string const text = Refusal(Function_Tensor_C4HW4_Image2D_To_CHW_Fallback, image, width, height, device_);
    EXPECT_NE(std::string::npos, text.find("rows and " + std::to_string(width) + " columns do not fit")) << text;
  }
}

TEST_F(TransformFallbackDeathTest, EndsTheProcessOnDepthwiseWeightsOfSeveralChannels) {
  EXPECT_DEATH(Function_Tensor_GNCHW_To_G4NCHW4_Fallback(Random({4, 2, 1, 1, 1}, TensorShape::CHW), device_),
               "input->shape.dims\\[1\\] == 1.*Function_Tensor_GNCHW_To_G4NCHW4_Fallback.*transform_fallback");
  EXPECT_DEATH(Function_Tensor_GNCHW_To_G8NCHW8_Fallback(Random({8, 1, 3, 1, 1}, TensorShape::GNCHW), device_),
               "input->shape.dims\\[2\\] == 1.*Function_Tensor_GNCHW_To_G8NCHW8_Fallback.*transform_fallback");
}

TEST_F(TransformFallback, FillsAddedWeightsWithOneByte) {
  for (auto const& [value, fill] :
       {std::pair<float, int>{0.0f, 0}, {1.0f, 1}, {-1.9f, 0xFF}, {258.5f, 2}, {1e20f, 0xFF}, {-1e20f, 0}, {NAN, 0}}) {
    for (unsigned int type : kTypes) {
      SCOPED_TRACE(testing::Message() << value << " in type " << type);
      auto const from = Random({2, 3, 5, 2, 3}, TensorShape::GNCHW, type);
      auto const to = Function_Tensor_GNCHW_Concat_Value(from, value, device_);
      ASSERT_EQ((Dims{2, 4, 8, 2, 3}), to->shape.dims);
      EXPECT_EQ(0, to->shape.extra.step_size);
      unsigned int const bytes = runtime::ElementSize(type);
      std::vector<unsigned char> const added(bytes, static_cast<unsigned char>(fill));
      for (unsigned int i = 0; i < 2 * 4 * 8 * 6; ++i) {
        unsigned int const g = i / 192, n = i / 48 % 4, ch = i / 6 % 8, h = i / 3 % 2, w = i % 3;
        void const* const want = n < 3 && ch < 5 ? from->Locate5D(g, n, ch, h, w) : added.data();
        ASSERT_EQ(0, std::memcmp(want, to->Locate5D(g, n, ch, h, w), bytes)) << i;
      }
    }
  }
  for (Dims const& dims : {Dims{0xFFFFFFFF, 0, 4, 1, 1}, {0xFFFFFFFF, 4096, 0, 1, 1}}) {
    EXPECT_EQ(dims[0], Function_Tensor_GNCHW_Concat_Value(Random(dims, TensorShape::GNCHW), 1, device_)->shape.dims[0]);
  }
}

TEST_F(TransformFallback, PacksArrays) {
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
  auto const packed = Function_FloatArray_GNCHW_To_GN4C4HW4c4n_Fallback(values, 2, 3, 5, 2, 3, device_);
  EXPECT_EQ(by_place(false), packed);
  EXPECT_EQ(packed, Function_FloatArray_GNCHW_To_GC4N4HW4c4n_Fallback(values, 2, 3, 5, 2, 3, device_));
  EXPECT_EQ(by_place(true), Function_FloatArray_GNCHW_To_GHWN4C44c4n_Fallback(values, 2, 3, 5, 2, 3, device_));
  auto const packed_halves = Function_HalfArray_GNCHW_To_GN4C4HW4c4n_Fallback(halves, 2, 3, 5, 2, 3, device_);
  EXPECT_EQ(packed, std::vector<float>(packed_halves.begin(), packed_halves.end()));

  auto const depthwise = Function_FloatArray_GNCHW_To_G4NCHW4_Fallback(values, 8, 1, 1, 1, 3, device_);
  ASSERT_EQ(24u, depthwise.size());  // the leading ones of 180 values
  for (std::size_t i = 0; i < 24; ++i) EXPECT_EQ(values[i], depthwise[i / 12 * 12 + i % 3 * 4 + i / 3 % 4]);
  auto const depthwise_halves = Function_HalfArray_GNCHW_To_G4NCHW4_Fallback(halves, 8, 1, 1, 1, 3, device_);
  EXPECT_EQ(depthwise, std::vector<float>(depthwise_halves.begin(), depthwise_halves.end()));

  EXPECT_NE(std::string::npos,
            Refusal(Function_FloatArray_GNCHW_To_GN4C4HW4c4n_Fallback, values, 2, 3, 5, 2, 4, device_)
                .find("180 values, needs 240"));
  EXPECT_NE("", Refusal(Function_HalfArray_GNCHW_To_G4NCHW4_Fallback, halves, 6, 1, 1, 1, 3, device_));
  EXPECT_NE("", Refusal(Function_FloatArray_GNCHW_To_GHWN4C44c4n_Fallback, values, 65536, 65536, 1, 1, 1, device_));
}

}  // namespace
}  // namespace talvo::test
