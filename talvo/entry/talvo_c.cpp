#include "talvo/talvo_c.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "talvo/entry/check_model.h"
#include "talvo/entry/load_model.h"
#include "talvo/entry/model.h"
#include "talvo/entry/model_support.h"
#include "talvo/entry/open_package.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/tensor_cpu.h"
#include "talvo/utility/log.h"

struct talvo_model {
  explicit talvo_model(talvo::Model opened) : model(std::move(opened)) {}

  talvo::Model model;
  talvo::ModelOutputs results;
  std::vector<talvo::LayerTime> times;
};

namespace {

using talvo::ModelInput;
using talvo::runtime::Tensor;
using talvo::runtime::TensorShape;
using talvo::utility::support::Joined;

thread_local char last_error[1024];  // an error may be that there is no memory

// A mistake of the caller's program, not of its data.
struct BadArgument : std::runtime_error {
  using runtime_error::runtime_error;
};

void KeepError(char const* text) noexcept { std::snprintf(last_error, sizeof last_error, "%s", text); }

// The status of the exception that is on its way, whose text it keeps.
talvo_status StatusOfCaught() noexcept {
  try {
    throw;
  } catch (std::bad_alloc const&) {
    KeepError("there is not enough memory");
    return TALVO_NO_MEMORY;
  } catch (BadArgument const& error) {
    KeepError(error.what());
    return TALVO_BAD_ARGUMENT;
  } catch (std::exception const& error) {
    KeepError(error.what());
    return TALVO_REFUSED;
  } catch (...) {
    KeepError("ended by something that is no std::exception");
    return TALVO_REFUSED;
  }
}

template <class Action>
talvo_status Guard(Action action) noexcept {
  try {
    return action();
  } catch (...) {
    return StatusOfCaught();
  }
}

void Need(bool good, char const* text) {
  if (!good) throw BadArgument(text);
}

// Sizes of the structs in the first version, the least that an application has. They stay when fields are added.
template <class Struct>
constexpr size_t kFirstSize = 0;
template <>
constexpr size_t kFirstSize<talvo_options> = sizeof(size_t) + 2 * sizeof(char*) + sizeof(size_t);
template <>
constexpr size_t kFirstSize<talvo_tensor> = sizeof(size_t) + 2 * sizeof(char*) + sizeof(uint32_t) * (3 + 8) +
                                            (sizeof(size_t) - 4) + sizeof(size_t);
template <>
constexpr size_t kFirstSize<talvo_layer_time> = 2 * sizeof(size_t) + 2 * sizeof(char*);
constexpr size_t kMostBytes = 4096;  // no version is larger: what is, was never set

// A struct of the caller, of this version or another.
template <class Struct>
void NeedStruct(Struct const* argument, char const* text) {
  static_assert(sizeof(Struct) >= kFirstSize<Struct>);
  Need(argument != nullptr && argument->size >= kFirstSize<Struct> && argument->size <= kMostBytes &&
           argument->size % alignof(Struct) == 0,
       text);
}

// As this version knows it: fields that the caller's version lacks are 0.
template <class Struct>
Struct Known(Struct const& argument) {
  Struct known{};
  std::memcpy(&known, &argument, std::min(argument.size, sizeof known));
  return known;
}

constexpr char kTensorSize[] = "talvo_tensor: set its size, with TALVO_TENSOR_INIT";
constexpr char kTimeSize[] = "talvo_layer_time: set its size, with TALVO_LAYER_TIME_INIT";

// Structs of an application that knows more fields stand further apart than ours.
template <class Struct>
Struct& Element(Struct* array, size_t index, char const* text) {
  NeedStruct(array, text);
  using Byte = std::conditional_t<std::is_const_v<Struct>, char const, char>;
  auto* const element = reinterpret_cast<Struct*>(reinterpret_cast<Byte*>(array) + index * array->size);
  Need(element->size == array->size, text);
  return *element;
}

// Everything that the application's version has, but the size.
template <class Struct>
void Fill(Struct& target, Struct values) {
  values.size = target.size;
  std::memcpy(&target, &values, std::min(target.size, sizeof values));
}

talvo::ModelOptions OptionsOf(talvo_options const* given) {
  talvo::ModelOptions result;
  if (given == nullptr) return result;
  NeedStruct(given, "talvo_options: set its size, with TALVO_OPTIONS_INIT");
  talvo_options const options = Known(*given);
  if (options.model != nullptr) result.model = options.model;
  if (options.backend != nullptr) result.backend = options.backend;
  result.prefer_fused = options.prefer_fused != 0;
  return result;
}

template <class Open>
talvo_status OpenModel(talvo_options const* options, talvo_model** model, Open open) {
  return Guard([&] {
    Need(model != nullptr, "the place for the model is null");
    *model = nullptr;
    *model = new talvo_model(open(OptionsOf(options)));
    return TALVO_OK;
  });
}

talvo_status DescribePort(std::vector<talvo::ModelPort> const& ports, size_t index, talvo_tensor* port) {
  NeedStruct(port, kTensorSize);
  if (index >= ports.size()) {
    throw std::runtime_error(
        Joined({"there is no place ", std::to_string(index), ", the model has ", std::to_string(ports.size())}));
  }
  Fill<talvo_tensor>(*port, TALVO_TENSOR_INIT);
  port->id = ports[index].id.c_str();
  port->rank = static_cast<uint32_t>(ports[index].dims.size());
  std::copy(ports[index].dims.begin(), ports[index].dims.end(), port->dims);
  return TALVO_OK;
}

void CheckInput(talvo_tensor const& input) {
  Need(input.id != nullptr && (input.data != nullptr || input.bytes == 0),
       "an input needs the id of its layer, and data");
  Need(input.rank <= TALVO_MAXIMUM_RANK, "an input has more than 8 extents");
}

ModelInput InputOf(talvo::Model& model, talvo_tensor const& input) {
  CheckInput(input);
  std::string const who = Joined({"input \"", input.id, "\": "});
  if (input.data_type > TALVO_UINT8)
    throw std::runtime_error(Joined({who, "there is no data type ", std::to_string(input.data_type)}));
  TensorShape const shape(std::vector<unsigned int>(input.dims, input.dims + input.rank), input.data_type,
                          input.layout < 0 ? talvo::LayoutOfRank(input.rank) : static_cast<unsigned int>(input.layout),
                          TensorShape::MainMemory, {});
  try {
    if (ByteCount(shape) == input.bytes)
      return {input.id, model.Context()->device_cpu->CreateTensor(shape, input.data)};
  } catch (std::runtime_error const& refusal) {
    throw std::runtime_error(Joined({who, talvo::utility::support::RefusalText(refusal)}));
  }
  throw std::runtime_error(Joined({who, std::to_string(input.bytes), " bytes, dims ",
                                   talvo::runtime::DimsText(shape.dims), " need ", std::to_string(ByteCount(shape))}));
}

std::vector<ModelInput> InputsOf(talvo::Model& model, talvo_tensor const* inputs, size_t count) {
  Need(inputs != nullptr || count == 0, "the inputs are null");
  std::vector<ModelInput> result;
  for (size_t i = 0; i < count; ++i) result.push_back(InputOf(model, Known(Element(inputs, i, kTensorSize))));
  return result;
}

// Copies to a buffer of the caller.
talvo_status Hand(void const* data, size_t size, std::string const& what, void* buffer, size_t bytes, size_t* needed) {
  if (needed != nullptr) *needed = size;
  if (bytes < size) {
    KeepError(Joined({what, " has ", std::to_string(size), " bytes, the buffer ", std::to_string(bytes)}).c_str());
    return TALVO_TOO_SMALL;
  }
  Need(buffer != nullptr || size == 0, "the buffer is null");
  if (size != 0) std::memcpy(buffer, data, size);
  return TALVO_OK;
}

Tensor const& ResultOf(talvo_model const* model, char const* id) {
  Need(model != nullptr && id != nullptr, "the model or the id is null");
  return model->results[id];
}

}  // namespace

