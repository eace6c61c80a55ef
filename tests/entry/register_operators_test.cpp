// The catalogue, and one walk over it: what every kernel answers to missing and unfit arguments.
#include "talvo/entry/register_operators.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <numeric>
#include <set>

#include "talvo/entry/register_extra_operators.h"
#include "talvo/entry/register_fused_operators.h"
#include "talvo/serialization/layer_info_activation.h"
#include "talvo/serialization/layer_info_conv.h"
#include "talvo/serialization/layer_info_plane.h"
#include "talvo/serialization/layer_info_rnn.h"
#include "talvo/serialization/layer_info_tensor.h"
#include "talvo/utility/features.h"
#include "tests/support/bits.h"
#include "tests/support/guarded_context.h"
#include "tests/support/log_capture.h"

namespace talvo::utility {
namespace {

using namespace talvo::runtime;
using Record = std::shared_ptr<LayerInfo>;
using Tensors = std::vector<std::shared_ptr<Tensor>>;

constexpr unsigned short kTanh = 5;  // number of an activation that recurrent layers take

std::string Weights(std::size_t count) { return test::WeightText(test::Floats(1, count)); }

template <class Info>
void FillConv2d(Info& r) {
  r.in_channels = r.out_channels = 4, r.if_bias = true;
  r.kernel_x = r.kernel_y = r.stride_x = r.stride_y = r.dilation_x = r.dilation_y = r.groups = 1;
  r.weight = Weights(16), r.bias = Weights(4);
}

// What the defaults of a record lack.
void Fill(LayerInfo&) {}
void Fill(Conv2dInfo& r) { FillConv2d(r); }
void Fill(ConvTranspose2dInfo& r) { FillConv2d(r); }
void Fill(Conv1dInfo& r) { r.in_channels = r.out_channels = 4, r.kernel_size = 1, r.weight = Weights(16); }
void Fill(FullConnectionInfo& r) { r.in_features = r.out_features = 4, r.weight = Weights(16); }
void Fill(AvgPool2dInfo& r) { r.kernel_x = r.kernel_y = r.stride_x = r.stride_y = 2; }
void Fill(MaxPool2dInfo& r) { r.kernel_x = r.kernel_y = r.stride_x = r.stride_y = 2, r.dilation_x = r.dilation_y = 1; }
void Fill(Upsample2dInfo& r) { r.scale_factor_x = r.scale_factor_y = 2.0f; }

template <class Info>
std::shared_ptr<Info> Make() {
  auto const info = std::make_shared<Info>();
  info->id = "layer";
  Fill(*info);
  return info;
}

// A cell, or a stack of one layer.
template <class Info, bool kIsStack>
Record Recurrent(std::size_t gates) {
  auto const r = Make<Info>();
  if constexpr (std::is_same_v<Info, RNNCellInfo> || std::is_same_v<Info, RNNInfo>) r->activation_type = kTanh;
  r->in_size = r->hidden_size = 4, r->if_bias = true;
  if constexpr (kIsStack) {
    r->num_layers = 1;
    r->weight_ih_forward = r->weight_hh_forward = {Weights(gates * 16)};
    r->bias_ih_forward = r->bias_hh_forward = {Weights(gates * 4)};
  } else {
    r->weight_ih = r->weight_hh = Weights(gates * 16);
    r->bias_ih = r->bias_hh = Weights(gates * 4);
  }
  return r;
}

template <class Info, class Value>
std::function<Record()> With(Value Info::*field, std::common_type_t<Value> const& value) {
  return [=] {
    auto const info = Make<Info>();
    info.get()->*field = value;
    return info;
  };
}

std::function<Record()> Reshape(std::vector<short> const& shape) { return With(&TensorReshapeInfo::new_shape, shape); }

// What a kernel is given: a record that it takes, four channels in, four out; inputs that pass; and the codes, as
// digits of their negatives, of its three judgements.
struct Given {
  std::size_t inputs;
  std::vector<unsigned int> dims;
  unsigned int layout;
};
struct Entry {
  char const* start;  // of the names of the kernels
  std::function<Record()> make;
  Given given;
  // IsValidParam of: the record; nothing; another record; the record and an inference parameter.
  // IsValidInput and IsValidOutput of lists in which all is well; the last is missing; one is too many; the first is
  // null, UINT8, INT16, FLOAT16, outside main memory, of layout HWC, has one more in its first and its last extent.
  char const *param, *input, *output = input;
};

constexpr char const *kStrict = "0111", *kInverted = "1011", *kRecurrent = "0221";
constexpr char const *kFloat = "02222222000", *kFloatPlane = "02222222200", *kChannels = "02222222220",
                     *kVector = "02222222222", *kOne = "02220002000", *kPositive = "02220002022";

std::vector<Entry> Entries() {
  Given const plane = {1, {4, 4, 4}, TensorShape::CHW}, planes = {2, {4, 4, 4}, TensorShape::CHW},
              row = {1, {4, 4}, TensorShape::CL}, long_row = {1, {4, 16}, TensorShape::CL},
              steps = {1, {4, 4}, TensorShape::SC}, vector = {1, {4}, TensorShape::C};
  auto const activation = With(&ActivationInfo::weight, Weights(1));
  auto const channels = [] {
    auto const info = Make<ActivationInfo>();
    info->num_parameters = 4, info->weight = Weights(4);
    return info;
  };
  return {
      {"Input_", Make<InputInfo>, plane, kInverted, "02220000000"},
      {"Straight_Through_", Make<InputInfo>, plane, kInverted, kOne},
      {"LayerPlaceholder_", With(&LayerPlaceholderInfo::output_shape, {4, 4, 4}), plane, kStrict, "02020002000"},
      {"ConvTranspose2D_", Make<ConvTranspose2dInfo>, plane, kStrict, kChannels},
      {"Conv2D_", Make<Conv2dInfo>, plane, kStrict, kChannels},
      {"Conv2d_", Make<Conv2dInfo>, plane, kStrict, "02222202200", kFloatPlane},
      {"Conv1D_", Make<Conv1dInfo>, row, kStrict, kChannels},
      {"FullConnection_Fallback_SC_", Make<FullConnectionInfo>, steps, kStrict, "02222222202"},
      {"FullConnection_", Make<FullConnectionInfo>, vector, kStrict, kVector},
      {"AdaptivePooling2D_", With(&AdaptiveAvgPool2dInfo::output_size, {2, 2}), plane, kStrict, kFloatPlane},
      {"Pooling2D_Avg_", Make<AvgPool2dInfo>, plane, kStrict, kFloatPlane},
      {"Pooling2D_Max_", Make<MaxPool2dInfo>, plane, kStrict, kFloatPlane},
      {"Elementwise_", Make<ElementWiseOperatorInfo>, planes, kStrict, kFloat},
      {"BroadcastOperator_", Make<BroadcastOperatorInfo>, planes, kStrict, "02222222022", kFloat},
      {"Concatenate_C_", With(&ConcatenateInfo::dim, 1), planes, kStrict, "00022222200", "02220002200"},
      {"Concatenate_", Make<ConcatenateInfo>, planes, kStrict, "02022222002", kOne},
      {"Reshape_Fallback_CnHWn_To_CL_", Reshape({1, 4, 16}), plane, kStrict, "02222002222", "02222002200"},
      {"Reshape_Fallback_CnHWn_To_C_", Reshape({1, 64}), plane, kStrict, "02222002222", "02222002200"},
      {"Reshape_Fallback_CL_To_CHW_", Reshape({1, 4, 4, 4}), long_row, kStrict, "02222022022", "02222022200"},
      {"Reshape_Fallback_To_SC_", Reshape({1, 4, 16}), plane, kStrict, kPositive, kOne},
      {"Reshape_Fallback_To_C_", Reshape({1, 64}), plane, kStrict, kPositive, kOne},
      {"Reshape_", Reshape({1, 4, 4, 4}), plane, kStrict, kPositive, kOne},
      {"Transform_MainMemory_Reshape_", Reshape({1, 16, 4}), plane, kStrict, kPositive},
      {"Transform_MainMemory_Permute_", With(&TensorTransposeInfo::axes, {0, 2, 3, 1}), plane, kStrict, kOne},
      {"Expand_", With(&TensorExpandInfo::new_shape, {1, 4, 4, 4}), plane, kStrict, "02222022200"},
      {"TensorArithmetic_", With(&TensorArithmeticInfo::dim, {2, 3}), plane, kStrict, "02222022000"},
      {"UnSqueeze_", With(&TensorUnSqueezeInfo::dim, 1), plane, kStrict, "02222022000"},
      {"Slice_", With(&TensorSliceInfo::slice_dims, {0, 2, 1, 0, 2, 1, 0, 2, 1}), plane, "1111", kFloatPlane},
      {"Softmax_", With(&SoftmaxInfo::dim, 1), plane, kStrict, "02022222000"},
      {"Upsampling2D_", Make<Upsample2dInfo>, plane, kStrict, kFloatPlane},
      {"Pixelshuffle_", With(&PixelShuffleInfo::upscale_factor, 2.0f), plane, kStrict, kFloatPlane},
      {"GridSample_", Make<GridSampleInfo>, planes, kStrict, kFloatPlane},
      {"RNNCell_", [] { return Recurrent<RNNCellInfo, false>(1); }, vector, kRecurrent, kVector},
      {"LSTMCell_", [] { return Recurrent<LSTMCellInfo, false>(4); }, vector, kRecurrent, kVector},
      {"GRUCell_", [] { return Recurrent<GRUCellInfo, false>(3); }, vector, kRecurrent, kVector},
      {"RNN_", [] { return Recurrent<RNNInfo, true>(1); }, steps, kRecurrent, "02222222002", "02222222202"},
      {"LSTM_", [] { return Recurrent<LSTMInfo, true>(4); }, steps, kRecurrent, "02222222002", "02222222202"},
      {"GRUResetBefore_", [] { return Recurrent<GRUInfo, true>(3); }, steps, kRecurrent, "02222222002", "02222222202"},
      {"GRU_", [] { return Recurrent<GRUInfo, true>(3); }, steps, kRecurrent, "02222222002", "02222222202"},
      {"ReLU6_", activation, plane, kInverted, kFloat},
      {"Leaky_", activation, plane, kInverted, kFloat},
      {"Linear_", activation, plane, kInverted, kFloat},
      {"Clip_", Make<ClipInfo>, plane, kStrict, kFloat},
      {"MatMul_", Make<BroadcastOperatorInfo>, planes, "0101", "02222222022", kFloat},
      {"PReLUChannel_", channels, plane, kStrict, kFloatPlane},
      {"PReLU_", activation, plane, kInverted, kFloat},
      {"", activation, plane, kStrict, kFloat}};
}

Entry const& EntryFor(std::string const& name) {
  static std::vector<Entry> const entries = Entries();
  return *std::find_if(entries.begin(), entries.end(), [&](Entry const& e) { return name.rfind(e.start, 0) == 0; });
}

// Texts of the interface that name no kernel; a net adds the layer.
bool IsFixedText(std::string const& text) {
  static std::set<std::string> const fixed = {"",
                                              "Invalid forward input param\n",
                                              "input tensor shapes error.\n",
                                              "dimensions of shape must be equal to tranpose axes's.\n",
                                              "Invalid input data type\n",
                                              "Invalid input tensor layout\n",
                                              "Input shared pointer is null.\n"};
  return text.rfind("[TLN]: ", 0) == 0 && fixed.count(text.substr(7)) == 1;
}

// Returns, or refuses with the kernel's name.
void AnswersOrRefuses(std::string const& name, std::string const& what, std::function<void()> const& action) {
  SCOPED_TRACE(name + ": " + what);
  test::LogCapture const quiet;
  try {
    action();
  } catch (std::runtime_error const& refusal) {
    std::string const text = refusal.what();
    EXPECT_TRUE(text.find(name) != std::string::npos || IsFixedText(text)) << text;
  } catch (std::exception const& other) {
    ADD_FAILURE() << "no refusal, but " << other.what();
  }
}

// Reads every byte of the outputs, so that the sanitizer sees those that are too short.
void ReadAll(Tensors const& outputs) {
  for (auto const& output : outputs) {
    if (output == nullptr) continue;  // a null handed on; a net refuses it
    auto const* const bytes = static_cast<unsigned char const*>(output->data);
    volatile unsigned int const sum = std::accumulate(bytes, bytes + ByteCount(output->shape), 0u);
    static_cast<void>(sum);
  }
}

struct Catalogue {
  explicit Catalogue(bool with_others) {
    init_register_operators(kernels, params);
    if (!with_others) return;
    init_register_fused_operators(kernels);
    init_register_extra_operators(kernels);
  }
  ClassRegistry<std::shared_ptr<IKernel>> kernels;
  ClassRegistry<std::shared_ptr<InferenceParam>> params;
};

class Walk {
 public:
  void Visit(std::string const& name) {
    Judge(name, EntryFor(name));
    for (bool const configure : {false, true}) {
      auto const make = [&] {
        auto const kernel = catalogue_.kernels.Create(name);
        if (configure) {
          EXPECT_TRUE(kernel->Config(EntryFor(name).make(), nullptr, context_)) << name;
          EXPECT_TRUE(kernel->IsConfigured()) << name;
        }
        return kernel;
      };
      EXPECT_EQ(make()->GetName(), name);
      JudgeAndRun(name, make);
    }
    Configure(name);
  }

