// The catalogue, and one walk over it: what every kernel answers to missing and unfit arguments.
#include "talvo/entry/register_operators.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <numeric>
#include <set>

#include "talvo/serialization/layer_info_activation.h"
#include "talvo/serialization/layer_info_conv.h"
#include "talvo/serialization/layer_info_plane.h"
#include "talvo/serialization/layer_info_rnn.h"
#include "talvo/serialization/layer_info_tensor.h"
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
  r.in_channels = r.out_channels = 4;
  r.kernel_x = r.kernel_y = r.stride_x = r.stride_y = r.dilation_x = r.dilation_y = r.groups = 1;
  r.if_bias = true;
  r.weight = Weights(16);
  r.bias = Weights(4);
}

// What the defaults of a record lack.
void Fill(LayerInfo&) {}
void Fill(Conv2dInfo& r) { FillConv2d(r); }
void Fill(ConvTranspose2dInfo& r) { FillConv2d(r); }
void Fill(Conv1dInfo& r) {
  r.in_channels = r.out_channels = 4;
  r.kernel_size = 1;
  r.weight = Weights(16);
}
void Fill(FullConnectionInfo& r) {
  r.in_features = r.out_features = 4;
  r.weight = Weights(16);
}
void Fill(AvgPool2dInfo& r) { r.kernel_x = r.kernel_y = r.stride_x = r.stride_y = 2; }
void Fill(MaxPool2dInfo& r) {
  r.kernel_x = r.kernel_y = r.stride_x = r.stride_y = 2;
  r.dilation_x = r.dilation_y = 1;
}
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
  r->in_size = r->hidden_size = 4;
  r->if_bias = true;
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

// A record that the kernel takes: four channels in, four out.
Record RecordFor(std::string const& name) {
  struct Entry {
    char const* start;  // of the names that take this record
    std::function<Record()> make;
  };
  static std::vector<Entry> const entries = {
      {"Input_", Make<InputInfo>},
      {"Straight_Through_", Make<InputInfo>},
      {"LayerPlaceholder_", With(&LayerPlaceholderInfo::output_shape, {4, 4, 4})},
      {"ConvTranspose2D_", Make<ConvTranspose2dInfo>},
      {"Conv2", Make<Conv2dInfo>},
      {"Conv1D_", Make<Conv1dInfo>},
      {"FullConnection_", Make<FullConnectionInfo>},
      {"AdaptivePooling2D_", With(&AdaptiveAvgPool2dInfo::output_size, {2, 2})},
      {"Pooling2D_Avg_", Make<AvgPool2dInfo>},
      {"Pooling2D_Max_", Make<MaxPool2dInfo>},
      {"Elementwise_", Make<ElementWiseOperatorInfo>},
      {"BroadcastOperator_", Make<BroadcastOperatorInfo>},
      {"Concatenate_C_", With(&ConcatenateInfo::dim, 1)},
      {"Concatenate_", Make<ConcatenateInfo>},
      {"Reshape_Fallback_CnHWn_To_CL_", Reshape({1, 4, 16})},
      {"Reshape_Fallback_CnHWn_To_C_", Reshape({1, 64})},
      {"Reshape_Fallback_To_SC_", Reshape({1, 4, 16})},
      {"Reshape_Fallback_To_C_", Reshape({1, 64})},
      {"Reshape_", Reshape({1, 4, 4, 4})},
      {"Transform_MainMemory_Reshape_", Reshape({1, 16, 4})},
      {"Transform_MainMemory_Permute_", With(&TensorTransposeInfo::axes, {0, 2, 3, 1})},
      {"Expand_", With(&TensorExpandInfo::new_shape, {1, 4, 4, 4})},
      {"TensorArithmetic_", With(&TensorArithmeticInfo::dim, {2, 3})},
      {"UnSqueeze_", With(&TensorUnSqueezeInfo::dim, 1)},
      {"Slice_", With(&TensorSliceInfo::slice_dims, {0, 2, 1, 0, 2, 1, 0, 2, 1})},
      {"Softmax_", With(&SoftmaxInfo::dim, 1)},
      {"Upsampling2D_", Make<Upsample2dInfo>},
      {"Pixelshuffle_", With(&PixelShuffleInfo::upscale_factor, 2.0f)},
      {"GridSample_", Make<GridSampleInfo>},
      {"RNNCell_", [] { return Recurrent<RNNCellInfo, false>(1); }},
      {"LSTMCell_", [] { return Recurrent<LSTMCellInfo, false>(4); }},
      {"GRUCell_", [] { return Recurrent<GRUCellInfo, false>(3); }},
      {"RNN_", [] { return Recurrent<RNNInfo, true>(1); }},
      {"LSTM_", [] { return Recurrent<LSTMInfo, true>(4); }},
      {"GRU_", [] { return Recurrent<GRUInfo, true>(3); }},
      {"", With(&ActivationInfo::weight, Weights(1))}};
  return std::find_if(entries.begin(), entries.end(), [&](Entry const& e) { return name.rfind(e.start, 0) == 0; })
      ->make();
}

