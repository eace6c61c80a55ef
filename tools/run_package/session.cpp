#include "tools/run_package/session.h"

#include <algorithm>
#include <new>
#include <stdexcept>
#include <utility>

#include "talvo/entry/open_package.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/utility/log.h"
#include "tools/common/program.h"
#include "tools/run_package/npy.h"
#include "tools/run_package/progress.h"

namespace run_package {
namespace {

using talvo::utility::get_time_in_ms;

std::vector<std::string> logged_warnings;

// Nothing is printed here: an error is reported once, by whoever ends the program.
int Collect(char const* line) {
  std::string text(line);
  text.erase(text.find_last_not_of('\n') + 1);
  bool const warns = text.find("] (Warnning): ") != std::string::npos;
  if (warns && std::find(logged_warnings.begin(), logged_warnings.end(), text) == logged_warnings.end()) {
    logged_warnings.push_back(text);
  }
  return 0;
}

void AddOnce(std::vector<std::string>& ids, std::string const& id) {
  if (std::find(ids.begin(), ids.end(), id) == ids.end()) ids.push_back(id);
}

}  // namespace

std::vector<std::string> const& LoggedWarnings() { return logged_warnings; }

void CollectLog() { talvo::utility::SetLogCallback(Collect); }

std::optional<talvo::InputDims> PlainDims(std::vector<talvo::ModelInput> const& inputs) {
  talvo::InputDims dims;
  for (talvo::ModelInput const& input : inputs) {
    auto const& shape = input.tensor->shape;
    bool const plain = shape.data_type == talvo::runtime::TensorShape::FLOAT32 &&
                       shape.layout == talvo::LayoutOfRank(shape.dims.size());
    if (!plain) return std::nullopt;
    dims[std::string(input.id)] = shape.dims;
  }
  return dims;
}

talvo::ModelOptions OptionsOf(Arguments const& arguments) {
  talvo::ModelOptions options;
  options.model = arguments.model;
  options.backend = arguments.backend;
  options.prefer_fused = arguments.prefer_fused;
  return options;
}

Session::Session(Arguments const& arguments) : path_(arguments.package) {
  double const start = get_time_in_ms();
  file_ = talvo::utility::OpenPackage(path_);
  Named([&] { model_.emplace(*file_, OptionsOf(arguments)); });
  load_ms_ = get_time_in_ms() - start;
  for (std::string const& id : arguments.outputs) AddOnce(output_ids_, id);
  if (!output_ids_.empty()) return;
  for (talvo::ModelPort const& port : model_->Outputs()) AddOnce(output_ids_, port.id);
}

// The model knows its records alone: the file is named here.
void Session::Named(std::function<void()> const& action) const {
  try {
    action();
  } catch (std::bad_alloc const&) {
    throw;
  } catch (std::exception const& refusal) {
    throw std::runtime_error(path_ + ": " + refusal.what());
  }
}

void Session::ReadInputs(std::vector<InputFile> const& files) {
  auto const before = inputs_.size();
  for (InputFile const& file : files) {
    std::string note;
    auto const tensor = ReadNpy(file.path, file.layout, *model_->Context()->device_cpu, &note);
    if (!note.empty()) AddOnce(notes_, file.path + ": " + note);
    auto const end = inputs_.begin() + static_cast<std::ptrdiff_t>(before);
    auto const same = std::find_if(inputs_.begin(), end, [&](auto const& input) { return input.id == file.layer; });
    same != end ? void(same->tensor = tensor) : void(inputs_.emplace_back(file.layer, tensor));
  }
}

// Up to the last output. An output that the model does not have is left for the model to refuse.
std::vector<std::string> Session::LayersThatRun() const {
  auto const& ids = Record().squential_ids;
  std::ptrdiff_t count = 0;
  for (std::string const& output : output_ids_) {
    auto const found = std::find(ids.begin(), ids.end(), output);
    if (found == ids.end()) return {output};
    count = std::max(count, found - ids.begin() + 1);
  }
  return {ids.begin(), ids.begin() + count};
}

RunResult Session::Run(std::vector<InputFile> const& inputs, unsigned int repeat, bool layers) {
  ReadInputs(inputs);
  auto const all_layers = LayersThatRun();
  Progress progress(repeat);
  RunResult result;
  result.dims = PlainDims(inputs_);
  for (unsigned int i = 0; i < repeat; ++i) {
    bool const keeps = layers && i + 1 == repeat;
    result.tensors = {};
    result.starts_ms.push_back(get_time_in_ms());
    Named([&] {
      if (!layers) {
        result.tensors = model_->Run(inputs_, output_ids_);
      } else {
        result.layer_times.push_back(model_->Profile(inputs_, keeps ? all_layers : output_ids_, &result.tensors));
      }
    });
    result.times_ms.push_back(get_time_in_ms() - result.starts_ms.back());
    if (!keeps) result.pool_bytes = model_->Context()->device_cpu->dynamic_pool->HeapSize();
    progress.Advance();
  }
  return result;
}

}  // namespace run_package
