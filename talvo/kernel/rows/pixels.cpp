#include "talvo/kernel/rows/pixels.h"

#include <cstring>
#include <type_traits>
#include <utility>

#include "talvo/utility/restrict.h"

namespace talvo::kernel::rows {
namespace {

// Shuffles of bytes need an instruction that the baseline of x86-64 lacks; there the plain loops stand.
template <class Set>
constexpr bool kShuffles = !std::is_same_v<Set, Baseline>;

// ---- Vectors of 32 bytes in two lanes of 16, since shuffles stay in their lane, and of 16 bytes.

constexpr int kLane = 16, kBytes = 32;
typedef Byte Bytes16 __attribute__((vector_size(kLane)));
typedef Byte Bytes32 __attribute__((vector_size(kBytes)));
using Indices32 = std::make_integer_sequence<int, kBytes>;
using Indices16 = std::make_integer_sequence<int, kLane>;

TALVO_ROWS_INLINE void Load16(Byte const* p, Bytes16& v) { std::memcpy(&v, p, sizeof(v)); }
TALVO_ROWS_INLINE void Store16(Bytes16 const& v, Byte* p) { std::memcpy(p, &v, sizeof(v)); }

// Lanes from p and from p + 48: the same third of 16 pixels of three bytes each.
template <int... kIndex>
TALVO_ROWS_INLINE void LoadLanes(Byte const* p, Bytes32& v, std::integer_sequence<int, kIndex...>) {
  Bytes16 low, high;
  Load16(p, low);
  Load16(p + 48, high);
  v = __builtin_shufflevector(low, high, kIndex...);
}

template <int... kIndex>
TALVO_ROWS_INLINE void StoreLanes(Bytes32 const& v, Byte* p, std::integer_sequence<int, kIndex...>) {
  Store16(__builtin_shufflevector(v, v, kIndex...), p);
  Store16(__builtin_shufflevector(v, v, (kLane + kIndex)...), p + 48);
}

// Third t (0, 1, 2) of 48 bytes holds at place p the channel (16 t + p) % 3 = (t + p) % 3. So the bytes of one channel
// lie at different places of the three thirds: a channel is one selection and one shuffle.
constexpr int ThirdOfChannel(int place, int channel) { return (channel - place % 3 + 3) % 3; }

template <int kChannel, int... kIndex>
TALVO_ROWS_INLINE void SelectThirds(Bytes32 const (&x)[3], Bytes32& y, std::integer_sequence<int, kIndex...>) {
  constexpr Bytes32 kFirst = {(ThirdOfChannel(kIndex % kLane, kChannel) == 0 ? Byte{255} : Byte{0})...};
  constexpr Bytes32 kSecond = {(ThirdOfChannel(kIndex % kLane, kChannel) == 1 ? Byte{255} : Byte{0})...};
  y = (x[0] & kFirst) | (x[1] & kSecond) | (x[2] & ~(kFirst | kSecond));
}

// Pixel i of a lane has channel k at byte 3 i + k of its 48 bytes.
template <int kChannel, int... kIndex>
TALVO_ROWS_INLINE void SplitChannel(Bytes32 const (&thirds)[3], Byte* plane, std::integer_sequence<int, kIndex...>) {
  Bytes32 selected;
  SelectThirds<kChannel>(thirds, selected, Indices32());
  Bytes32 const ordered = __builtin_shufflevector(
      selected, selected, (kIndex / kLane * kLane + (3 * (kIndex % kLane) + kChannel) % kLane)...);
  std::memcpy(plane, &ordered, sizeof(ordered));
}

// The byte of pixel i goes to the place at which SplitChannel finds it.
constexpr int PixelAtPlace(int place, int channel) {
  for (int i = 0; i < kLane; ++i) {
    if ((3 * i + channel) % kLane == place) return i;
  }
  return 0;
}

template <int kChannel, int... kIndex>
TALVO_ROWS_INLINE void SpreadChannel(Byte const* plane, Bytes32& v, std::integer_sequence<int, kIndex...>) {
  Bytes32 pixels;
  std::memcpy(&pixels, plane, sizeof(pixels));
  v = __builtin_shufflevector(pixels, pixels, (kIndex / kLane * kLane + PixelAtPlace(kIndex % kLane, kChannel))...);
}

// Third t of the result takes at place p the channel (t + p) % 3.
template <int kThird, int... kIndex>
TALVO_ROWS_INLINE void SelectChannels(Bytes32 const (&x)[3], Bytes32& y, std::integer_sequence<int, kIndex...>) {
  constexpr Bytes32 kFirst = {((kThird + kIndex % kLane) % 3 == 0 ? Byte{255} : Byte{0})...};
  constexpr Bytes32 kSecond = {((kThird + kIndex % kLane) % 3 == 1 ? Byte{255} : Byte{0})...};
  y = (x[0] & kFirst) | (x[1] & kSecond) | (x[2] & ~(kFirst | kSecond));
}

struct SplitThreeBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(Byte const* TALVO_RESTRICT pixels, std::size_t count, Byte* TALVO_RESTRICT first,
                                    Byte* TALVO_RESTRICT second, Byte* TALVO_RESTRICT third) {
    std::size_t i = 0;
    if constexpr (kShuffles<Set>) {
      for (; i + kBytes <= count; i += kBytes) {
        Bytes32 thirds[3];
        for (std::size_t t = 0; t < 3; ++t) LoadLanes(pixels + 3 * i + t * kLane, thirds[t], Indices32());
        SplitChannel<0>(thirds, first + i, Indices32());
        SplitChannel<1>(thirds, second + i, Indices32());
        SplitChannel<2>(thirds, third + i, Indices32());
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
      for (; i + kBytes <= count; i += kBytes) {
        Bytes32 spread[3], merged[3];
        SpreadChannel<0>(first + i, spread[0], Indices32());
        SpreadChannel<1>(second + i, spread[1], Indices32());
        SpreadChannel<2>(third + i, spread[2], Indices32());
        SelectChannels<0>(spread, merged[0], Indices32());
        SelectChannels<1>(spread, merged[1], Indices32());
        SelectChannels<2>(spread, merged[2], Indices32());
        for (std::size_t t = 0; t < 3; ++t) StoreLanes(merged[t], pixels + 3 * i + t * kLane, Indices16());
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
      auto const red = static_cast<std::uint16_t>(77 * r[i]), green = static_cast<std::uint16_t>(150 * g[i]);
      auto const blue = static_cast<std::uint16_t>(29 * b[i]);
      auto const sum = static_cast<std::uint16_t>(red + green + blue);  // at most 256 * 255
      gray[i] = static_cast<Byte>(sum >> 8);
    }
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

struct ReverseBytesBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(Byte const* TALVO_RESTRICT x, std::size_t count, Byte* TALVO_RESTRICT y) {
    for (std::size_t i = 0; i < count; ++i) y[i] = x[count - 1 - i];
  }
};

// Five pixels at a time: byte 1 + 3 k + c of the vector goes to byte 3 (4 - k) + c, and byte 15 is overwritten by the
// next.
constexpr int ReversedTriple(int place) { return place == 15 ? 0 : 1 + 3 * (4 - place / 3) + place % 3; }

template <int... kIndex>
TALVO_ROWS_INLINE void ReverseFive(Byte const* x, Byte* y, std::integer_sequence<int, kIndex...>) {
  Bytes16 pixels;
  Load16(x, pixels);
  Store16(__builtin_shufflevector(pixels, pixels, ReversedTriple(kIndex)...), y);
}

struct ReverseTriplesBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(Byte const* TALVO_RESTRICT x, std::size_t count, Byte* TALVO_RESTRICT y) {
    std::size_t i = 0;
    if constexpr (kShuffles<Set>) {  // the load begins a byte early, the store ends a byte late
      for (; i + 6 <= count; i += 5) ReverseFive(x + 3 * (count - i - 5) - 1, y + 3 * i, Indices16());
    }
    for (; i < count; ++i) std::memcpy(y + 3 * i, x + 3 * (count - 1 - i), 3);
  }
};

// ---- Tiles.

template <std::size_t kSize>
TALVO_ROWS_INLINE void TransposePlain(Byte const* TALVO_RESTRICT from, std::ptrdiff_t from_row, std::size_t row,
                                      std::size_t rows, std::size_t column, std::size_t columns,
                                      Byte* TALVO_RESTRICT to, std::ptrdiff_t to_row, std::ptrdiff_t to_step) {
  for (std::size_t j = column; j < columns; ++j) {
    for (std::size_t i = row; i < rows; ++i) {
      std::memcpy(to + static_cast<std::ptrdiff_t>(j) * to_row + static_cast<std::ptrdiff_t>(i) * to_step,
                  from + static_cast<std::ptrdiff_t>(i) * from_row + j * kSize, kSize);
    }
  }
}

template <int... kIndex>
TALVO_ROWS_INLINE void InterleaveBytes(Bytes16 const& a, Bytes16 const& b, Bytes16& low, Bytes16& high,
                                       std::integer_sequence<int, kIndex...>) {
  low = __builtin_shufflevector(a, b, (kIndex / 2 + kIndex % 2 * kLane)...);
  high = __builtin_shufflevector(a, b, (kIndex / 2 + kLane / 2 + kIndex % 2 * kLane)...);
}

// 16 x 16 bytes; four rounds of interleaving rows i and i + 8 transpose them.
struct TransposeBytesBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(Byte const* TALVO_RESTRICT from, std::ptrdiff_t from_row, std::size_t rows,
                                    std::size_t columns, Byte* TALVO_RESTRICT to, std::ptrdiff_t to_row,
                                    std::ptrdiff_t to_step) {
    std::size_t const whole_rows = rows / kLane * kLane, whole_columns = columns / kLane * kLane;
    for (std::size_t i = 0; i < whole_rows; i += kLane) {
      for (std::size_t j = 0; j < whole_columns; j += kLane) {
        Square(from + static_cast<std::ptrdiff_t>(i) * from_row + j, from_row,
               to + static_cast<std::ptrdiff_t>(j) * to_row + static_cast<std::ptrdiff_t>(i) * to_step, to_row,
               to_step);
      }
    }
    TransposePlain<1>(from, from_row, 0, whole_rows, whole_columns, columns, to, to_row, to_step);
    TransposePlain<1>(from, from_row, whole_rows, rows, 0, columns, to, to_row, to_step);
  }

  static TALVO_ROWS_INLINE void Square(Byte const* from, std::ptrdiff_t from_row, Byte* to, std::ptrdiff_t to_row,
                                       std::ptrdiff_t to_step) {
    Bytes16 x[kLane];
    // With a negative step the rows are taken from the last one, so that each result is stored forward.
    for (std::ptrdiff_t i = 0; i < kLane; ++i) Load16(from + (to_step > 0 ? i : kLane - 1 - i) * from_row, x[i]);
    for (int round = 0; round < 4; ++round) {
      Bytes16 mixed[kLane];
      for (int i = 0; i < kLane / 2; ++i) {
        InterleaveBytes(x[i], x[i + kLane / 2], mixed[2 * i], mixed[2 * i + 1], Indices16());
      }
      for (int i = 0; i < kLane; ++i) x[i] = mixed[i];
    }
    Byte* const first = to_step > 0 ? to : to - (kLane - 1);
    for (std::ptrdiff_t i = 0; i < kLane; ++i) Store16(x[i], first + i * to_row);
  }
};

typedef std::uint32_t Quads __attribute__((vector_size(kLane)));

TALVO_ROWS_INLINE void InterleaveQuads(Quads const& a, Quads const& b, Quads& low, Quads& high) {
  low = __builtin_shufflevector(a, b, 0, 4, 1, 5);
  high = __builtin_shufflevector(a, b, 2, 6, 3, 7);
}

// Four pixels of three bytes, from byte 0 or from byte 4 of the vector on, as four quads.
template <int kFirst, int... kIndex>
TALVO_ROWS_INLINE void Widen(Byte const* p, Quads& v, std::integer_sequence<int, kIndex...>) {
  Bytes16 bytes;
  Load16(p - kFirst, bytes);
  Bytes16 const wide =
      __builtin_shufflevector(bytes, bytes, (kFirst + kIndex / 4 * 3 + (kIndex % 4 == 3 ? 2 : kIndex % 4))...);
  std::memcpy(&v, &wide, sizeof(v));
}

// The first three bytes of each quad.
template <int... kIndex>
TALVO_ROWS_INLINE void StoreTriples(Quads const& v, Byte* p, std::integer_sequence<int, kIndex...>) {
  Bytes16 wide;
  std::memcpy(&wide, &v, sizeof(wide));
  Bytes16 const bytes = __builtin_shufflevector(wide, wide, (kIndex < 12 ? kIndex / 3 * 4 + kIndex % 3 : 3)...);
  std::memcpy(p, &bytes, 12);
}

template <std::size_t kSize>
struct TransposePixelsBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(Byte const* TALVO_RESTRICT from, std::ptrdiff_t from_row, std::size_t rows,
                                    std::size_t columns, Byte* TALVO_RESTRICT to, std::ptrdiff_t to_row,
                                    std::ptrdiff_t to_step) {
    std::size_t whole_rows = 0, whole_columns = 0;
    if constexpr (kShuffles<Set>) {
      whole_rows = rows / 4 * 4;
      whole_columns = columns < 6 ? 0 : columns / 4 * 4;  // the first load takes 16 bytes of a row
      for (std::size_t j = 0; j < whole_columns; j += 4) {
        for (std::size_t i = 0; i < whole_rows; i += 4) {
          Byte const* const corner = from + static_cast<std::ptrdiff_t>(i) * from_row + j * kSize;
          Byte* const target = to + static_cast<std::ptrdiff_t>(j) * to_row + static_cast<std::ptrdiff_t>(i) * to_step;
          j == 0 ? Square<0>(corner, from_row, target, to_row, to_step)
                 : Square<4>(corner, from_row, target, to_row, to_step);
        }
      }
    }
    TransposePlain<kSize>(from, from_row, 0, whole_rows, whole_columns, columns, to, to_row, to_step);
    TransposePlain<kSize>(from, from_row, whole_rows, rows, 0, columns, to, to_row, to_step);
  }

