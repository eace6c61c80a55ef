#include "talvo/kernel/rows/pixels.h"

#include <cstring>

#include "talvo/kernel/rows/byte_vectors.h"
#include "talvo/kernel/rows/saturate.h"
#include "talvo/utility/restrict_support.h"

namespace talvo::kernel::rows {
namespace {

// ---- Pixels of three bytes and planes: a lane takes 16 pixels, in three vectors ("thirds") of 16 of their 48 bytes.

constexpr std::ptrdiff_t kThreesBytes = 3 * kLaneBytes;

// Third t (0, 1, 2) of 48 bytes holds at place p the channel (16 t + p) % 3 = (t + p) % 3. So the bytes of one channel
// lie at different places of the three thirds: a channel is one selection and one shuffle.
template <int kChannel>
struct ThirdOfChannel {
  static constexpr int Of(int place) { return (kChannel - place % 3 + 3) % 3; }
};

// Pixel i has the channel at byte 3 i + channel.
template <int kChannel>
struct PlaceOfPixel {
  static constexpr int Of(int pixel) { return (3 * pixel + kChannel) % kLaneBytes; }
};

template <int kLanes>
TALVO_ROWS_INLINE void LoadThirds(Byte const* pixels, Bytes<kLanes> (&thirds)[3]) {
  TALVO_ROWS_UNROLL
  for (std::size_t t = 0; t < 3; ++t) LoadLanes<kLanes>(pixels + t * kLaneBytes, kThreesBytes, thirds[t]);
}

template <int kChannel, int kLanes>
TALVO_ROWS_INLINE void TakeChannel(Bytes<kLanes> const (&thirds)[3], Bytes<kLanes>& channel) {
  Bytes<kLanes> selected;
  Select<ThirdOfChannel<kChannel>, kLanes>(thirds, selected, LaneIndices<kLanes>());
  ShuffleLanes<PlaceOfPixel<kChannel>, kLanes>(selected, channel, LaneIndices<kLanes>());
}

template <int kChannel, int kLanes>
TALVO_ROWS_INLINE void SplitChannel(Bytes<kLanes> const (&thirds)[3], Byte* plane) {
  Bytes<kLanes> channel;
  TakeChannel<kChannel, kLanes>(thirds, channel);
  std::memcpy(plane, &channel, sizeof(channel));
}

// The byte of pixel i goes to the place at which TakeChannel finds it.
template <int kChannel>
struct PixelAtPlace {
  static constexpr int Of(int place) {
    for (int i = 0; i < kLaneBytes; ++i) {
      if (PlaceOfPixel<kChannel>::Of(i) == place) return i;
    }
    return 0;
  }
};

template <int kChannel, int kLanes>
TALVO_ROWS_INLINE void SpreadChannel(Byte const* plane, Bytes<kLanes>& v) {
  Bytes<kLanes> pixels;
  std::memcpy(&pixels, plane, sizeof(pixels));
  ShuffleLanes<PixelAtPlace<kChannel>, kLanes>(pixels, v, LaneIndices<kLanes>());
}

template <int kThird>
struct ChannelOfThird {
  static constexpr int Of(int place) { return (kThird + place % 3) % 3; }
};

// Lane l goes to pixels + 48 l.
template <int kThird, int kLanes>
TALVO_ROWS_INLINE void MergeThird(Bytes<kLanes> const (&spread)[3], Byte* pixels) {
  Bytes<kLanes> merged;
  Select<ChannelOfThird<kThird>, kLanes>(spread, merged, LaneIndices<kLanes>());
  StoreLane<0, kLanes>(merged, pixels);
  if constexpr (kLanes > 1) StoreLane<1, kLanes>(merged, pixels + kThreesBytes);
  if constexpr (kLanes > 2) {
    StoreLane<2, kLanes>(merged, pixels + 2 * kThreesBytes);
    StoreLane<3, kLanes>(merged, pixels + 3 * kThreesBytes);
  }
}

struct SplitThreeBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(Byte const* TALVO_RESTRICT pixels, std::size_t count, Byte* TALVO_RESTRICT first,
                                    Byte* TALVO_RESTRICT second, Byte* TALVO_RESTRICT third) {
    std::size_t i = 0;
    if constexpr (kShuffles<Set>) {
      constexpr int kLanes = kByteLanes<Set>;
      for (; i + kLaneBytes * kLanes <= count; i += kLaneBytes * kLanes) {
        Bytes<kLanes> thirds[3];
        LoadThirds<kLanes>(pixels + 3 * i, thirds);
        SplitChannel<0, kLanes>(thirds, first + i);
        SplitChannel<1, kLanes>(thirds, second + i);
        SplitChannel<2, kLanes>(thirds, third + i);
      }
    }
    for (; i < count; ++i) {
      first[i] = pixels[3 * i];
      second[i] = pixels[3 * i + 1];
      third[i] = pixels[3 * i + 2];
    }
  }
};

struct SplitFourBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(Byte const* TALVO_RESTRICT pixels, std::size_t count, Byte* TALVO_RESTRICT first,
                                    Byte* TALVO_RESTRICT second, Byte* TALVO_RESTRICT third) {
    for (std::size_t i = 0; i < count; ++i) {
      first[i] = pixels[4 * i];
      second[i] = pixels[4 * i + 1];
      third[i] = pixels[4 * i + 2];
    }
  }
};