// Texts of the interface that name no kernel; a net adds the layer.
bool IsFixedText(std::string const& text) {
  static std::set<std::string> const fixed = {
      "[TLN]: ", "[TLN]: Invalid forward input param\n", "[TLN]: input tensor shapes error.\n",
      "[TLN]: dimensions of shape must be equal to tranpose axes's.\n", "[TLN]: Invalid input data type\n"};
  return fixed.count(text) == 1;
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
  Catalogue() { init_register_operators(kernels, params); }
  ClassRegistry<std::shared_ptr<IKernel>> kernels;
  ClassRegistry<std::shared_ptr<InferenceParam>> params;
};

class Walk {
 public:
  void Visit(std::string const& name) {
    for (bool const configure : {false, true}) {
      auto const make = [&] {
        auto const kernel = catalogue_.kernels.Create(name);
        if (configure) {
          EXPECT_TRUE(kernel->Config(RecordFor(name), nullptr, context_)) << name;
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
    constexpr auto kFloat = TensorShape::FLOAT32;
    return {{"no input", {}},
            {"one null", {nullptr}},
            {"three nulls", Tensors(3)},
            {"bytes", three(Of({4, 4, 4}, TensorShape::UINT8, TensorShape::CHW))},
            {"one row of bytes", {Of({4}, TensorShape::UINT8, TensorShape::C)}},
            {"rank 0", three(Of({}, kFloat, TensorShape::CHW))},
            {"rank 9", three(Of(std::vector<unsigned int>(9, 1u), kFloat, TensorShape::FLEXIABLE))},
            {"nothing in it", three(Of({0, 4, 4}, kFloat, TensorShape::CHW))},
            {"nothing in a row", three(Of({0}, kFloat, TensorShape::C))},
            {"one element", three(Of({1, 1, 1}, kFloat, TensorShape::CHW))},
            {"too few channels", three(Of({3, 2}, kFloat, TensorShape::SC))},
            {"a value and a null", {Of({4, 4, 4}, kFloat, TensorShape::CHW), nullptr}},
            {"two shapes", {Of({4, 4, 4}, kFloat, TensorShape::CHW), Of({2, 2}, kFloat, TensorShape::SC)}}};
  }

  void Configure(std::string const& name) {
    auto const context_without = std::make_shared<Context>();
    for (auto const& [what, record] : {std::pair<char const*, Record>{"Config without layer", nullptr},
                                       {"Config of another record", Make<GemmInfo>()},
                                       {"Config of the right record", RecordFor(name)}}) {
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
    AnswersOrRefuses(name, "IsValidParam", [&] { make()->IsValidParam(nullptr, nullptr); });
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
  Catalogue const catalogue_;
};

TEST(RegisterOperators, EveryKernelAnswersOrRefusesByName) {
  Walk walk;
  for (std::string const& name : Catalogue().kernels.GetKeys()) walk.Visit(name);
}

TEST(RegisterOperators, KeepsTheApplicationsEntries) {
  Catalogue catalogue;
  EXPECT_EQ(catalogue.kernels.GetKeys().size(), 53u);
  EXPECT_EQ(catalogue.params.GetKeys(), std::vector<std::string>{"InferenceParamConv2DQuant"});
  EXPECT_EQ(catalogue.kernels.Create("Quantitation_MainMemory_Float_to_Int8_Fallback_M1"), nullptr);

  auto const own = catalogue.kernels.Create("Input_Fallback_M1");
  catalogue.kernels.Register(
      "ReLU_Fallback_Float_M1", [own] { return own; }, true);
  init_register_operators(catalogue.kernels, catalogue.params);
  EXPECT_EQ(catalogue.kernels.Create("ReLU_Fallback_Float_M1"), own);
  EXPECT_EQ(catalogue.kernels.GetKeys().size(), 53u);
}

}  // namespace
}  // namespace talvo::utility
