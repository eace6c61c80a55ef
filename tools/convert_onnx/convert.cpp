#include "tools/convert_onnx/convert.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl.h>

#include <algorithm>
#include <fstream>
#include <set>

#include "tools/convert_onnx/fold.h"
#include "tools/convert_onnx/translators.h"

namespace convert_onnx {
namespace {

constexpr int kNewestOpset = 17;

int OpsetOf(onnx::ModelProto const& model) {
  long long opset = model.opset_import_size() == 0 ? 1 : 0;
  for (auto const& import : model.opset_import()) {
    if (import.domain().empty() || import.domain() == "ai.onnx") opset = std::max<long long>(opset, import.version());
  }
  if (opset < 1 || opset > kNewestOpset) throw Refusal("opset " + std::to_string(opset) + "; 1 to 17 are known");
  return static_cast<int>(opset);
}

std::string NameOf(onnx::NodeProto const& node) {
  for (std::string const& output : node.output()) {
    if (node.name().empty() && !output.empty()) return output;
  }
  return node.name();
}

class Walk {
 public:
  Walk(onnx::ModelProto const& model, std::string const& folder, Options const& options)
      : graph_(model.graph()), opset_(OpsetOf(model)), folder_(folder), options_(options), builder_(options) {}

  Conversion Run() {
    CheckNames();
    FindReaders();
    for (auto const& tensor : graph_.initializer()) {
      initialised_.insert(tensor.name());
      if (readers_.count(tensor.name()) != 0) Set(tensor.name(), Constant(ReadTensor(tensor, folder_)));
    }
    for (auto const& input : graph_.input()) {
      if (initialised_.count(input.name()) == 0) result_.recorded.push_back(input.name());
      AddInput(input);
    }
    for (int i = 0; i < graph_.node_size(); ++i) {
      if (needed_[static_cast<std::size_t>(i)]) AddNode(graph_.node(i));
    }
    result_.notes.assign(builder_.notes.begin(), builder_.notes.end());
    if (result_.refusals.empty()) Finish();
    return std::move(result_);
  }

 private:
  void Set(std::string const& name, Value value) {
    if (value.IsConstant()) constants_ += value.constant->values.size();
    if (constants_ > options_.most_elements)
      throw Refusal("more than " + std::to_string(options_.most_elements) + " elements in all constants");
    value.name = name;
    values_[name] = std::move(value);
  }

  void CheckNames() const {
    std::set<std::string> made;
    for (auto const& node : graph_.node()) {
      for (std::string const& output : node.output()) {
        if (!output.empty() && !made.insert(output).second) throw Refusal("value " + output + " is made twice");
      }
    }
    for (auto const& [name, unused] : options_.bound) CheckInput(name);
    for (auto const& [name, unused] : options_.shapes) CheckInput(name);
  }

  void CheckInput(std::string const& name) const {
    for (auto const& input : graph_.input()) {
      if (input.name() == name) return;
    }
    throw Refusal("the graph has no input " + name);
  }

  // Who is read, from the outputs backwards; the nodes that nobody needs are left out.
  void FindReaders() {
    outputs_ = options_.outputs;
    for (auto const& output : graph_.output()) {
      if (options_.outputs.empty()) outputs_.push_back(output.name());
    }
    if (outputs_.empty()) throw Refusal("the graph has no output");
    for (std::string const& output : outputs_) readers_[output] += 2;  // an output stays as it is, however few read it
    needed_.assign(static_cast<std::size_t>(graph_.node_size()), false);
    for (int i = graph_.node_size(); i-- > 0;) {
      auto const& node = graph_.node(i);
      bool const read = std::any_of(node.output().begin(), node.output().end(),
                                    [&](std::string const& o) { return readers_.count(o) != 0; });
      needed_[static_cast<std::size_t>(i)] = read;
      if (!read) ++result_.dropped;
      for (std::string const& input : node.input()) {
        if (read && !input.empty()) ++readers_[input];
      }
    }
  }

