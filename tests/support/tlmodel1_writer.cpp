#include "tests/support/tlmodel1_writer.h"

#include <array>
#include <cstdio>

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

void TLModel1Writer::Put(std::initializer_list<unsigned int> numbers_of_16_bits) {
  for (unsigned int const number : numbers_of_16_bits) {
    bytes += static_cast<char>(number & 0xFF);
    bytes += static_cast<char>(number >> 8);
  }
}

namespace {

void PutUnread(TLModel1Writer& file, int count) {
  for (int i = 0; i < count; ++i) file.Put({0xDEAD});
}

// The fields of each record between its id and its end, as files of `version` hold them.
class BodyWriter {
 public:
  BodyWriter(TLModel1Writer& file, unsigned int version) : file_(file), version_(version) {}

  void Body(QZLayerInfo_Input const& l) { Put(l.output_shapes[0], l.value); }
  void Body(QZLayerInfo_Conv2D const& l) {
    PutPlanes(l);
    PutWindow(l);
    Put(l.dilation_x, l.dilation_y, l.if_bias, l.activation);
    if (version_ > 10000) {
      Put(l.groups);
      PutUnread(file_, 10);
    }
    Put(l.weights, l.bias);
  }
  void Body(QZLayerInfo_Conv2DTranspose const& l) {
    PutPlanes(l);
    PutWindow(l);
    Put(l.if_bias, l.activation);
    if (version_ >= 10003) Put(l.group_divisor);
    Put(l.weights, l.bias);
  }
  void Body(QZLayerInfo_DepthWiseConv2D const& l) { PutDepthWise(l); }
  void Body(QZLayerInfo_DepthWiseConv2DTranspose const& l) { PutDepthWise(l); }
  void Body(QZLayerInfo_PixelShuffle const& l) {
    PutPlanes(l);
    Put(l.upscale_factor);
  }
  void Body(QZLayerInfo_Pooling const& l) {
    PutPlanes(l);
    PutWindow(l);
    Put(l.kind);
  }
  void Body(QZLayerInfo_InstanceNormalization const& l) { Put(l.input_ids[0], l.input_shapes[0]); }
  void Body(QZLayerInfo_BatchNormalization const& l) {
    Put(l.input_ids[0], l.input_shapes[0], l.scale, l.shift, l.variance, l.mean);
  }
  void Body(QZLayerInfo_Activation const& l) { Put(l.input_ids[0], l.input_shapes[0], l.kind, l.alpha, l.beta); }
  void Body(QZLayerInfo_Region const& l) { Put(l.input_ids[0], l.input_shapes[0], l.values); }
  void Body(QZLayerInfo_ElementWiseOperator const& l) {
    Put(l.input_count, l.input_ids, l.output_shapes[0], l.op, l.activation);
  }
  void Body(QZLayerInfo_Concatenate const& l) {
    Put(l.input_count, l.input_ids, l.input_shapes, l.output_shapes[0], l.axis);
  }
  void Body(QZLayerInfo_Upsampling const& l) {
    PutPlanes(l);
    Put(l.scale_factor, l.mode);
    if (version_ >= 10007) Put(l.align_corner);
  }
  void Body(QZLayerInfo_ChannelShuffle const& l) {
    Put(l.input_ids[0], l.input_shapes[0]);
    PutUnread(file_, 10);
    Put(l.order);
  }
  void Body(QZLayerInfo_TensorInput const& l) { Put(l.location, l.output_tensor); }
  void Body(QZLayerInfo_TensorReshape const& l) { Put(l.input_ids[0], l.input_tensor, l.output_tensor); }
  void Body(QZLayerInfo_TensorTranspose const& l) { Put(l.input_ids[0], l.input_tensor, l.output_tensor, l.axes); }
  void Body(QZLayerInfo_TensorSqueeze const& l) { Put(l.input_ids[0], l.dimension, l.input_tensor, l.output_tensor); }
  void Body(QZLayerInfo_FullConnection const& l) {
    Put(l.input_ids[0], l.in_features, l.out_features, l.if_bias, l.input_tensor, l.output_tensor, l.weights, l.bias);
  }
  void Body(QZLayerInfo_LSTM const& l) {
    Put(l.input_ids[0], l.in_size, l.hidden_size, l.num_layers, l.if_bias, l.bidirectional);
    if (version_ >= 10009) Put(l.stacking);
    Put(l.input_tensor, l.output_tensor);
    for (std::size_t i = 0; i < l.forward.size(); ++i) {
      Put(l.forward[i]);
      if (l.bidirectional != 0) Put(l.reverse[i]);
    }
  }
  void Body(QZLayerInfo_TensorActivation const& l) { Put(l.input_ids[0], l.input_tensor, l.kind, l.alpha, l.beta); }

