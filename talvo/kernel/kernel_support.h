// What the kernels share: inputs cast and checked, outputs made, tensor lists judged, records cast, weights decoded.
// Whatever refuses does so through utility::Refuse, with who, what, got and needs. Internal.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "talvo/runtime/context.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/kernel.h"
#include "talvo/runtime/tensor_cpu.h"

namespace talvo::kernel::support {

using Tensors = std::vector<std::shared_ptr<runtime::Tensor>>;
using Shapes = std::vector<runtime::TensorShape>;
using TensorPtr = std::shared_ptr<runtime::TensorCPU>;
using ContextPtr = std::shared_ptr<runtime::Context>;
using LayerPtr = std::shared_ptr<runtime::LayerInfo>;
using ParamPtr = std::shared_ptr<runtime::InferenceParam>;

/// Who refuses: a kernel or a function by its name, and the layer where it is known. It refers to what it is made of,
/// and nothing is built until a refusal asks for the text.
class Who {
 public:
  Who(char const* name) : name_(name) {}
  Who(char const* name, std::string const& layer_id) : name_(name), layer_id_(&layer_id) {}
  Who(runtime::IKernel const& kernel) : kernel_(&kernel) {}

  /// "NAME" or "NAME of layer ID".
  std::string Text() const;

 private:
  char const* name_ = nullptr;
  runtime::IKernel const* kernel_ = nullptr;
  std::string const* layer_id_ = nullptr;
};

/// What a tensor must be before a loop touches it. It has memory, unless it has no elements, in any case.
constexpr std::size_t kAnyRank = static_cast<std::size_t>(-1);
constexpr unsigned int kAnyNumber = static_cast<unsigned int>(-1);
struct Needs {
  unsigned int element_bytes = sizeof(float);  // an element takes at least these
  std::size_t rank = kAnyRank;
  std::size_t elements = 0;             // it has at least these
  unsigned int data_type = kAnyNumber;  // exactly this, in main memory
  unsigned int layout = kAnyNumber;
};

/// Whether a tensor meets the needs.
bool Meets(runtime::Tensor const& tensor, Needs const& needs);

/// Refuses a tensor, null or one that does not meet the needs; `what` names it, as in "input 0".
[[noreturn]] void RefuseTensor(Who const& who, char const* what, runtime::Tensor const* tensor, Needs const& needs);

/// Assert, with who and what: no tensor, or one that does not meet the needs.
inline void CheckTensor(Who const& who, char const* what, runtime::Tensor const* tensor, Needs const& needs) {
  if (tensor == nullptr || !Meets(*tensor, needs)) RefuseTensor(who, what, tensor, needs);
}

/// Input `index` as a CPU tensor with memory and a rank of `rank` (kAnyRank: not looked at), whose elements take at
/// least `element_bytes`. Assert: anything else.
TensorPtr Input(Who const& who, Tensors const& inputs, std::size_t index, std::size_t rank = kAnyRank,
                unsigned int element_bytes = sizeof(float));

/// Number of elements of a tensor that Input let pass.
std::size_t Count(runtime::TensorCPU const& tensor);

/// A new tensor of shape `index` of GetOutputShapes for these inputs. Assert: a null input, no such shape, no CPU
/// device.
TensorPtr NewOutput(runtime::IKernel const& kernel, Tensors const& inputs, ContextPtr const& context,
                    std::size_t index = 0);

/// Makes `result` the only output, and returns what Forward does.
int Give(TensorPtr const& result, Tensors& outputs);

/// Scratch of a call: `floats` from the pool of the device, so that a pass of a net finds them there again.
TensorPtr NewScratch(runtime::DeviceCPU& device, std::size_t floats);

/// The CPU device of `context`. Assert: there is none.
runtime::DeviceCPU& Device(Who const& who, ContextPtr const& context);

/// Shape `index` of `shapes`, with a rank of `rank`. Assert: there is none.
runtime::TensorShape const& ShapeAt(Who const& who, Shapes const& shapes, std::size_t index,
                                    std::size_t rank = kAnyRank);

/// One shape without Extra, as GetOutputShapes of most kernels gives it.
Shapes OneShape(std::vector<unsigned int> dims, unsigned int data_type, unsigned int layout, unsigned int location);

/// For a Forward that has no defaults to compute with. Assert: the kernel is not configured.
void NeedsConfig(runtime::IKernel const& kernel);

/// A question to a tensor, a function or a lambda of the caller, which it refers to.
class TensorTest {
 public:
  TensorTest(bool (*test)(runtime::Tensor const&)) : function_(test) {}
  template <class Test>
  TensorTest(Test const& test)
      : lambda_(&test), ask_([](void const* lambda, runtime::Tensor const& tensor) -> bool {
          return (*static_cast<Test const*>(lambda))(tensor);
        }) {}
  bool operator()(runtime::Tensor const& tensor) const {
    return function_ != nullptr ? function_(tensor) : ask_(lambda_, tensor);
  }