  void AddInput(onnx::ValueInfoProto const& input) {
    std::string const& name = input.name();
    auto const bound = options_.bound.find(name);
    if (bound != options_.bound.end()) Set(name, Constant(bound->second));
    if (values_.count(name) != 0 || readers_.count(name) == 0) return;
    auto const& type = input.type().tensor_type();
    if (!builder_.Holds(type.elem_type())) {
      bool const narrows =
          type.elem_type() == onnx::TensorProto::DOUBLE || type.elem_type() == onnx::TensorProto::FLOAT16;
      throw Refusal("input " + name + " is of type " + TypeName(type.elem_type()) + ", tensors are float32; " +
                    (narrows ? "take it as float32 with --narrow, or " : "") + "make it a constant with --bind");
    }
    auto const given = options_.shapes.find(name);
    Shape shape;
    for (auto const& extent : type.shape().dim()) shape.push_back(extent.has_dim_value() ? extent.dim_value() : -1);
    if (given != options_.shapes.end()) shape = given->second;
    bool const open =
        !type.has_shape() || std::any_of(shape.begin(), shape.end(), [](long long extent) { return extent < 0; });
    if (open && given == options_.shapes.end())
      throw Refusal("input " + name + " has no fixed shape; give one with --shape " + name + "=1x3x224x224");
    Set(name, builder_.AddInput(name, shape));
    result_.inputs.push_back(name);
  }

  void AddNode(onnx::NodeProto const& proto) {
    Node node(proto, opset_, folder_);
    std::string const who = "node " + NameOf(proto) + " (" + proto.op_type() + "): ";
    bool unknown = false;
    for (std::string const& input : proto.input()) {
      if (!input.empty() && values_.count(input) == 0) {
        throw Refusal(who + "reads " + input + ", which nothing before it makes");
      }
      node.inputs.push_back(input.empty() ? Value() : values_[input]);
      unknown = unknown || !node.inputs.back().refusal.empty();
    }
    while (!node.wanted.empty() && readers_.count(proto.output(static_cast<int>(node.wanted.size()) - 1)) == 0)
      node.wanted.pop_back();
    try {
      SetOutputs(proto, unknown ? Skipped(node) : Translate(node));
    } catch (Refusal const& refusal) {
      result_.refusals.push_back(who + refusal.what());
      for (std::string const& output : proto.output()) Set(output, Unmade("not made"));
    }
  }

  // A node whose inputs are refused already is judged by its operator alone.
  static std::vector<Value> Skipped(Node const& node) {
    for (Value const& input : node.inputs) {
      if (!input.refusal.empty() && input.refusal != "not made") throw Refusal(input.refusal);
    }
    if (AllTranslators().count(node.proto.op_type()) == 0 && node.proto.op_type() != "Shape")
      throw Refusal("there are no layers for this operator");
    return std::vector<Value>(static_cast<std::size_t>(node.proto.output_size()), Unmade("not made"));
  }

  std::vector<Value> Translate(Node const& node) {
    auto const& proto = node.proto;
    if (!proto.domain().empty() && proto.domain() != "ai.onnx") throw Refusal("domain " + proto.domain());
    if (auto folded = FoldConstants(node)) {
      result_.folded.push_back(NameOf(proto));
      return *folded;
    }
    auto const found = AllTranslators().find(proto.op_type());
    if (found == AllTranslators().end()) throw Refusal("there are no layers for this operator");
    std::vector<std::string> once;
    for (std::string const& input : proto.input()) {
      if (readers_[input] == 1) once.push_back(input);
    }
    builder_.Begin(NameOf(proto), once);
    return found->second(node, builder_);
  }

  void SetOutputs(onnx::NodeProto const& proto, std::vector<Value> made) {
    made.resize(std::max<std::size_t>(made.size(), static_cast<std::size_t>(proto.output_size())));
    for (int i = 0; i < proto.output_size(); ++i) {
      std::string const& name = proto.output(i);
      Value& value = made[static_cast<std::size_t>(i)];
      if (name.empty() || readers_.count(name) == 0) continue;
      if (value.IsAbsent() && value.refusal.empty())
        throw Refusal("output " + std::to_string(i) + " (" + name + ") is not made");
      if (value.IsTensor() && builder_.layers[static_cast<std::size_t>(value.layer)].name.empty()) {
        builder_.layers[static_cast<std::size_t>(value.layer)].name = name;
      }
      Set(name, value);
    }
  }

  void Finish() {
    std::vector<int> ends;
    for (std::string const& name : outputs_) {
      auto const found = values_.find(name);
      if (found == values_.end()) throw Refusal("nothing makes output " + name);
      Value const& value = found->second;
      if (!value.refusal.empty()) throw Refusal("output " + name + ": " + value.refusal);
      if (!value.IsTensor()) throw Refusal("output " + name + " is constant; a package holds what is computed");
      ends.push_back(Expose(name, value));
    }
    Prune(ends);
  }

