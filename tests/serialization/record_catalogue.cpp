#include "talvo/serialization/rapidjson_support.h"

#include "tests/serialization/record_catalogue.h"

#include <cxxabi.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <string_view>
#include <type_traits>
#include <typeinfo>

#include "talvo/runtime/tensor.h"
#include "talvo/talvo.h"
#include "tests/support/bits.h"

namespace talvo::test {
namespace {

using namespace runtime;
using half_float::half;

template <class T>
std::string KindOf(T const*) {
  return "a kind that no record uses";
}
std::string KindOf(float const*) { return "float"; }
std::string KindOf(half const*) { return "half"; }
std::string KindOf(bool const*) { return "bool"; }
std::string KindOf(short const*) { return "i16"; }
std::string KindOf(unsigned short const*) { return "u16"; }
std::string KindOf(int const*) { return "i32"; }
std::string KindOf(unsigned int const*) { return "u32"; }
std::string KindOf(unsigned long long const*) { return "u64"; }
std::string KindOf(std::string const*) { return "string"; }
template <class T>
std::string KindOf(std::vector<T> const*) {
  return "vector<" + KindOf(static_cast<T const*>(nullptr)) + ">";
}

template <class T>
void Print(std::ostream& stream, T const& value) {
  stream << value;
}
template <class T>
void Print(std::ostream& stream, std::vector<T> const& values) {
  for (T const& value : values) Print(stream, value), stream << ';';
}

struct JSONStorage {
  JSONAllocator allocator;
  rapidjson::Value object{rapidjson::kObjectType};
};

// Weights are visited as text where the visitor is one of the JSON pair; hence the bases of these three.
class Lister : private JSONStorage, public JSONNodeSetter {
 public:
  Lister(std::vector<std::string>& lines, bool deep, unsigned int version)
      : JSONNodeSetter(object, allocator, false), lines_(lines), deep_(deep) {
    _serialization_protocol_version = version;
  }

#define TALVO_VISIT(type) \
  void Visit(type* value, char const* key) override { List(value, key); }
  TALVO_FOR_EACH_VISITED_TYPE(TALVO_VISIT)
#undef TALVO_VISIT

 private:
  template <class T>
  void List(T* value, char const* key) {
    std::ostringstream line;
    line.precision(9);
    line << KindOf(value) << ' ' << key << '=';
    Print(line, *value);
    lines_.push_back(line.str());
  }
  void List(Serializable* record, char const* key) {
    lines_.push_back(std::string("record ") + key + "=");
    if (deep_) record->VisitAttr(std::make_shared<Lister>(lines_, true, _serialization_protocol_version));
  }

  std::vector<std::string>& lines_;
  bool deep_;
};

class Filler : private JSONStorage, public JSONNodeGetter {
 public:
  explicit Filler(int& count) : JSONNodeGetter(object, __SERIALIZATION_PROTOCOL_VERSION__), count_(count) {}

#define TALVO_VISIT(type) \
  void Visit(type* value, char const* key) override { Fill(value, key); }
  TALVO_FOR_EACH_VISITED_TYPE(TALVO_VISIT)
#undef TALVO_VISIT

 private:
  template <class T>
  void Fill(T* value, char const* key) {
    *value = static_cast<T>(std::string_view(key) == "num_sampling_infos" ? 2 : ++count_);
  }
  void Fill(float* value, char const*) { *value = static_cast<float>(++count_) + 0.1f; }
  void Fill(half* value, char const*) { *value = half(static_cast<float>(++count_) + 0.5f); }
  void Fill(bool* value, char const*) { *value = !*value; }
  void Fill(std::string* value, char const* key) {
    if (std::string_view(key) == "serializable_type") return;
    *value = WeightText({static_cast<float>(++count_) * -0.1003f});
  }
  template <class T>
  void Fill(std::vector<T>* values, char const* key) {
    values->resize(2);
    for (T& value : *values) Fill(&value, key);
    if constexpr (std::is_same_v<T, unsigned short>) {
      if (std::string_view(key) == "squential_types") *values = {9, 17};
    }
  }
  void Fill(Serializable* record, char const*) { record->VisitAttr(std::make_shared<Filler>(count_)); }

