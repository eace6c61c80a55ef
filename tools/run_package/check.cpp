#include "tools/run_package/check.h"

#include <iomanip>
#include <ostream>
#include <stdexcept>

#include "talvo/entry/check_model.h"
#include "talvo/entry/create_context.h"
#include "talvo/entry/open_package.h"
#include "talvo/utility/log.h"
#include "tools/common/program.h"
#include "tools/run_package/npy.h"

namespace run_package {
namespace {

talvo::ModelOptions OptionsOf(Arguments const& arguments) {
  talvo::ModelOptions options;
  options.model = arguments.model;
  options.backend = arguments.backend;
  options.prefer_fused = arguments.prefer_fused;
  return options;
}

talvo::InputDims DimsOf(Arguments const& arguments) {
  talvo::InputDims dims = arguments.shapes;
  std::shared_ptr<talvo::runtime::Context> context;
  talvo::utility::create_context(context, 64);
  for (InputFile const& input : arguments.runs[0]) {
    auto const tensor = ReadNpy(input.path, input.layout, *context->device_cpu);
    if (tensor->shape.data_type != talvo::runtime::TensorShape::FLOAT32 || !input.layout.empty())
      throw std::runtime_error(input.path + ": only float32 in the layout of its rank can be tried");
    dims[input.layer] = tensor->shape.dims;
  }
  return dims;
}

std::string DimsText(talvo::InputDims const& inputs) {
  std::string text;
  for (auto const& [id, dims] : inputs) text += " " + id + " " + talvo::runtime::DimsText(dims);
  return text;
}

void Check(Arguments const& arguments, talvo::runtime::TLNModel& package, std::ostream& out) {
  auto const inputs = DimsOf(arguments);
  auto const findings = talvo::CheckModel(package, inputs, OptionsOf(arguments));
  bool good = true;
  for (talvo::ModelFinding const& finding : findings) {
    good &= !finding.refused;
    out << TextOf(finding) << "\n";
  }
  if (findings.empty()) out << "nothing found\n";
  out << (inputs.empty() ? "not tried: name the extents of every input with --shape" : "tried on" + DimsText(inputs))
      << "\n";
  tools::Flush(out);
  if (!good) throw std::runtime_error(arguments.package + ": has faults");
}

void ReportMemory(Arguments const& arguments, talvo::runtime::TLNModel& package, std::ostream& out) {
  if (arguments.runs[0].empty() && arguments.shapes.empty())
    throw std::runtime_error(arguments.package + ": name the extents of every input with --shape");
  auto const report = talvo::MeasureMemory(package, DimsOf(arguments), OptionsOf(arguments));
  out << "   #  layer                   pool bytes  output            kernel\n";
  for (std::size_t i = 0; i < report.layers.size(); ++i) {
    auto const& layer = report.layers[i];
    out << std::setw(4) << i << "  " << std::left << std::setw(22) << layer.id << std::right << std::setw(12)
        << layer.pool_bytes << "  " << std::left << std::setw(16) << talvo::runtime::DimsText(layer.dims) << "  "
        << std::right << layer.kernel << "\n";
  }
  out << "the dynamic pool takes " << report.first_bytes << " bytes in the first run, " << report.steady_bytes
      << " in all\n";
  tools::Flush(out);
}

}  // namespace

void LookAt(Arguments const& arguments, std::ostream& out) {
  talvo::utility::SetLogCallback([](char const*) { return 0; });  // findings and errors say it
  auto const package = talvo::utility::OpenPackage(arguments.package);
  arguments.check ? Check(arguments, *package, out) : ReportMemory(arguments, *package, out);
}

}  // namespace run_package
