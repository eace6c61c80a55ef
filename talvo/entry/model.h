// The short way in: one model of a package, opened, checked and built in one step; tensors in and out under the ids of
// its layers. The long way, with registries and contexts of the application's own, stands in load_model.h.
//
//   talvo::Model model("digits.tlnmodel");
//   auto const results = model.Run({{"picture", pixels, {1, 28, 28}}});
//   float const* scores = results.Values("probabilities");
#pragma once

#include <cstddef>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "talvo/runtime/context.h"
#include "talvo/runtime/tensor.h"
#include "talvo/utility/export.h"

namespace talvo::runtime {
class TLNModel;
}

namespace talvo {

struct ModelOptions {
  std::string model;          // id of the model; empty: the package's only one
  std::string backend;        // "x86", "arm" or "metal"; empty: that of the processor built for
  bool prefer_fused = false;  // fused siblings in place of portable kernels (register_fused_operators.h)
  std::shared_ptr<runtime::Context> context;  // shared with other models of the same thread; empty: one of its own
};

/// An input or output of a model.
struct ModelPort {
  std::string id;
  /// What the package tells of the shape: [0, height, width] for inputs of a model with a base size, 0 for what is not
  /// told; empty where nothing is.
  std::vector<unsigned int> dims;
};

/// One layer of a run.
struct LayerTime {
  std::string id, kernel;
  float milliseconds;
};

/// A tensor for an input layer. Text and values are read during Run.
struct ModelInput {
  ModelInput(std::string_view layer, std::shared_ptr<runtime::Tensor> input) : id(layer), tensor(std::move(input)) {}
  /// Floats in main memory, row-major over `extents`, copied into a tensor whose layout follows from the rank: 1 C,
  /// 2 SC, 3 CHW, otherwise FLEXIABLE.
  ModelInput(std::string_view layer, float const* floats, std::vector<unsigned int> extents)
      : id(layer), values(floats), dims(std::move(extents)) {}

  std::string_view id;
  std::shared_ptr<runtime::Tensor> tensor;
  float const* values = nullptr;
  std::vector<unsigned int> dims;
};

/// The layout that floats of a rank get: 1 C, 2 SC, 3 CHW, otherwise FLEXIABLE.
TALVO_API runtime::TensorShape::Layout LayoutOfRank(std::size_t rank);

/// The results of one run. They may outlive the model, and copies share them; they belong to the model's thread.
class TALVO_API ModelOutputs {
 public:
  /// The first tensor of an output layer. Throws std::runtime_error, with the outputs that there are: no such output.
  runtime::Tensor const& operator[](std::string_view id) const;
  /// Tensor `index` of an output layer that has `TensorCount` of them. Throws as above.
  runtime::Tensor const& At(std::string_view id, std::size_t index) const;
  std::size_t TensorCount(std::string_view id) const;
  /// The elements of the first tensor, as many as `Count`. Throws as above, and for a tensor that is not of float32.
  float const* Values(std::string_view id) const&;
  float const* Values(std::string_view id) const&& = delete;  // the results would be gone
  std::size_t Count(std::string_view id) const;
  std::vector<unsigned int> const& Dims(std::string_view id) const;

  /// The id as the model keeps it. Throws as above.
  std::string const& Id(std::string_view id) const;

 private:
  friend class Model;
  struct TALVO_INTERNAL Content;

  std::shared_ptr<Content const> content_;
};

/// A runnable model. Movable. A model, its context and its results belong to one thread at a time; models of several
/// threads have a context each. Everything that is refused is a std::runtime_error with one line that names file and
/// layer, with what came and what is needed; memory that runs out is that or std::bad_alloc. A model that was moved
/// from refuses every call but an assignment.
class TALVO_API Model {
 public:
  /// Reads a ".tlnmodel" or ".json" package, once. Refused: what OpenPackage refuses; a package for a newer runtime; no
  /// such model or back end; a layer or output id that names no layer; a kernel that is not registered, with the
  /// nearest names; a layer that its kernel refuses.
  explicit Model(std::string const& path, ModelOptions const& options = {});
  /// The same from the bytes of a package, read during the call.
  static Model FromBytes(void const* bytes, std::size_t size, ModelOptions const& options = {});
  /// The same from records, of which it keeps none; with `prefer_fused` their kernels are renamed.
  explicit Model(runtime::TLNModel& package, ModelOptions const& options = {});
  Model(Model&&) noexcept;
  Model& operator=(Model&&) noexcept;
  ~Model();

  std::string const& Id() const;
  std::vector<ModelPort> const& Inputs() const;
  std::vector<ModelPort> const& Outputs() const;
  /// The context whose device makes tensors for this model. Who keeps such a tensor longer than the model keeps the
  /// context too.
  std::shared_ptr<runtime::Context> const& Context() const;

  /// Runs the net. `inputs`: one for each input layer that stands before the last wanted output. `outputs`: ids of
  /// layers, any of the model; empty: the model's own. Refused: ids that the model does not have, an input that is
  /// missing, named twice or null, and what a layer refuses. Recurrent layers keep their state from run to run.
  ModelOutputs Run(std::vector<ModelInput> const& inputs, std::vector<std::string> const& outputs = {});
  /// Runs as above and tells the time of each layer that ran; `results`, unless null, gets the results.
  std::vector<LayerTime> Profile(std::vector<ModelInput> const& inputs, std::vector<std::string> const& outputs = {},
                                 ModelOutputs* results = nullptr);
  /// Starts recurrent layers afresh.
  void Reset();

 private:
  friend class ModelTrial;
  struct TALVO_INTERNAL Parts;
  TALVO_INTERNAL explicit Model(std::unique_ptr<Parts> parts);
  TALVO_INTERNAL Parts& Opened() const;

  std::unique_ptr<Parts> parts_;
};

}  // namespace talvo
