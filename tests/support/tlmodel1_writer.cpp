#include "tests/support/tlmodel1_writer.h"

#include <cstdio>
#include <stdexcept>

#include "tests/support/bits.h"

namespace talvo::test {

using half_float::half;
using namespace talvo1;

QZShape OldShape(unsigned short channels, unsigned int height, unsigned int width) {
  QZShape shape;
  shape.width = half(static_cast<float>(width) / 64.0f);
  shape.height = half(static_cast<float>(height) / 64.0f);
  shape.channels = channels;
  return shape;
}

QZTensorDescriptor OldTensor(std::initializer_list<unsigned short> dimensions) {
  QZTensorDescriptor tensor;
  for (unsigned short const dimension : dimensions) tensor.dimensions[tensor.dimension_count++] = dimension;
  return tensor;
}

std::vector<float> HalfFloats(std::uint32_t seed, std::size_t count) {
  std::vector<float> values = Floats(seed, count);
  for (float& value : values) value = half(value);
  return values;
}

TLModel1Writer::TLModel1Writer(unsigned int version) : version_(version) {
  Put({0x5555, 0, version & 0xFFFF, version >> 16});
  PutUnread(2);
  Put({77, 0, 88, 0, 64, 0, 64, 0});
  PutUnread(484);
  Put({0xAAAA, 0});
}

void TLModel1Writer::Put(std::initializer_list<unsigned int> numbers_of_16_bits) {
  for (unsigned int const number : numbers_of_16_bits) {
    bytes += static_cast<char>(number & 0xFF);
    bytes += static_cast<char>(number >> 8);
  }
}

void TLModel1Writer::PutUnread(unsigned int count) {
  for (unsigned int i = 0; i < count; ++i) Put({0xDEAD});
}

void TLModel1Writer::PutShape(QZShape const& shape) { Put({shape.width.Bits(), shape.height.Bits(), shape.channels}); }

void TLModel1Writer::PutTensor(QZTensorDescriptor const& tensor) {
  PutUnread(2);
  Put({tensor.dimension_count});
  for (unsigned short const dimension : tensor.dimensions) Put({dimension});
}

void TLModel1Writer::PutHalves(std::vector<float> const& values) {
  for (float const value : values) Put({half(value).Bits()});
}

void TLModel1Writer::PutPlanes(QZLayerInfo const& layer) {
  Put({layer.input_ids[0]});
  PutShape(layer.output_shapes[0]);
  PutShape(layer.input_shapes[0]);
}

void TLModel1Writer::PutTensors(QZFreezedLayerInfo const& layer) {
  PutTensor(layer.input_tensor);
  PutTensor(layer.output_tensor);
}

void TLModel1Writer::PutSlots(QZLayerInfo const& layer) {
  Put({layer.input_count});
  for (unsigned short const id : layer.input_ids) Put({id});
}

void TLModel1Writer::PutBody(QZLayerInfo_Input const& layer) {
  PutShape(layer.output_shapes[0]);
  Put({layer.value});
}

void TLModel1Writer::PutBody(QZLayerInfo_Conv2D const& l) {
  PutPlanes(l);
  Put({l.kernel_x, l.kernel_y, l.pad_x, l.pad_y, l.stride_x, l.stride_y, l.dilation_x, l.dilation_y, l.if_bias,
       l.activation});
  if (version_ > 10000) {
    Put({l.groups});
    PutUnread(10);
  }
  PutHalves(l.weights);
  PutHalves(l.bias);
}

void TLModel1Writer::PutBody(QZLayerInfo_Conv2DTranspose const& l) {
  PutPlanes(l);
  Put({l.kernel_x, l.kernel_y, l.pad_x, l.pad_y, l.stride_x, l.stride_y, l.if_bias, l.activation});
  if (version_ >= 10003) Put({l.group_divisor});
  PutHalves(l.weights);
  PutHalves(l.bias);
}

template <class DepthWise>
void TLModel1Writer::PutDepthWise(DepthWise const& l) {
  PutPlanes(l);
  Put({l.multiplier, l.kernel_x, l.kernel_y, l.pad_x, l.pad_y, l.stride_x, l.stride_y, l.dilation_x, l.dilation_y,
       l.if_bias, l.activation});
  PutHalves(l.weights);
  PutHalves(l.bias);
}

void TLModel1Writer::PutBody(QZLayerInfo_DepthWiseConv2D const& layer) { PutDepthWise(layer); }

void TLModel1Writer::PutBody(QZLayerInfo_DepthWiseConv2DTranspose const& layer) { PutDepthWise(layer); }

void TLModel1Writer::PutBody(QZLayerInfo_PixelShuffle const& layer) {
  PutPlanes(layer);
  Put({layer.upscale_factor.Bits()});
}

void TLModel1Writer::PutBody(QZLayerInfo_Pooling const& l) {
  PutPlanes(l);
  Put({l.kernel_x, l.kernel_y, l.pad_x, l.pad_y, l.stride_x, l.stride_y, l.kind});
}

void TLModel1Writer::PutBody(QZLayerInfo_InstanceNormalization const& layer) {
  Put({layer.input_ids[0]});
  PutShape(layer.input_shapes[0]);
}

void TLModel1Writer::PutBody(QZLayerInfo_BatchNormalization const& layer) {
  Put({layer.input_ids[0]});
  PutShape(layer.input_shapes[0]);
  for (auto const* const values : {&layer.scale, &layer.shift, &layer.variance, &layer.mean}) PutHalves(*values);
}

void TLModel1Writer::PutBody(QZLayerInfo_Activation const& layer) {
  Put({layer.input_ids[0]});
  PutShape(layer.input_shapes[0]);
  Put({layer.kind, layer.alpha.Bits(), layer.beta.Bits()});
}

void TLModel1Writer::PutBody(QZLayerInfo_Region const& layer) {
  Put({layer.input_ids[0]});
  PutShape(layer.input_shapes[0]);
  Put({layer.values[0], layer.values[1], layer.values[2]});
}

void TLModel1Writer::PutBody(QZLayerInfo_ElementWiseOperator const& layer) {
  PutSlots(layer);
  PutShape(layer.output_shapes[0]);
  Put({layer.op, layer.activation});
}

void TLModel1Writer::PutBody(QZLayerInfo_Concatenate const& layer) {
  PutSlots(layer);
  for (QZShape const& shape : layer.input_shapes) PutShape(shape);
  PutShape(layer.output_shapes[0]);
  Put({layer.axis});
}

void TLModel1Writer::PutBody(QZLayerInfo_Upsampling const& layer) {
  PutPlanes(layer);
  Put({layer.scale_factor.Bits(), layer.mode});
  if (version_ >= 10007) Put({layer.align_corner});
}

void TLModel1Writer::PutBody(QZLayerInfo_ChannelShuffle const& layer) {
  Put({layer.input_ids[0]});
  PutShape(layer.input_shapes[0]);
  PutUnread(10);
  for (unsigned short const channel : layer.order) Put({channel});
}

void TLModel1Writer::PutBody(QZLayerInfo_TensorInput const& layer) {
  Put({layer.location});
  PutTensor(layer.output_tensor);
}

void TLModel1Writer::PutBody(QZLayerInfo_TensorReshape const& layer) {
  Put({layer.input_ids[0]});
  PutTensors(layer);
}

void TLModel1Writer::PutBody(QZLayerInfo_TensorTranspose const& layer) {
  Put({layer.input_ids[0]});
  PutTensors(layer);
  for (unsigned short const axis : layer.axes) Put({axis});
}

void TLModel1Writer::PutBody(QZLayerInfo_TensorSqueeze const& layer) {
  Put({layer.input_ids[0], layer.dimension});
  PutTensors(layer);
}

void TLModel1Writer::PutBody(QZLayerInfo_FullConnection const& layer) {
  Put({layer.input_ids[0], layer.in_features, layer.out_features, layer.if_bias});
  PutTensors(layer);
  PutHalves(layer.weights);
  PutHalves(layer.bias);
}

void TLModel1Writer::PutBody(QZLayerInfo_LSTM const& l) {
  Put({l.input_ids[0], l.in_size, l.hidden_size, l.num_layers, l.if_bias, l.bidirectional});
  if (version_ >= 10009) Put({l.stacking});
  PutTensors(l);
  auto const put = [this](QZLSTMWeights const& weights) {
    for (auto const* const values : {&weights.weight_ih, &weights.weight_hh, &weights.bias_ih, &weights.bias_hh})
      PutHalves(*values);
  };
  for (std::size_t i = 0; i < l.forward.size(); ++i) {
    put(l.forward[i]);
    if (l.bidirectional != 0) put(l.reverse[i]);
  }
}

void TLModel1Writer::PutBody(QZLayerInfo_TensorActivation const& layer) {
  Put({layer.input_ids[0]});
  PutTensor(layer.input_tensor);
  Put({layer.kind, layer.alpha.Bits(), layer.beta.Bits()});
}

void TLModel1Writer::Add(QZLayerInfo const& layer) {
  Put({0x5555, layer.type, layer.id});
#define TALVO_PUT(type, name)                               \
  case type:                                                \
    PutBody(static_cast<QZLayerInfo_##name const&>(layer)); \
    break
  switch (layer.type) {
    TALVO_PUT(0, Input);
    TALVO_PUT(1, Conv2D);
    TALVO_PUT(2, Conv2DTranspose);
    TALVO_PUT(3, DepthWiseConv2D);
    TALVO_PUT(4, PixelShuffle);
    TALVO_PUT(5, Pooling);
    TALVO_PUT(6, InstanceNormalization);
    TALVO_PUT(7, BatchNormalization);
    TALVO_PUT(8, Activation);
    TALVO_PUT(9, Region);
    TALVO_PUT(10, ElementWiseOperator);
    TALVO_PUT(11, Concatenate);
    TALVO_PUT(14, Upsampling);
    TALVO_PUT(15, ChannelShuffle);
    TALVO_PUT(16, DepthWiseConv2DTranspose);
    TALVO_PUT(17, TensorInput);
    TALVO_PUT(18, TensorReshape);
    TALVO_PUT(19, TensorTranspose);
    TALVO_PUT(20, TensorSqueeze);
    TALVO_PUT(21, FullConnection);
    TALVO_PUT(22, LSTM);
    TALVO_PUT(26, TensorActivation);
    default:
      throw std::invalid_argument("no first-generation layer has this type");
  }
#undef TALVO_PUT
  Put({0xAAAA});
}

namespace {

// Fills records with numbers that differ from each other.
class Sampler {
 public:
  explicit Sampler(unsigned int version) : version_(version) {}

  template <class Layer>
  Layer& Add(unsigned short type, std::vector<unsigned short> inputs) {
    auto layer = std::make_unique<Layer>(OldLayer<Layer>(type, static_cast<unsigned short>(layers.size() + 1), inputs));
    Layer& result = *layer;
    layers.push_back(std::move(layer));
    return result;
  }

  template <class Layer>
  Layer& AddPlanes(unsigned short type, unsigned short channels, unsigned short out_channels) {
    Layer& layer = Add<Layer>(type, {1});
    layer.input_shapes = {OldShape(channels, 9, 7)};
    layer.output_shapes = {OldShape(out_channels, 5, 3)};
    return layer;
  }

  template <class Layer>
  Layer& AddTensors(unsigned short type) {
    Layer& layer = Add<Layer>(type, {2});
    layer.input_tensor = OldTensor({Next(), Next(), Next()});
    layer.output_tensor = OldTensor({Next(), Next()});
    return layer;
  }

  template <class Window>
  void Fill(Window& window) {
    window.kernel_x = 3;
    window.kernel_y = 2;
    for (auto* const value : {&window.pad_x, &window.pad_y, &window.stride_x, &window.stride_y}) *value = Next();
  }

  void Fill(QZConvolution& convolution, std::size_t weights, std::size_t out) {
    Fill(convolution);
    convolution.if_bias = Next();
    convolution.activation = Next();
    convolution.weights = HalfFloats(Next(), weights);
    convolution.bias = HalfFloats(Next(), out);
  }

  template <class DepthWise>
  void AddDepthWise(unsigned short type) {
    DepthWise& layer = AddPlanes<DepthWise>(type, 3, 6);
    layer.multiplier = 2;
    layer.dilation_x = Next();
    layer.dilation_y = Next();
    Fill(layer, 2 * 3 * 2 * 3, 6);
  }

  template <class Activation>
  void FillActivation(Activation& layer) {
    layer.kind = Next();
    layer.alpha = half(0.25f);
    layer.beta = half(-3.0f);
  }

  void AddPlaneLayers();
  void AddTensorLayers();

  std::vector<std::unique_ptr<QZLayerInfo>> layers;

 private:
  unsigned short Next() { return ++number_; }

  unsigned int version_;
  unsigned short number_ = 100;
};

void Sampler::AddPlaneLayers() {
  auto& input = Add<QZLayerInfo_Input>(0, {});
  input.output_shapes = {OldShape(4, 9, 7)};
  input.value = Next();
  auto& convolution = AddPlanes<QZLayerInfo_Conv2D>(1, 4, 6);
  convolution.dilation_x = Next();
  convolution.dilation_y = Next();
  convolution.groups = version_ > 10000 ? 2 : 1;
  Fill(convolution, 6u * 2 * 3 * (4u / convolution.groups), 6);
  auto& transposed = AddPlanes<QZLayerInfo_Conv2DTranspose>(2, 4, 2);
  transposed.group_divisor = version_ >= 10003 ? 2 : 1;
  Fill(transposed, 2u * 4 * 3 * 2 / transposed.group_divisor, 2);
  AddDepthWise<QZLayerInfo_DepthWiseConv2D>(3);
  AddPlanes<QZLayerInfo_PixelShuffle>(4, 4, 1).upscale_factor = half(2.0f);
  auto& pooling = AddPlanes<QZLayerInfo_Pooling>(5, 4, 4);
  Fill(pooling);
  pooling.kind = Next();
  AddPlanes<QZLayerInfo_InstanceNormalization>(6, 4, 4);
  auto& normalisation = AddPlanes<QZLayerInfo_BatchNormalization>(7, 5, 5);
  for (auto* const values : {&normalisation.scale, &normalisation.shift, &normalisation.variance, &normalisation.mean})
    *values = HalfFloats(Next(), 5);
  FillActivation(AddPlanes<QZLayerInfo_Activation>(8, 4, 4));
  AddPlanes<QZLayerInfo_Region>(9, 4, 4).values = {Next(), Next(), Next()};
  auto& elementwise = Add<QZLayerInfo_ElementWiseOperator>(10, {1, 2});
  elementwise.output_shapes = {OldShape(4, 9, 7)};
  elementwise.op = Next();
  elementwise.activation = Next();
  auto& concatenation = Add<QZLayerInfo_Concatenate>(11, {1, 2, 3});
  for (QZShape& shape : concatenation.input_shapes) shape = OldShape(Next(), 3, 4);
  concatenation.output_shapes = {OldShape(12, 9, 7)};
  concatenation.axis = Next();
  auto& upsampling = AddPlanes<QZLayerInfo_Upsampling>(14, 4, 4);
  upsampling.scale_factor = half(1.5f);
  upsampling.mode = Next();
  upsampling.align_corner = version_ >= 10007 ? Next() : 0;
  AddPlanes<QZLayerInfo_ChannelShuffle>(15, 3, 3).order = {Next(), Next(), Next()};
  if (version_ >= 10003) AddDepthWise<QZLayerInfo_DepthWiseConv2DTranspose>(16);
}

void Sampler::AddTensorLayers() {
  auto& input = Add<QZLayerInfo_TensorInput>(17, {});
  input.location = Next();
  input.output_tensor = OldTensor({Next(), Next()});
  AddTensors<QZLayerInfo_TensorReshape>(18);
  AddTensors<QZLayerInfo_TensorTranspose>(19).axes = {1,      0,      Next(), Next(), Next(),
                                                      Next(), Next(), Next(), Next(), Next()};
  AddTensors<QZLayerInfo_TensorSqueeze>(20).dimension = Next();
  auto& dense = AddTensors<QZLayerInfo_FullConnection>(21);
  dense.in_features = 3;
  dense.out_features = 2;
  dense.if_bias = 1;
  dense.weights = HalfFloats(Next(), 6);
  dense.bias = HalfFloats(Next(), 2);
  auto& lstm = AddTensors<QZLayerInfo_LSTM>(22);
  lstm.in_size = 3;
  lstm.hidden_size = 2;
  lstm.num_layers = 2;
  lstm.if_bias = lstm.bidirectional = 1;
  lstm.stacking = version_ >= 10009 ? Next() : 0;
  for (auto* const direction : {&lstm.forward, &lstm.reverse, &lstm.forward, &lstm.reverse})
    direction->push_back(
        {HalfFloats(Next(), 24), HalfFloats(Next(), 16), HalfFloats(Next(), 8), HalfFloats(Next(), 8)});
  if (version_ >= 10011) FillActivation(AddTensors<QZLayerInfo_TensorActivation>(26));
}

}  // namespace

std::vector<std::unique_ptr<QZLayerInfo>> OneOfEachOldLayer(unsigned int version) {
  Sampler sampler(version);
  sampler.AddPlaneLayers();
  if (version >= 10008) sampler.AddTensorLayers();
  return std::move(sampler.layers);
}

bool ReadOldModel(std::string const& bytes, QZNetLoader& loader) {
  std::string copy = bytes;
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> const stream(fmemopen(copy.data(), copy.size(), "rb"), &std::fclose);
  return loader.ReadFile(stream.get());
}

}  // namespace talvo::test