struct MergeThreeBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(Byte const* TALVO_RESTRICT first, Byte const* TALVO_RESTRICT second,
                                    Byte const* TALVO_RESTRICT third, std::size_t count, Byte* TALVO_RESTRICT pixels) {
    std::size_t i = 0;
    if constexpr (kShuffles<Set>) {
      constexpr int kLanes = kByteLanes<Set>;
      for (; i + kLaneBytes * kLanes <= count; i += kLaneBytes * kLanes) {
        Bytes<kLanes> spread[3];
        SpreadChannel<0, kLanes>(first + i, spread[0]);
        SpreadChannel<1, kLanes>(second + i, spread[1]);
        SpreadChannel<2, kLanes>(third + i, spread[2]);
        MergeThird<0, kLanes>(spread, pixels + 3 * i);
        MergeThird<1, kLanes>(spread, pixels + 3 * i + kLaneBytes);
        MergeThird<2, kLanes>(spread, pixels + 3 * i + 2 * kLaneBytes);
      }
    }
    for (; i < count; ++i) {
      pixels[3 * i] = first[i];
      pixels[3 * i + 1] = second[i];
      pixels[3 * i + 2] = third[i];
    }
  }
};

struct GrayRowBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(Byte const* TALVO_RESTRICT r, Byte const* TALVO_RESTRICT g,
                                    Byte const* TALVO_RESTRICT b, std::size_t count, Byte* TALVO_RESTRICT gray) {
    for (std::size_t i = 0; i < count; ++i) {
      auto const red = static_cast<std::uint16_t>(kRed * r[i]), green = static_cast<std::uint16_t>(kGreen * g[i]);
      auto const blue = static_cast<std::uint16_t>(kBlue * b[i]);
      auto const sum = static_cast<std::uint16_t>(red + green + blue);  // at most 256 * 255
      gray[i] = static_cast<Byte>(sum >> 8);
    }
  }
};

// ---- Gray of interleaved pixels. Sums of products stand in words of 16 bits, for even and odd bytes apart.

constexpr std::uint16_t kLowByte = 0x00FF, kHighByte = 0xFF00;

TALVO_ROWS_INLINE Byte GrayOf(std::uint16_t first, std::uint16_t first_weight, std::uint16_t second,
                              std::uint16_t third, std::uint16_t third_weight) {
  return static_cast<Byte>((first * first_weight + second * kGreen + third * third_weight) >> 8);
}

struct GrayThreeBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(Byte const* TALVO_RESTRICT pixels, std::uint16_t const first_weight,
                                    std::uint16_t const third_weight, std::size_t count, Byte* TALVO_RESTRICT gray) {
    std::size_t i = 0;
    if constexpr (kShuffles<Set>) {
      constexpr int kLanes = kByteLanes<Set>;
      for (; i + kLaneBytes * kLanes <= count; i += kLaneBytes * kLanes) {
        Bytes<kLanes> thirds[3], first, second, third;
        LoadThirds<kLanes>(pixels + 3 * i, thirds);
        TakeChannel<0, kLanes>(thirds, first);
        TakeChannel<1, kLanes>(thirds, second);
        TakeChannel<2, kLanes>(thirds, third);
        Words<kLanes> const a = reinterpret_cast<Words<kLanes>>(first), b = reinterpret_cast<Words<kLanes>>(second),
                            c = reinterpret_cast<Words<kLanes>>(third);
        Words<kLanes> const even =
            (a & kLowByte) * first_weight + (b & kLowByte) * kGreen + (c & kLowByte) * third_weight;
        Words<kLanes> const odd = (a >> 8) * first_weight + (b >> 8) * kGreen + (c >> 8) * third_weight;
        Words<kLanes> const both = (even >> 8) | (odd & kHighByte);
        std::memcpy(gray + i, &both, sizeof(both));
      }
    }
    for (; i < count; ++i) {
      gray[i] = GrayOf(pixels[3 * i], first_weight, pixels[3 * i + 1], pixels[3 * i + 2], third_weight);
    }
  }
};

