// Turns an ONNX model into a package, or says which nodes it cannot turn and why.
#include <filesystem>
#include <iostream>
#include <set>

#include "tools/common/program.h"
#include "tools/convert_onnx/arguments.h"
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

void Report(Conversion const& conversion) {
  std::set<std::string> kernels;
  for (Layer const& layer : conversion.layers) {
    std::cout << (layer.node.empty() ? "input" : layer.node) << " -> " << layer.name << "  " << layer.kernel << "\n";
    kernels.insert(layer.kernel);
  }
  Rounding const rounding = MeasureRounding(conversion);
  std::cout << conversion.layers.size() << " layers, " << kernels.size() << " kernels, " << conversion.folded
            << " nodes folded, " << conversion.dropped << " nodes that nobody reads, " << rounding.weight_bytes
            << " bytes of weights\n"
            << "largest rounding of the binary form: " << rounding.largest
            << (rounding.layer.empty() ? "" : " in " + rounding.layer) << "\n";
}

void RefuseOverflow(Conversion const& conversion, std::string const& out) {
  std::string const layers = MeasureRounding(conversion).overflowing;
  if (!layers.empty())
    throw Refusal(out + ": weights beyond 65504, which this form cannot hold, in " + layers +
                  "; write a .json package");
}

void CheckPackage(TLNModel const& package, Arguments const& arguments, Conversion const& conversion) {
  for (std::string const& folder : arguments.check) {
    auto const inputs = ReadArrays(folder, "input"), outputs = ReadArrays(folder, "output");
    if (outputs.empty()) throw Refusal(folder + ": holds no output_0.npy or output_0.pb");
    std::map<std::string, Array> named;
    for (std::size_t i = 0; i < inputs.size() && i < conversion.inputs.size(); ++i)
      named[conversion.inputs[i]] = inputs[i];
    auto const got = Run(package, named);
    if (outputs.size() < got.size()) {
      throw Refusal(folder + ": holds " + std::to_string(outputs.size()) + " outputs, the package makes " +
                    std::to_string(got.size()));
    }
    for (std::size_t i = 0; i < got.size(); ++i) {
      std::string const off = Difference(got[i], outputs[i], arguments.bounds);
      if (!off.empty())
        throw Refusal(folder + ": output " + conversion.outputs[i] + ": " + off + "; nothing is written");
    }
    std::cout << folder << ": " << got.size() << " outputs within the bounds\n";
  }
}

// Written beside its place and read back, so that what is checked is what is kept.
void Write(Conversion const& conversion, Arguments const& arguments) {
  std::filesystem::path const out(arguments.out);
  auto const package = MakePackage(conversion, out.stem().string());
  std::filesystem::path part = out;
  part.replace_filename("." + out.stem().string() + ".part" + out.extension().string());
  try {
    char const* const form = IsBinary(arguments.out) ? "bin" : "json";
    package->ToFile(part.c_str(), form);
    if (!std::filesystem::exists(part)) throw Refusal(arguments.out + ": cannot be written");
    TLNModel read;
    read.FromFile(part.c_str(), form);
    CheckPackage(read, arguments, conversion);
    std::filesystem::rename(part, out);
  } catch (std::exception const& refusal) {
    std::error_code ignored;
    std::filesystem::remove(part, ignored);
    throw Refusal(tools::Message(refusal, arguments.out + ": cannot be written"));
  }
}

void Main(Arguments const& arguments) {
  if (arguments.list_operators) {
    for (auto const& [name, unused] : AllTranslators()) std::cout << name << "\n";
    return;
  }
  bool const binary = !arguments.dry_run && IsBinary(arguments.out);
  Conversion conversion = ConvertFile(arguments);
  if (!conversion.refusals.empty()) {
    for (std::string const& refusal : conversion.refusals) std::cout << refusal << "\n";
    throw Refusal(arguments.model + ": " + std::to_string(conversion.refusals.size()) +
                  " nodes are refused, the first is " + conversion.refusals[0]);
  }
  if (binary && arguments.nearest) RoundToHalves(conversion);
  if (binary) RefuseOverflow(conversion, arguments.out);
  if (!arguments.dry_run) Write(conversion, arguments);
  Report(conversion);
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
