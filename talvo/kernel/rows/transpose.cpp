#include "talvo/kernel/rows/transpose.h"

#include <cstdint>
#include <cstring>
#include <utility>

#include "talvo/kernel/rows/byte_vectors.h"
#include "talvo/kernel/rows/instruction_sets.h"
#include "talvo/kernel/rows/pixels.h"
#include "talvo/utility/restrict_support.h"

namespace talvo::kernel::rows {
namespace {

TALVO_ROWS_INLINE constexpr std::ptrdiff_t Signed(std::size_t n) { return static_cast<std::ptrdiff_t>(n); }

// The rectangle of `rows` x `columns` elements from (row, column) on.
TALVO_ROWS_INLINE Transposition Part(Transposition const& all, std::size_t element_bytes, std::size_t row,
                                     std::size_t rows, std::size_t column, std::size_t columns) {
  return {all.from + Signed(row) * all.from_row + column * element_bytes,   all.from_row, rows,       columns,
          all.to + Signed(column) * all.to_row + Signed(row) * all.to_step, all.to_row,   all.to_step};
}

template <std::size_t kSize>
TALVO_ROWS_INLINE void MoveOneByOne(Transposition const& t) {
  Byte const* TALVO_RESTRICT const from = t.from;
  Byte* TALVO_RESTRICT const to = t.to;
  for (std::size_t c = 0; c < t.columns; ++c) {
    for (std::size_t r = 0; r < t.rows; ++r) {
      std::memcpy(to + Signed(c) * t.to_row + Signed(r) * t.to_step, from + Signed(r) * t.from_row + c * kSize, kSize);
    }
  }
}

// What whole squares leave of a tile: the columns on the right, the rows below.
template <std::size_t kSize>
TALVO_ROWS_INLINE void MoveRest(Transposition const& tile, std::size_t whole_rows, std::size_t whole_columns) {
  MoveOneByOne<kSize>(Part(tile, kSize, 0, whole_rows, whole_columns, tile.columns - whole_columns));
  MoveOneByOne<kSize>(Part(tile, kSize, whole_rows, tile.rows - whole_rows, 0, tile.columns));
}

// The row where a block of `rows` from `row` on begins, and the step to the next. With a negative step the rows are
// taken from the last one, so that the results are stored forward.
struct BlockRows {
  Byte const* first;
  std::ptrdiff_t step;
  Byte* to;
};
TALVO_ROWS_INLINE BlockRows RowsOf(Transposition const& tile, std::size_t element_bytes, std::size_t row,
                                   std::size_t rows, std::size_t column) {
  bool const forward = tile.to_step > 0;
  std::ptrdiff_t const first = Signed(forward ? row : row + rows - 1);
  return {tile.from + first * tile.from_row + column * element_bytes, forward ? tile.from_row : -tile.from_row,
          tile.to + Signed(column) * tile.to_row + first * tile.to_step};
}

// Squares of T, one vector of 16 bytes for each row.
template <class T>
struct Squares {
  static constexpr std::size_t kSide = kLaneBytes / sizeof(T);
  typedef T Row __attribute__((vector_size(kLaneBytes)));

  template <class Set>
  static TALVO_ROWS_INLINE void Move(Transposition const& tile) {
    std::size_t const whole_rows = tile.rows / kSide * kSide, whole_columns = tile.columns / kSide * kSide;
    for (std::size_t c = 0; c < whole_columns; c += kSide) {
      BlockRows block = RowsOf(tile, sizeof(T), 0, kSide, c);
      for (std::size_t r = 0; r < whole_rows; r += kSide) {
        Square(block, tile.to_row, std::make_integer_sequence<int, kSide>());
        block.first += Signed(kSide) * tile.from_row;
        block.to += Signed(kSide) * tile.to_step;
      }
    }
    MoveRest<sizeof(T)>(tile, whole_rows, whole_columns);
  }

