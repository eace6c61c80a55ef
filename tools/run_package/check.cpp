#include "tools/run_package/check.h"

#include <algorithm>
#include <iomanip>
#include <ostream>
#include <stdexcept>

#include "talvo/entry/check_model.h"
#include "talvo/entry/create_context.h"
#include "talvo/entry/open_package.h"
#include "tools/common/json.h"
#include "tools/common/program.h"
#include "tools/run_package/npy.h"
#include "tools/run_package/session.h"

namespace run_package {
namespace {

talvo::InputDims DimsOf(Arguments const& arguments) {
  talvo::InputDims dims = arguments.shapes;
  std::shared_ptr<talvo::runtime::Context> context;
  talvo::utility::create_context(context, 64);
  for (InputFile const& input : arguments.runs[0]) {
    auto const plain = PlainDims({{input.layer, ReadNpy(input.path, input.layout, *context->device_cpu)}});
    if (!plain) throw std::runtime_error(input.path + ": only float32 in the layout of its rank can be tried");
    dims.insert(plain->begin(), plain->end());
  }
  return dims;
}

std::string DimsText(talvo::InputDims const& inputs) {
  std::string text;
  for (auto const& [id, dims] : inputs) text += " " + id + " " + talvo::runtime::DimsText(dims);
  return text;
}

void PrintFindings(std::vector<talvo::ModelFinding> const& findings, talvo::InputDims const& inputs,
                   std::ostream& out) {
  for (talvo::ModelFinding const& finding : findings) out << TextOf(finding) << "\n";
  if (findings.empty()) out << "nothing found\n";
  out << (inputs.empty() ? "not tried: name the extents of every input with --shape" : "tried on" + DimsText(inputs))
      << "\n";
}

std::string FindingsJson(std::vector<talvo::ModelFinding> const& findings, talvo::InputDims const& inputs) {
  tools::Json json;
  json.Objects("findings", findings, [&](talvo::ModelFinding const& finding) {
    json.Put("refused", finding.refused);
    json.Put("layer", finding.layer);
    json.Put("text", finding.text);
  });
  json.Object("tried_on", [&] {
    for (auto const& [id, dims] : inputs) json.Put(id, dims);
  });
  return json.Finish();
}

void Check(Arguments const& arguments, talvo::runtime::TLNModel& package, std::ostream& out) {
  auto const inputs = DimsOf(arguments);
  auto const findings = talvo::CheckModel(package, inputs, OptionsOf(arguments));
  arguments.json ? void(out << FindingsJson(findings, inputs)) : PrintFindings(findings, inputs, out);
  tools::Flush(out);
  if (std::any_of(findings.begin(), findings.end(), [](auto const& finding) { return finding.refused; }))
    throw std::runtime_error(arguments.package + ": has faults");
}

void PrintMemory(talvo::MemoryReport const& report, std::ostream& out) {
  out << "   #  layer                   pool bytes  alive bytes  output            kernel\n";
  for (std::size_t i = 0; i < report.layers.size(); ++i) {
    auto const& layer = report.layers[i];
    out << std::setw(4) << i << "  " << std::left << std::setw(22) << layer.id << std::right << std::setw(12)
        << layer.pool_bytes << std::setw(13) << layer.live_bytes << "  " << std::left << std::setw(16)
        << talvo::runtime::DimsText(layer.dims) << "  " << std::right << layer.kernel << "\n";
  }
  out << "the dynamic pool takes " << report.first_bytes << " bytes in the first run, " << report.steady_bytes
      << " in all\n";
}

std::string MemoryJson(talvo::MemoryReport const& report) {
  tools::Json json;
  json.Objects("layers", report.layers, [&](talvo::LayerMemory const& layer) {
    json.Put("id", layer.id);
    json.Put("kernel", layer.kernel);
    json.Put("dims", layer.dims);
    json.Put("pool_bytes", layer.pool_bytes);
    json.Put("live_bytes", layer.live_bytes);
  });
  json.Put("first_bytes", report.first_bytes);
  json.Put("steady_bytes", report.steady_bytes);
  return json.Finish();
}

void ReportMemory(Arguments const& arguments, talvo::runtime::TLNModel& package, std::ostream& out) {
  if (arguments.runs[0].empty() && arguments.shapes.empty())
    throw std::runtime_error(arguments.package + ": name the extents of every input with --shape");
  auto const report = talvo::MeasureMemory(package, DimsOf(arguments), OptionsOf(arguments));
  arguments.json ? void(out << MemoryJson(report)) : PrintMemory(report, out);
  tools::Flush(out);
}

}  // namespace

void LookAt(Arguments const& arguments, std::ostream& out) {
  auto const package = talvo::utility::OpenPackage(arguments.package);
  arguments.check ? Check(arguments, *package, out) : ReportMemory(arguments, *package, out);
}

}  // namespace run_package