// Where quad k of four vectors stands when their bytes 4 k, 4 k + 1, 4 k + 2, 4 k + 3 come from the vectors 0, 2, 1, 3.
struct PlaceOfQuad {
  static constexpr int Of(int pixel) {
    constexpr int kByteOfVector[] = {0, 2, 1, 3};
    return pixel % 4 * 4 + kByteOfVector[pixel / 4];
  }
};

// 77 r + 150 g + 29 b of each quad of `a` in its low word and of `b` in its high word.
template <int kLanes, int... kIndex>
TALVO_ROWS_INLINE void GraySums(Bytes<kLanes> const& a, Bytes<kLanes> const& b, Words<kLanes>& sums,
                                std::integer_sequence<int, kIndex...>) {
  constexpr Words<kLanes> kRedBlue = {(kIndex % 2 == 0 ? kRed : kBlue)...};
  constexpr Words<kLanes> kGreenAlone = {(kIndex % 2 == 0 ? kGreen : std::uint16_t{0})...};
  constexpr std::uint32_t kLow = 0x0000FFFF, kHigh = 0xFFFF0000;
  Words<kLanes> const x = reinterpret_cast<Words<kLanes>>(a), y = reinterpret_cast<Words<kLanes>>(b);
  Words<kLanes> const x_sums = (x & kLowByte) * kRedBlue + (x >> 8) * kGreenAlone;
  Words<kLanes> const y_sums = (y & kLowByte) * kRedBlue + (y >> 8) * kGreenAlone;
  Quads<kLanes> const p = reinterpret_cast<Quads<kLanes>>(x_sums), q = reinterpret_cast<Quads<kLanes>>(y_sums);
  Quads<kLanes> const first = (p & kLow) | (q << 16), second = (p >> 16) | (q & kHigh);
  sums = reinterpret_cast<Words<kLanes>>(first) + reinterpret_cast<Words<kLanes>>(second);
}

struct GrayFourBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(Byte const* TALVO_RESTRICT pixels, std::size_t count, Byte* TALVO_RESTRICT gray) {
    std::size_t i = 0;
    if constexpr (kShuffles<Set>) {
      constexpr int kLanes = kByteLanes<Set>;
      constexpr auto kWords = std::make_integer_sequence<int, kLaneBytes / 2 * kLanes>();
      for (; i + kLaneBytes * kLanes <= count; i += kLaneBytes * kLanes) {
        Bytes<kLanes> x[4], ordered;  // a lane takes 16 pixels, four in each vector
        TALVO_ROWS_UNROLL
        for (std::size_t k = 0; k < 4; ++k) LoadLanes<kLanes>(pixels + 4 * i + k * kLaneBytes, 4 * kLaneBytes, x[k]);
        Words<kLanes> low, high;
        GraySums<kLanes>(x[0], x[1], low, kWords);
        GraySums<kLanes>(x[2], x[3], high, kWords);
        Words<kLanes> const both = (low >> 8) | (high & kHighByte);
        ShuffleLanes<PlaceOfQuad, kLanes>(reinterpret_cast<Bytes<kLanes>>(both), ordered, LaneIndices<kLanes>());
        std::memcpy(gray + i, &ordered, sizeof(ordered));
      }
    }
    for (; i < count; ++i) gray[i] = GrayOf(pixels[4 * i], kRed, pixels[4 * i + 1], pixels[4 * i + 2], kBlue);
  }
};