 private:
  using Maker = std::function<std::shared_ptr<IKernel>()>;

  std::shared_ptr<Tensor> Of(std::vector<unsigned int> const& dims, unsigned int type, unsigned int layout) {
    TensorShape const shape(dims, type, layout, TensorShape::MainMemory, TensorShape::Extra());
    return context_->device_cpu->CreateTensor(shape, test::Bytes(1, ByteCount(shape)).data());
  }

  // Three of each: no kernel needs more inputs.
  std::vector<std::pair<std::string, Tensors>> BadInputs() {
    auto const three = [](std::shared_ptr<Tensor> const& tensor) { return Tensors(3, tensor); };
    constexpr auto kFloats = TensorShape::FLOAT32;
    return {{"no input", {}},
            {"one null", {nullptr}},
            {"three nulls", Tensors(3)},
            {"bytes", three(Of({4, 4, 4}, TensorShape::UINT8, TensorShape::CHW))},
            {"one row of bytes", {Of({4}, TensorShape::UINT8, TensorShape::C)}},
            {"rank 0", three(Of({}, kFloats, TensorShape::CHW))},
            {"rank 9", three(Of(std::vector<unsigned int>(9, 1u), kFloats, TensorShape::FLEXIABLE))},
            {"nothing in it", three(Of({0, 4, 4}, kFloats, TensorShape::CHW))},
            {"nothing in a row", three(Of({0}, kFloats, TensorShape::C))},
            {"one element", three(Of({1, 1, 1}, kFloats, TensorShape::CHW))},
            {"too few channels", three(Of({3, 2}, kFloats, TensorShape::SC))},
            {"a value and a null", {Of({4, 4, 4}, kFloats, TensorShape::CHW), nullptr}},
            {"two shapes", {Of({4, 4, 4}, kFloats, TensorShape::CHW), Of({2, 2}, kFloats, TensorShape::SC)}}};
  }

