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
  shape.height = half(static_cast<float>(height) / 128.0f);
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

TLModel1Writer& TLModel1Writer::Put(std::initializer_list<unsigned int> numbers) {
  for (unsigned int const number : numbers) {
    bytes += static_cast<char>(number & 0xFF);
    bytes += static_cast<char>(number >> 8);
  }
  return *this;
}

TLModel1Writer& TLModel1Writer::Any(int count) {
  for (int i = 0; i < count; ++i) Put({++next_});
  return *this;
}

TLModel1Writer& TLModel1Writer::Unread(int count) {
  for (int i = 0; i < count; ++i) Put({0xDEAD});
  return *this;
}

void TLModel1Writer::End() {
  Put({0xAAAA});
  ends.push_back(bytes.size());
}

namespace {

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
      file_.Unread(10);
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
    file_.Unread(10);
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
    file_.Unread(2);
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

}  // namespace

TLModel1Writer::TLModel1Writer(unsigned int version) : version_(version) {
  Put({0x5555, 0, version & 0xFFFF, version >> 16}).Unread(2);
  Put({77, 0, 88, 0, 64, 0, 128, 0}).Unread(484).Put({0xAAAA, 0});
}

void TLModel1Writer::Add(QZLayerInfo const& layer) {
  Start(layer.type).Put({layer.id});
  BodyWriter writer(*this, version_);
  switch (layer.type) {
#define TALVO1_BODY(type, from_version, name)                   \
  case type:                                                    \
    writer.Body(static_cast<QZLayerInfo_##name const&>(layer)); \
    break;
    TALVO1_FOR_EACH_KIND(TALVO1_BODY)
#undef TALVO1_BODY
  }
  End();
}

TLModel1Writer EveryOldLayer(unsigned int version) {
  TLModel1Writer file(version);
  // Behind an id and an input: the shapes of output and input, each a width, a height and channels.
  auto const planes = [&file](unsigned int type, unsigned int in, unsigned int out) -> TLModel1Writer& {
    return file.Start(type).Any(4).Put({out}).Any(2).Put({in});
  };
  auto const tensor = [&file](unsigned int dimensions) -> TLModel1Writer& {
    return file.Unread(2).Put({dimensions}).Any(11);
  };
  file.Start(0).Any(5).End();
  planes(1, 4, 6).Put({3, 2}).Any(8);  // taps; paddings, strides, dilations, bias, activation
  if (version > 10000) file.Put({/* groups */ 2}).Unread(10);
  file.Any(6 * 3 * 2 * (version > 10000 ? 2 : 4) + 6).End();
  planes(2, 4, 2).Put({3, 2}).Any(6);
  if (version >= 10003) file.Put({/* divisor */ 2});
  file.Any(2 * 4 * 3 * 2 / (version >= 10003 ? 2 : 1) + 2).End();
  for (unsigned int const type : {3u, 16u}) {
    if (type == 3 || version >= 10003)
      planes(type, 3, 6).Put({/* multiplier */ 2, 3, 2}).Any(8 + 2 * 3 * 2 * 3 + 6).End();
  }
  planes(4, 4, 1).Any(1).End();
  planes(5, 4, 4).Any(7).End();
  file.Start(6).Any(5).End();
  file.Start(7).Any(4).Put({/* channels */ 5}).Any(4 * 5).End();
  file.Start(8).Any(8).End();
  file.Start(9).Any(8).End();
  file.Start(10).Any(1).Put({/* inputs */ 2}).Any(10 + 3 + 2).End();
  file.Start(11).Any(1).Put({/* inputs */ 3}).Any(10 + 10 * 3 + 3 + 1).End();
  planes(14, 4, 4).Any(version >= 10007 ? 3 : 2).End();
  file.Start(15).Any(4).Put({/* channels */ 3}).Unread(10).Any(3).End();
  if (version < 10008) return file;
  file.Start(17).Any(2);
  tensor(2).End();
  for (unsigned int const type : {18u, 19u, 20u}) {
    file.Start(type).Any(type == 20 ? 3 : 2);
    tensor(3);
    tensor(2).Any(type == 19 ? 10 : 0).End();
  }
  for (unsigned int const if_bias : {0u, 1u}) {
    file.Start(21).Any(2).Put({/* in, out */ 3, 2, if_bias});
    tensor(1);
    tensor(1).Any(3 * 2 + (if_bias != 0 ? 2 : 0)).End();
    file.Start(22).Any(2).Put({/* in, hidden, layers */ 3, 2, 2, if_bias, /* directions less 1 */ if_bias});
    file.Any(version >= 10009 ? 1 : 0);
    tensor(2);
    tensor(2).Any(2 * (3 * 2 * 4 + 2 * 2 * 4)).Any(if_bias != 0 ? 2 * (3 * 2 * 4 + 2 * 2 * 4) + 4 * 2 * 8 : 0).End();
  }
  if (version < 10011) return file;
  file.Start(26).Any(2);
  tensor(3).Any(3).End();
  return file;
}

bool ReadOldModel(std::string const& bytes, QZNetLoader& loader) {
  std::string copy = bytes;
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> const stream(fmemopen(copy.data(), copy.size(), "rb"), &std::fclose);
  return loader.ReadFile(stream.get());
}

}  // namespace talvo::test
