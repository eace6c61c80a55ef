#include <sys/stat.h>

#include <algorithm>

#include "talvo/serialization/tlmodel1_support.h"
#include "talvo/utility/refuse_support.h"

namespace talvo1::support {
namespace {

using half_float::half;
using talvo::utility::Refuse;

constexpr unsigned short kSlots = 10;  // inputs that a record has room for
constexpr std::size_t kPiece = 8192;   // halves that are read at once

[[noreturn]] void EndedEarly() { throw LoadFailure("message_end == 0xaaaa", __func__, __FILE__, __LINE__); }

std::uint64_t Product(std::initializer_list<unsigned short> factors) {
  std::uint64_t product = 1;  // four factors of 16 bits fit
  for (unsigned short const factor : factors) product *= factor;
  return product;
}

void RequireNotZero(QZLayerInfo const& layer, char const* name, unsigned short value) {
  if (value == 0) Refuse("first-generation layer %u (type %u): %s is 0, needs 1 or more", layer.id, layer.type, name);
}

void RequireCount(QZLayerInfo const& layer, char const* name, unsigned short count, unsigned int room) {
  if (count > room)
    Refuse("first-generation layer %u (type %u): %u %s, a record has room for %u", layer.id, layer.type, count, name,
           room);
}

void ReadInput(BodyReader& body, QZLayerInfo& layer) { layer.input_ids = {body.Next()}; }

void ReadSlots(BodyReader& body, QZLayerInfo& layer) {
  layer.input_count = body.Next();
  RequireCount(layer, "inputs", layer.input_count, kSlots);
  layer.input_ids.resize(kSlots);
  for (unsigned short& id : layer.input_ids) id = body.Next();
}

// An input, and the shapes of output and input.
void ReadPlaneLayer(BodyReader& body, QZLayerInfo& layer) {
  ReadInput(body, layer);
  layer.output_shapes = {body.NextShape()};
  layer.input_shapes = {body.NextShape()};
}

// An input, and one shape for input and output.
void ReadSameShapeLayer(BodyReader& body, QZLayerInfo& layer) {
  ReadInput(body, layer);
  layer.input_shapes = {body.NextShape()};
  layer.output_shapes = layer.input_shapes;
}

QZTensorDescriptor ReadTensor(BodyReader& body, QZLayerInfo const& layer) {
  QZTensorDescriptor const tensor = body.NextTensor();
  RequireCount(layer, "dimensions", tensor.dimension_count, static_cast<unsigned int>(tensor.dimensions.size()));
  return tensor;
}

void ReadTensors(BodyReader& body, QZFreezedLayerInfo& layer) {
  layer.input_tensor = ReadTensor(body, layer);
  layer.output_tensor = ReadTensor(body, layer);
}

template <class Window>
void ReadWindow(BodyReader& body, Window& window) {
  window.kernel_x = body.Next();
  window.kernel_y = body.Next();
  window.pad_x = body.Next();
  window.pad_y = body.Next();
  window.stride_x = body.Next();
  window.stride_y = body.Next();
}

void ReadDilation(BodyReader& body, QZConvolution& convolution) {
  convolution.dilation_x = body.Next();
  convolution.dilation_y = body.Next();
}

void ReadBiasAndActivation(BodyReader& body, QZConvolution& convolution) {
  convolution.if_bias = body.Next();
  convolution.activation = body.Next();
}

template <class Activation>
void ReadActivation(BodyReader& body, Activation& layer) {
  layer.kind = body.Next();
  layer.alpha = body.NextHalf();
  layer.beta = body.NextHalf();
}

void ReadBody(BodyReader& body, QZLayerInfo_Input& layer) {
  layer.input_count = 0;
  layer.input_ids.clear();
  layer.output_shapes = {body.NextShape()};
  layer.value = body.Next();
}

void ReadBody(BodyReader& body, QZLayerInfo_Conv2D& layer) {
  ReadPlaneLayer(body, layer);
  ReadWindow(body, layer);
  ReadDilation(body, layer);
  ReadBiasAndActivation(body, layer);
  // The first version had no groups; ten values behind them are reserved.
  if (body.Version() > 10000) {
    layer.groups = body.Next();
    body.Skip(10);
  }
  RequireNotZero(layer, "groups", layer.groups);
  unsigned short const in = layer.input_shapes[0].channels, out = layer.output_shapes[0].channels;
  auto const group_inputs = static_cast<unsigned short>(in / layer.groups);
  layer.weights = body.Floats(Product({out, layer.kernel_x, layer.kernel_y, group_inputs}));
  layer.bias = body.Floats(out);
}

void ReadBody(BodyReader& body, QZLayerInfo_Conv2DTranspose& layer) {
  ReadPlaneLayer(body, layer);
  ReadWindow(body, layer);
  ReadBiasAndActivation(body, layer);
  if (body.Version() >= 10003) layer.group_divisor = body.Next();
  RequireNotZero(layer, "the divisor of groups", layer.group_divisor);
  unsigned short const in = layer.input_shapes[0].channels, out = layer.output_shapes[0].channels;
  layer.weights = body.Floats(Product({out, in, layer.kernel_x, layer.kernel_y}) / layer.group_divisor);
  layer.bias = body.Floats(out);
}

template <class DepthWise>
void ReadDepthWise(BodyReader& body, DepthWise& layer) {
  ReadPlaneLayer(body, layer);
  layer.multiplier = body.Next();
  ReadWindow(body, layer);
  ReadDilation(body, layer);
  ReadBiasAndActivation(body, layer);
  RequireNotZero(layer, "the multiplier", layer.multiplier);
  unsigned short const in = layer.input_shapes[0].channels;
  layer.weights = body.Floats(Product({layer.multiplier, layer.kernel_x, layer.kernel_y, in}));
  layer.bias = body.Floats(layer.output_shapes[0].channels);
}

void ReadBody(BodyReader& body, QZLayerInfo_DepthWiseConv2D& layer) { ReadDepthWise(body, layer); }

void ReadBody(BodyReader& body, QZLayerInfo_DepthWiseConv2DTranspose& layer) { ReadDepthWise(body, layer); }

void ReadBody(BodyReader& body, QZLayerInfo_PixelShuffle& layer) {
  ReadPlaneLayer(body, layer);
  layer.upscale_factor = body.NextHalf();
}

void ReadBody(BodyReader& body, QZLayerInfo_Pooling& layer) {
  ReadPlaneLayer(body, layer);
  ReadWindow(body, layer);
  layer.kind = body.Next();
}

void ReadBody(BodyReader& body, QZLayerInfo_InstanceNormalization& layer) { ReadSameShapeLayer(body, layer); }

void ReadBody(BodyReader& body, QZLayerInfo_BatchNormalization& layer) {
  ReadSameShapeLayer(body, layer);
  std::size_t const channels = layer.input_shapes[0].channels;
  layer.raw = body.Halves(4 * channels);
  half const* from = layer.raw.data();
  for (std::vector<float>* const values : {&layer.scale, &layer.shift, &layer.variance, &layer.mean}) {
    *values = Widened(from, channels);
    from += channels;
  }
}

void ReadBody(BodyReader& body, QZLayerInfo_Activation& layer) {
  ReadSameShapeLayer(body, layer);
  ReadActivation(body, layer);
}

void ReadBody(BodyReader& body, QZLayerInfo_Region& layer) {
  ReadSameShapeLayer(body, layer);
  for (unsigned short& value : layer.values) value = body.Next();
}

void ReadBody(BodyReader& body, QZLayerInfo_ElementWiseOperator& layer) {
  ReadSlots(body, layer);
  layer.output_shapes = {body.NextShape()};
  layer.op = body.Next();
  layer.activation = body.Next();
}

void ReadBody(BodyReader& body, QZLayerInfo_Concatenate& layer) {
  ReadSlots(body, layer);
  layer.input_shapes.resize(kSlots);
  for (QZShape& shape : layer.input_shapes) shape = body.NextShape();
  layer.output_shapes = {body.NextShape()};
  layer.axis = body.Next();
}

void ReadBody(BodyReader& body, QZLayerInfo_Upsampling& layer) {
  ReadPlaneLayer(body, layer);
  layer.scale_factor = body.NextHalf();
  layer.mode = body.Next();
  if (body.Version() >= 10007) layer.align_corner = body.Next();
}

void ReadBody(BodyReader& body, QZLayerInfo_ChannelShuffle& layer) {
  ReadSameShapeLayer(body, layer);
  body.Skip(10);
  for (unsigned int i = 0; i < layer.input_shapes[0].channels; ++i) layer.order.push_back(body.Next());
}

void ReadBody(BodyReader& body, QZLayerInfo_TensorInput& layer) {
  layer.input_count = 0;
  layer.input_ids.clear();
  layer.location = body.Next();
  layer.output_tensor = ReadTensor(body, layer);
}

void ReadBody(BodyReader& body, QZLayerInfo_TensorReshape& layer) {
  ReadInput(body, layer);
  ReadTensors(body, layer);
}

void ReadBody(BodyReader& body, QZLayerInfo_TensorTranspose& layer) {
  ReadInput(body, layer);
  ReadTensors(body, layer);
  for (unsigned short& axis : layer.axes) axis = body.Next();
  RequireCount(layer, "axes", layer.output_tensor.dimension_count, static_cast<unsigned int>(layer.axes.size()));
}

void ReadBody(BodyReader& body, QZLayerInfo_TensorSqueeze& layer) {
  ReadInput(body, layer);
  layer.dimension = body.Next();
  ReadTensors(body, layer);
}

void ReadBody(BodyReader& body, QZLayerInfo_FullConnection& layer) {
  ReadInput(body, layer);
  layer.in_features = body.Next();
  layer.out_features = body.Next();
  layer.if_bias = body.Next();
  ReadTensors(body, layer);
  RequireNotZero(layer, "in_features", layer.in_features);  // or a long bias of zeros would stand in no bytes
  std::uint64_t const weights = Product({layer.in_features, layer.out_features});
  std::size_t const biases = layer.if_bias != 0 ? layer.out_features : 0;
  layer.raw = body.Halves(weights + biases);
  layer.weights = Widened(layer.raw.data(), layer.raw.size() - biases);
  layer.bias = Widened(layer.raw.data() + layer.weights.size(), biases);
}

QZLSTMWeights ReadDirection(BodyReader& body, QZLayerInfo_LSTM const& layer) {
  QZLSTMWeights weights;
  weights.weight_ih = body.Floats(Product({layer.in_size, layer.hidden_size, 4}));
  weights.weight_hh = body.Floats(Product({layer.hidden_size, layer.hidden_size, 4}));
  if (layer.if_bias != 0) {
    weights.bias_ih = body.Floats(Product({layer.hidden_size, 4}));
    weights.bias_hh = body.Floats(Product({layer.hidden_size, 4}));
  }
  return weights;
}

void ReadBody(BodyReader& body, QZLayerInfo_LSTM& layer) {
  ReadInput(body, layer);
  layer.in_size = body.Next();
  layer.hidden_size = body.Next();
  layer.num_layers = body.Next();
  layer.if_bias = body.Next();
  layer.bidirectional = body.Next();
  if (body.Version() >= 10009) layer.stacking = body.Next();
  ReadTensors(body, layer);
  RequireNotZero(layer, "hidden_size", layer.hidden_size);  // or many layers would stand in no bytes at all
  for (unsigned int i = 0; i < layer.num_layers; ++i) {
    layer.forward.push_back(ReadDirection(body, layer));
    if (layer.bidirectional != 0) layer.reverse.push_back(ReadDirection(body, layer));
  }
}

void ReadBody(BodyReader& body, QZLayerInfo_TensorActivation& layer) {
  ReadInput(body, layer);
  layer.input_tensor = ReadTensor(body, layer);
  layer.output_tensor = layer.input_tensor;
  ReadActivation(body, layer);
}

template <class Layer, unsigned short type>
std::unique_ptr<QZLayerInfo> Read(BodyReader& body) {
  auto layer = std::make_unique<Layer>();
  layer->type = type;
  layer->id = body.Next();
  ReadBody(body, *layer);
  return layer;
}

#define TALVO1_FORM(type, from_version, name) {type, from_version, #name, &Read<QZLayerInfo_##name, type>},
constexpr RecordForm kForms[] = {TALVO1_FOR_EACH_KIND(TALVO1_FORM)};
#undef TALVO1_FORM

}  // namespace

bool BodyReader::Try(unsigned short* value) {
  unsigned char bytes[2];
  if (std::fread(bytes, sizeof bytes, 1, stream_) != 1) return false;
  *value = static_cast<unsigned short>(bytes[0] | bytes[1] << 8);
  return true;
}

unsigned short BodyReader::Next() {
  unsigned short value = 0;
  if (!Try(&value)) EndedEarly();
  return value;
}

half BodyReader::NextHalf() { return half::FromBits(Next()); }

QZShape BodyReader::NextShape() {
  QZShape shape;
  shape.width = NextHalf();
  shape.height = NextHalf();
  shape.channels = Next();
  return shape;
}

QZTensorDescriptor BodyReader::NextTensor() {
  QZTensorDescriptor tensor;
  Skip(2);
  tensor.dimension_count = Next();
  for (unsigned short& dimension : tensor.dimensions) dimension = Next();
  return tensor;
}

void BodyReader::Skip(unsigned int values) {
  for (unsigned int i = 0; i < values; ++i) Next();
}

// A regular file tells what is left of it; for others memory grows with what was really read.
bool BodyReader::MayHold(std::uint64_t halves) const {
  struct stat status;
  if (halves <= kPiece || fstat(fileno(stream_), &status) != 0 || !S_ISREG(status.st_mode)) return true;
  off_t const position = ftello(stream_);
  return position <= status.st_size && halves <= static_cast<std::uint64_t>(status.st_size - position) / sizeof(half);
}

std::vector<half> BodyReader::Halves(std::uint64_t count) {
  if (!MayHold(count)) EndedEarly();
  std::vector<half> values;
  unsigned char bytes[2 * kPiece];
  while (values.size() < count) {
    std::size_t const piece = static_cast<std::size_t>(std::min<std::uint64_t>(count - values.size(), kPiece));
    if (std::fread(bytes, 2, piece, stream_) != piece) EndedEarly();
    for (std::size_t i = 0; i < piece; ++i)
      values.push_back(half::FromBits(static_cast<std::uint16_t>(bytes[2 * i] | bytes[2 * i + 1] << 8)));
  }
  return values;
}

std::vector<float> BodyReader::Floats(std::uint64_t count) {
  std::vector<half> const halves = Halves(count);
  return Widened(halves.data(), halves.size());
}

std::vector<float> Widened(half const* values, std::size_t count) { return std::vector<float>(values, values + count); }

RecordForm const* FindForm(unsigned short type) {
  auto const place =
      std::find_if(std::begin(kForms), std::end(kForms), [type](RecordForm const& f) { return f.type == type; });
  return place == std::end(kForms) ? nullptr : place;
}

}  // namespace talvo1::support