  // The codes of `judge` for `probes` arguments.
  static std::string Codes(int probes, std::function<int(int)> const& judge) {
    std::string codes;
    for (int probe = 0; probe < probes; ++probe) codes += static_cast<char>('0' - judge(probe));
    return codes;
  }

  // `count` tensors of a shape, changed as the comment of Entry tells.
  Tensors Probe(TensorShape shape, std::size_t count, int probe) {
    Tensors list(count, context_->device_cpu->CreateTensor(shape, nullptr));
    if (probe == 1) list.pop_back();
    if (probe == 2) list.push_back(list[0]);
    if (probe == 4) shape.data_type = TensorShape::UINT8;
    if (probe == 5) shape.data_type = TensorShape::INT16;
    if (probe == 6) shape.data_type = TensorShape::FLOAT16;
    if (probe == 7) shape.location = 1;
    if (probe == 8) shape.layout = TensorShape::HWC;
    if (probe == 9) ++shape.dims.front();
    if (probe == 10) ++shape.dims.back();
    if (probe >= 3) list[0] = probe == 3 ? nullptr : context_->device_cpu->CreateTensor(shape, nullptr);
    return list;
  }

  void Judge(std::string const& name, Entry const& entry) {
    SCOPED_TRACE(name);
    auto const kernel = catalogue_.kernels.Create(name);
    auto const record = entry.make(), other = Record(Make<GemmInfo>());
    auto const param = catalogue_.params.Create("InferenceParamConv2DQuant");
    EXPECT_EQ(
        entry.param, Codes(4, [&](int probe) {
          return kernel->IsValidParam(probe == 1 ? nullptr : probe == 2 ? other : record, probe == 3 ? param : nullptr);
        }));
    ASSERT_TRUE(kernel->Config(record, nullptr, context_));
    TensorShape const in(entry.given.dims, TensorShape::FLOAT32, entry.given.layout, TensorShape::MainMemory, {});
    TensorShape const out = kernel->GetOutputShapes(std::vector<TensorShape>(entry.given.inputs, in)).at(0);
    EXPECT_EQ(entry.input,
              Codes(11, [&](int probe) { return kernel->IsValidInput(Probe(in, entry.given.inputs, probe)); }));
    EXPECT_EQ(entry.output, Codes(11, [&](int probe) { return kernel->IsValidOutput(Probe(out, 1, probe)); }));
  }

