// Turns an ONNX model into a package, or says which nodes it cannot turn and why.
#include <filesystem>
#include <iostream>

#include "tools/common/program.h"
#include "tools/convert_onnx/arguments.h"
#include "tools/convert_onnx/report.h"
#include "tools/convert_onnx/translators.h"

namespace {

using namespace convert_onnx;
using talvo::runtime::TLNModel;

// The library's lines: errors come back as exceptions and are told once, by main.
int Silent(char const*) { return 0; }

bool IsBinary(std::string const& path) {
  std::string const extension = std::filesystem::path(path).extension().string();
  if (extension != ".tlnmodel" && extension != ".json") throw Refusal(path + ": a package ends in .tlnmodel or .json");
  return extension == ".tlnmodel";
}

Conversion ConvertFile(Arguments const& arguments) {
  try {
    auto const folder = std::filesystem::path(arguments.model).parent_path().string();
    return Convert(ReadModel(arguments.model), folder, arguments.options);
  } catch (std::exception const& refusal) {
    throw Refusal(arguments.model + ": " + refusal.what());
  }
}

void RefuseOverflow(Conversion const& conversion, std::string const& out) {
  std::string layers;
  for (std::string const& layer : MeasureRounding(conversion).overflowing)
    layers += (layers.empty() ? "" : ", ") + layer;
  if (!layers.empty())
    throw Refusal(out + ": weights beyond 65504, which this form cannot hold, in " + layers +
                  "; write a .json package");
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

// Written beside its place and read back, so that what is checked is what is kept.
void Write(Conversion const& conversion, Arguments const& arguments, Report& report) {
  std::filesystem::path const out(arguments.out);
  std::filesystem::path part = out;
  part.replace_filename("." + out.stem().string() + ".part" + out.extension().string());
  try {
    bool const binary = IsBinary(arguments.out);
    char const* const form = binary ? "bin" : "json";
    Conversion written = conversion;
    if (binary && arguments.nearest) RoundToHalves(written);
    if (binary) RefuseOverflow(written, arguments.out);
    MakePackage(written, out.stem().string())->ToFile(part.c_str(), form);
    if (!std::filesystem::exists(part)) throw Refusal(arguments.out + ": cannot be written");
    TLNModel read;
    read.FromFile(part.c_str(), form);
    CheckPackage(read, conversion, arguments, report);
    std::filesystem::rename(part, out);
  } catch (std::exception const& refusal) {
    std::error_code ignored;
    std::filesystem::remove(part, ignored);
    throw Refusal(tools::Message(refusal, arguments.out + ": cannot be written"));
  }
}

void RefuseNodes(Conversion const& conversion, Arguments const& arguments, Report const& report) {
  if (conversion.refusals.empty()) return;
  for (std::string const& refusal : conversion.refusals) std::cout << refusal << "\n";
  if (!arguments.report.empty()) WriteJson(conversion, report, arguments.report);
  throw Refusal(arguments.model + ": " + std::to_string(conversion.refusals.size()) +
                " nodes are refused, the first is " + conversion.refusals[0]);
}

void Main(Arguments const& arguments) {
  if (arguments.list_operators) {
    for (auto const& [name, unused] : AllTranslators()) std::cout << name << "\n";
    return;
  }
  if (!arguments.dry_run) IsBinary(arguments.out);
  Report report = {arguments.model, arguments.out, {}, 0};
  Conversion const conversion = ConvertFile(arguments);
  RefuseNodes(conversion, arguments, report);
  if (arguments.dry_run) {
    CheckPackage(*MakePackage(conversion, "model"), conversion, arguments, report);
  } else {
    Write(conversion, arguments, report);
  }
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
