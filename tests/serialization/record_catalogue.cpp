#include "talvo/serialization/rapidjson_include.h"

#include "tests/serialization/record_catalogue.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string_view>
#include <type_traits>

#include "talvo/runtime/tensor.h"
#include "talvo/talvo.h"

namespace talvo::test {
namespace {

using namespace runtime;
using half_float::half;

template <class T>
constexpr char const* kKind = nullptr;
template <>
constexpr char const* kKind<float> = "float";
template <>
constexpr char const* kKind<half> = "half";
template <>
constexpr char const* kKind<bool> = "bool";
template <>
constexpr char const* kKind<short> = "i16";
template <>
constexpr char const* kKind<unsigned short> = "u16";
template <>
constexpr char const* kKind<int> = "i32";
template <>
constexpr char const* kKind<unsigned int> = "u32";
template <>
constexpr char const* kKind<unsigned long long> = "u64";
template <>
constexpr char const* kKind<std::string> = "string";

template <class T>
std::string KindOf(T const*) {
  return kKind<T> == nullptr ? "a kind that no record uses" : kKind<T>;
}
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
  for (T const& value : values) {
    Print(stream, value);
    stream << ';';
  }
}

struct JSONStorage {
  JSONAllocator allocator;
  rapidjson::Value object{rapidjson::kObjectType};
};

// Weights are visited as text where the visitor is one of the JSON pair; hence the bases of these two.
class Lister : private JSONStorage, public JSONNodeSetter {
 public:
  Lister(std::vector<std::string>& lines, bool deep)
      : JSONNodeSetter(object, allocator, false), lines_(lines), deep_(deep) {}

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
    if (deep_) record->VisitAttr(std::make_shared<Lister>(lines_, true));
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
  void Fill(T* value, char const*) {
    *value = static_cast<T>(++count_);
  }
  void Fill(float* value, char const*) { *value = static_cast<float>(++count_) + 0.1f; }
  void Fill(half* value, char const*) { *value = half(static_cast<float>(++count_) + 0.5f); }
  void Fill(bool* value, char const*) { *value = !*value; }
  void Fill(std::string* value, char const* key) {
    if (std::string_view(key) == "serializable_type") return;
    float const number = static_cast<float>(++count_) * -0.25f;
    *value = Base64Encode(reinterpret_cast<unsigned char const*>(&number), sizeof number);
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

template <class Record>
RecordClass Entry(char const* name) {
  return {name, [] { return std::make_shared<Record>(); }};
}

}  // namespace

std::vector<RecordClass> const& RecordCatalogue() {
  using Extra = TensorShape::Extra;
#define TALVO_ENTRY(name) Entry<name>(#name)
  static std::vector<RecordClass> const catalogue = {
      TALVO_ENTRY(Serializable),
      TALVO_ENTRY(Extra),
      TALVO_ENTRY(TensorShape),
      TALVO_ENTRY(TimeInfo),
      TALVO_ENTRY(NetExtraInfo),
      TALVO_ENTRY(TensorDimemsionSamplingInfo),
      TALVO_ENTRY(TensorInfo),
      TALVO_ENTRY(TLModelInfo),
      TALVO_ENTRY(TLModelInfoArr),
      TALVO_ENTRY(TLNModel),
      TALVO_ENTRY(KernelCfg),
      TALVO_ENTRY(KernelCfgArr),
      TALVO_ENTRY(LayerCfg),
      TALVO_ENTRY(TLModelCfg),
      TALVO_ENTRY(TLModelMultiBackendCfgs),
      TALVO_ENTRY(TLModelMultiBackendCfgsArr),
      TALVO_ENTRY(InferenceParamActQuant),
      TALVO_ENTRY(InferenceParamFullConnectionQuant),
      TALVO_ENTRY(InferenceParamUpsampling2DQuant),
      TALVO_ENTRY(InferenceParamConv2DQuant),
      TALVO_ENTRY(InferenceParamConv2DCUDA),
      TALVO_ENTRY(InferenceParamVulkan),
      TALVO_ENTRY(InferenceParamConv2DVulkan),
      TALVO_ENTRY(InferenceParamOpenGLCompute),
      TALVO_ENTRY(InferenceParamConv2DOpenGLCompute),
      TALVO_ENTRY(InferenceParamConvTranspose2DOpenGLCompute),
      TALVO_ENTRY(InferenceParamElementwiseOpenGLCompute),
      TALVO_ENTRY(InferenceParamActivationOpenGLCompute),
      TALVO_ENTRY(InferenceParamConcatOpenGLCompute),
      TALVO_ENTRY(InferenceParamUpsampling2DOpenGLCompute),
      TALVO_ENTRY(InferenceParamPixelShuffleOpenGLCompute),
      TALVO_ENTRY(InferenceParamPooling2DOpenGLCompute),
      TALVO_ENTRY(InferenceParamFullConnectionOpenGLCompute),
      TALVO_ENTRY(InferenceParamTensorReshapeOpenGLCompute),
      TALVO_ENTRY(InferenceParamTensorExpandOpenGLCompute),
      TALVO_ENTRY(InferenceParamBroadcastOpenGLCompute),
      TALVO_ENTRY(InferenceParamLuaCustomMetalCompute),
      TALVO_ENTRY(InferenceParamMetalComputeFusedActivation),
      TALVO_ENTRY(InferenceParamConv2dMetalCompute),
      TALVO_ENTRY(InferenceParamElementwiseMetalCompute),
      TALVO_ENTRY(InferenceParamConcatenateMetalCompute),
      TALVO_ENTRY(InferenceParamMetalComputeCommon),
      TALVO_ENTRY(LayerInfo),
      TALVO_ENTRY(InputInfo),
      TALVO_ENTRY(LayerPlaceholderInfo),
      TALVO_ENTRY(Pad1dInfo),
      TALVO_ENTRY(Pad2dInfo),
      TALVO_ENTRY(ActivationInfo),
      TALVO_ENTRY(ClipInfo),
      TALVO_ENTRY(SoftmaxInfo),
      TALVO_ENTRY(Conv1dInfo),
      TALVO_ENTRY(Conv2dInfo),
      TALVO_ENTRY(ConvTranspose2dInfo),
      TALVO_ENTRY(SQFCConv2dInfo),
      TALVO_ENTRY(SQFCConv2dFoldedBNInfo),
      TALVO_ENTRY(AvgPool2dInfo),
      TALVO_ENTRY(MaxPool2dInfo),
      TALVO_ENTRY(AdaptiveAvgPool2dInfo),
      TALVO_ENTRY(AdaptiveMaxPool2dInfo),
      TALVO_ENTRY(ElementWiseOperatorInfo),
      TALVO_ENTRY(BroadcastOperatorInfo),
      TALVO_ENTRY(BatchNorm2dInfo),
      TALVO_ENTRY(BatchNorm1dInfo),
      TALVO_ENTRY(InstanceNorm2dInfo),
      TALVO_ENTRY(Upsample2dInfo),
      TALVO_ENTRY(GridSampleInfo),
      TALVO_ENTRY(ConcatenateInfo),
      TALVO_ENTRY(PixelShuffleInfo),
      TALVO_ENTRY(SpaceToDepthInfo),
      TALVO_ENTRY(TensorReshapeInfo),
      TALVO_ENTRY(TensorExpandInfo),
      TALVO_ENTRY(TensorTransposeInfo),
      TALVO_ENTRY(TensorArithmeticInfo),
      TALVO_ENTRY(TensorSliceInfo),
      TALVO_ENTRY(TensorSqueezeInfo),
      TALVO_ENTRY(TensorUnSqueezeInfo),
      TALVO_ENTRY(FullConnectionInfo),
      TALVO_ENTRY(GemmInfo),
      TALVO_ENTRY(TensorGetItemInfo),
      TALVO_ENTRY(RNNCellInfo),
      TALVO_ENTRY(LSTMCellInfo),
      TALVO_ENTRY(GRUCellInfo),
      TALVO_ENTRY(RNNInfo),
      TALVO_ENTRY(LSTMInfo),
      TALVO_ENTRY(GRUInfo),
  };
#undef TALVO_ENTRY
  return catalogue;
}

std::vector<std::string> ListFields(Serializable& record, bool deep) {
  std::vector<std::string> lines;
  record.VisitAttr(std::make_shared<Lister>(lines, deep));
  return lines;
}

void FillFields(Serializable& record) {
  int count = 0;
  record.VisitAttr(std::make_shared<Filler>(count));
}

ScratchFile::ScratchFile(std::string const& bytes) {
  static int count = 0;
  path_ = testing::TempDir() + "talvo_" + std::to_string(getpid()) + "_" + std::to_string(++count);
  std::ofstream(path_, std::ios::binary) << bytes;
}

ScratchFile::~ScratchFile() { std::filesystem::remove(path_); }

std::string ScratchFile::Bytes() const {
  std::ifstream stream(path_, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

std::string Golden(std::string const& name) {
  std::ifstream stream("tests/serialization/golden/" + name, std::ios::binary);
  EXPECT_TRUE(stream.good()) << name;
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

std::string Written(Serializable& record, char const* form) {
  ScratchFile const file;
  EXPECT_TRUE(record.ToFile(file.Path(), form));
  return file.Bytes();
}

void ReadFrom(Serializable& record, std::string const& bytes, char const* form) {
  ScratchFile const file(bytes);
  EXPECT_TRUE(record.FromFile(file.Path(), form));
}

}  // namespace talvo::test