 private:
  bool (*function_)(runtime::Tensor const&) = nullptr;
  void const* lambda_ = nullptr;
  bool (*ask_)(void const*, runtime::Tensor const&) = nullptr;
};

/// 0 when `tensors` are exactly `count` tensors, none null, that all pass `accept`; -2 otherwise.
int Judge(Tensors const& tensors, std::size_t count, TensorTest const& accept);

/// 0 when there is a first tensor, not null, that passes `accept`; -2 otherwise. Further tensors are not looked at.
int JudgeFirst(Tensors const& tensors, TensorTest const& accept);

/// 0 for exactly one FLOAT32 tensor in main memory; -2 otherwise.
int JudgeOneFloat(Tensors const& tensors);

/// 0 for exactly one CHW tensor of this data type in main memory; -2 otherwise.
int JudgeOneImage(Tensors const& tensors, unsigned int data_type);

/// The strict judgement of what Config takes: 0 for a layer of class Info without inference parameter, -1 otherwise.
/// Config of a kernel with this form refuses -1.
template <class Info>
int StrictParam(LayerPtr const& layer, ParamPtr const& param) {
  return param == nullptr && dynamic_cast<Info const*>(layer.get()) != nullptr ? 0 : -1;
}

/// The inverted judgement: 0 when neither is given, -1 otherwise. Config of a kernel with this form refuses 0, so that
/// any layer is good. The two forms stay apart: each Config reads its own.
inline int InvertedParam(LayerPtr const& layer, ParamPtr const& param) {
  return layer == nullptr && param == nullptr ? 0 : -1;
}

/// Refuses a record of another class than the judgement let pass.
[[noreturn]] void RefuseRecord(Who const& who);

/// The layer or the parameter that IsValidParam let pass, as a Record; of another class only where a kernel derived
/// from this one has a judgement of its own. Assert: that.
template <class Record, class Base>
Record const& As(Who const& who, std::shared_ptr<Base> const& record) {
  auto const* const as = dynamic_cast<Record const*>(record.get());
  if (as == nullptr) RefuseRecord(who);
  return *as;
}

/// A tensor in main memory, of any data type.
bool LiesInMainMemory(runtime::Tensor const& tensor);

/// A tensor in main memory of this data type, and of this layout.
bool IsInMainMemory(runtime::Tensor const& tensor, unsigned int data_type);
bool IsInMainMemory(runtime::Tensor const& tensor, unsigned int data_type, unsigned int layout);

/// A FLOAT32 tensor of `context`'s device with the values of a base64 text; bytes behind those that the shape needs are
/// ignored. Assert, with kernel and layer: fewer bytes. `what` names the array in the text, with `entry` in brackets
/// where it is one of a list.
constexpr std::size_t kNoEntry = static_cast<std::size_t>(-1);
TensorPtr DecodeWeights(Who const& who, std::string const& layer_id, char const* what, std::string const& base64,
                        std::vector<unsigned int> dims, unsigned int layout, ContextPtr const& context,
                        std::size_t entry = kNoEntry);

}  // namespace talvo::kernel::support
