// Packages of drawn layers through both forms, and the samples of all versions that the tests and fuzz targets keep.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "certificate/layers.h"
#include "talvo/serialization/layer_info_conv.h"
#include "talvo/serialization/layer_info_tensor.h"
#include "talvo/serialization/model_cfg.h"
#include "talvo/serialization/model_info.h"
#include "talvo/serialization/tlmodel1_conversion.h"
#include "talvo/utility/file.h"

namespace talvo::certificate {
namespace {

using namespace runtime;

class ScratchFile {
 public:
  ScratchFile() : path_((std::filesystem::temp_directory_path() / "bits-XXXXXX").string()) {
    int const file = mkstemp(path_.data());
    Need(file != -1, path_ + " cannot be made");
    close(file);
  }
  ScratchFile(ScratchFile const&) = delete;
  ScratchFile& operator=(ScratchFile const&) = delete;
  ~ScratchFile() { std::remove(path_.c_str()); }

  std::string Written(Serializable& record, char const* form) const {
    std::string bytes;
    Need(record.ToFile(path_.c_str(), form) && utility::LoadFile(path_, bytes), "cannot be written");
    return bytes;
  }
  void Read(Serializable& record, char const* form) const {
    Need(record.FromFile(path_.c_str(), form), "cannot be read");
  }

 private:
  std::string path_;
};

// Model files hold no product of matrices, and the number of a fresh TensorUnSqueezeInfo is that of another class.
bool IsForModels(LayerInfo const* record) {
  return record != nullptr && dynamic_cast<GemmInfo const*>(record) == nullptr &&
         dynamic_cast<TensorUnSqueezeInfo const*>(record) == nullptr;
}

// A package of two layers that a kernel runs.
std::shared_ptr<TLNModel> Package(std::string const& kernel, Draw& d) {
  auto package = std::make_shared<TLNModel>();
  package->sdk_type = "bits";
  auto const model = std::make_shared<TLModelInfo>();
  auto const configs = std::make_shared<TLModelMultiBackendCfgs>();
  configs->cpu_sse = std::make_shared<TLModelCfg>();
  while (model->squential_ids.size() < 2) {
    auto const record = MakerFor(kernel)(d).record;
    if (!IsForModels(record.get())) continue;
    record->id = "layer" + std::to_string(model->squential_ids.size());
    if (!model->squential_ids.empty()) record->input_ids = {model->squential_ids.back()};
    model->squential_ids.push_back(record->id);
    model->squential_types.push_back(record->type);
    model->layers[record->id] = record;
    auto& layer = configs->cpu_sse->layers[record->id] = std::make_shared<LayerCfg>();
    layer->kernel->kernel_type = kernel;
    configs->cpu_sse->squential_ids.push_back(record->id);
  }
  package->model_arr->squential_ids = package->config_arr->squential_ids = {"model"};
  package->model_arr->models["model"] = model;
  package->config_arr->configs["model"] = configs;
  return package;
}

void RunPackage(std::string const& kernel, Draw& d, Digest& out) {
  ScratchFile const file;
  auto const package = Package(kernel, d);
  for (char const* const form : {"json", "bin"}) {
    std::string const first = file.Written(*package, form);
    out.Add(first);
    TLNModel read;
    file.Read(read, form);
    Need(file.Written(read, form) == first, "what was read is written otherwise");
    out.Add(file.Written(read, "json"));
  }
}

void RunSample(std::string const& path, Digest& out) {
  ScratchFile const file;
  if (path.find("tlmodel1") == std::string::npos) {
    TLNModel package;
    Need(package.FromFile(path.c_str(), path.find(".json") != std::string::npos ? "json" : "bin"), "cannot be read");
    for (char const* const form : {"json", "bin"}) out.Add(file.Written(package, form));
    return;
  }
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> const stream(std::fopen(path.c_str(), "rb"), &std::fclose);
  Need(stream != nullptr, path + " does not open");
  talvo1::QZNetLoader loader;
  Need(loader.ReadFile(stream.get()), "cannot be read");
  TLModelInfo model;
  ConvertTLModel1(loader, model);
  out.Add(file.Written(model, "json"));
}

}  // namespace

std::vector<Operation> Files() {
  std::vector<Operation> operations;
  for (std::string const& kernel : KernelNames()) {
    Draw probe(5);
    if (IsOnMatrixProduct(kernel) || !IsForModels(MakerFor(kernel)(probe).record.get())) continue;
    operations.push_back({"file/" + kernel, 2, [kernel](Draw& d, Digest& out) { RunPackage(kernel, d, out); }});
  }
  for (char const* const name : {"package.json", "package_20003.tlnmodel", "package_20004.tlnmodel",
                                 "package_20006.tlnmodel", "package_20007.tlnmodel", "package_20011.tlnmodel",
                                 "package_20015.tlnmodel", "../../../fuzz/corpus/read_tlmodel1/converts"}) {
    std::string const path = std::string("tests/serialization/golden/") + name;
    operations.push_back({"file/" + path, 1, [path](Draw&, Digest& out) { RunSample(path, out); }});
  }
  return operations;
}

}  // namespace talvo::certificate
