// Eight threads at once, with a context each, open, build, run, refuse, log and reset the same packages: all get the
// same bits and the same texts. Its place is the thread sanitizer's build, which ends it at the first data race.
#include <array>
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

constexpr int kThreads = 8, kRounds = 8, kTexts = 500;
std::atomic<unsigned int> lines{0};

// Lets the threads go on once all have come. The sanitizer takes threads for ordered once an atomic that one wrote is
// read by the other, and says nothing of a race whose first access its short history no longer holds: what may share
// something is called side by side right after a meeting, and each meeting has an atomic of its own.
void Meet() {
  static std::array<std::atomic<unsigned int>, 3 * kRounds> arrived{};
  thread_local std::size_t meeting = 0;
  std::atomic<unsigned int>& here = arrived[meeting++];
  here.fetch_add(1);
  while (here.load() < kThreads) std::this_thread::yield();
}

// Texts pass through the log's buffer.
void WriteTexts(Digest* seen) {
  for (int text = 0; text < kTexts; ++text) {
    utility::Log(8, "%s", "a line of every thread");
    seen->Add(utility::StringFormat("%d %s", 17, "layers"));
  }
}

void RunModel(bool fused, Digest* seen) {
  ModelOptions options;
  options.prefer_fused = fused;
  Model model("fuzz/corpus/run_package/small.json", options);
  Draw draw(1);
  auto const picture = draw.Floats(3 * 8 * 8);
  for (int run = 0; run < 3; ++run) {
    if (run == 2) model.Reset();
    auto const outputs = model.Run({{"picture", picture.data(), {3, 8, 8}}});
    for (ModelPort const& port : model.Outputs()) seen->Add(outputs[port.id]);
  }
  try {
    model.Run({{"picture", picture.data(), {3, 8}}});
  } catch (std::runtime_error const& refusal) {
    seen->Add(refusal.what());
  }
}

// What a thread sees in all.
std::uint64_t Round() {
  Digest seen;
  Meet();
  WriteTexts(&seen);
  for (bool const fused : {false, true}) {
    Meet();
    RunModel(fused, &seen);
  }
  return seen.Value();
}

bool Main() {
  utility::SetLogCallback([](char const*) { return static_cast<int>(lines.fetch_add(1, std::memory_order_relaxed)); });
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
