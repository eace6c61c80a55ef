#include "talvo/serialization/rapidjson_support.h"

#include "talvo/serialization/layer_info_maker_support.h"

#include <string_view>

#include "talvo/serialization/json_text_support.h"
#include "talvo/serialization/layer_info_activation.h"
#include "talvo/serialization/layer_info_conv.h"
#include "talvo/serialization/layer_info_norm.h"
#include "talvo/serialization/layer_info_plane.h"
#include "talvo/serialization/layer_info_rnn.h"
#include "talvo/serialization/layer_info_tensor.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::runtime {
namespace {

template <class Info>
LayerInfo* Make() {  // a plain pointer: a shared one costs each class the class of its block
  return new Info;
}

// Two factories whose lists differ: one goes by the numbers in a model, one by the class name of a record that stands
// alone.
enum Use : unsigned int { kInModel = 1, kAlone = 2, kBoth = 3 };

struct Maker {
  unsigned short type;
  Use use;
  std::string_view name;
  LayerInfo* (*make)();
};

#define TALVO_MAKER(type, use, name) \
  { type, use, #name, &Make<name> }
constexpr Maker kMakers[] = {
    TALVO_MAKER(0, kBoth, InputInfo),
    TALVO_MAKER(1, kBoth, ActivationInfo),
    TALVO_MAKER(2, kBoth, Conv2dInfo),
    TALVO_MAKER(3, kBoth, ConvTranspose2dInfo),
    TALVO_MAKER(6, kBoth, AvgPool2dInfo),
    TALVO_MAKER(7, kBoth, MaxPool2dInfo),
    TALVO_MAKER(8, kBoth, InstanceNorm2dInfo),
    TALVO_MAKER(9, kBoth, BatchNorm2dInfo),
    TALVO_MAKER(10, kBoth, Upsample2dInfo),
    TALVO_MAKER(11, kBoth, ElementWiseOperatorInfo),
    TALVO_MAKER(12, kBoth, ConcatenateInfo),
    TALVO_MAKER(13, kBoth, TensorReshapeInfo),
    TALVO_MAKER(14, kBoth, TensorTransposeInfo),
    TALVO_MAKER(15, kBoth, TensorSqueezeInfo),
    TALVO_MAKER(16, kBoth, TensorUnSqueezeInfo),
    TALVO_MAKER(17, kBoth, FullConnectionInfo),
    TALVO_MAKER(21, kBoth, PixelShuffleInfo),
    TALVO_MAKER(22, kBoth, TensorGetItemInfo),
    TALVO_MAKER(26, kBoth, AdaptiveAvgPool2dInfo),
    TALVO_MAKER(28, kAlone, GemmInfo),
    TALVO_MAKER(29, kBoth, BroadcastOperatorInfo),
    TALVO_MAKER(30, kInModel, BatchNorm1dInfo),
    TALVO_MAKER(31, kBoth, ClipInfo),
    TALVO_MAKER(32, kBoth, SoftmaxInfo),
    TALVO_MAKER(33, kBoth, RNNCellInfo),
    TALVO_MAKER(34, kBoth, RNNInfo),
    TALVO_MAKER(35, kBoth, LSTMCellInfo),
    TALVO_MAKER(36, kBoth, LSTMInfo),
    TALVO_MAKER(37, kBoth, GRUCellInfo),
    TALVO_MAKER(38, kBoth, GRUInfo),
    TALVO_MAKER(40, kBoth, Conv1dInfo),
    TALVO_MAKER(41, kBoth, TensorExpandInfo),
    TALVO_MAKER(44, kBoth, GridSampleInfo),
    TALVO_MAKER(45, kBoth, TensorArithmeticInfo),
    TALVO_MAKER(46, kInModel, TensorSliceInfo),
    TALVO_MAKER(252, kInModel, LayerPlaceholderInfo),
};
#undef TALVO_MAKER

}  // namespace

std::shared_ptr<LayerInfo> support::MakeLayerInfo(unsigned short type) {
  for (Maker const& maker : kMakers) {
    if (maker.type == type && (maker.use & kInModel) != 0) return std::shared_ptr<LayerInfo>(maker.make());
  }
  if (type == 65535) utility::Refuse("Unknow Layer Type.");
  utility::Refuse("Unsupported Layer Type [%u].", static_cast<unsigned int>(type));
}

std::shared_ptr<LayerInfo> support::MakeLayerInfo(std::string const& class_name) {
  for (Maker const& maker : kMakers) {
    if (maker.name == class_name && (maker.use & kAlone) != 0) return std::shared_ptr<LayerInfo>(maker.make());
  }
  utility::Refuse("Unsupported Layer Type.");
}

std::shared_ptr<LayerInfo> LayerInfoFactory(std::string const& json) {
  support::JSONText const text(json);
  if (!text.Root().IsObject()) utility::Refuse(nullptr);
  std::string class_name;
  // The version of the text does not matter for its class: given, it is not looked for.
  JSONNodeGetter(text.Root(), __SERIALIZATION_PROTOCOL_VERSION__).Visit(&class_name, "serializable_type");
  std::shared_ptr<LayerInfo> const layer = support::MakeLayerInfo(class_name);
  support::ReadRecord(text, layer.get(), nullptr);
  return layer;
}

}  // namespace talvo::runtime
