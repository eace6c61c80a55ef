// A package opened as an application opens it, and one of its models run.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "talvo/entry/check_model.h"
#include "talvo/entry/model.h"
#include "talvo/serialization/model_info.h"
#include "tools/run_package/arguments.h"

namespace run_package {

/// What the repeats of one run gave.
struct RunResult {
  talvo::ModelOutputs tensors;                             // of the last repeat
  std::vector<double> starts_ms, times_ms;                 // of each repeat; on the wall clock
  std::vector<std::vector<talvo::LayerTime>> layer_times;  // of each repeat, where layers were asked for
  unsigned long pool_bytes = 0;                            // of the dynamic pool behind a run that kept nothing; or 0
  std::optional<talvo::InputDims> dims;  // of the inputs, where all are of float32 in the layout of their rank
};

/// What the library warned of since CollectLog, each line once.
std::vector<std::string> const& LoggedWarnings();
/// From here on the library's lines are not printed; errors come back as exceptions.
void CollectLog();

/// The extents of tensors that are all of float32 in the layout of their rank, which is what the library tries.
std::optional<talvo::InputDims> PlainDims(std::vector<talvo::ModelInput> const& inputs);

/// The options of the library that the command line sets.
talvo::ModelOptions OptionsOf(Arguments const& arguments);

/// Holds package and model; what it refuses is a std::runtime_error whose text names the file.
class Session {
 public:
  explicit Session(Arguments const& arguments);

  /// Runs the model on these inputs, which outlive the session, `repeat` times; an input that is not named keeps the
  /// tensor of the run before, and repeats advance the state of recurrent layers. With `layers` each layer is timed,
  /// and the last repeat keeps the tensors of all that run.
  RunResult Run(std::vector<InputFile> const& inputs, unsigned int repeat, bool layers);

  talvo::runtime::TLNModel& File() const { return *file_; }
  std::string const& ModelId() const { return model_->Id(); }
  talvo::runtime::TLModelInfo const& Record() const { return *file_->model_arr->models.at(ModelId()); }
  /// The layers whose tensors a run hands back, each once.
  std::vector<std::string> const& OutputIds() const { return output_ids_; }
  double LoadMs() const { return load_ms_; }
  /// What was converted in the arrays that were read, a line each.
  std::vector<std::string> const& Notes() const { return notes_; }

 private:
  void Named(std::function<void()> const& action) const;
  void ReadInputs(std::vector<InputFile> const& inputs);
  std::vector<std::string> LayersThatRun() const;

  std::string const path_;
  double load_ms_ = 0;
  std::shared_ptr<talvo::runtime::TLNModel> file_;
  std::optional<talvo::Model> model_;
  std::vector<std::string> output_ids_, notes_;
  std::vector<talvo::ModelInput> inputs_;
};

}  // namespace run_package