  // Interleaving row i with row i + n/2 rotates the bits of (row, lane) by one place; log2(n) times swap row and lane.
  template <int... kIndex>
  static TALVO_ROWS_INLINE void Square(BlockRows const& block, std::ptrdiff_t to_row,
                                       std::integer_sequence<int, kIndex...>) {
    constexpr int n = kSide;
    Row rows[n], next[n];
    TALVO_ROWS_UNROLL
    for (int i = 0; i < n; ++i) std::memcpy(&rows[i], block.first + i * block.step, sizeof(Row));
    TALVO_ROWS_UNROLL
    for (int round = 1; round < n; round *= 2) {
      TALVO_ROWS_UNROLL
      for (int i = 0; i < n / 2; ++i) {
        next[2 * i] = __builtin_shufflevector(rows[i], rows[i + n / 2], (kIndex / 2 + kIndex % 2 * n)...);
        next[2 * i + 1] = __builtin_shufflevector(rows[i], rows[i + n / 2], (kIndex / 2 + n / 2 + kIndex % 2 * n)...);
      }
      TALVO_ROWS_UNROLL
      for (int i = 0; i < n; ++i) rows[i] = next[i];
    }
    TALVO_ROWS_UNROLL
    for (int i = 0; i < n; ++i) std::memcpy(block.to + i * to_row, &rows[i], sizeof(Row));
  }
};

// Pixels of three bytes, from byte kFirst of a lane on, as quads of which byte 3 does not count.
template <int kFirst>
struct WidenedTriple {
  static constexpr int Of(int place) { return kFirst + place / 4 * 3 + (place % 4 == 3 ? 2 : place % 4); }
};

// The first three bytes of each quad.
struct NarrowedQuad {
  static constexpr int Of(int place) { return place < 12 ? place / 3 * 4 + place % 3 : 3; }
};

// Elements of 3 or 4 bytes: four columns and 4 kLanes rows at a time. Lane l of a vector takes the rows 4 l to 4 l + 3.
template <std::size_t kSize>
struct Quadruples {
  template <class Set>
  static TALVO_ROWS_INLINE void Move(Transposition const& tile) {
    std::size_t whole_rows = 0, whole_columns = 0;
    if constexpr (kSize == 4 || kShuffles<Set>) {
      constexpr std::size_t kRows = 4 * kByteLanes<Set>;
      // The first load of triples takes 16 bytes of a row, more than five of them.
      whole_columns = kSize == 3 && tile.columns < 6 ? 0 : tile.columns / 4 * 4;
      whole_rows = tile.rows / 4 * 4;
      std::size_t c = 0;
      if (kSize == 4 && tile.rows == 4 && tile.to_step > 0) c = FourRows<kByteLanes<Set>>(tile, 0);
      for (; c < whole_columns; c += 4) {
        std::size_t r = 0;
        for (; r + kRows <= whole_rows; r += kRows) Block<kByteLanes<Set>>(tile, r, c);
        for (; r < whole_rows; r += 4) Block<1>(tile, r, c);
      }
    }
    MoveRest<kSize>(tile, whole_rows, whole_columns);
  }

  // Four rows alone, as where channels become blocks of four: lane l of a vector takes the columns 4 l to 4 l + 3.
  // Goes on from column c and returns the columns that are done.
  template <int kLanes>
  static TALVO_ROWS_INLINE std::size_t FourRows(Transposition const& tile, std::size_t c) {
    for (; c + 4 * kLanes <= tile.columns; c += 4 * kLanes) {
      Quads<kLanes> x[4];
      TALVO_ROWS_UNROLL
      for (std::ptrdiff_t i = 0; i < 4; ++i) std::memcpy(&x[i], tile.from + i * tile.from_row + 4 * c, sizeof(x[i]));
      Turn<kLanes>(x);
      StoreColumns<kLanes>(x, tile.to + Signed(c) * tile.to_row, tile.to_row,
                           std::make_integer_sequence<int, kLanes>());
    }
    if constexpr (kLanes > 1) c = FourRows<kLanes / 2>(tile, c);
    return c;
  }