  int& count_;
};

std::string NameOf(std::type_info const& type) {
  std::unique_ptr<char, void (*)(void*)> const text(abi::__cxa_demangle(type.name(), nullptr, nullptr, nullptr),
                                                    &std::free);
  std::string const full = text.get();
  return full.substr(full.rfind(':') + 1);
}

template <class... Records>
std::vector<RecordClass> Catalogue() {
  return {{NameOf(typeid(Records)), [] { return std::make_shared<Records>(); }}...};
}

}  // namespace

std::vector<RecordClass> const& RecordCatalogue() {
  static std::vector<RecordClass> const catalogue = Catalogue<
      Serializable, TensorShape::Extra, TensorShape, TimeInfo, NetExtraInfo, TensorDimemsionSamplingInfo, TensorInfo,
      TLModelInfo, TLModelInfoArr, TLNModel, KernelCfg, KernelCfgArr, LayerCfg, TLModelCfg, TLModelMultiBackendCfgs,
      TLModelMultiBackendCfgsArr, InferenceParamActQuant, InferenceParamFullConnectionQuant,
      InferenceParamUpsampling2DQuant, InferenceParamConv2DQuant, InferenceParamConv2DCUDA, InferenceParamVulkan,
      InferenceParamConv2DVulkan, InferenceParamOpenGLCompute, InferenceParamConv2DOpenGLCompute,
      InferenceParamConvTranspose2DOpenGLCompute, InferenceParamElementwiseOpenGLCompute,
      InferenceParamActivationOpenGLCompute, InferenceParamConcatOpenGLCompute, InferenceParamUpsampling2DOpenGLCompute,
      InferenceParamPixelShuffleOpenGLCompute, InferenceParamPooling2DOpenGLCompute,
      InferenceParamFullConnectionOpenGLCompute, InferenceParamTensorReshapeOpenGLCompute,
      InferenceParamTensorExpandOpenGLCompute, InferenceParamBroadcastOpenGLCompute,
      InferenceParamLuaCustomMetalCompute, InferenceParamMetalComputeFusedActivation, InferenceParamConv2dMetalCompute,
      InferenceParamElementwiseMetalCompute, InferenceParamConcatenateMetalCompute, InferenceParamMetalComputeCommon,
      LayerInfo, InputInfo, LayerPlaceholderInfo, Pad1dInfo, Pad2dInfo, ActivationInfo, ClipInfo, SoftmaxInfo,
      Conv1dInfo, Conv2dInfo, ConvTranspose2dInfo, SQFCConv2dInfo, SQFCConv2dFoldedBNInfo, AvgPool2dInfo, MaxPool2dInfo,
      AdaptiveAvgPool2dInfo, AdaptiveMaxPool2dInfo, ElementWiseOperatorInfo, BroadcastOperatorInfo, BatchNorm2dInfo,
      BatchNorm1dInfo, InstanceNorm2dInfo, Upsample2dInfo, GridSampleInfo, ConcatenateInfo, PixelShuffleInfo,
      SpaceToDepthInfo, TensorReshapeInfo, TensorExpandInfo, TensorTransposeInfo, TensorArithmeticInfo, TensorSliceInfo,
      TensorSqueezeInfo, TensorUnSqueezeInfo, FullConnectionInfo, GemmInfo, TensorGetItemInfo, RNNCellInfo,
      LSTMCellInfo, GRUCellInfo, RNNInfo, LSTMInfo, GRUInfo>();
  return catalogue;
}

std::map<std::string, Description> Described() {
  std::map<std::string, Description> classes;
  std::istringstream text(Golden("fields.txt"));
  std::string name;
  for (std::string line; std::getline(text, line);) {
    std::istringstream words(line);
    std::string first, word;
    words >> first;
    if (first == "#") continue;
    bool const starts = std::isupper(first[0]);
    if (starts) name = first;
    auto& [fields, marks] = classes[name];
    while (words >> word) {
      if (!starts) {
        Field field{first, word.substr(0, word.find('@'))};
        int const version = field.text == word ? 0 : std::stoi(word.substr(word.find('@') + 1));
        (version < 0 ? field.until : field.since) = std::abs(version);
        fields.push_back(field);
      } else if (std::isupper(word[0])) {
        fields = classes.at(word).fields;
      } else if (std::isdigit(word[0])) {
        fields = {{"string", "serializable_type"},
                  {"u16", "type=" + word},
                  {"string", "id= "},
                  {"vector<string>", "input_ids="},
                  {"u16", "read_count"}};
      } else {
        marks.insert(word);
      }
    }
  }
  return classes;
}

std::vector<std::string> ListFields(Serializable& record, bool deep, unsigned int version) {
  std::vector<std::string> lines;
  record.VisitAttr(std::make_shared<Lister>(lines, deep, version));
  return lines;
}

void FillFields(Serializable& record, int count) { record.VisitAttr(std::make_shared<Filler>(count)); }

std::string BytesOf(std::string const& path) {
  std::string bytes;
  EXPECT_TRUE(utility::LoadFile(path, bytes)) << path;
  return bytes;
}

std::string Written(Serializable& record, char const* form) {
  static ScratchFolder const folder;
  std::string const path = folder.Path("written");
  EXPECT_TRUE(record.ToFile(path.c_str(), form));
  return BytesOf(path);
}

void ReadFrom(Serializable& record, std::string const& bytes, char const* form) {
  static ScratchFolder const folder;
  EXPECT_TRUE(record.FromFile(folder.Save("read", bytes).c_str(), form));
}

}  // namespace talvo::test
