// A model of some twenty small layers of many kinds: it seeds the fuzzing of packages and walks the whole road in
// tests.
#pragma once

#include "tests/support/model_builder.h"

namespace talvo::test {

/// The model of fuzz/corpus/run_package. Input "picture" CHW {3, 8, 8}; outputs "classes" {5}, "plane" {2, 8, 8},
/// "sequence" {4, 4} and "sampled" {10, 2, 8}. Every weight is exact in binary16, so that both forms hold the same.
ModelBuilder SmallModel();

}  // namespace talvo::test
