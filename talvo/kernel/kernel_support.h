// What the kernels share: inputs cast and checked, outputs made, tensor lists judged, weights decoded. Internal.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "talvo/runtime/context.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/kernel.h"
#include "talvo/runtime/tensor_cpu.h"

namespace talvo::kernel::support {

using Tensors = std::vector<std::shared_ptr<runtime::Tensor>>;
using TensorPtr = std::shared_ptr<runtime::TensorCPU>;
using ContextPtr = std::shared_ptr<runtime::Context>;

/// Input `index` as a CPU tensor with memory and a rank of `rank` (kAnyRank: not looked at), whose elements take at
/// least `element_bytes`. Assert, with the kernel's name: anything else.
constexpr std::size_t kAnyRank = static_cast<std::size_t>(-1);
TensorPtr Input(runtime::IKernel const& kernel, Tensors const& inputs, std::size_t index, std::size_t rank = kAnyRank,
                unsigned int element_bytes = sizeof(float));

/// Number of elements of a tensor that Input let pass.
std::size_t Count(runtime::TensorCPU const& tensor);

/// A new tensor of shape `index` of GetOutputShapes for these inputs. Assert: a null input, no such shape, no CPU
/// device.
TensorPtr NewOutput(runtime::IKernel const& kernel, Tensors const& inputs, ContextPtr const& context,
                    std::size_t index = 0);

/// The CPU device of `context`. Assert: there is none.
runtime::DeviceCPU& Device(runtime::IKernel const& kernel, ContextPtr const& context);

/// Shape `index` of `shapes`, with a rank of `rank`. Assert, with the kernel's name: there is none.
runtime::TensorShape const& ShapeAt(runtime::IKernel const& kernel, std::vector<runtime::TensorShape> const& shapes,
                                    std::size_t index, std::size_t rank = kAnyRank);

/// 0 when `tensors` are exactly `count` tensors, none null, that all pass `accept`; -2 otherwise.
int Judge(Tensors const& tensors, std::size_t count, std::function<bool(runtime::Tensor const&)> const& accept);

/// 0 when there is a first tensor, not null, that passes `accept`; -2 otherwise. Further tensors are not looked at.
int JudgeFirst(Tensors const& tensors, std::function<bool(runtime::Tensor const&)> const& accept);

/// 0 for exactly one FLOAT32 tensor in main memory; -2 otherwise.
int JudgeOneFloat(Tensors const& tensors);

/// The strict judgement of what Config takes: 0 for a layer of class Info without inference parameter, -1 otherwise.
/// Config of a kernel with this form refuses -1.
template <class Info>
int StrictParam(std::shared_ptr<runtime::LayerInfo> const& layer,
                std::shared_ptr<runtime::InferenceParam> const& param) {
  return param == nullptr && std::dynamic_pointer_cast<Info>(layer) != nullptr ? 0 : -1;
}

/// The inverted judgement: 0 when neither is given, -1 otherwise. Config of a kernel with this form refuses 0, so that
/// any layer is good. The two forms stay apart: each Config reads its own.
inline int InvertedParam(std::shared_ptr<runtime::LayerInfo> const& layer,
                         std::shared_ptr<runtime::InferenceParam> const& param) {
  return layer == nullptr && param == nullptr ? 0 : -1;
}

/// A tensor in main memory of this data type, and of this layout.
bool IsInMainMemory(runtime::Tensor const& tensor, unsigned int data_type);
bool IsInMainMemory(runtime::Tensor const& tensor, unsigned int data_type, unsigned int layout);

/// A FLOAT32 tensor of `context`'s device with the values of a base64 text; bytes behind those that the shape needs are
/// ignored. Assert, with kernel and layer: fewer bytes. `what` names the array in the text.
TensorPtr DecodeWeights(runtime::IKernel const& kernel, std::string const& layer_id, char const* what,
                        std::string const& base64, std::vector<unsigned int> dims, unsigned int layout,
                        ContextPtr const& context);

}  // namespace talvo::kernel::support
