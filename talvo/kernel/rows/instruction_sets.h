// Instruction sets for the row and tile primitives. A primitive is written once, for a vector width that it takes as a
// template parameter, and compiled for each instruction set that serves it; the widest one that the processor runs is
// taken at start. The choice changes speed, never a bit. Internal: this folder alone knows about processors.
#pragma once

#include <cstddef>
#include <type_traits>
#include <vector>

/// For everything that a primitive calls: code that is inlined is compiled for the instruction set of its caller. Pass
/// vectors by reference, and use no lambdas: they would be functions of the baseline.
#define TALVO_ROWS_INLINE inline __attribute__((always_inline))

/// Before a loop of few steps whose vectors are to stay in registers.
#if defined(__clang__)
#define TALVO_ROWS_UNROLL _Pragma("clang loop unroll(full)")
#else
#define TALVO_ROWS_UNROLL _Pragma("GCC unroll 16")
#endif

// The instructions that fuse are there for fused_step.h alone: elsewhere -ffp-contract=off holds.
#if defined(__x86_64__)
#define TALVO_ROWS_TARGET_AVX2 __attribute__((target("avx2,fma")))
#define TALVO_ROWS_TARGET_AVX512 __attribute__((target("avx512f,avx512bw,avx512dq,avx512vl,fma")))
#else
#define TALVO_ROWS_TARGET_AVX2
#define TALVO_ROWS_TARGET_AVX512
#endif

namespace talvo::kernel::rows {

#if defined(__x86_64__)
constexpr bool kHasWiderSets = true;
#else
constexpr bool kHasWiderSets = false;
#endif

enum class InstructionSet : unsigned char { kBaseline, kAvx2, kAvx512 };
constexpr std::size_t kInstructionSets = 3;

#if defined(__aarch64__) || defined(__FMA__)
constexpr bool kBaselineFuses = true;
#else
constexpr bool kBaselineFuses = false;
#endif

/// What a primitive knows of the set that it is compiled for: floats in a vector, vectors that fit registers, and
/// whether it has an instruction for a fused step.
struct Baseline {
  static constexpr int kLanes = 4, kRegisters = 16;
  static constexpr bool kFuses = kBaselineFuses;
};
struct Avx2 {
  static constexpr int kLanes = 8, kRegisters = 16;
  static constexpr bool kFuses = true;
};
struct Avx512 {
  static constexpr int kLanes = 16, kRegisters = 32;
  static constexpr bool kFuses = true;
};
constexpr int kMaxLanes = 16;

/// The sets that this processor runs, the narrowest first. Never empty.
std::vector<InstructionSet> RunnableSets();

/// The set in use: the widest of RunnableSets, unless a test took another one. For certification and debugging the
/// environment variable TALVO_INSTRUCTION_SET names another at start, as NameOf does; a set that the processor does not
/// run, and any other word, changes nothing.
InstructionSet ActiveSet();

/// Floats in a vector of the set in use.
int ActiveLanes();

/// "baseline", "avx2" or "avx512".
char const* NameOf(InstructionSet set);

/// Takes another runnable set while it lives, for tests and benchmarks that walk all of them. Not for use beside other
/// threads.
class ScopedInstructionSet {
 public:
  explicit ScopedInstructionSet(InstructionSet set);
  ScopedInstructionSet(ScopedInstructionSet const&) = delete;
  ScopedInstructionSet& operator=(ScopedInstructionSet const&) = delete;
  ~ScopedInstructionSet();

 private:
  InstructionSet previous_;
};

/// A function compiled for each set; a call runs the version of the set in use. `Body` has a
/// `template <class Set> static TALVO_ROWS_INLINE void Run(Arguments...)`; the object is a constant at namespace scope:
///   const Primitive<void(float const*, std::size_t, float*)> ScaleRow{ScaleRowBody(), Avx2()};
/// It is compiled up to the set named, which serves the wider ones too: where those gain nothing. Every version counts
/// in the size of the library.
template <class Signature>
class Primitive;

template <class... Arguments>
class Primitive<void(Arguments...)> {
 public:
  template <class Body, class Widest = Avx512>
  constexpr explicit Primitive(Body, Widest = Widest())
      : versions_{RunBaseline<Body>,
                  VersionOf<Body, std::conditional_t<(Widest::kLanes < Avx2::kLanes), Widest, Avx2>>(),
                  VersionOf<Body, Widest>()} {}

  void operator()(Arguments... arguments) const { versions_[static_cast<std::size_t>(ActiveSet())](arguments...); }

  /// For a body compiled for AVX-512 that finds less than a vector: the version for AVX2 has its loops already.
  void RunAsAvx2(Arguments... arguments) const {
    versions_[static_cast<std::size_t>(InstructionSet::kAvx2)](arguments...);
  }

 private:
  using Version = void (*)(Arguments...);

  template <class Body>
  static void RunBaseline(Arguments... arguments) {
    Body::template Run<Baseline>(arguments...);
  }
  template <class Body>
  TALVO_ROWS_TARGET_AVX2 static void RunAvx2(Arguments... arguments) {
    Body::template Run<Avx2>(arguments...);
  }
  template <class Body>
  TALVO_ROWS_TARGET_AVX512 static void RunAvx512(Arguments... arguments) {
    Body::template Run<Avx512>(arguments...);
  }

  template <class Body, class Set>
  static constexpr Version VersionOf() {
    if constexpr (!kHasWiderSets || std::is_same_v<Set, Baseline>) {
      return RunBaseline<Body>;
    } else if constexpr (std::is_same_v<Set, Avx2>) {
      return RunAvx2<Body>;
    } else {
      return RunAvx512<Body>;
    }
  }

  Version versions_[kInstructionSets];
};

}  // namespace talvo::kernel::rows
