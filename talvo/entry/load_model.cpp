#include "talvo/entry/load_model.h"

#include <utility>

#include "talvo/entry/model_support.h"
#include "talvo/runtime/create_net.h"
#include "talvo/serialization/record_support.h"
#include "talvo/utility/log.h"
#include "talvo/utility/refuse_support.h"

namespace {

constexpr unsigned int kCoreMajor = 1;
constexpr unsigned int kCoreMinor = 0;

}  // namespace

double const tln_core_iosVersionNumber = 1.0;
char const tln_core_iosVersionString[] = "tln_core";

int TLN_Get_Core_Version(unsigned int& major, unsigned int& minor) {
  major = kCoreMajor;
  minor = kCoreMinor;
  return 0;
}

namespace talvo::utility {
namespace {

using runtime::TLModelMultiBackendCfgs;

bool EndsIn(std::string const& path, std::string const& ending) {
  return path.substr(path.size() - ending.size()) == ending;  // throws std::out_of_range for a shorter path
}

char const* FormOf(std::string const& path) {
  if (EndsIn(path, ".json")) return "json";
  if (EndsIn(path, ".tlnmodel")) return "bin";
  Refuse("Unknow file type, file path: %s.", path.c_str());
}

// Layer indices by id; an id that no layer has enters as layer 0.
std::map<std::string, unsigned int> IndexLayers(std::vector<std::string> const& ids) {
  std::map<std::string, unsigned int> index_of;
  for (std::size_t i = 0; i < ids.size(); ++i) index_of.emplace(ids[i], static_cast<unsigned int>(i));
  return index_of;
}

}  // namespace

int check_version(std::string sdk_type, unsigned short sdk_major, unsigned short sdk_minor, _TLNModelVerInfo model) {
  if (sdk_type != model.sdk_type) {
    Log(16, "Model type is %s, can not match sdk type", model.sdk_type.c_str());
    return -2;
  }
  // This runtime is 1.0 and serves what asks for 1.0 or 0.0.
  if (model.core_major_ver >= 2 || model.core_minor_ver != 0) {
    Log(16, "tln_core version required by model is larger than actually used!");
    return -2;
  }
  if (model.sdk_major_ver != sdk_major || model.sdk_minor_ver != sdk_minor) {
    Log(16, "sdk version required by model: %d.%d", model.sdk_major_ver, model.sdk_minor_ver);
    Log(16, "sdk version used now: %d.%d", sdk_major, sdk_minor);
    return -2;
  }
  return 0;
}

int load_model(std::string path, std::map<std::string, std::shared_ptr<_NetworkPackage>>& packages,
               std::shared_ptr<runtime::Context>& context,
               runtime::ClassRegistry<std::shared_ptr<runtime::IKernel>>& kernels,
               runtime::ClassRegistry<std::shared_ptr<runtime::InferenceParam>>& params, std::string sdk_type,
               unsigned short sdk_major, unsigned short sdk_minor) {
  auto const file = std::make_shared<runtime::TLNModel>();
  if (!runtime::support::SkimFile(file.get(), path.c_str(), FormOf(path))) return -2;
  int const refusal = check_version(
      std::move(sdk_type), sdk_major, sdk_minor,
      {file->sdk_type, file->core_major_ver, file->core_minor_ver, file->sdk_major_ver, file->sdk_minor_ver});
  if (refusal != 0) return refusal;
  // Networks are only entered; Load_Single_Net builds the one that is wanted.
  for (std::string const& id : file->model_arr->squential_ids) {
    auto package = std::make_shared<_NetworkPackage>();
    package->kernels = &kernels;
    package->params = &params;
    package->context = context;
    packages.emplace(id, std::move(package));
  }
  return 0;
}

void Load_Single_Net(std::shared_ptr<_NetworkPackage>& package, std::shared_ptr<runtime::TLModelInfo> const& model,
                     std::shared_ptr<TLModelMultiBackendCfgs> const& configs, char const* sdk_type) {
  if (package == nullptr || package->kernels == nullptr)
    Refuse("Load_Single_Net: %s",
           package == nullptr ? "the package is empty" : "the package has no registry of kernels");
  if (model == nullptr || configs == nullptr || sdk_type == nullptr)
    Refuse("Load_Single_Net: the %s is empty", model == nullptr     ? "model"
                                               : configs == nullptr ? "configuration"
                                                                    : "back end's name");
  // Not the table of CreateNet: of an id that stands twice this one knows the first layer, that one the last.
  auto index_of = IndexLayers(model->squential_ids);
  for (std::string const& id : model->GetInputIDs()) package->inputs.emplace(index_of[id], nullptr);
  package->output_ids.clear();
  for (std::string const& id : model->squential_output_ids) package->output_ids.push_back(index_of[id]);
  auto const config = support::ConfigOf(*configs, sdk_type);
  if (config == nullptr) Refuse("Load_Single_Net: the package has no configuration for the back end \"%s\"", sdk_type);
  package->net = runtime::CreateNet(model, config, *package->kernels, package->context);
  package->extra_info = model->extra_info;
}

}  // namespace talvo::utility