struct ChrominanceBytesBody {
  template <std::size_t kStep>
  static TALVO_ROWS_INLINE void Loop(Byte const* TALVO_RESTRICT a, Byte const* TALVO_RESTRICT b, std::int16_t a_gain,
                                     std::int16_t b_gain, std::size_t blocks, Byte* TALVO_RESTRICT terms) {
    for (std::size_t i = 0; i < blocks; ++i) {
      auto const from_a = static_cast<std::int16_t>((a[i * kStep] - 128) * a_gain);
      auto const from_b = static_cast<std::int16_t>((b[i * kStep] - 128) * b_gain);
      auto const sum = static_cast<std::int16_t>(from_a + from_b);
      auto const term = static_cast<Byte>(sum >> 6);
      terms[2 * i] = term;
      terms[2 * i + 1] = term;
    }
  }

  template <class Set>
  static TALVO_ROWS_INLINE void Run(Byte const* a, Byte const* b, std::size_t step, std::int16_t a_gain,
                                    std::int16_t b_gain, std::size_t blocks, Byte* terms) {
    step == 1 ? Loop<1>(a, b, a_gain, b_gain, blocks, terms) : Loop<2>(a, b, a_gain, b_gain, blocks, terms);
  }
};

struct AddBytesBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(Byte const* TALVO_RESTRICT x, Byte const* TALVO_RESTRICT terms, std::size_t count,
                                    Byte* TALVO_RESTRICT y) {
    for (std::size_t i = 0; i < count; ++i) y[i] = static_cast<Byte>(x[i] + terms[i]);
  }
};

// Every sum fits 16 bits.
TALVO_ROWS_INLINE Byte SaturatedByte(int sum) {
  auto const value = static_cast<std::int16_t>(static_cast<std::int16_t>(sum) >> 6);
  return static_cast<Byte>(value < 0 ? 0 : value > 255 ? 255 : value);
}

struct SaturatedColoursBody {
  template <std::size_t kStep>
  static TALVO_ROWS_INLINE void Loop(Byte const* TALVO_RESTRICT y, Byte const* TALVO_RESTRICT u_bytes,
                                     Byte const* TALVO_RESTRICT v_bytes, std::size_t count, Byte* TALVO_RESTRICT r,
                                     Byte* TALVO_RESTRICT g, Byte* TALVO_RESTRICT b) {
    for (std::size_t i = 0; i < count; ++i) {
      int const luminance = 64 * y[i], u = u_bytes[i * kStep] - 128, v = v_bytes[i * kStep] - 128;
      r[i] = SaturatedByte(luminance + 90 * v);
      g[i] = SaturatedByte(luminance - 22 * u - 46 * v);
      b[i] = SaturatedByte(luminance + 113 * u);
    }
  }

  template <class Set>
  static TALVO_ROWS_INLINE void Run(Byte const* y, Byte const* u, Byte const* v, std::size_t step, std::size_t count,
                                    Byte* r, Byte* g, Byte* b) {
    step == 1 ? Loop<1>(y, u, v, count, r, g, b) : Loop<2>(y, u, v, count, r, g, b);
  }
};

// ---- Resize and normalisation.

TALVO_ROWS_INLINE std::uint16_t Low(int value) { return static_cast<std::uint16_t>(value); }
TALVO_ROWS_INLINE std::uint16_t HighOfProduct(std::uint16_t a, std::uint16_t b) {
  return static_cast<std::uint16_t>((std::uint32_t{a} * b) >> 16);
}

// The sum has up to 20 bits. It stands in two words, of which vectors multiply twice as many at a time.
struct BlendTapsBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(Byte const* TALVO_RESTRICT left, Byte const* TALVO_RESTRICT right,
                                    std::int16_t const* TALVO_RESTRICT weight0,
                                    std::int16_t const* TALVO_RESTRICT weight1, std::size_t count,
                                    std::int16_t* TALVO_RESTRICT line) {
    for (std::size_t i = 0; i < count; ++i) {
      std::uint16_t const l = left[i], r = right[i], w0 = Low(weight0[i]), w1 = Low(weight1[i]);
      std::uint16_t const low_left = Low(l * w0), low = Low(low_left + Low(r * w1));
      std::uint16_t const carry = low < low_left ? 1 : 0;
      std::uint16_t const high = Low(Low(HighOfProduct(l, w0) + HighOfProduct(r, w1)) + carry);
      line[i] = static_cast<std::int16_t>(Low(high << 12) | Low(low >> 4));
    }
  }
};

