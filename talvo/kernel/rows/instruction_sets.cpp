#include "talvo/kernel/rows/instruction_sets.h"

#include <array>
#include <cstdlib>
#include <string_view>

namespace talvo::kernel::rows {
namespace {

bool Runs(InstructionSet set) {
#if defined(__x86_64__)
  __builtin_cpu_init();
  switch (set) {
    case InstructionSet::kBaseline:
      return true;
    case InstructionSet::kAvx2:
      return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
    case InstructionSet::kAvx512:
      return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
             __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("fma");
  }
  return false;
#else
  return set == InstructionSet::kBaseline;
#endif
}

// The widest set, or the one that the environment names, where the processor runs it.
InstructionSet SetAtStart() {
  auto const sets = RunnableSets();
  char const* const wanted = std::getenv("TALVO_INSTRUCTION_SET");
  for (auto const set : sets) {
    if (wanted != nullptr && std::string_view(wanted) == NameOf(set)) return set;
  }
  return sets.back();
}

// Code that runs before this is initialised finds 0, the baseline.
InstructionSet active = SetAtStart();

}  // namespace

std::vector<InstructionSet> RunnableSets() {
  std::vector<InstructionSet> sets;
  for (auto const set : {InstructionSet::kBaseline, InstructionSet::kAvx2, InstructionSet::kAvx512}) {
    if (Runs(set)) sets.push_back(set);
  }
  return sets;
}

InstructionSet ActiveSet() { return active; }

int ActiveLanes() {
  constexpr std::array<int, kInstructionSets> kLanes = {Baseline::kLanes, Avx2::kLanes, Avx512::kLanes};
  return kLanes[static_cast<std::size_t>(active)];
}

char const* NameOf(InstructionSet set) {
  constexpr std::array<char const*, kInstructionSets> kNames = {"baseline", "avx2", "avx512"};
  return kNames[static_cast<std::size_t>(set)];
}

ScopedInstructionSet::ScopedInstructionSet(InstructionSet set) : previous_(active) { active = set; }
ScopedInstructionSet::~ScopedInstructionSet() { active = previous_; }

}  // namespace talvo::kernel::rows
