#include "tools/run_package/check.h"

#include <iomanip>
#include <ostream>
#include <stdexcept>

#include "talvo/entry/create_context.h"
#include "talvo/entry/open_package.h"
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
    dims[input.layer] = ReadNpy(input.path, input.layout, *context->device_cpu)->shape.dims;
  }
  return dims;
}

}  // namespace

bool PrintFindings(std::vector<talvo::ModelFinding> const& findings, std::ostream& out) {
  bool good = true;
  for (talvo::ModelFinding const& finding : findings) {
    good &= !finding.refused;
    out << TextOf(finding) << "\n";
  }
  return good;
}

std::vector<talvo::ModelFinding> Check(Arguments const& arguments) {
  return talvo::CheckModel(*talvo::utility::OpenPackage(arguments.package), DimsOf(arguments), OptionsOf(arguments));
}

void ReportMemory(Arguments const& arguments, std::ostream& out) {
  auto const package = talvo::utility::OpenPackage(arguments.package);
  auto const report = talvo::MeasureMemory(*package, DimsOf(arguments), OptionsOf(arguments));
  out << "   #  layer                   pool bytes  output            kernel\n";
  for (std::size_t i = 0; i < report.layers.size(); ++i) {
    auto const& layer = report.layers[i];
    out << std::setw(4) << i << "  " << std::left << std::setw(22) << layer.id << std::right << std::setw(12)
        << layer.pool_bytes << "  " << std::left << std::setw(16) << talvo::runtime::DimsText(layer.dims) << "  "
        << std::right << layer.kernel << "\n";
  }
  out << "the dynamic pool takes " << report.first_bytes << " bytes in the first run, " << report.steady_bytes
      << " in all\n";
}

}  // namespace run_package