struct BlendLinesBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(std::int16_t const* TALVO_RESTRICT upper, std::int16_t const* TALVO_RESTRICT lower,
                                    std::int16_t const weight0, std::int16_t const weight1, std::size_t count,
                                    Byte* TALVO_RESTRICT to) {
    for (std::size_t i = 0; i < count; ++i) {
      int const sum = ((upper[i] * weight0) >> 16) + ((lower[i] * weight1) >> 16) + 2;
      to[i] = static_cast<Byte>(sum >> 2);
    }
  }
};

struct NormaliseBytesBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(Byte const* TALVO_RESTRICT in, std::size_t count, float const sub, float const mul,
                                    float* TALVO_RESTRICT out) {
    for (std::size_t i = 0; i < count; ++i) out[i] = (static_cast<float>(in[i]) - sub) * mul;
  }
};

struct NormaliseFloatsBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(float const* in, std::size_t count, float const sub, float const mul, float* out) {
    for (std::size_t i = 0; i < count; ++i) out[i] = (in[i] - sub) * mul;
  }
};

struct NormaliseSaturatedBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(Byte const* TALVO_RESTRICT in, std::size_t count, float const sub,
                                    float const scale, std::int16_t* TALVO_RESTRICT out) {
    // Results rise or fall with the byte: where the first and the last fit, all do, and none is NaN.
    constexpr float kEnd = 32768.0f;
    float const first = (0.0f - sub) * scale, last = (255.0f - sub) * scale;
    if (first > -kEnd && first < kEnd && last > -kEnd && last < kEnd) {
      for (std::size_t i = 0; i < count; ++i) {
        out[i] = static_cast<std::int16_t>((static_cast<float>(in[i]) - sub) * scale);
      }
      return;
    }
    for (std::size_t i = 0; i < count; ++i) {
      out[i] = Saturated<std::int16_t>((static_cast<float>(in[i]) - sub) * scale);
    }
  }
};

}  // namespace

// Up to AVX2 what waits for memory on images, or mostly shuffles: AVX-512 gains less than a twentieth there.
Primitive<void(Byte const*, std::size_t, Byte*, Byte*, Byte*)> const SplitThree{SplitThreeBody(), Avx2()};
Primitive<void(Byte const*, std::size_t, Byte*, Byte*, Byte*)> const SplitFour{SplitFourBody(), Avx2()};
Primitive<void(Byte const*, Byte const*, Byte const*, std::size_t, Byte*)> const MergeThree{MergeThreeBody(), Avx2()};
Primitive<void(Byte const*, Byte const*, Byte const*, std::size_t, Byte*)> const GrayRow{GrayRowBody(), Avx2()};
Primitive<void(Byte const*, std::uint16_t, std::uint16_t, std::size_t, Byte*)> const GrayThree{GrayThreeBody()};
Primitive<void(Byte const*, std::size_t, Byte*)> const GrayFour{GrayFourBody()};
Primitive<void(Byte const*, Byte const*, std::size_t, std::int16_t, std::int16_t, std::size_t, Byte*)> const
    ChrominanceBytes{ChrominanceBytesBody()};
Primitive<void(Byte const*, Byte const*, std::size_t, Byte*)> const AddBytes{AddBytesBody()};
Primitive<void(Byte const*, Byte const*, Byte const*, std::size_t, std::size_t, Byte*, Byte*, Byte*)> const
    SaturatedColours{SaturatedColoursBody(), Avx2()};
Primitive<void(Byte const*, Byte const*, std::int16_t const*, std::int16_t const*, std::size_t, std::int16_t*)> const
    BlendTaps{BlendTapsBody(), Avx2()};
Primitive<void(std::int16_t const*, std::int16_t const*, std::int16_t, std::int16_t, std::size_t, Byte*)> const
    BlendLines{BlendLinesBody(), Avx2()};
Primitive<void(Byte const*, std::size_t, float, float, float*)> const NormaliseBytes{NormaliseBytesBody(), Avx2()};
Primitive<void(float const*, std::size_t, float, float, float*)> const NormaliseFloats{NormaliseFloatsBody(), Avx2()};
Primitive<void(Byte const*, std::size_t, float, float, std::int16_t*)> const NormaliseSaturated{
    NormaliseSaturatedBody()};

}  // namespace talvo::kernel::rows
