// What benchmarks compare with, measured in the same run: the rates of multiplications and additions, fused and not
// fused, and memcpy.
#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>

namespace talvo::bench {

/// Floating-point operations a second of one core: independent multiplications and additions in registers, in the
/// vectors of the instruction set in use. Measured at the first call, the best of several trials.
double UnfusedRate();

/// The same of independent fused steps in registers, each of which is a multiplication and an addition.
double FusedRate();

/// Seconds that a memcpy of this many bytes takes, the best of several trials.
double CopySeconds(std::size_t bytes);

/// Reports operations a second, and their share of UnfusedRate as "of_unfused".
void ReportOperations(benchmark::State& state, double operations_per_iteration);

/// Reports operations a second, and their share of FusedRate as "of_fused".
void ReportFusedOperations(benchmark::State& state, double operations_per_iteration);

/// Reports bytes a second, and the time of an iteration in memcpys of that many bytes as "memcpys".
void ReportCopies(benchmark::State& state, std::size_t bytes_per_iteration);

}  // namespace talvo::bench
