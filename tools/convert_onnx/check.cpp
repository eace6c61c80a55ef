#include "tools/convert_onnx/check.h"

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

std::vector<Array> Forward(TLNModel const& package, std::map<std::string, Array> const& inputs) {
  auto context = NewContext();
  ClassRegistry<std::shared_ptr<IKernel>> kernels;
  ClassRegistry<std::shared_ptr<InferenceParam>> params;
  talvo::utility::init_register_operators(kernels, params);
  std::string const& id = package.model_arr->squential_ids.at(0);
  auto made = std::make_shared<talvo::utility::_NetworkPackage>();
  made->kernels = &kernels;
  made->params = &params;
  made->context = context;
  talvo::utility::Load_Single_Net(made, package.model_arr->models.at(id), package.config_arr->configs.at(id), "x86");
  for (auto const& [name, index] : made->net->input_ids) {
    auto const found = inputs.find(name);
    if (found == inputs.end()) throw Refusal("the check has no input " + name);
    made->inputs[index] = ToTensor(found->second, *context->device_cpu);
  }
  auto outputs = made->net->Forward(made->inputs, made->output_ids, context, nullptr, nullptr);
  std::vector<Array> results;
  for (unsigned int const output : made->output_ids) results.push_back(FromTensor(*outputs.at(output).at(0)));
  return results;
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

std::vector<Array> Run(TLNModel const& package, std::map<std::string, Array> const& inputs) {
  try {
    return Forward(package, inputs);
  } catch (Refusal const&) {
    throw;
  } catch (std::exception const& refusal) {
    throw Refusal("the library refuses the package: " + tools::Message(refusal, "a kernel refuses its layer"));
  }
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
