#include "talvo/kernel/rows/base64_rows.h"

#include <cstdint>
#include <cstring>
#include <utility>

#include "talvo/kernel/rows/byte_vectors.h"

namespace talvo::kernel::rows {
namespace {

// Groups of four characters stand in 32-bit quads, four in a lane, and their three bytes in the same quads.
constexpr int kGroups = 4;
constexpr std::size_t kGroupBytes = 3;

template <int kLanes>
struct SignedOf {
  typedef signed char Type __attribute__((vector_size(kLaneBytes * kLanes)));
};
// Characters and what is made of them; a comparison gives -1 where it holds.
template <int kLanes>
using Characters = typename SignedOf<kLanes>::Type;

template <class Set>
constexpr std::size_t kTextBytes = kLaneBytes* static_cast<std::size_t>(kByteLanes<Set>);  // of a vector
template <class Set>
constexpr std::size_t kDataBytes = kTextBytes<Set> / 4 * kGroupBytes;

// Bytes 3 q .. 3 q + 2 of a lane to quad q and back, the first one on top.
struct GroupToQuad {
  static constexpr int Of(int i) { return i % 4 == 3 ? 15 : i / 4 * 3 + 2 - i % 4; }
};
struct QuadToGroup {
  static constexpr int Of(int i) { return i < 12 ? i / 3 * 4 + 2 - i % 3 : 15; }
};

// Three quads of memory to each lane, from their places one behind the other, and back.
template <int kLanes, int... kIndex>
TALVO_ROWS_INLINE void SpreadQuads(Quads<kLanes> const& x, Quads<kLanes>& y, std::integer_sequence<int, kIndex...>) {
  y = __builtin_shufflevector(x, x, (kIndex % 4 == 3 ? kIndex : kIndex / 4 * 3 + kIndex % 4)...);
}
template <int kLanes, int... kIndex>
TALVO_ROWS_INLINE void JoinQuads(Quads<kLanes> const& x, Quads<kLanes>& y, std::integer_sequence<int, kIndex...>) {
  y = __builtin_shufflevector(x, x, (kIndex < 3 * kLanes ? kIndex / 3 * 4 + kIndex % 3 : kIndex)...);
}

// The characters of the values 0 .. 63: steps where the alphabet leaves the order of the character set.
template <int kLanes>
TALVO_ROWS_INLINE void CharactersOf(Characters<kLanes> const& v, Characters<kLanes>& c) {
  c = v + 'A' + ((v > 25) & ('a' - 'Z' - 1)) + ((v > 51) & ('0' - 'z' - 1)) + ((v > 61) & ('+' - '9' - 1)) +
      ((v > 62) & ('/' - '+' - 1));
}

// The values of characters; `bad` gets -1 for each that is outside the alphabet.
template <int kLanes>
TALVO_ROWS_INLINE void AddValues(Characters<kLanes> const& c, Characters<kLanes>& v, Characters<kLanes>& bad) {
  Characters<kLanes> const plus = c > '+', slash = c > '/', digits = c > '9', upper = c > 'Z';
  v = c + (62 - '+') + (plus & (63 - '/' - (62 - '+'))) + (slash & (52 - '0' - (63 - '/'))) +
      (digits & (0 - 'A' - (52 - '0'))) + (upper & (26 - 'a' - (0 - 'A')));
  // The alphabet is '+', '/' to '9', 'A' to 'Z', 'a' to 'z': inside, an odd number of these bounds is passed.
  bad |= ~((c > '+' - 1) ^ plus ^ (c > '/' - 1) ^ digits ^ (c > 'A' - 1) ^ upper ^ (c > 'a' - 1) ^ (c > 'z'));
}

template <int kLanes>
TALVO_ROWS_INLINE bool AnyBit(Characters<kLanes> const& v) {
  std::uint64_t parts[2 * kLanes], all = 0;
  std::memcpy(parts, &v, sizeof parts);
  TALVO_ROWS_UNROLL
  for (int i = 0; i < 2 * kLanes; ++i) all |= parts[i];
  return all != 0;
}

// q = three bytes of memory each, the first one on top, and back. A whole vector of memory is touched for the three
// quarters of it that count.
template <int kLanes>
TALVO_ROWS_INLINE void LoadGroups(unsigned char const* memory, Quads<kLanes>& q) {
  Quads<kLanes> joined, spread;
  std::memcpy(&joined, memory, sizeof joined);
  SpreadQuads<kLanes>(joined, spread, std::make_integer_sequence<int, kGroups * kLanes>());
  ShuffleLanes<GroupToQuad, kLanes>(reinterpret_cast<Bytes<kLanes> const&>(spread), reinterpret_cast<Bytes<kLanes>&>(q),
                                    LaneIndices<kLanes>());
}

template <int kLanes>
TALVO_ROWS_INLINE void StoreGroups(Quads<kLanes> const& q, unsigned char* memory) {
  Bytes<kLanes> in_lanes;
  ShuffleLanes<QuadToGroup, kLanes>(reinterpret_cast<Bytes<kLanes> const&>(q), in_lanes, LaneIndices<kLanes>());
  Quads<kLanes> joined;
  JoinQuads<kLanes>(reinterpret_cast<Quads<kLanes> const&>(in_lanes), joined,
                    std::make_integer_sequence<int, kGroups * kLanes>());
  std::memcpy(memory, &joined, sizeof joined);
}

struct EncodeBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(unsigned char const* bytes, std::size_t n, char* text, std::size_t* done) {
    std::size_t i = 0;
    if constexpr (kShuffles<Set>) {
      constexpr int kLanes = kByteLanes<Set>;
      for (; n - i >= kTextBytes<Set>; i += kDataBytes<Set>, text += kTextBytes<Set>) {
        Quads<kLanes> q;
        LoadGroups<kLanes>(bytes + i, q);
        q = ((q >> 18) & 0x3Fu) | ((q >> 4) & 0x3F00u) | ((q << 10) & 0x3F0000u) | ((q << 24) & 0x3F000000u);
        Characters<kLanes> characters;
        CharactersOf<kLanes>(reinterpret_cast<Characters<kLanes> const&>(q), characters);
        std::memcpy(text, &characters, sizeof characters);
      }
    }
    *done = i;
  }
};

// Vectors that are looked through at once for characters outside the alphabet.
constexpr std::size_t kBlock = 4;

template <int kLanes>
TALVO_ROWS_INLINE bool LoadValues(char const* text, Characters<kLanes> (&values)[kBlock]) {
  Characters<kLanes> bad = {};
  TALVO_ROWS_UNROLL
  for (std::size_t v = 0; v < kBlock; ++v) {
    Characters<kLanes> characters;
    std::memcpy(&characters, text + v * sizeof characters, sizeof characters);
    AddValues<kLanes>(characters, values[v], bad);
  }
  return !AnyBit<kLanes>(bad);
}

struct DecodeBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(char const* text, std::size_t n, unsigned char* bytes, std::size_t room,
                                    std::size_t* done) {
    std::size_t i = 0;
    if constexpr (kShuffles<Set>) {
      constexpr int kLanes = kByteLanes<Set>;
      constexpr std::size_t kBlockText = kBlock * kTextBytes<Set>, kBlockData = kBlock * kDataBytes<Set>;
      Characters<kLanes> values[kBlock];
      for (; n - i >= kBlockText && room >= kBlockText && LoadValues<kLanes>(text + i, values); i += kBlockText) {
        TALVO_ROWS_UNROLL
        for (std::size_t v = 0; v < kBlock; ++v) {
          auto const q = reinterpret_cast<Quads<kLanes> const&>(values[v]);
          Quads<kLanes> const pairs = ((q & 0x3F003Fu) << 6) | ((q >> 8) & 0x3F003Fu);
          StoreGroups<kLanes>((pairs << 12) | (pairs >> 16), bytes + v * kDataBytes<Set>);  // its top byte is dropped
        }
        bytes += kBlockData;
        room -= kBlockData;
      }
    }
    *done = i;
  }
};

}  // namespace

Primitive<void(unsigned char const*, std::size_t, char*, std::size_t*)> const EncodeBase64Row{EncodeBody()};
Primitive<void(char const*, std::size_t, unsigned char*, std::size_t, std::size_t*)> const DecodeBase64Row{
    DecodeBody()};

}  // namespace talvo::kernel::rows
