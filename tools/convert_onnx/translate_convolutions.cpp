#include <algorithm>
#include <cmath>

#include "tools/convert_onnx/translators.h"

namespace convert_onnx {
namespace {

using Values = std::vector<Value>;

// Per spatial axis; one-dimensional planes get a second axis of extent 1.
struct Spatial {
  Shape size, kernel, strides, dilations, begin, end;
};

Shape Attribute(Node const& node, char const* name, std::size_t rank, long long absent) {
  Shape const values = node.Ints(name, Shape(rank, absent));
  if (values.size() != rank) {
    throw Refusal(std::string("attribute ") + name + " has " + std::to_string(values.size()) + " values, needs " +
                  std::to_string(rank));
  }
  for (long long const v : values) {
    if (v < -65535 || v > 65535 || (v < 1 && absent == 1))
      throw Refusal(std::string("attribute ") + name + " = " + std::to_string(v));
  }
  return values;
}

Spatial SpatialOf(Node const& node, Shape const& shape, Shape const& kernel) {
  if (shape.size() < 3) throw Refusal("an input of shape " + Text(shape) + " has no planes");
  std::size_t const rank = shape.size() - 2;
  if (kernel.size() != rank)
    throw Refusal("a kernel of " + Text(kernel) + " for planes of rank " + std::to_string(rank));
  Spatial s{Shape(shape.begin() + 2, shape.end()), kernel, Attribute(node, "strides", rank, 1),
            Attribute(node, "dilations", rank, 1), {},     {}};
  for (long long const k : kernel) {
    if (k < 1 || k > 65535) throw Refusal("a kernel of " + Text(kernel));
  }
  Shape const pads = Attribute(node, "pads", 2 * rank, 0);
  s.begin.assign(pads.begin(), pads.begin() + static_cast<std::ptrdiff_t>(rank));
  s.end.assign(pads.begin() + static_cast<std::ptrdiff_t>(rank), pads.end());
  return s;
}

// Paddings of a sliding window by attribute auto_pad.
void PadAutomatically(Node const& node, Spatial& s) {
  std::string const mode = node.Word("auto_pad", "NOTSET");
  if (mode == "NOTSET" || mode.empty()) return;
  for (std::size_t i = 0; i < s.size.size(); ++i) {
    long long total = 0;
    if (mode != "VALID") {
      total = ((s.size[i] + s.strides[i] - 1) / s.strides[i] - 1) * s.strides[i] + s.dilations[i] * (s.kernel[i] - 1) +
              1 - s.size[i];
      total = std::max(total, 0ll);
    }
    if (mode != "SAME_UPPER" && mode != "SAME_LOWER" && mode != "VALID") throw Refusal("attribute auto_pad = " + mode);
    s.begin[i] = mode == "SAME_LOWER" ? total - total / 2 : total / 2;
    s.end[i] = total - s.begin[i];
  }
}

Shape Extents(Spatial const& s) {
  Shape out;
  for (std::size_t i = 0; i < s.size.size(); ++i) {
    long long const span = s.size[i] + s.begin[i] + s.end[i] - s.dilations[i] * (s.kernel[i] - 1) - 1;
    if (span < 0) throw Refusal("a window of " + Text(s.kernel) + " is larger than the padded input " + Text(s.size));
    out.push_back(span / s.strides[i] + 1);
  }
  return out;
}

void AddPlaneAxis(Spatial& s) {
  for (Shape* list : {&s.size, &s.kernel, &s.strides, &s.dilations}) list->push_back(1);
  s.begin.push_back(0);
  s.end.push_back(0);
}

Window WindowOf(Spatial const& s, std::size_t y) {
  Window w;
  w.kernel_y = s.kernel[y], w.kernel_x = s.kernel[y + 1];
  w.stride_y = s.strides[y], w.stride_x = s.strides[y + 1];
  w.dilation_y = s.dilations[y], w.dilation_x = s.dilations[y + 1];
  w.top = s.begin[y], w.left = s.begin[y + 1];
  w.bottom = s.end[y], w.right = s.end[y + 1];
  return w;
}

Shape OutputShape(long long batch, long long channels, Shape const& extents) {
  Shape shape{batch, channels};
  shape.insert(shape.end(), extents.begin(), extents.end());
  return shape;
}

Floats Tiled(Floats const& values, long long times) {
  Count({times, static_cast<long long>(values.size())});  // refuses more than a tensor may hold
  Floats result;
  for (long long i = 0; i < times; ++i) result.insert(result.end(), values.begin(), values.end());
  return result;
}

Floats Bias(Node const& node, long long channels) {
  if (!node.Given(2)) return {};
  Floats const bias = node.ConstantInput(2).Floats();
  if (static_cast<long long>(bias.size()) != channels) {
    throw Refusal("a bias of " + std::to_string(bias.size()) + " values for " + std::to_string(channels) + " channels");
  }
  return bias;
}

// Depth goes into the channels: [O, D', C, D, ky, kx] with the kernel's planes on a band.
Floats Banded(Floats const& weight, Shape const& w, Spatial const& s, long long depth) {
  long long const plane = w[3] * w[4], in = s.size[0];
  Floats band(Count({Times(Times(w[0], depth), w[1]), in, plane}), 0.0f);
  for (long long o = 0; o < w[0]; ++o) {
    for (long long d = 0; d < depth; ++d) {
      for (long long c = 0; c < w[1]; ++c) {
        for (long long t = 0; t < w[2]; ++t) {
          long long const i = d * s.strides[0] - s.begin[0] + t * s.dilations[0];
          if (i < 0 || i >= in) continue;
          auto const from = weight.begin() + ((o * w[1] + c) * w[2] + t) * plane;
          std::copy(from, from + plane, band.begin() + (((o * depth + d) * w[1] + c) * in + i) * plane);
        }
      }
    }
  }
  return band;
}

// The same for a transposed convolution: [C, D, O, D', ky, kx].
Floats BandedTransposed(Floats const& weight, Shape const& w, Spatial const& s, long long depth) {
  long long const plane = w[3] * w[4], in = s.size[0];
  Floats band(Count({Times(w[0], in), Times(w[1], depth), plane}), 0.0f);
  for (long long c = 0; c < w[0]; ++c) {
    for (long long i = 0; i < in; ++i) {
      for (long long o = 0; o < w[1]; ++o) {
        for (long long t = 0; t < w[2]; ++t) {
          long long const d = i * s.strides[0] - s.begin[0] + t * s.dilations[0];
          if (d < 0 || d >= depth) continue;
          auto const from = weight.begin() + ((c * w[1] + o) * w[2] + t) * plane;
          std::copy(from, from + plane, band.begin() + (((c * in + i) * w[1] + o) * depth + d) * plane);
        }
      }
    }
  }
  return band;
}

Floats Stretched(Floats const& bias, long long times) {
  Floats result;
  Count({static_cast<long long>(bias.size()), times});
  for (float const v : bias) result.insert(result.end(), static_cast<std::size_t>(times), v);
  return result;
}

// Of a convolution with these weights.
Spatial WeightedOf(Node const& node, Shape const& shape, Shape const& w) {
  if (w.size() != shape.size() || w.size() < 3) throw Refusal("weights " + Text(w) + " do not fit " + Text(shape));
  if (w.size() > 5) throw Refusal("planes of " + std::to_string(w.size() - 2) + " axes");
  return SpatialOf(node, shape, Shape(w.begin() + 2, w.end()));
}

// Each group reads as many channels, and makes as many, as every other.
long long GroupsOf(Node const& node, long long channels, Shape const& w, bool transposed) {
  long long const groups = node.Int("group", 1);
  bool const whole = groups >= 1 && groups <= channels && channels % groups == 0;
  if (!whole || (transposed ? w[0] != channels : w[1] != channels / groups || w[0] % groups != 0)) {
    throw Refusal("group = " + std::to_string(groups) + ", weights " + Text(w) + " and " + std::to_string(channels) +
                  " channels disagree");
  }
  return groups;
}

// A batch is run as groups, each with the same weights.
Values Convolution(Node const& node, Builder& builder) {
  Value const& x = node.TensorInput(0);
  Array const& w = node.ConstantInput(1);
  Spatial s = WeightedOf(node, x.shape, w.shape);
  if (node.Has("kernel_shape") && node.Ints("kernel_shape", {}) != s.kernel)
    throw Refusal("attribute kernel_shape and weights differ");
  PadAutomatically(node, s);
  Shape const extents = Extents(s);
  long long const batch = x.shape[0], out = w.shape[0], groups = GroupsOf(node, x.shape[1], w.shape, false);
  if (s.size.size() == 1) AddPlaneAxis(s);
  bool const deep = s.size.size() == 3;
  Floats const weight = deep ? Banded(w.Floats(), w.shape, s, extents[0]) : w.Floats();
  Floats const bias = deep ? Stretched(Bias(node, out), extents[0]) : Bias(node, out);
  long long const depth = deep ? s.size[0] : 1, outputs = deep ? Times(out, extents[0]) : out;
  std::size_t const y = deep ? 1 : 0;
  Window const window = WindowOf(s, y);
  if (std::min({window.top, window.left, window.bottom, window.right}) < 0) throw Refusal("negative pads");
  Value const planes = builder.Flat(x, {batch * x.shape[1] * depth, s.size[y], s.size[y + 1]});
  Value const made =
      builder.Convolve(planes, Tiled(weight, batch), Tiled(bias, batch), batch * outputs, batch * groups, window);
  return {Builder::As(made, OutputShape(batch, out, extents))};
}

// Of a transposed convolution: how far its full result is cut at both ends.
void CutTransposed(Node const& node, Spatial& s, Shape const& full) {
  std::string const mode = node.Word("auto_pad", "NOTSET");
  std::size_t const rank = full.size();
  Shape wanted;
  if (node.Has("output_shape")) {
    wanted = node.Ints("output_shape", {});
    if (wanted.size() < rank) throw Refusal("attribute output_shape has too few values");
    wanted.erase(wanted.begin(), wanted.end() - static_cast<std::ptrdiff_t>(rank));
  } else if (mode == "SAME_UPPER" || mode == "SAME_LOWER") {
    for (std::size_t i = 0; i < rank; ++i) wanted.push_back(s.size[i] * s.strides[i]);
  } else if (mode == "VALID") {
    s.begin = s.end = Shape(rank, 0);
  }
  for (std::size_t i = 0; i < wanted.size(); ++i) {
    if (wanted[i] < 1) throw Refusal("attribute output_shape = " + Text(wanted));
    long long const total = full[i] - wanted[i];
    long long const half = total >= 0 ? total / 2 : (total - 1) / 2;  // below 0 the result is widened, at its end first
    s.begin[i] = mode == "SAME_UPPER" ? half : total - half;
    s.end[i] = total - s.begin[i];
  }
}

// The window of the last two axes. The kernel's borders are those of the input with stride - 1 zeros behind each
// element.
Window Borders(Spatial const& s, Shape const& extra) {
  Spatial t = s;
  for (std::size_t i = 0; i < s.size.size(); ++i) {
    long long const reach = s.dilations[i] * (s.kernel[i] - 1);
    t.begin[i] = reach - s.begin[i];
    t.end[i] = reach + extra[i] + 1 - s.strides[i] - s.end[i];
  }
  return WindowOf(t, s.size.size() - 2);
}

// Extents of the result; what is cut at both ends goes into `s`.
Shape TransposedExtents(Node const& node, Shape const& extra, Spatial& s) {
  Shape full, extents;
  for (std::size_t i = 0; i < extra.size(); ++i) {
    full.push_back(s.strides[i] * (s.size[i] - 1) + extra[i] + (s.kernel[i] - 1) * s.dilations[i] + 1);
  }
  CutTransposed(node, s, full);
  for (std::size_t i = 0; i < extra.size(); ++i) {
    extents.push_back(full[i] - s.begin[i] - s.end[i]);
    if (extents[i] < 1) throw Refusal("a result of " + Text(extents));
  }
  return extents;
}

Values TransposedConvolution(Node const& node, Builder& builder) {
  Value const& x = node.TensorInput(0);
  Array const& w = node.ConstantInput(1);
  Spatial s = WeightedOf(node, x.shape, w.shape);
  Shape extra = Attribute(node, "output_padding", s.size.size(), 0);
  Shape const extents = TransposedExtents(node, extra, s);
  long long const batch = x.shape[0], channels = x.shape[1], groups = GroupsOf(node, channels, w.shape, true);
  long long const out = Times(w.shape[1], groups);
  if (s.size.size() == 1) AddPlaneAxis(s), extra.push_back(0);
  bool const deep = s.size.size() == 3;
  Floats const weight = deep ? BandedTransposed(w.Floats(), w.shape, s, extents[0]) : w.Floats();
  Floats const bias = deep ? Stretched(Bias(node, out), extents[0]) : Bias(node, out);
  long long const depth = deep ? s.size[0] : 1, outputs = deep ? Times(out, extents[0]) : out;
  std::size_t const y = deep ? 1 : 0;
  Value const planes = builder.Flat(x, {batch * channels * depth, s.size[y], s.size[y + 1]});
  Value const made = builder.Transposed(planes, Tiled(weight, batch), Tiled(bias, batch), batch * outputs,
                                        batch * groups, Borders(s, extra));
  return {Builder::As(made, OutputShape(batch, out, extents))};
}

// A last window that begins in the input and ends behind it counts with ceil_mode.
void WidenForLastWindows(Node const& node, bool maximum, Spatial& s) {
  bool const count_padding = node.Int("count_include_pad", 0) != 0;
  for (std::size_t i = 0; i < s.size.size() && node.Int("ceil_mode", 0) != 0; ++i) {
    long long const span = s.size[i] + s.begin[i] + s.end[i] - s.dilations[i] * (s.kernel[i] - 1) - 1;
    long long const over = (s.strides[i] - span % s.strides[i]) % s.strides[i];
    if (over != 0 && !maximum && count_padding) throw Refusal("attribute ceil_mode = 1 with count_include_pad = 1");
    bool const reaches = over != 0 && (Extents(s)[i]) * s.strides[i] < s.size[i] + s.begin[i];
    if (reaches) s.end[i] += over;
  }
}

// The last two axes, then the first.
Value DeepPooling(Value const& x, Spatial const& s, Shape const& extents, bool maximum, bool count_padding,
                  Builder& b) {
  long long const planes = x.shape[0] * x.shape[1];
  Value const flat =
      b.Pool(b.Flat(x, {planes * s.size[0], s.size[1], s.size[2]}), maximum, WindowOf(s, 1), count_padding);
  Window depth;
  depth.kernel_y = s.kernel[0], depth.stride_y = s.strides[0], depth.dilation_y = s.dilations[0];
  depth.top = s.begin[0], depth.bottom = s.end[0];
  return b.Pool(b.Flat(flat, {planes, s.size[0], extents[1] * extents[2]}), maximum, depth, count_padding);
}

template <bool maximum>
Values Pooling(Node const& node, Builder& builder) {
  Value const& x = node.TensorInput(0);
  Spatial s = SpatialOf(node, x.shape, node.Ints("kernel_shape", {}));
  PadAutomatically(node, s);
  if (s.size.size() > 3) throw Refusal("planes of " + std::to_string(s.size.size()) + " axes");
  WidenForLastWindows(node, maximum, s);
  Shape const extents = Extents(s);
  if (s.size.size() == 1) AddPlaneAxis(s);
  bool const count_padding = node.Int("count_include_pad", 0) != 0;
  Value const result = s.size.size() == 3
                           ? DeepPooling(x, s, extents, maximum, count_padding, builder)
                           : builder.Pool(builder.Flat(x, {x.shape[0] * x.shape[1], s.size[0], s.size[1]}), maximum,
                                          WindowOf(s, 0), count_padding);
  Values outputs{Builder::As(result, OutputShape(x.shape[0], x.shape[1], extents))};
  if (node.wanted.size() > 1) outputs.push_back(Unmade("output Indices is int64; tensors are float32"));
  return outputs;
}

std::vector<std::size_t> PlaneAxes(Value const& x) {
  std::vector<std::size_t> axes;
  for (std::size_t i = 2; i < x.shape.size(); ++i) axes.push_back(i);
  return axes;
}

Values GlobalAverage(Node const& node, Builder& builder) {
  return {builder.Reduce(node.TensorInput(0), PlaneAxes(node.TensorInput(0)), true)};
}

Values GlobalMaximum(Node const& node, Builder& builder) {
  return {builder.Maximum(node.TensorInput(0), PlaneAxes(node.TensorInput(0)))};
}

}  // namespace

void AddConvolutions(Translators& table) {
  table.insert({{"Conv", Convolution}, {"ConvTranspose", TransposedConvolution}});
}

void AddPoolings(Translators& table) {
  table.insert({{"AveragePool", Pooling<false>},
                {"GlobalAveragePool", GlobalAverage},
                {"GlobalMaxPool", GlobalMaximum},
                {"MaxPool", Pooling<true>}});
}

}  // namespace convert_onnx
