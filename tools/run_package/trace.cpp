#include "tools/run_package/trace.h"

#include <cstdint>
#include <fstream>
#include <stdexcept>

#include "tools/common/json.h"

namespace run_package {
namespace {

struct Event {
  std::string name, kernel;  // a kernel for a layer
  bool is_counter;
  double start_us, duration_us;
  unsigned long bytes;
};

// Layers follow each other from the start of their repeat; what the walk itself takes stands behind the last.
void AddRepeat(RunResult const& run, std::size_t repeat, double origin_ms,
               std::optional<talvo::MemoryReport> const& memory, std::vector<Event>& events) {
  double at = (run.starts_ms[repeat] - origin_ms) * 1000;
  events.push_back({"run", "", false, at, run.times_ms[repeat] * 1000, 0});
  auto const& layers = run.layer_times[repeat];
  for (std::size_t i = 0; i < layers.size(); ++i) {
    double const duration = static_cast<double>(layers[i].milliseconds) * 1000;
    if (memory && i < memory->layers.size())
      events.push_back({"tensors", "", true, at, 0, memory->layers[i].live_bytes});
    events.push_back({layers[i].id, layers[i].kernel, false, at, duration, 0});
    at += duration;
  }
  if (memory) events.push_back({"tensors", "", true, at, 0, 0});
}

void PutEvent(Event const& event, tools::Json& json) {
  json.Put("name", event.name);
  json.Put("ph", event.is_counter ? "C" : "X");
  json.Put("ts", event.start_us);
  if (!event.is_counter) json.Put("dur", event.duration_us);
  json.Put("pid", 1);
  json.Put("tid", 1);
  json.Object("args", [&] {
    if (event.is_counter) json.Put("bytes", event.bytes);
    if (!event.kernel.empty()) json.Put("kernel", event.kernel);
  });
}

}  // namespace

void WriteTrace(std::string const& path, std::vector<RunResult> const& runs,
                std::optional<talvo::MemoryReport> const& memory) {
  std::vector<Event> events;
  for (RunResult const& run : runs) {
    for (std::size_t repeat = 0; repeat < run.layer_times.size(); ++repeat) {
      AddRepeat(run, repeat, runs[0].starts_ms[0], memory, events);
    }
  }
  tools::Json json;
  json.Put("displayTimeUnit", "ms");
  json.Objects("traceEvents", events, [&](Event const& event) { PutEvent(event, json); });
  std::ofstream stream(path, std::ios::binary);
  if (!(stream << json.Finish()).flush()) throw std::runtime_error(path + ": cannot be written");
}

}  // namespace run_package