  // The layer that is the output `name`: in the shape of the graph, of that name and nobody else's.
  int Expose(std::string const& name, Value const& value) {
    builder_.Begin(name, {});
    Value const natural = builder_.Natural(value);
    auto& layers = builder_.layers;
    auto const shared = [&](std::size_t at) { return layers[at].name != name && !layers[at].name.empty(); };
    auto at = static_cast<std::size_t>(natural.layer);
    if (shared(at) || layers[at].inputs.empty()) {
      Value const copy = builder_.Unary(natural, "Straight_Through_Fallback_M1");
      at = static_cast<std::size_t>(copy.layer);
    }
    for (Layer& layer : layers) {
      if (layer.name == name && !layer.inputs.empty()) layer.name.clear();
    }
    layers[at].name = name;
    return static_cast<int>(at);
  }

  void Prune(std::vector<int> const& ends) {
    auto& layers = builder_.layers;
    std::vector<bool> live(layers.size(), false);
    for (int const end : ends) live[static_cast<std::size_t>(end)] = true;
    for (std::size_t i = layers.size(); i-- > 0;) {
      for (int const input : layers[i].inputs) {
        if (live[i]) live[static_cast<std::size_t>(input)] = true;
      }
    }
    NameHelpers();
    std::vector<std::string> names;
    for (std::size_t i = 0; i < layers.size(); ++i) {
      names.push_back(layers[i].name);
      if (!live[i]) continue;
      layers[i].record->id = layers[i].name;
      for (int const input : layers[i].inputs)
        layers[i].record->input_ids.push_back(names[static_cast<std::size_t>(input)]);
      result_.layers.push_back(layers[i]);
    }
    for (int const end : ends) result_.outputs.push_back(names[static_cast<std::size_t>(end)]);
    std::set<std::string> kept;
    for (Layer const& layer : result_.layers) kept.insert(layer.name);
    auto& inputs = result_.inputs;
    inputs.erase(std::remove_if(inputs.begin(), inputs.end(), [&](std::string const& i) { return kept.count(i) == 0; }),
                 inputs.end());
    for (std::string const& input : inputs) result_.input_shapes.push_back(values_.at(input).shape);
  }

  void NameHelpers() {
    std::set<std::string> taken;
    for (Layer const& layer : builder_.layers) {
      if (!layer.name.empty() && !taken.insert(layer.name).second) throw Refusal("two layers are called " + layer.name);
    }
    std::map<std::string, int> next;  // number, for each node
    for (Layer& layer : builder_.layers) {
      while (layer.name.empty()) {
        std::string const name = layer.node + "/" + std::to_string(next[layer.node]++);
        if (taken.insert(name).second) layer.name = name;
      }
    }
  }

  onnx::GraphProto const& graph_;
  int opset_;
  std::string folder_;
  Options const& options_;
  Builder builder_;
  std::vector<std::string> outputs_;
  std::map<std::string, int> readers_;
  std::vector<bool> needed_;
  std::map<std::string, Value> values_;
  std::set<std::string> initialised_;
  std::size_t constants_ = 0;  // elements
  Conversion result_;
};

void SetKernels(std::vector<Layer>& layers, Kernels kernels) {
  talvo::runtime::TLModelInfo model;
  talvo::runtime::TLModelCfg config;
  for (Layer const& layer : layers) {
    model.layers[layer.name] = layer.record;
    auto const kernel = config.layers[layer.name] = std::make_shared<talvo::runtime::LayerCfg>();
    kernel->kernel->kernel_type = layer.kernel;
  }
  tools::SetKernels(model, config, kernels);
  for (Layer& layer : layers) layer.kernel = config.layers[layer.name]->kernel->kernel_type;
}

}  // namespace

onnx::ModelProto ReadModel(std::istream& bytes) {
  google::protobuf::io::IstreamInputStream stream(&bytes);
  google::protobuf::io::CodedInputStream coded(&stream);
  onnx::ModelProto model;
  if (!model.ParseFromCodedStream(&coded) || !coded.ConsumedEntireMessage())
    throw Refusal("is no ONNX model, or is cut short");
  if (!model.has_graph() || model.graph().node_size() == 0) throw Refusal("holds no graph with nodes");
  return model;
}

onnx::ModelProto ReadModel(std::string const& path) {
  std::ifstream stream(path, std::ios::binary);
  if (!stream) throw Refusal("cannot be opened");
  return ReadModel(stream);
}

Conversion Convert(onnx::ModelProto const& model, std::string const& folder, Options const& options) {
  ElementLimit const limit(options.most_elements);
  Conversion conversion = Walk(model, folder, options).Run();
  SetKernels(conversion.layers, options.kernels);
  return conversion;
}

}  // namespace convert_onnx
