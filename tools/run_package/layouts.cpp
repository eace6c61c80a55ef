#include "tools/run_package/layouts.h"

#include <map>

#include "talvo/runtime/tensor.h"

namespace run_package {
namespace {

using talvo::runtime::TensorShape;

std::map<std::string, unsigned int> const& Layouts() {
  static std::map<std::string, unsigned int> const layouts = {
      {"CHW", TensorShape::CHW},     {"HWC", TensorShape::HWC},
      {"C4HW4", TensorShape::C4HW4}, {"C8HW8", TensorShape::C8HW8},
      {"NCHW", TensorShape::NCHW},   {"NHWC", TensorShape::NHWC},
      {"C", TensorShape::C},         {"SC", TensorShape::SC},
      {"CL", TensorShape::CL},       {"FLEXIABLE", TensorShape::FLEXIABLE}};
  return layouts;
}

}  // namespace

std::optional<unsigned int> LayoutNumber(std::string const& name) {
  auto const found = Layouts().find(name);
  return found != Layouts().end() ? std::optional<unsigned int>(found->second) : std::nullopt;
}

std::string LayoutName(unsigned int number) {
  for (auto const& [name, layout] : Layouts()) {
    if (layout == number) return name;
  }
  return "layout " + std::to_string(number);
}

std::string TypeName(unsigned int number) {
  constexpr char const* kNames[] = {"float32", "float16", "int32", "int16", "int8", "uint32", "uint16", "uint8"};
  return kNames[number];
}

}  // namespace run_package
