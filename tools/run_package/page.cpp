#include "tools/run_package/page.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <iterator>
#include <numeric>
#include <stdexcept>

#include "tools/run_package/describe.h"
#include "tools/run_package/fields.h"

namespace run_package {

extern char const kPage[];  // page.html, as the build embeds it

namespace {

using talvo::runtime::LayerInfo;
using talvo::runtime::TLModelInfo;

constexpr std::size_t kBins = 32;

// Counts over equal ranges between the smallest and the largest finite value.
void PutHistogram(std::vector<double> const& all, tools::Json& json) {
  std::vector<double> values;
  std::copy_if(all.begin(), all.end(), std::back_inserter(values), [](double value) { return std::isfinite(value); });
  json.Put("count", all.size());
  json.Put("not_numbers", all.size() - values.size());
  double minimum = 0, maximum = 0, sum = 0;
  if (!values.empty()) {
    minimum = *std::min_element(values.begin(), values.end());
    maximum = *std::max_element(values.begin(), values.end());
  }
  std::vector<std::size_t> counts(kBins);
  for (double const value : values) {
    double const place = maximum > minimum ? (value - minimum) / (maximum - minimum) * kBins : 0;
    ++counts[std::min(static_cast<std::size_t>(place), kBins - 1)];
    sum += value;
  }
  json.Put("minimum", minimum);
  json.Put("maximum", maximum);
  json.Put("mean", values.empty() ? 0 : sum / static_cast<double>(values.size()));
  json.Put("counts", counts);
}

void PutRecord(LayerInfo& record, tools::Json& json) {
  json.Put("record", record.GetClassTypeName());
  json.Put("reads", record.input_ids);
  json.Object("fields", [&] { PutFields(FieldsOf(record), json); });
  auto const arrays = WeightsOf(record);
  std::size_t bytes = 0;
  json.Objects("weights", arrays, [&](Weights const& weights) {
    json.Put("key", weights.key);
    PutHistogram({weights.values.begin(), weights.values.end()}, json);
    bytes += weights.values.size() * sizeof(float);
  });
  json.Put("weight_bytes", bytes);
}

void PutLayerRun(LayerSummary const& layer, RunResult const& result, tools::Json& json) {
  json.Put("kernel", layer.kernel);
  json.Put("dims", layer.dims);
  json.Put("median_ms", layer.time.median_ms);
  json.Put("percentile_95_ms", layer.time.percentile95_ms);
  if (result.tensors.TensorCount(layer.id) == 0) return;
  json.Object("output", [&] { PutHistogram(Elements(result.tensors[layer.id]), json); });
}

void PutUnrun(tools::Json& json) {
  json.Put("kernel", "");
  json.Put("dims", std::vector<unsigned int>());
  json.PutRaw("median_ms", "null");
  json.PutRaw("percentile_95_ms", "null");
}

}  // namespace

std::string PageData(Session const& session, RunResult const& result, RunSummary const& run,
                     ProcessSummary const& process, std::optional<talvo::MemoryReport> const& memory,
                     std::vector<std::string> const& warnings) {
  TLModelInfo const& model = session.Record();
  std::vector<std::size_t> places(model.squential_ids.size());
  std::iota(places.begin(), places.end(), std::size_t{0});
  auto const& wanted = session.OutputIds();
  tools::Json json;
  PutProcess(process, json);
  json.Put("summary", model.extra_info.summary);
  json.Put("date", DateOf(model.extra_info));
  PutTime("time_ms", run.time, json);
  if (memory) json.Put("pool_bytes", memory->first_bytes);
  json.Put("warnings", warnings);
  json.Objects("layers", places, [&](std::size_t place) {
    std::string const& id = model.squential_ids[place];
    bool const ran = place < run.layers.size();
    json.Put("id", id);
    json.Put("ran", ran);
    json.Put("is_output", std::find(wanted.begin(), wanted.end(), id) != wanted.end());
    PutRecord(*model.layers.at(id), json);
    ran ? PutLayerRun(run.layers[place], result, json) : PutUnrun(json);
    bool const measured = memory && place < memory->layers.size();
    measured ? json.Put("live_bytes", memory->layers[place].live_bytes) : json.PutRaw("live_bytes", "null");
    measured ? json.Put("pool_bytes", memory->layers[place].pool_bytes) : json.PutRaw("pool_bytes", "null");
  });
  return json.Finish();
}

void WritePage(std::string const& path, std::string const& data) {
  std::string page = kPage;
  std::string text;  // inside markup, where no text may end the element
  for (char const character : data) character == '<' ? text.append("\\u003c") : text.append(1, character);
  constexpr char kPlace[] = ">DATA<";
  page.replace(page.find(kPlace) + 1, sizeof kPlace - 3, text);
  std::ofstream stream(path, std::ios::binary);
  if (!(stream << page).flush()) throw std::runtime_error(path + ": cannot be written");
}

}  // namespace run_package
