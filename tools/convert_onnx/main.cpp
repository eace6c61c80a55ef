// Turns an ONNX model into a package, or says which nodes it cannot turn and why.
#include <filesystem>
#include <iostream>

#include "tools/common/package_file.h"
#include "tools/common/program.h"
#include "tools/convert_onnx/arguments.h"
#include "tools/convert_onnx/report.h"
#include "tools/convert_onnx/translators.h"

namespace {

using namespace convert_onnx;
using talvo::runtime::TLNModel;

// The library's lines: errors come back as exceptions and are told once, by main.
int Silent(char const*) { return 0; }

Conversion ConvertFile(Arguments const& arguments) {
  try {
    auto const folder = std::filesystem::path(arguments.model).parent_path().string();
    return Convert(ReadModel(arguments.model), folder, arguments.options);
  } catch (std::exception const& refusal) {
    throw Refusal(arguments.model + ": " + refusal.what());
  }
}

// Of zeros, for what a run takes.
std::map<std::string, Array> Zeros(Conversion const& conversion) {
  std::map<std::string, Array> inputs;
  for (std::size_t i = 0; i < conversion.inputs.size(); ++i) {
    Shape const& shape = conversion.input_shapes[i];
    inputs[conversion.inputs[i]] = {shape, onnx::TensorProto::FLOAT, std::vector<double>(Count(shape), 0.0)};
  }
  return inputs;
}

void CheckPackage(TLNModel const& package, Conversion const& conversion, Arguments const& arguments, Report& report) {
  for (std::string const& folder : arguments.check) {
    std::string const off = Deviation(package, conversion, folder, arguments.bounds);
    if (!off.empty()) throw Refusal(folder + ": " + off + "; nothing is written");
    report.checks.push_back(folder);
  }
  if (!arguments.report.empty()) report.peak_bytes = Run(package, Zeros(conversion)).peak_bytes;
}

// Its records are those of the conversion, and rounded where the package is binary.
std::shared_ptr<TLNModel> PackageFor(Conversion const& conversion, Arguments const& arguments, Report& report) {
  std::string const id = arguments.dry_run ? "model" : std::filesystem::path(arguments.out).stem().string();
  auto const rounded = MakePackage(conversion, id);
  report.rounding = tools::RoundToHalves(*rounded, arguments.nearest);
  if (arguments.dry_run || !tools::IsBinary(arguments.out)) return MakePackage(conversion, id);
  std::vector<std::string> faults;
  for (tools::RoundedWeight const& weight : report.rounding.overflowing)
    faults.push_back(arguments.out + ": " + tools::OverflowText(weight));
  if (!faults.empty()) throw tools::Faults(faults);
  return rounded;
}

void RefuseNodes(Conversion const& conversion, Arguments const& arguments, Report const& report) {
  if (conversion.refusals.empty()) return;
  for (std::string const& refusal : conversion.refusals) std::cout << refusal << "\n";
  if (!arguments.report.empty()) WriteJson(conversion, report, arguments.report);
  std::size_t const count = conversion.refusals.size();
  throw Refusal(arguments.model + ": " +
                (count == 1 ? "refused is " : std::to_string(count) + " nodes are refused, the first is ") +
                conversion.refusals[0]);
}

void Main(Arguments const& arguments) {
  if (arguments.list_operators) {
    for (auto const& [name, unused] : AllTranslators()) std::cout << name << "\n";
    return;
  }
  if (!arguments.dry_run) tools::IsBinary(arguments.out);
  Report report = {arguments.model, arguments.out, {}, {}, 0};
  Conversion const conversion = ConvertFile(arguments);
  RefuseNodes(conversion, arguments, report);
  auto const package = PackageFor(conversion, arguments, report);
  auto const check = [&](TLNModel const& kept) { CheckPackage(kept, conversion, arguments, report); };
  arguments.dry_run ? check(*package) : tools::WritePackage(*package, arguments.out, check);
  Print(conversion, report, std::cout);
  if (!arguments.report.empty()) WriteJson(conversion, report, arguments.report);
}

}  // namespace

int main(int count, char** words) {
  return tools::RunProgram("convert_onnx", kUsage, [&] {
    talvo::utility::SetLogCallback(Silent);
    google::protobuf::SetLogHandler(nullptr);
    Main(ParseArguments(count, words));
    if (!std::cout.flush()) throw std::runtime_error("standard output cannot be written");
  });
}