  // A load of four triples takes four bytes more; they lie in front, but for the first column of a tile, where they lie
  // behind.
  template <int kFront>
  static TALVO_ROWS_INLINE void Square(Byte const* from, std::ptrdiff_t from_row, Byte* to, std::ptrdiff_t to_row,
                                       std::ptrdiff_t to_step) {
    Quads x[4], mixed[4];
    for (std::ptrdiff_t i = 0; i < 4; ++i) {
      Byte const* const row = from + (to_step > 0 ? i : 3 - i) * from_row;
      if constexpr (kSize == 3) {
        Widen<kFront>(row, x[i], Indices16());
      } else {
        std::memcpy(&x[i], row, sizeof(x[i]));
      }
    }
    InterleaveQuads(x[0], x[2], mixed[0], mixed[1]);
    InterleaveQuads(x[1], x[3], mixed[2], mixed[3]);
    InterleaveQuads(mixed[0], mixed[2], x[0], x[1]);
    InterleaveQuads(mixed[1], mixed[3], x[2], x[3]);
    Byte* const first = to_step > 0 ? to : to + 3 * to_step;
    for (std::ptrdiff_t i = 0; i < 4; ++i) {
      if constexpr (kSize == 3) {
        StoreTriples(x[i], first + i * to_row, Indices16());
      } else {
        std::memcpy(first + i * to_row, &x[i], sizeof(x[i]));
      }
    }
  }
};

// ---- Resize and normalisation.

struct BlendNeighboursBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(Byte const* TALVO_RESTRICT left, Byte const* TALVO_RESTRICT right,
                                    std::int16_t const* TALVO_RESTRICT weight0,
                                    std::int16_t const* TALVO_RESTRICT weight1, std::size_t count,
                                    std::int16_t* TALVO_RESTRICT line) {
    for (std::size_t i = 0; i < count; ++i) {
      line[i] = static_cast<std::int16_t>((left[i] * weight0[i] + right[i] * weight1[i]) >> 4);
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
    for (std::size_t i = 0; i < count; ++i) {
      float value = (static_cast<float>(in[i]) - sub) * scale;
      value = value == value ? value : 0.0f;
      value = value > -32768.0f ? value : -32768.0f;
      value = value < 32767.0f ? value : 32767.0f;
      out[i] = static_cast<std::int16_t>(static_cast<int>(value));
    }
  }
};

}  // namespace