char const* talvo_last_error(void) { return last_error; }

void talvo_set_log(int (*sink)(char const* line)) {
  talvo::utility::SetLogCallback(sink != nullptr ? sink : [](char const*) { return 0; });
}

void talvo_version(uint32_t* major, uint32_t* minor) {
  unsigned int numbers[2] = {0, 0};
  TLN_Get_Core_Version(numbers[0], numbers[1]);
  if (major != nullptr) *major = numbers[0];
  if (minor != nullptr) *minor = numbers[1];
}

talvo_status talvo_model_open(char const* path, talvo_options const* options, talvo_model** model) {
  return OpenModel(options, model, [&](talvo::ModelOptions const& chosen) {
    Need(path != nullptr, "the path is null");
    return talvo::Model(path, chosen);
  });
}

talvo_status talvo_model_open_bytes(void const* bytes, size_t count, talvo_options const* options,
                                    talvo_model** model) {
  return OpenModel(options, model, [&](talvo::ModelOptions const& chosen) {
    Need(bytes != nullptr, "the bytes are null");
    return talvo::Model::FromBytes(bytes, count, chosen);
  });
}

void talvo_model_close(talvo_model* model) { delete model; }

size_t talvo_model_input_count(talvo_model const* model) { return model != nullptr ? model->model.Inputs().size() : 0; }