  template <int kLanes, int... kLane>
  static TALVO_ROWS_INLINE void StoreColumns(Quads<kLanes> const (&x)[4], Byte* to, std::ptrdiff_t to_row,
                                             std::integer_sequence<int, kLane...>) {
    TALVO_ROWS_UNROLL
    for (int i = 0; i < 4; ++i) {
      Bytes<kLanes> const columns = reinterpret_cast<Bytes<kLanes>>(x[i]);
      (StoreLane<kLane, kLanes>(columns, to + (4 * kLane + i) * to_row), ...);
    }
  }

  // In each lane: quad j of x[i] and quad i of x[j] change places.
  template <int kLanes>
  static TALVO_ROWS_INLINE void Turn(Quads<kLanes> (&x)[4]) {
    constexpr auto kQuads = std::make_integer_sequence<int, 4 * kLanes>();
    Quads<kLanes> mixed[4];
    InterleaveQuads<kLanes>(x[0], x[2], mixed[0], mixed[1], kQuads);
    InterleaveQuads<kLanes>(x[1], x[3], mixed[2], mixed[3], kQuads);
    InterleaveQuads<kLanes>(mixed[0], mixed[2], x[0], x[1], kQuads);
    InterleaveQuads<kLanes>(mixed[1], mixed[3], x[2], x[3], kQuads);
  }

  // A load of four triples takes four bytes more; they lie in front, but for the first columns, where they lie behind.
  template <int kLanes>
  static TALVO_ROWS_INLINE void Block(Transposition const& tile, std::size_t row, std::size_t column) {
    BlockRows const block = RowsOf(tile, kSize, row, 4 * kLanes, column);
    if (kSize == 4 || column == 0) {
      Move<kLanes, 0>(block, tile.to_row);
    } else {
      Move<kLanes, 4>(block, tile.to_row);
    }
  }

  template <int kLanes, int kFront>
  static TALVO_ROWS_INLINE void Move(BlockRows const& block, std::ptrdiff_t to_row) {
    Quads<kLanes> x[4];
    TALVO_ROWS_UNROLL
    for (std::ptrdiff_t i = 0; i < 4; ++i) {
      Bytes<kLanes> pixels;
      LoadLanes<kLanes>(block.first + i * block.step - kFront, 4 * block.step, pixels);
      if constexpr (kSize == 3) {
        Bytes<kLanes> const triples = pixels;
        ShuffleLanes<WidenedTriple<kFront>, kLanes>(triples, pixels, LaneIndices<kLanes>());
      }
      x[i] = reinterpret_cast<Quads<kLanes>>(pixels);
    }
    Turn<kLanes>(x);
    TALVO_ROWS_UNROLL
    for (std::ptrdiff_t i = 0; i < 4; ++i) {
      StoreRow<kLanes>(reinterpret_cast<Bytes<kLanes>>(x[i]), block.to + i * to_row);
    }
  }

