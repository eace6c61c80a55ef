// Turns a package from one form into the other and changes the kernels of its back ends.
#include <iostream>
#include <memory>

#include "talvo/entry/open_package.h"
#include "talvo/utility/log.h"
#include "tools/common/package_file.h"
#include "tools/common/program.h"
#include "tools/common/rounding.h"
#include "tools/convert_package/arguments.h"

namespace {

using namespace talvo::runtime;
using convert_package::Arguments;
using Lines = std::vector<std::string>;

// The library's lines: errors come back as exceptions and are told once, by main.
int Silent(char const*) { return 0; }

std::shared_ptr<TLModelCfg>& Config(TLNModel& package, std::string const& model, std::string const& back_end) {
  auto& configs = package.config_arr->configs[model];
  if (configs == nullptr) configs = std::make_shared<TLModelMultiBackendCfgs>();
  for (tools::BackEnd const& known : tools::kBackEnds) {
    if (back_end == known.name) return (*configs).*known.config;
  }
  throw std::runtime_error("there is no back end " + back_end);
}

// With layers of its own: their kernels may be changed.
std::shared_ptr<TLModelCfg> Copy(TLModelCfg const& config) {
  auto copy = std::make_shared<TLModelCfg>(config);
  for (auto& [id, layer] : copy->layers) {
    layer = std::make_shared<LayerCfg>(*layer);
    layer->kernel = std::make_shared<KernelCfg>(*layer->kernel);
  }
  return copy;
}

std::string Missing(std::string const& model, std::string const& back_end) {
  return "model " + model + " has no configuration for " + back_end;
}

void SetBackEnds(Arguments const& arguments, TLNModel& package, Lines& faults) {
  for (auto const& [to, from] : arguments.set_back_ends) {
    for (std::string const& model : package.model_arr->squential_ids) {
      auto const source = Config(package, model, from);
      if (tools::IsEmpty(*source)) faults.push_back(arguments.in + ": " + Missing(model, from));
      Config(package, model, to) = Copy(*source);
    }
  }
}

void SetKernels(Arguments const& arguments, TLNModel& package, Lines& faults) {
  for (auto const& [back_end, kernels] : arguments.kernels) {
    for (auto const& [id, model] : package.model_arr->models) {
      if (!back_end.empty() && tools::IsEmpty(*Config(package, id, back_end)))
        faults.push_back(arguments.in + ": " + Missing(id, back_end));
      for (tools::BackEnd const& known : tools::kBackEnds) {
        if (back_end.empty() || back_end == known.name)
          tools::SetKernels(*model, *Config(package, id, known.name), kernels);
      }
    }
  }
}

void Convert(Arguments const& arguments) {
  bool const binary = tools::IsBinary(arguments.out);
  auto const package = talvo::utility::OpenPackage(arguments.in);
  Lines faults;
  SetBackEnds(arguments, *package, faults);
  SetKernels(arguments, *package, faults);
  tools::Rounding rounding;
  if (binary) rounding = tools::RoundToHalves(*package, arguments.nearest);
  for (tools::RoundedWeight const& weight : rounding.overflowing)
    faults.push_back(arguments.out + ": model " + weight.model + ", " + tools::OverflowText(weight));
  if (!faults.empty()) throw tools::Faults(faults);
  tools::WritePackage(*package, arguments.out);
  if (binary) std::cout << tools::RoundingText(rounding) << "\n";
  tools::Flush(std::cout);
}

}  // namespace

int main(int count, char** words) {
  return tools::RunProgram("convert_package", convert_package::kUsage, [&] {
    talvo::utility::SetLogCallback(Silent);
    Convert(convert_package::ParseArguments(count, words));
  });
}
