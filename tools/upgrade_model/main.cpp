// Turns a model file of the first generation into a package: converts the layers, gives each a kernel, and says what
// became of them.
#include <cstdio>
#include <exception>
#include <filesystem>
#include <iostream>
#include <memory>
#include <stdexcept>

#include "talvo/talvo.h"
#include "tools/common/package_file.h"
#include "tools/common/program.h"
#include "tools/upgrade_model/arguments.h"
#include "tools/upgrade_model/configuration.h"
#include "tools/upgrade_model/fold.h"
#include "tools/upgrade_model/table.h"

namespace {

using namespace talvo::runtime;
using tools::Message;
using upgrade_model::Arguments;

// The library's lines: errors come back as exceptions and are told once, by main.
int Report(char const* line) {
  std::string const text(line);
  if (text.find("] (Warnning): ") != std::string::npos) std::fprintf(stderr, "%s\n", line);
  return 0;
}

[[noreturn]] void Refuse(std::string const& text) { throw std::runtime_error(text); }

void Load(std::string const& path, talvo1::QZNetLoader& loader) {
  if (std::filesystem::is_directory(path)) Refuse(path + ": is a folder");
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> const stream(std::fopen(path.c_str(), "rb"), &std::fclose);
  if (stream == nullptr) Refuse(path + ": cannot be opened");
  bool known = false;
  try {
    known = loader.ReadFile(stream.get());
  } catch (talvo1::LoadFailure const& failure) {
    std::string reason = failure.notice.empty() ? std::string(failure.what()) + " does not hold" : failure.notice;
    reason.erase(0, reason.find_first_not_of('\n'));
    reason.erase(reason.find_last_not_of('\n') + 1);
    Refuse(path + ": no first-generation model, or a damaged one: " + reason);
  } catch (std::exception const& refusal) {
    Refuse(path + ": " + Message(refusal, "cannot be read"));
  }
  if (!known) Refuse(path + ": version " + std::to_string(loader.exinfo.getVersion()) + " is older than 10000");
}

std::shared_ptr<TLModelInfo> Convert(std::string const& path, talvo1::QZNetLoader const& loader) {
  auto model = std::make_shared<TLModelInfo>();
  try {
    ConvertTLModel1(loader, *model);
  } catch (RefusedLayer const& refusal) {
    Refuse(path + ": layer-" + std::to_string(refusal.id) + " (" + talvo1::QZLayerTypeName(refusal.type) +
           "): " + Message(refusal, "input and output channels differ"));
  } catch (std::exception const& refusal) {
    Refuse(path + ": " + Message(refusal));
  }
  return model;
}

void Write(Arguments const& arguments, std::shared_ptr<TLModelInfo> const& model,
           std::shared_ptr<TLModelCfg> const& config) {
  TLNModel package;
  package.sdk_type = arguments.sdk_type;
  package.core_major_ver = 1;
  package.core_minor_ver = 0;
  package.sdk_major_ver = arguments.sdk_major;
  package.sdk_minor_ver = arguments.sdk_minor;
  package.model_arr->squential_ids = package.config_arr->squential_ids = {arguments.model_id};
  package.model_arr->models[arguments.model_id] = model;
  auto const configs = std::make_shared<TLModelMultiBackendCfgs>();
  configs->cpu_sse = configs->cpu_armv8 = config;
  package.config_arr->configs[arguments.model_id] = configs;
  tools::WritePackage(package, arguments.out);
}

void Upgrade(Arguments const& arguments) {
  talvo1::QZNetLoader loader;
  Load(arguments.in, loader);
  std::shared_ptr<TLModelInfo> const model = Convert(arguments.in, loader);
  std::shared_ptr<TLModelCfg> config;
  if (!arguments.config.empty()) config = upgrade_model::ReadConfiguration(arguments.config);
  std::map<std::string, std::string> folded;
  try {
    folded = upgrade_model::FoldBatchNormalisations(*model, config.get());
    if (config == nullptr) config = upgrade_model::DefaultConfiguration(*model);
  } catch (std::exception const& refusal) {
    Refuse(arguments.in + ": " + refusal.what());
  }
  upgrade_model::RequireKernels(*model, *config, arguments.config);
  Write(arguments, model, config);
  upgrade_model::PrintTable(loader, *model, *config, folded, std::cout);
  if (!std::cout.flush()) Refuse("standard output cannot be written");
}

}  // namespace

int main(int count, char** words) {
  return tools::RunProgram("upgrade_model", upgrade_model::kUsage, [&] {
    talvo::utility::SetLogCallback(Report);
    Upgrade(upgrade_model::ParseArguments(count, words));
  });
}