  // 4 kLanes elements. A lane of triples is stored whole, and the next lane writes over its last four bytes.
  template <int kLanes>
  static TALVO_ROWS_INLINE void StoreRow(Bytes<kLanes> const& quads, Byte* to) {
    if constexpr (kSize == 4) {
      std::memcpy(to, &quads, sizeof(quads));
    } else {
      Bytes<kLanes> triples;
      ShuffleLanes<NarrowedQuad, kLanes>(quads, triples, LaneIndices<kLanes>());
      if constexpr (kLanes > 1) StoreLane<0, kLanes>(triples, to);
      if constexpr (kLanes > 2) {
        StoreLane<1, kLanes>(triples, to + 12);
        StoreLane<2, kLanes>(triples, to + 24);
      }
      StoreLane<kLanes - 1, kLanes>(triples, to + 12 * (kLanes - 1), 12);
    }
  }
};

// By tiles, so that the lines that a tile reads and writes stay in the nearest cache until they are whole. The
// addresses of a plane are computed, not kept in a copy of `all`: a wide load of what was just stored in pieces would
// wait.
template <class Visit>
TALVO_ROWS_INLINE void ForEachTile(Transposition const& all, std::size_t element_bytes, Visit const& visit) {
  constexpr std::size_t kTile = 64;
  std::size_t const tile_rows = element_bytes == 1 ? 2 * kTile : kTile;  // whole lines of results for bytes too
  for (std::size_t p = 0; p < all.planes; ++p) {
    Byte const* const from = all.from + Signed(p) * all.from_plane;
    Byte* const to = all.to + Signed(p) * all.to_plane;
    for (std::size_t r = 0; r < all.rows; r += tile_rows) {
      for (std::size_t c = 0; c < all.columns; c += kTile) {
        std::size_t const rows = all.rows - r < tile_rows ? all.rows - r : tile_rows;
        std::size_t const columns = all.columns - c < kTile ? all.columns - c : kTile;
        visit(Part({from, all.from_row, all.rows, all.columns, to, all.to_row, all.to_step}, element_bytes, r, rows, c,
                   columns));
      }
    }
  }
}

template <class Mover, std::size_t kSize>
struct TransposeBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(Transposition const& all) {
    ForEachTile(all, kSize, Tile<Set>());
  }

  template <class Set>
  struct Tile {
    TALVO_ROWS_INLINE void operator()(Transposition const& tile) const { Mover::template Move<Set>(tile); }
  };
};

// Elements of a few vectors are copied in vectors: a call for each would cost as much as the copy.
void CopyElement(Byte const* from, std::size_t bytes, Byte* to) {
  if (bytes < kLaneBytes || bytes >= 16 * kLaneBytes) {
    std::memcpy(to, from, bytes);
    return;
  }
  Bytes<1> lane;
  for (std::size_t i = 0; i < bytes; i += kLaneBytes) {
    std::size_t const begin = i + kLaneBytes <= bytes ? i : bytes - kLaneBytes;  // the last may overlap the one before
    std::memcpy(&lane, from + begin, sizeof(lane));
    std::memcpy(to + begin, &lane, sizeof(lane));
  }
}

struct SingleElements {
  std::size_t bytes;

  void operator()(Transposition const& tile) const {
    for (std::size_t c = 0; c < tile.columns; ++c) {
      Byte const* from = tile.from + c * bytes;
      Byte* to = tile.to + Signed(c) * tile.to_row;
      for (std::size_t r = 0; r < tile.rows; ++r, from += tile.from_row, to += tile.to_step) {
        CopyElement(from, bytes, to);
      }
    }
  }
};

Primitive<void(Transposition const&)> const Transpose1{TransposeBody<Squares<std::uint8_t>, 1>()};
Primitive<void(Transposition const&)> const Transpose2{TransposeBody<Squares<std::uint16_t>, 2>(), Baseline()};
Primitive<void(Transposition const&)> const Transpose3{TransposeBody<Quadruples<3>, 3>()};
Primitive<void(Transposition const&)> const Transpose4{TransposeBody<Quadruples<4>, 4>()};
Primitive<void(Transposition const&)> const Transpose8{TransposeBody<Squares<std::uint64_t>, 8>()};

// ---- Few channels: one side of a rectangle is so short that it leaves no squares, and stands without gaps. The other
// side goes in as many streams.

// plane k [i] = pixels[3 i + k], elements of kSize bytes.
template <std::size_t kSize>
struct SplitThreeBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(Byte const* TALVO_RESTRICT pixels, std::size_t count, Byte* TALVO_RESTRICT first,
                                    Byte* TALVO_RESTRICT second, Byte* TALVO_RESTRICT third) {
    for (std::size_t i = 0; i < count; ++i) {
      std::memcpy(first + i * kSize, pixels + 3 * i * kSize, kSize);
      std::memcpy(second + i * kSize, pixels + (3 * i + 1) * kSize, kSize);
      std::memcpy(third + i * kSize, pixels + (3 * i + 2) * kSize, kSize);
    }
  }
};

