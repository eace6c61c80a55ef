// Layers that hold weights, and poolings.
#include "tools/convert_onnx/builder.h"

#include <algorithm>
#include <utility>

#include "tools/convert_onnx/builder_support.h"

namespace convert_onnx {

using namespace talvo::runtime;

namespace {

// What both kinds of convolution have but for their paddings.
template <class Record>
void SetFields(Record& record, long long in, long long out, long long groups, Window const& w) {
  record.in_channels = Field(in, "in_channels");
  record.out_channels = Field(out, "out_channels");
  record.groups = Field(groups, "groups");
  record.kernel_x = Field(w.kernel_x, "kernel_x");
  record.kernel_y = Field(w.kernel_y, "kernel_y");
  record.stride_x = Field(w.stride_x, "stride_x");
  record.stride_y = Field(w.stride_y, "stride_y");
  record.dilation_x = Field(w.dilation_x, "dilation_x");
  record.dilation_y = Field(w.dilation_y, "dilation_y");
}

}  // namespace

Value Builder::Convolve(Value const& planes, Floats weight, Floats bias, long long out, long long groups, Window w) {
  auto const record = std::make_shared<Conv2dInfo>();
  SetFields(*record, planes.dims[0], out, groups, w);
  record->padding_l = Field(w.left, "a padding");
  record->padding_t = Field(w.top, "a padding");
  record->padding_r = Field(w.right, "a padding");
  record->padding_b = Field(w.bottom, "a padding");
  record->if_bias = !bias.empty();
  long long const rows = planes.dims[1] + w.top + w.bottom - w.dilation_y * (w.kernel_y - 1) - 1;
  long long const columns = planes.dims[2] + w.left + w.right - w.dilation_x * (w.kernel_x - 1) - 1;
  if (rows < 0 || columns < 0) throw Refusal("a window larger than the padded input " + Text(planes.dims));
  Shape const dims = {out, rows / w.stride_y + 1, columns / w.stride_x + 1};
  Value const value =
      Emit(record, "Conv2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1", Only(planes), dims, TensorShape::CHW, dims);
  layers.back().weight = std::move(weight);
  layers.back().bias = std::move(bias);
  return value;
}

Value Builder::Transposed(Value const& planes, Floats weight, Floats bias, long long out, long long groups, Window w) {
  auto const record = std::make_shared<ConvTranspose2dInfo>();
  SetFields(*record, planes.dims[0], out, groups, w);
  record->padding_l = Signed(w.left, "a padding");
  record->padding_t = Signed(w.top, "a padding");
  record->padding_r = Signed(w.right, "a padding");
  record->padding_b = Signed(w.bottom, "a padding");
  record->if_bias = !bias.empty();
  Shape const dims = {out, w.stride_y * planes.dims[1] + w.top + w.bottom - w.dilation_y * (w.kernel_y - 1),
                      w.stride_x * planes.dims[2] + w.left + w.right - w.dilation_x * (w.kernel_x - 1)};
  Value const value = Emit(record, "ConvTranspose2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1", Only(planes), dims,
                           TensorShape::CHW, dims);
  layers.back().weight = std::move(weight);
  layers.back().bias = std::move(bias);
  return value;
}

namespace {

template <class Info>
void FillPool(Info& record, Window const& w) {
  record.kernel_x = Field(w.kernel_x, "kernel_x");
  record.kernel_y = Field(w.kernel_y, "kernel_y");
  record.stride_x = Field(w.stride_x, "stride_x");
  record.stride_y = Field(w.stride_y, "stride_y");
  record.padding_l = Signed(Field(w.left, "a padding"), "a padding");
  record.padding_t = Signed(Field(w.top, "a padding"), "a padding");
  record.padding_r = Signed(Field(w.right, "a padding"), "a padding");
  record.padding_b = Signed(Field(w.bottom, "a padding"), "a padding");
  record.ceil_mode = false;
}

}  // namespace

Value Builder::Pool(Value const& planes, bool maximum, Window const& w, bool count_padding) {
  long long const rows = planes.dims[1] + w.top + w.bottom - w.dilation_y * (w.kernel_y - 1) - 1;
  long long const columns = planes.dims[2] + w.left + w.right - w.dilation_x * (w.kernel_x - 1) - 1;
  if (rows < 0 || columns < 0) throw Refusal("a window larger than the padded input " + Text(planes.dims));
  Shape const dims = {planes.dims[0], rows / w.stride_y + 1, columns / w.stride_x + 1};
  if (maximum) {
    auto const record = std::make_shared<MaxPool2dInfo>();
    FillPool(*record, w);
    record->dilation_x = Field(w.dilation_x, "dilation_x");
    record->dilation_y = Field(w.dilation_y, "dilation_y");
    return Emit(record, "Pooling2D_Max_Fallback_Float_M1", Only(planes), dims, TensorShape::CHW, dims);
  }
  if (w.dilation_x * w.dilation_y != 1) throw Refusal("dilations of an average");
  auto const record = std::make_shared<AvgPool2dInfo>();
  FillPool(*record, w);
  record->count_include_pad = count_padding;
  return Emit(record, "Pooling2D_Avg_Fallback_Float_M1", Only(planes), dims, TensorShape::CHW, dims);
}

Value Builder::Dense(Value const& value, Floats weight, Floats bias, long long out) {
  auto const in = static_cast<long long>(Count(value.shape));
  auto const record = std::make_shared<FullConnectionInfo>();
  record->in_features = Field(in, "in_features");
  record->out_features = Field(out, "out_features");
  record->if_bias = !bias.empty();
  Value const result =
      Emit(record, "FullConnection_Fallback_C_Float_M1", Only(Flat(value, {in})), {out}, TensorShape::C, {out});
  layers.back().weight = std::move(weight);
  layers.back().bias = std::move(bias);
  return result;
}

// The CBLAS has no dense layer over rows, but a convolution over their columns.
Value Builder::Rows(Value const& rows, Floats weight, long long out) {
  if (options_.kernels == Kernels::kBlas) return Along(rows, 1, weight, out);
  auto const record = std::make_shared<FullConnectionInfo>();
  record->in_features = Field(rows.shape[1], "in_features");
  record->out_features = Field(out, "out_features");
  Shape const dims = {rows.shape[0], out};
  Value const result = Emit(record, kDenseRows, Only(Flat(rows, rows.shape)), dims, TensorShape::SC, dims);
  layers.back().weight = std::move(weight);
  return result;
}

Value Builder::Multiply(Value const& a, Value const& b) {
  Value const& longer = a.shape.size() >= b.shape.size() ? a : b;
  Shape dims = longer.shape;
  dims[dims.size() - 2] = a.shape[a.shape.size() - 2];
  dims.back() = b.shape.back();
  return Emit(std::make_shared<BroadcastOperatorInfo>(), "MatMul_Fallback_Float_M1",
              {Flat(a, a.shape), Flat(b, b.shape)}, dims, LayoutOf(longer.shape), dims);
}

Value Builder::Along(Value const& value, std::size_t axis, Floats const& matrix, long long rows) {
  long long const extent = value.shape[axis];
  long long const outer = Product(value.shape, 0, axis), inner = Product(value.shape, axis + 1, value.shape.size());
  Shape shape = value.shape;
  shape[axis] = rows;
  Value const front = Permute(As(value, {outer, extent, inner}), {1, 0, 2});
  Value const product =
      As(Convolve(Flat(front, {extent, outer, inner}), matrix, {}, rows, 1, {}), {rows, outer, inner});
  return As(Permute(product, {1, 0, 2}), shape);
}

}  // namespace convert_onnx
