#include "tools/convert_onnx/check.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "tools/common/program.h"
#include "tools/run_package/npy.h"

namespace convert_onnx {

using namespace talvo::runtime;

namespace {

std::shared_ptr<Context> NewContext() {
  std::shared_ptr<Context> context;
  talvo::utility::create_context(context, 64);
  return context;
}

// float32 as it is, uint8 widened.
Array FromTensor(Tensor const& tensor) {
  Array array{{tensor.shape.dims.begin(), tensor.shape.dims.end()}, onnx::TensorProto::FLOAT, {}};
  std::size_t const count = ElementCount(tensor.shape.dims);
  for (std::size_t i = 0; i < count; ++i) {
    if (tensor.shape.data_type == TensorShape::FLOAT32) {
      array.values.push_back(static_cast<double>(static_cast<float const*>(tensor.data)[i]));
    } else {
      array.values.push_back(static_cast<unsigned char const*>(tensor.data)[i]);
    }
  }
  return array;
}

unsigned int LayoutOfRank(std::size_t rank) {
  if (rank == 1) return TensorShape::C;
  if (rank == 2) return TensorShape::SC;
  return rank == 3 ? TensorShape::CHW : TensorShape::FLEXIABLE;
}

std::shared_ptr<TensorCPU> ToTensor(Array const& array, DeviceCPU& device) {
  Shape shape = array.shape;
  if (shape.size() > 1 && shape[0] == 1) shape.erase(shape.begin());
  if (shape.empty()) shape = {1};
  std::vector<unsigned int> const dims(shape.begin(), shape.end());
  std::vector<float> const floats = array.Floats();
  TensorShape const description(dims, TensorShape::FLOAT32, LayoutOfRank(dims.size()), TensorShape::MainMemory, {});
  return device.CreateTensor(description, floats.data());
}

// Layers are numbered as the model lists them.
std::vector<unsigned int> Numbers(TLModelInfo const& model, std::vector<std::string> const& layers) {
  std::vector<unsigned int> numbers;
  auto const& ids = model.squential_ids;
  for (std::string const& layer : layers) {
    numbers.push_back(static_cast<unsigned int>(std::find(ids.begin(), ids.end(), layer) - ids.begin()));
  }
  return numbers;
}

Outcome Forward(TLNModel const& package, std::map<std::string, Array> const& inputs,
                std::vector<std::string> const& layers) {
  auto context = NewContext();
  ClassRegistry<std::shared_ptr<IKernel>> kernels;
  ClassRegistry<std::shared_ptr<InferenceParam>> params;
  talvo::utility::init_register_operators(kernels, params);
  talvo::utility::init_register_fused_operators(kernels);
  talvo::utility::init_register_extra_operators(kernels);
  std::string const& id = package.model_arr->squential_ids.at(0);
  auto const& model = package.model_arr->models.at(id);
  auto made = std::make_shared<talvo::utility::_NetworkPackage>();
  made->kernels = &kernels;
  made->params = &params;
  made->context = context;
  talvo::utility::Load_Single_Net(made, model, package.config_arr->configs.at(id), "x86");
  for (auto const& [name, index] : made->net->input_ids) {
    auto const found = inputs.find(name);
    if (found == inputs.end()) throw Refusal("the check has no input " + name);
    made->inputs[index] = ToTensor(found->second, *context->device_cpu);
  }
  auto const wanted = layers.empty() ? made->output_ids : Numbers(*model, layers);
  auto outputs = made->net->Forward(made->inputs, wanted, context, nullptr, nullptr);
  Outcome outcome;
  for (unsigned int const output : wanted) outcome.values.push_back(FromTensor(*outputs.at(output).at(0)));
  outcome.peak_bytes = context->device_cpu->memory_pool->HeapSize() + context->device_cpu->dynamic_pool->HeapSize();
  return outcome;
}

bool IsFinite(Array const& array) {
  return std::all_of(array.values.begin(), array.values.end(), [](double v) { return std::isfinite(v); });
}

std::string FileOf(std::string const& folder, std::string name) {
  std::replace(name.begin(), name.end(), '/', '_');
  for (char const* const ending : {".pb", ".npy"}) {
    if (std::filesystem::exists(folder + "/" + name + ending)) return folder + "/" + name + ending;
  }
  return "";
}

// The first layer of each kind, of a package that is known to be off: all layers as outputs, one after the other.
std::string FirstSuspect(TLNModel const& package, Conversion const& conversion, std::string const& folder,
                         Bounds const& bounds) {
  std::vector<std::string> names;
  for (Layer const& layer : conversion.layers) names.push_back(layer.name);
  auto const inputs = RecordedInputs(conversion, folder);
  auto const values = Run(package, inputs, names).values;
  auto const exact = Run(*MakePackage(conversion, "exact"), inputs, names).values;
  std::string recorded, rounded, infinite;
  for (std::size_t i = 0; i < values.size(); ++i) {
    Layer const& layer = conversion.layers[i];
    std::string const who = layer.name + " of node " + layer.node + " (" + layer.kernel + ")";
    std::string const file = recorded.empty() ? FileOf(folder, layer.name) : "";
    std::string const off = file.empty() ? "" : Difference(values[i], ReadArray(file), bounds);
    if (!off.empty()) recorded = "; the first that is off is " + who + ": " + off;
    std::string const apart = rounded.empty() ? Difference(values[i], exact[i], bounds) : "";
    if (!apart.empty()) rounded = "; rounded weights tell first in " + who + ": " + apart;
    if (infinite.empty() && !IsFinite(values[i])) infinite = "; the first that is not finite is " + who;
  }
  std::string const all = recorded + rounded + infinite;
  return all.empty() ? "; a value of the graph recorded as " + folder + "/NAME.npy would tell the first node" : all;
}

}  // namespace

Array ReadArray(std::string const& path) {
  try {
    if (std::filesystem::path(path).extension() == ".npy") {
      auto const context = NewContext();
      return FromTensor(*run_package::ReadNpy(path, "", *context->device_cpu));
    }
    std::ifstream stream(path, std::ios::binary);
    onnx::TensorProto tensor;
    if (!stream || !tensor.ParseFromIstream(&stream)) throw Refusal("is no tensor");
    return ReadTensor(tensor, "");
  } catch (std::exception const& refusal) {
    std::string const text = refusal.what();
    throw Refusal(text.compare(0, path.size(), path) == 0 ? text : path + ": " + text);
  }
}

std::vector<Array> ReadArrays(std::string const& folder, std::string const& stem) {
  std::vector<Array> arrays;
  for (;;) {
    std::string const path = folder + "/" + stem + "_" + std::to_string(arrays.size());
    if (std::filesystem::exists(path + ".pb")) {
      arrays.push_back(ReadArray(path + ".pb"));
    } else if (std::filesystem::exists(path + ".npy")) {
      arrays.push_back(ReadArray(path + ".npy"));
    } else {
      return arrays;
    }
  }
}

Outcome Run(TLNModel const& package, std::map<std::string, Array> const& inputs,
            std::vector<std::string> const& layers) {
  try {
    return Forward(package, inputs, layers);
  } catch (Refusal const&) {
    throw;
  } catch (std::exception const& refusal) {
    throw Refusal("the library refuses the package: " + tools::Message(refusal, "a kernel refuses its layer"));
  }
}

std::map<std::string, Array> RecordedInputs(Conversion const& conversion, std::string const& folder) {
  auto const inputs = ReadArrays(folder, "input");
  std::map<std::string, Array> named;
  for (std::size_t i = 0; i < inputs.size() && i < conversion.recorded.size(); ++i)
    named[conversion.recorded[i]] = inputs[i];
  return named;
}

std::string Deviation(TLNModel const& package, Conversion const& conversion, std::string const& folder,
                      Bounds const& bounds) {
  auto const outputs = ReadArrays(folder, "output");
  if (outputs.empty()) throw Refusal(folder + ": holds no output_0.npy or output_0.pb");
  auto const got = Run(package, RecordedInputs(conversion, folder)).values;
  if (outputs.size() < got.size()) {
    throw Refusal(folder + ": holds " + std::to_string(outputs.size()) + " outputs, the package makes " +
                  std::to_string(got.size()));
  }
  for (std::size_t i = 0; i < got.size(); ++i) {
    std::string const off = Difference(got[i], outputs[i], bounds);
    if (off.empty()) continue;
    return "output " + conversion.outputs[i] + ": " + off + FirstSuspect(package, conversion, folder, bounds);
  }
  return "";
}

std::string Difference(Array const& got, Array const& want, Bounds const& bounds) {
  if (got.values.size() != want.values.size()) {
    return std::to_string(got.values.size()) + " elements, recorded are " + std::to_string(want.values.size());
  }
  double largest = 0;
  for (double const value : want.values) largest = std::isfinite(value) ? std::max(largest, std::abs(value)) : largest;
  double const bound = bounds.absolute + bounds.relative * largest;
  for (std::size_t i = 0; i < want.values.size(); ++i) {
    double const a = got.values[i], b = want.values[i];
    if (a == b || (std::isnan(a) && std::isnan(b)) || std::abs(a - b) <= bound) continue;
    return "element " + std::to_string(i) + " is " + Text(a) + ", recorded is " + Text(b) + ", the bound is " +
           Text(bound);
  }
  return "";
}

}  // namespace convert_onnx