template <std::size_t kSize>
struct MergeThreeBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(Byte const* TALVO_RESTRICT first, Byte const* TALVO_RESTRICT second,
                                    Byte const* TALVO_RESTRICT third, std::size_t count, Byte* TALVO_RESTRICT pixels) {
    for (std::size_t i = 0; i < count; ++i) {
      std::memcpy(pixels + 3 * i * kSize, first + i * kSize, kSize);
      std::memcpy(pixels + (3 * i + 1) * kSize, second + i * kSize, kSize);
      std::memcpy(pixels + (3 * i + 2) * kSize, third + i * kSize, kSize);
    }
  }
};

Primitive<void(Byte const*, std::size_t, Byte*, Byte*, Byte*)> const SplitThreeFloats{SplitThreeBody<4>()};
Primitive<void(Byte const*, Byte const*, Byte const*, std::size_t, Byte*)> const MergeThreeFloats{MergeThreeBody<4>(),
                                                                                                  Avx2()};

// Wider vectors are slower here: they shuffle bytes across their lanes.
void SplitFourBytes(Byte const* TALVO_RESTRICT pixels, std::size_t count, Byte* TALVO_RESTRICT first,
                    Byte* TALVO_RESTRICT second, Byte* TALVO_RESTRICT third, Byte* TALVO_RESTRICT fourth) {
  for (std::size_t i = 0; i < count; ++i) {
    first[i] = pixels[4 * i];
    second[i] = pixels[4 * i + 1];
    third[i] = pixels[4 * i + 2];
    fourth[i] = pixels[4 * i + 3];
  }
}

void MergeFourBytes(Byte const* TALVO_RESTRICT first, Byte const* TALVO_RESTRICT second,
                    Byte const* TALVO_RESTRICT third, Byte const* TALVO_RESTRICT fourth, std::size_t count,
                    Byte* TALVO_RESTRICT pixels) {
  for (std::size_t i = 0; i < count; ++i) {
    pixels[4 * i] = first[i];
    pixels[4 * i + 1] = second[i];
    pixels[4 * i + 2] = third[i];
    pixels[4 * i + 3] = fourth[i];
  }
}

// Moves a rectangle whose columns are channels, pixel after pixel. Returns whether there is a way for them.
bool SplitChannels(std::size_t bytes, Transposition const& t) {
  if (t.from_row != Signed(t.columns * bytes) || t.to_step != Signed(bytes)) return false;
  Byte* const second = t.to + t.to_row;
  if (t.columns == 1) {
    std::memcpy(t.to, t.from, t.rows * bytes);
  } else if (t.columns == 3 && bytes == 1) {
    SplitThree(t.from, t.rows, t.to, second, second + t.to_row);
  } else if (t.columns == 3 && bytes == 4) {
    SplitThreeFloats(t.from, t.rows, t.to, second, second + t.to_row);
  } else if (t.columns == 4 && bytes == 1) {
    SplitFourBytes(t.from, t.rows, t.to, second, second + t.to_row, second + 2 * t.to_row);
  } else {
    return false;
  }
  return true;
}

// Moves a rectangle whose rows are channels, which become pixel after pixel.
bool MergeChannels(std::size_t bytes, Transposition const& t) {
  if (t.to_row != Signed(t.rows * bytes) || t.to_step != Signed(bytes)) return false;
  Byte const* const second = t.from + t.from_row;
  if (t.rows == 1) {
    std::memcpy(t.to, t.from, t.columns * bytes);
  } else if (t.rows == 3 && bytes == 1) {
    MergeThree(t.from, second, second + t.from_row, t.columns, t.to);
  } else if (t.rows == 3 && bytes == 4) {
    MergeThreeFloats(t.from, second, second + t.from_row, t.columns, t.to);
  } else if (t.rows == 4 && bytes == 1) {
    MergeFourBytes(t.from, second, second + t.from_row, second + 2 * t.from_row, t.columns, t.to);
  } else {
    return false;
  }
  return true;
}