  void Configure(std::string const& name) {
    auto const context_without = std::make_shared<Context>();
    for (auto const& [what, record] : {std::pair<char const*, Record>{"Config without layer", nullptr},
                                       {"Config of another record", Make<GemmInfo>()},
                                       {"Config of the right record", EntryFor(name).make()}}) {
      for (auto const& context : {std::shared_ptr<Context>(), context_without, context_}) {
        AnswersOrRefuses(name, what, [&, layer = record] {
          auto const kernel = catalogue_.kernels.Create(name);
          bool const done = kernel->Config(layer, nullptr, context);
          EXPECT_EQ(kernel->IsConfigured(), done);
        });
      }
    }
  }

  void JudgeAndRun(std::string const& name, Maker const& make) {
    for (auto const& [what, inputs] : BadInputs()) {
      AnswersOrRefuses(name, "judging " + what, [&, list = inputs] {
        make()->IsValidInput(list);
        make()->IsValidOutput(list);
      });
      std::vector<TensorShape> shapes;
      for (auto const& input : inputs) shapes.push_back(input != nullptr ? input->shape : TensorShape());
      AnswersOrRefuses(name, "shapes of " + what, [&] { make()->GetOutputShapes(shapes); });
      for (auto const& context : {context_, std::shared_ptr<Context>()}) {
        AnswersOrRefuses(name, "Forward of " + what + (context == nullptr ? ", no context" : ""), [&, list = inputs] {
          Tensors outputs;
          make()->Forward(list, outputs, context);
          ReadAll(outputs);
        });
      }
    }
  }

