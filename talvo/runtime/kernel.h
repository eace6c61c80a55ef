// The contract of every operator. A net calls PrepareForward and Forward; the other operations judge and describe.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "talvo/runtime/tensor.h"
#include "talvo/utility/export.h"

namespace talvo::runtime {

struct Context;
class InferenceParam;
class LayerInfo;

/// Operations that return int answer 0 for valid or done, -1 for a refused parameter, -2 for a refused tensor list; a
/// few IsValidParam have further refusals of -3 to -6.
class TALVO_API IKernel {
 public:
  IKernel() = default;
  IKernel(IKernel const&) = delete;
  IKernel& operator=(IKernel const&) = delete;
  virtual ~IKernel();

  /// The registered name, which is the class's name.
  virtual std::string GetName() const = 0;

  /// Judges what Config is about to take.
  virtual int IsValidParam(std::shared_ptr<LayerInfo> layer, std::shared_ptr<InferenceParam> param) const = 0;

  /// Binds the kernel to its layer, once, when a net is built; weights become tensors of `context` here. `layer` is
  /// empty for a converter. True on success.
  virtual bool Config(std::shared_ptr<LayerInfo> layer, std::shared_ptr<InferenceParam> param,
                      std::shared_ptr<Context> context) = 0;

  /// Whether the last Config succeeded.
  virtual bool IsConfigured() const = 0;

  /// The shapes of the outputs for these input shapes.
  virtual std::vector<TensorShape> GetOutputShapes(std::vector<TensorShape> const& input_shapes) const = 0;

  /// Called directly before each Forward; `intermediate` says that the outputs are not handed to the caller as they
  /// are. Does nothing here and returns 0.
  virtual int PrepareForward(std::shared_ptr<Context> const& context,
                             std::vector<std::shared_ptr<Tensor>> const& inputs, bool const& intermediate,
                             std::vector<std::shared_ptr<Tensor>>& outputs);

  /// Clears the state of a recurrent kernel and returns 0; every other kernel returns -4.
  virtual int ResetRNNState() const;

  /// Judges count, location and data type of the inputs. Net::Forward does not call it.
  virtual int IsValidInput(std::vector<std::shared_ptr<Tensor>> const& inputs) const = 0;

  /// Computes. The kernel makes its outputs through the context's CPU device and puts them into `outputs`, which a net
  /// hands in empty. Assert: inputs that the computation would read beyond their end, with the kernel's name and the
  /// numbers.
  virtual int Forward(std::vector<std::shared_ptr<Tensor>> const& inputs, std::vector<std::shared_ptr<Tensor>>& outputs,
                      std::shared_ptr<Context> context) const = 0;

  /// Judges count, location and data type of the outputs. Net::Forward does not call it.
  virtual int IsValidOutput(std::vector<std::shared_ptr<Tensor>> const& outputs) const = 0;
};

}  // namespace talvo::runtime
