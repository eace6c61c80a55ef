// Names the CBLAS that a benchmark runs on and holds it to one thread. Its own functions are looked up at run time, so
// that any CBLAS links.
#pragma once

#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include <string>

namespace talvo::bench {

template <class Signature>
Signature* BlasFunction(char const* name) {
  return reinterpret_cast<Signature*>(dlsym(RTLD_DEFAULT, name));
}

/// Runs the registered benchmarks on one BLAS thread; library and kernels stand among the context lines.
inline int RunOnOneBlasThread(int argc, char** argv) {
  auto* const config = BlasFunction<char*()>("openblas_get_config");
  auto* const core = BlasFunction<char*()>("openblas_get_corename");
  auto* const set_threads = BlasFunction<void(int)>("openblas_set_num_threads");
  if (set_threads != nullptr) set_threads(1);
  benchmark::AddCustomContext("blas", config != nullptr ? config() : "unknown; threads are its own choice");
  benchmark::AddCustomContext("blas_kernels", core != nullptr ? core() : "unknown");
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

}  // namespace talvo::bench
