#include "fuzz/limited_run.h"

#include <cstdlib>
#include <memory>
#include <unordered_map>
#include <vector>

#include "talvo/entry/load_model.h"
#include "talvo/entry/register_extra_operators.h"
#include "talvo/entry/register_fused_operators.h"
#include "talvo/entry/register_operators.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/tensor_cpu.h"

namespace talvo::fuzz {
namespace {

using namespace runtime;

constexpr unsigned long kLimitBytes = 1ul << 20;  // keeps a run short too: work is a product of sizes
constexpr std::size_t kMostLayers = 64;

// Gives null beyond the limit, and caches nothing.
class LimitedPool : public MemoryPool {
 public:
  void Clear() override {}
  void* Malloc(unsigned long size) override {
    if (size > kLimitBytes - used_bytes_) return nullptr;
    void* const block = std::malloc(size != 0 ? size : 1);
    used_bytes_ += size;
    sizes_[block] = size;
    return block;
  }
  void Free(void* block) override {
    auto const found = sizes_.find(block);
    if (found == sizes_.end()) std::abort();
    used_bytes_ -= found->second;
    sizes_.erase(found);
    std::free(block);
  }
  unsigned long HeapSize() const override { return used_bytes_; }

 private:
  unsigned long used_bytes_ = 0;
  std::unordered_map<void*, unsigned long> sizes_;
};

std::shared_ptr<Tensor> Picture(DeviceCPU& device) {
  std::vector<float> values(3 * 8 * 8);
  for (std::size_t i = 0; i < values.size(); ++i) values[i] = static_cast<float>(i % 17) / 8.0f - 1.0f;
  return device.CreateF32CHWMainMem({3, 8, 8}, values.data());
}

}  // namespace

bool BuildAndRun(TLNModel const& file) {
  ClassRegistry<std::shared_ptr<IKernel>> kernels;
  ClassRegistry<std::shared_ptr<InferenceParam>> params;
  utility::init_register_operators(kernels, params);
  utility::init_register_fused_operators(kernels);
  utility::init_register_extra_operators(kernels);
  auto const pool = std::make_shared<LimitedPool>();
  auto const context = CreateContext(CreateDeviceCPU(DetectCPUDevice(), pool, nullptr, pool), nullptr, nullptr, nullptr,
                                     nullptr, nullptr);
  auto package = std::make_shared<utility::_NetworkPackage>();
  package->kernels = &kernels;
  package->params = &params;
  package->context = context;
  auto const& ids = file.model_arr->squential_ids;
  auto const configs = file.config_arr->configs.find(ids.empty() ? "" : ids[0]);
  if (ids.empty() || configs == file.config_arr->configs.end()) return false;
  auto const& model = file.model_arr->models.at(ids[0]);
  if (model->squential_ids.size() > kMostLayers) return false;
  Load_Single_Net(package, model, configs->second, "x86");
  for (auto const& input : package->net->input_ids) package->inputs[input.second] = Picture(*context->device_cpu);
  package->net->Forward(package->inputs, package->output_ids, context, nullptr, nullptr);
  return true;
}

}  // namespace talvo::fuzz
