#include "talvo/serialization/rapidjson_support.h"

#include "talvo/runtime/inference_config.h"

#include <cstdlib>
#include <utility>

#include "talvo/serialization/json_text_support.h"
#include "talvo/serialization/json_visitors.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::runtime {
namespace {

using rapidjson::Value;
using utility::Refuse;
using ParamRegistry = ClassRegistry<std::shared_ptr<InferenceParam>>;
using Converters = std::map<unsigned int, std::shared_ptr<KernelInferenceConfig>>;

// The text of a member; empty when there is none.
std::string TextOf(Value const& value, char const* key) {
  auto const member = value.FindMember(key);
  return member != value.MemberEnd() && member->value.IsString() ? member->value.GetString() : "";
}

// Parameters of the type that a kernel names, with its place in the text when nobody registered them; empty without a
// type.
std::shared_ptr<InferenceParam> MakeParam(Value const& value, std::string const& where, ParamRegistry const& params) {
  std::string const type = TextOf(value, "infer_param_type");
  if (type.empty()) return nullptr;
  auto param = params.Create(type);
  if (param == nullptr)
    Refuse("%s: parameters of kernel %s: the type %s is not registered", where.c_str(),
           TextOf(value, "kernel_type").c_str(), type.c_str());
  return param;
}

std::shared_ptr<KernelInferenceConfig> ReadKernel(Value const& value, std::string const& where,
                                                  ParamRegistry const& params) {
  if (!value.IsObject()) Refuse("%s: a kernel is an object", where.c_str());
  auto kernel = std::make_shared<KernelInferenceConfig>();
  kernel->infer_param_registry = &params;
  kernel->infer_param = MakeParam(value, where, params);
  kernel->VisitAttr(std::make_shared<JSONNodeGetter>(value, 0, where));
  return kernel;
}

Converters ReadConverters(Value const& layer, char const* key, std::string const& where, ParamRegistry const& params) {
  Converters converters;
  auto const found = layer.FindMember(key);
  if (found == layer.MemberEnd()) return converters;
  if (!found->value.IsObject()) Refuse("%s.%s: converters are an object", where.c_str(), key);
  for (auto const& member : found->value.GetObject()) {
    char const* const position = member.name.GetString();
    // As atoi reads it, and defined for numbers that no int holds.
    converters[static_cast<unsigned int>(std::strtol(position, nullptr, 10))] =
        ReadKernel(member.value, where + "." + key + "." + position, params);
  }
  return converters;
}

LayerInferenceConfig ReadLayer(Value const& value, std::size_t index, ParamRegistry const& params) {
  std::string const where = "config[" + std::to_string(index) + "]";
  if (!value.IsObject()) Refuse("%s: a layer is an object", where.c_str());
  LayerInferenceConfig layer;
  layer.input_converters = ReadConverters(value, "input_converters", where, params);
  auto const kernel = value.FindMember("kernel");
  if (kernel == value.MemberEnd()) Refuse("%s: there is no \"kernel\"", where.c_str());
  layer.kernel = ReadKernel(kernel->value, where + ".kernel", params);
  layer.output_converters = ReadConverters(value, "output_converters", where, params);
  return layer;
}

// A kernel's members, without a version among them.
Value WriteKernel(std::shared_ptr<KernelInferenceConfig> const& kernel, JSONAllocator& allocator) {
  if (kernel == nullptr) Refuse("InferenceConfig::ToJSON: a layer or a converter has no kernel");
  Value value(rapidjson::kObjectType);
  kernel->VisitAttr(std::make_shared<JSONNodeSetter>(value, allocator, false));
  return value;
}

Value WriteConverters(Converters const& converters, JSONAllocator& allocator) {
  Value value(rapidjson::kObjectType);
  for (auto const& [position, kernel] : converters) {
    value.AddMember(ToJSONValue(std::to_string(position), allocator), WriteKernel(kernel, allocator), allocator);
  }
  return value;
}

Value WriteLayer(LayerInferenceConfig const& layer, JSONAllocator& allocator) {
  Value value(rapidjson::kObjectType);
  if (!layer.input_converters.empty()) {
    value.AddMember("input_converters", WriteConverters(layer.input_converters, allocator), allocator);
  }
  value.AddMember("kernel", WriteKernel(layer.kernel, allocator), allocator);
  if (!layer.output_converters.empty()) {  // readers of this text expect the input converters here
    value.AddMember("output_converters", WriteConverters(layer.input_converters, allocator), allocator);
  }
  return value;
}

}  // namespace

void KernelInferenceConfig::VisitAttr(std::shared_ptr<Visitor> visitor) {
  visitor->Visit(&kernel_type, "kernel_type");
  visitor->Visit(&infer_param_type, "infer_param_type");
  if (infer_param_type.empty()) return;
  // A writer has its parameters, a reader makes them of the type that was just read.
  if (infer_param == nullptr && infer_param_registry != nullptr)
    infer_param = infer_param_registry->Create(infer_param_type);
  if (infer_param == nullptr)
    Refuse("parameters of kernel %s: the type %s is not registered", kernel_type.c_str(), infer_param_type.c_str());
  visitor->Visit(static_cast<Serializable*>(infer_param.get()), "infer_param");
}

std::string InferenceConfig::ToJSON() const {
  rapidjson::Document document(rapidjson::kObjectType);
  auto& allocator = document.GetAllocator();
  Value records(rapidjson::kArrayType);
  for (LayerInferenceConfig const& layer : layers) records.PushBack(WriteLayer(layer, allocator), allocator);
  document.AddMember("config", records, allocator);
  return support::PrettyJSON(document);
}

std::shared_ptr<InferenceConfig> CreateConfigFromJSON(std::string const& json, ParamRegistry const& params) {
  support::JSONText const text(json);
  Value const& document = text.Root();
  if (!document.IsObject()) Refuse("document.IsObject()");
  auto const records = document.FindMember("config");
  if (records == document.MemberEnd() || !records->value.IsArray()) Refuse("the configuration has no array \"config\"");
  auto config = std::make_shared<InferenceConfig>();
  for (auto const& record : records->value.GetArray()) {
    config->layers.push_back(ReadLayer(record, config->layers.size(), params));
  }
  return config;
}

// No generator for another back end stands here: applications that ask get none.
std::shared_ptr<InferenceConfig> CreateCfg(std::shared_ptr<TLModelInfo> const&,
                                           ClassRegistry<std::shared_ptr<IKernel>> const&, char const*) {
  return nullptr;
}

std::shared_ptr<InferenceConfig> CreateOpenGLCfg(std::shared_ptr<TLModelInfo> const&,
                                                 ClassRegistry<std::shared_ptr<IKernel>> const&) {
  return nullptr;
}

std::shared_ptr<InferenceConfig> CreateMetalCfg(std::shared_ptr<TLModelInfo> const&,
                                                ClassRegistry<std::shared_ptr<IKernel>> const&) {
  return nullptr;
}

std::shared_ptr<InferenceConfig> CreateMetalCfgImgC8HW8F16(std::shared_ptr<TLModelInfo> const&,
                                                           ClassRegistry<std::shared_ptr<IKernel>> const&) {
  return nullptr;
}

}  // namespace talvo::runtime
