// What benchmarks compare with, measured in the same run: the rate of multiplications and additions that are not fused,
// and memcpy.
#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>

namespace talvo::bench {

/// Floating-point operations a second of one core: independent multiplications and additions in registers, in the
/// vectors of the instruction set in use. Measured at the first call, the best of several trials.
double UnfusedRate();

/// Seconds that a memcpy of this many bytes takes, the best of several trials.
double CopySeconds(std::size_t bytes);

/// Reports operations a second, and their share of UnfusedRate as "of_unfused".
void ReportOperations(benchmark::State& state, double operations_per_iteration);

/// Reports bytes a second, and the time of an iteration in memcpys of that many bytes as "memcpys".
void ReportCopies(benchmark::State& state, std::size_t bytes_per_iteration);

}  // namespace talvo::bench