Primitive<void(Byte const*, std::size_t, Byte*, Byte*, Byte*)> const SplitThree{SplitThreeBody()};
Primitive<void(Byte const*, std::size_t, Byte*, Byte*, Byte*)> const SplitFour{SplitFourBody()};
Primitive<void(Byte const*, Byte const*, Byte const*, std::size_t, Byte*)> const MergeThree{MergeThreeBody()};
Primitive<void(Byte const*, Byte const*, Byte const*, std::size_t, Byte*)> const GrayRow{GrayRowBody()};
Primitive<void(Byte const*, Byte const*, std::size_t, std::int16_t, std::int16_t, std::size_t, Byte*)> const
    ChrominanceBytes{ChrominanceBytesBody()};
Primitive<void(Byte const*, Byte const*, std::size_t, Byte*)> const AddBytes{AddBytesBody()};
Primitive<void(Byte const*, std::size_t, Byte*)> const ReverseBytes{ReverseBytesBody()};
Primitive<void(Byte const*, std::size_t, Byte*)> const ReverseTriples{ReverseTriplesBody()};
Primitive<void(Byte const*, std::ptrdiff_t, std::size_t, std::size_t, Byte*, std::ptrdiff_t, std::ptrdiff_t)> const
    TransposeBytes{TransposeBytesBody()},
    TransposeTriples{TransposePixelsBody<3>()}, TransposeQuads{TransposePixelsBody<4>()};
Primitive<void(Byte const*, Byte const*, std::int16_t const*, std::int16_t const*, std::size_t, std::int16_t*)> const
    BlendNeighbours{BlendNeighboursBody()};
Primitive<void(std::int16_t const*, std::int16_t const*, std::int16_t, std::int16_t, std::size_t, Byte*)> const
    BlendLines{BlendLinesBody()};
Primitive<void(Byte const*, std::size_t, float, float, float*)> const NormaliseBytes{NormaliseBytesBody()};
Primitive<void(float const*, std::size_t, float, float, float*)> const NormaliseFloats{NormaliseFloatsBody()};
Primitive<void(Byte const*, std::size_t, float, float, std::int16_t*)> const NormaliseSaturated{
    NormaliseSaturatedBody()};

}  // namespace talvo::kernel::rows