bool MoveChannels(std::size_t bytes, Transposition const& t) {
  return t.planes == 1 && (SplitChannels(bytes, t) || MergeChannels(bytes, t));
}

template <class Size>
TALVO_ROWS_INLINE void ReverseOneByOne(Size bytes, Byte const* TALVO_RESTRICT from, std::size_t count,
                                       Byte* TALVO_RESTRICT to) {
  for (std::size_t i = 0; i < count; ++i) std::memcpy(to + i * bytes, from + (count - 1 - i) * bytes, bytes);
}

template <std::size_t kSize>
struct ReverseBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(Byte const* from, std::size_t count, Byte* to) {
    ReverseOneByOne(std::integral_constant<std::size_t, kSize>(), from, count, to);
  }
};

// Five pixels at a time: byte 1 + 3 k + c of the vector goes to byte 3 (4 - k) + c, and byte 15 is overwritten by the
// next.
struct ReversedTriple {
  static constexpr int Of(int place) { return place == 15 ? 0 : 1 + 3 * (4 - place / 3) + place % 3; }
};

TALVO_ROWS_INLINE void ReverseFive(Byte const* from, Byte* to) {
  Bytes<1> pixels, reversed;
  std::memcpy(&pixels, from, sizeof(pixels));
  ShuffleLanes<ReversedTriple, 1>(pixels, reversed, LaneIndices<1>());
  std::memcpy(to, &reversed, sizeof(reversed));
}

template <>
struct ReverseBody<3> {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(Byte const* from, std::size_t count, Byte* to) {
    std::size_t i = 0;
    if constexpr (kShuffles<Set>) {  // the load begins a byte early, the store ends a byte late
      for (; i + 6 <= count; i += 5) ReverseFive(from + 3 * (count - i - 5) - 1, to + 3 * i);
    }
    ReverseOneByOne(std::integral_constant<std::size_t, 3>(), from, count - i, to + 3 * i);
  }
};

Primitive<void(Byte const*, std::size_t, Byte*)> const Reverse1{ReverseBody<1>(), Avx2()};
Primitive<void(Byte const*, std::size_t, Byte*)> const Reverse2{ReverseBody<2>(), Avx2()};
Primitive<void(Byte const*, std::size_t, Byte*)> const Reverse3{ReverseBody<3>(), Avx2()};
Primitive<void(Byte const*, std::size_t, Byte*)> const Reverse4{ReverseBody<4>(), Avx2()};

}  // namespace

void TransposeElements(std::size_t element_bytes, Transposition const& transposition) {
  if (MoveChannels(element_bytes, transposition)) return;
  switch (element_bytes) {
    case 1:
      return Transpose1(transposition);
    case 2:
      return Transpose2(transposition);
    case 3:
      return Transpose3(transposition);
    case 4:
      return Transpose4(transposition);
    case 8:
      return Transpose8(transposition);
    default:
      return ForEachTile(transposition, element_bytes, SingleElements{element_bytes});
  }
}

void TransposeRows(float const* from, std::size_t from_stride, std::size_t rows, std::size_t columns, float* to,
                   std::size_t to_stride) {
  Transpose4({reinterpret_cast<Byte const*>(from), Signed(from_stride * sizeof(float)), rows, columns,
              reinterpret_cast<Byte*>(to), Signed(to_stride * sizeof(float)), sizeof(float)});
}

void ReverseElements(std::size_t element_bytes, Byte const* from, std::size_t count, Byte* to) {
  switch (element_bytes) {
    case 1:
      return Reverse1(from, count, to);
    case 2:
      return Reverse2(from, count, to);
    case 3:
      return Reverse3(from, count, to);
    case 4:
      return Reverse4(from, count, to);
    default:
      return ReverseOneByOne(element_bytes, from, count, to);
  }
}

}  // namespace talvo::kernel::rows