size_t talvo_model_output_count(talvo_model const* model) {
  return model != nullptr ? model->model.Outputs().size() : 0;
}

talvo_status talvo_model_input(talvo_model const* model, size_t index, talvo_tensor* port) {
  return Guard([&] {
    Need(model != nullptr, "the model is null");
    return DescribePort(model->model.Inputs(), index, port);
  });
}

talvo_status talvo_model_output(talvo_model const* model, size_t index, talvo_tensor* port) {
  return Guard([&] {
    Need(model != nullptr, "the model is null");
    return DescribePort(model->model.Outputs(), index, port);
  });
}

talvo_status talvo_model_run(talvo_model* model, talvo_tensor const* inputs, size_t input_count,
                             char const* const* outputs, size_t output_count) {
  return Guard([&] {
    Need(model != nullptr, "the model is null");
    Need(outputs != nullptr || output_count == 0, "the outputs are null");
    std::vector<std::string> ids;
    for (size_t i = 0; i < output_count; ++i) {
      Need(outputs[i] != nullptr, "the id of an output is null");
      ids.emplace_back(outputs[i]);
    }
    auto const tensors = InputsOf(model->model, inputs, input_count);  // copies what may be results
    model->results = {};
    model->results = model->model.Run(tensors, ids);
    return TALVO_OK;
  });
}

talvo_status talvo_model_result(talvo_model const* model, char const* id, talvo_tensor* result) {
  return Guard([&] {
    NeedStruct(result, kTensorSize);
    Tensor const& tensor = ResultOf(model, id);
    TensorShape const& shape = tensor.shape;
    if (shape.dims.size() > TALVO_MAXIMUM_RANK) throw std::runtime_error("the result has more than 8 extents");
    Fill<talvo_tensor>(*result, TALVO_TENSOR_INIT);
    result->id = model->results.Id(id).c_str();
    result->data_type = shape.data_type;
    result->layout = static_cast<int32_t>(shape.layout);
    result->rank = static_cast<uint32_t>(shape.dims.size());
    std::copy(shape.dims.begin(), shape.dims.end(), result->dims);
    result->data = tensor.data;
    result->bytes = ByteCount(shape);
    return TALVO_OK;
  });
}

talvo_status talvo_model_copy(talvo_model const* model, char const* id, void* buffer, size_t bytes, size_t* needed) {
  return Guard([&] {
    Tensor const& tensor = ResultOf(model, id);
    return Hand(tensor.data, ByteCount(tensor.shape), Joined({"output \"", id, "\""}), buffer, bytes, needed);
  });
}

talvo_status talvo_model_profile(talvo_model* model, talvo_tensor const* inputs, size_t input_count,
                                 talvo_layer_time* times, size_t capacity, size_t* count) {
  return Guard([&] {
    Need(model != nullptr && count != nullptr, "the model or the place for the count is null");
    Need(times != nullptr || capacity == 0, "the times are null");
    for (size_t i = 0; i < capacity; ++i) Element(times, i, kTimeSize);
    auto const tensors = InputsOf(model->model, inputs, input_count);
    model->results = {};
    model->times = model->model.Profile(tensors);
    *count = model->times.size();
    for (size_t i = 0; i < std::min(capacity, *count); ++i) {
      talvo::LayerTime const& time = model->times[i];
      Fill<talvo_layer_time>(Element(times, i, kTimeSize),
                             {0, time.id.c_str(), time.kernel.c_str(), time.milliseconds});
    }
    return TALVO_OK;
  });
}

talvo_status talvo_package_check(char const* path, talvo_options const* options, talvo_tensor const* shapes,
                                 size_t shape_count, char* text, size_t bytes, size_t* needed) {
  return Guard([&] {
    Need(path != nullptr, "the path is null");
    Need(shapes != nullptr || shape_count == 0, "the shapes are null");
    talvo::InputDims dims;
    for (size_t i = 0; i < shape_count; ++i) {
      talvo_tensor const shape = Known(Element(shapes, i, kTensorSize));
      Need(shape.id != nullptr && shape.rank <= TALVO_MAXIMUM_RANK, "a shape needs the id of its layer, and a rank");
      dims[shape.id].assign(shape.dims, shape.dims + shape.rank);
    }
    auto const package = talvo::utility::OpenPackage(path);
    std::string found;
    for (auto const& finding : CheckModel(*package, dims, OptionsOf(options))) found += talvo::TextOf(finding) + "\n";
    return Hand(found.c_str(), found.size() + 1, "the text", text, bytes, needed);
  });
}

talvo_status talvo_model_reset(talvo_model* model) {
  return Guard([&] {
    Need(model != nullptr, "the model is null");
    model->model.Reset();
    return TALVO_OK;
  });
}