  std::shared_ptr<Context> const context_ = test::GuardedContext();
  Catalogue const catalogue_{true};
};

TEST(RegisterOperators, EveryKernelAnswersOrRefusesByName) {
  Walk walk;
  for (std::string const& name : Catalogue(true).kernels.GetKeys()) walk.Visit(name);
}

constexpr std::size_t kNames = TALVO_WITH_BLAS ? 53 : 45;

TEST(RegisterOperators, KeepsTheApplicationsEntries) {
  Catalogue catalogue(false);
  EXPECT_EQ(catalogue.kernels.GetKeys().size(), kNames);
  EXPECT_EQ(catalogue.params.GetKeys(), std::vector<std::string>{"InferenceParamConv2DQuant"});
  EXPECT_EQ(catalogue.kernels.Create("Quantitation_MainMemory_Float_to_Int8_Fallback_M1"), nullptr);

  auto const own = catalogue.kernels.Create("Input_Fallback_M1");
  catalogue.kernels.Register(
      "ReLU_Fallback_Float_M1", [own] { return own; }, true);
  init_register_operators(catalogue.kernels, catalogue.params);
  EXPECT_EQ(catalogue.kernels.Create("ReLU_Fallback_Float_M1"), own);
  EXPECT_EQ(catalogue.kernels.GetKeys().size(), kNames);
}

}  // namespace
}  // namespace talvo::utility