 private:
  template <class... Fields>
  void Put(Fields const&... fields) {
    (Field(fields), ...);
  }
  template <class Layer>
  void PutPlanes(Layer const& l) {
    Put(l.input_ids[0], l.output_shapes[0], l.input_shapes[0]);
  }
  template <class Window>
  void PutWindow(Window const& w) {
    Put(w.kernel_x, w.kernel_y, w.pad_x, w.pad_y, w.stride_x, w.stride_y);
  }
  template <class DepthWise>
  void PutDepthWise(DepthWise const& l) {
    PutPlanes(l);
    Put(l.multiplier);
    PutWindow(l);
    Put(l.dilation_x, l.dilation_y, l.if_bias, l.activation, l.weights, l.bias);
  }

  void Field(unsigned short number) { file_.Put({number}); }
  void Field(half number) { file_.Put({number.Bits()}); }
  void Field(float number) { Field(half(number)); }
  void Field(QZShape const& shape) { Put(shape.width, shape.height, shape.channels); }
  void Field(QZTensorDescriptor const& tensor) {
    PutUnread(file_, 2);
    Put(tensor.dimension_count, tensor.dimensions);
  }
  void Field(QZLSTMWeights const& w) { Put(w.weight_ih, w.weight_hh, w.bias_ih, w.bias_hh); }
  template <class T>
  void Field(std::vector<T> const& values) {
    for (T const& value : values) Field(value);
  }
  template <std::size_t kCount>
  void Field(std::array<unsigned short, kCount> const& numbers) {
    for (unsigned short const number : numbers) Field(number);
  }

  TLModel1Writer& file_;
  unsigned int version_;
};

template <class... Layers>
void PutBodyOf(QZLayerInfo const& layer, BodyWriter writer) {
  auto const put = [&writer](auto const* record) {
    if (record != nullptr) writer.Body(*record);
  };
  (put(dynamic_cast<Layers const*>(&layer)), ...);
}

}  // namespace

TLModel1Writer::TLModel1Writer(unsigned int version) : version_(version) {
  Put({0x5555, 0, version & 0xFFFF, version >> 16});
  PutUnread(*this, 2);
  Put({77, 0, 88, 0, 64, 0, 64, 0});
  PutUnread(*this, 484);
  Put({0xAAAA, 0});
}

void TLModel1Writer::Add(QZLayerInfo const& layer) {
  Put({0x5555, layer.type, layer.id});
  PutBodyOf<QZLayerInfo_Input, QZLayerInfo_Conv2D, QZLayerInfo_Conv2DTranspose, QZLayerInfo_DepthWiseConv2D,
            QZLayerInfo_DepthWiseConv2DTranspose, QZLayerInfo_PixelShuffle, QZLayerInfo_Pooling,
            QZLayerInfo_InstanceNormalization, QZLayerInfo_BatchNormalization, QZLayerInfo_Activation,
            QZLayerInfo_Region, QZLayerInfo_ElementWiseOperator, QZLayerInfo_Concatenate, QZLayerInfo_Upsampling,
            QZLayerInfo_ChannelShuffle, QZLayerInfo_TensorInput, QZLayerInfo_TensorReshape, QZLayerInfo_TensorTranspose,
            QZLayerInfo_TensorSqueeze, QZLayerInfo_FullConnection, QZLayerInfo_LSTM, QZLayerInfo_TensorActivation>(
      layer, BodyWriter(*this, version_));
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
