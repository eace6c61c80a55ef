// Eight threads at once, with a context each, open, build, run, refuse, log and reset the same packages: all get the
// same bits and the same texts. Its place is the thread sanitizer's build, which ends it at the first data race.
#include <atomic>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "certificate/cases.h"
#include "talvo/entry/model.h"
#include "talvo/utility/log.h"

namespace talvo::certificate {
namespace {

constexpr int kThreads = 8, kRounds = 4;
std::atomic<unsigned int> lines{0};

// What a thread sees in all: outputs of runs with a state and without, and texts that pass through the log's buffer.
std::uint64_t Round() {
  Digest seen;
  for (bool const fused : {false, true}) {
    ModelOptions options;
    options.prefer_fused = fused;
    Model model("fuzz/corpus/run_package/small.json", options);
    Draw draw(1);
    auto const picture = draw.Floats(3 * 8 * 8);
    for (int run = 0; run < 3; ++run) {
      if (run == 2) model.Reset();
      auto const outputs = model.Run({{"picture", picture.data(), {3, 8, 8}}});
      for (ModelPort const& port : model.Outputs()) seen.Add(outputs[port.id]);
    }
    try {
      model.Run({{"picture", picture.data(), {3, 8}}});
    } catch (std::runtime_error const& refusal) {
      seen.Add(refusal.what());
    }
    utility::Log(8, "%s", "a line of every thread");
    seen.Add(utility::StringFormat("%d %s", 17, "layers"));
  }
  return seen.Value();
}

bool Main() {
  utility::SetLogCallback([](char const*) { return static_cast<int>(lines.fetch_add(1)); });
  std::vector<std::uint64_t> seen(kThreads * kRounds);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&seen, thread] {
      for (int round = 0; round < kRounds; ++round) seen[static_cast<std::size_t>(thread * kRounds + round)] = Round();
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (std::uint64_t const value : seen) {
    if (value != seen[0]) {
      std::puts("FAILED: two threads saw different results");
      return false;
    }
  }
  std::printf("%d threads, %d rounds each, %u lines of the log\n", kThreads, kRounds, lines.load());
  return true;
}

}  // namespace
}  // namespace talvo::certificate

int main() { return talvo::certificate::Main() ? 0 : 1; }
