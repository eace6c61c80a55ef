#include "tools/convert_onnx/array.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>

#include "talvo/utility/half.h"

namespace convert_onnx {
namespace {

using onnx::TensorProto;

constexpr double kLargestFloat = 0x1.fffffep+127;
constexpr std::size_t kMostAxes = 64;
thread_local std::size_t element_limit = kMostElements;

// The bytes of `count` elements, of 8 bytes at most.
std::string External(TensorProto const& tensor, std::size_t count, std::string const& folder) {
  std::string location;
  unsigned long long offset = 0, length = 0;
  bool whole = true;
  for (auto const& entry : tensor.external_data()) {
    if (entry.key() == "location") location = entry.value();
    if (entry.key() == "offset") offset = std::strtoull(entry.value().c_str(), nullptr, 10);
    if (entry.key() == "length") length = std::strtoull(entry.value().c_str(), nullptr, 10), whole = false;
  }
  std::filesystem::path const path(location);
  bool const inside = !location.empty() && path.is_relative() && location.find("..") == std::string::npos;
  std::string const who = "tensor " + tensor.name() + ": external data \"" + location + "\" ";
  if (!inside) throw Refusal(who + "does not lie beside the model");
  std::error_code problem;
  auto const size = std::filesystem::file_size(std::filesystem::path(folder) / path, problem);
  if (problem) throw Refusal(who + "cannot be read: " + problem.message());
  if (offset > size || (!whole && length > size - offset)) {
    throw Refusal(who + "holds " + std::to_string(size) + " bytes, needs " + std::to_string(length) + " from " +
                  std::to_string(offset));
  }
  std::size_t const taken = whole ? size - offset : length;
  if (taken / 8 > count) throw Refusal(who + "holds " + std::to_string(taken) + " bytes, too many for its shape");
  std::string bytes(taken, '\0');
  std::ifstream stream(std::filesystem::path(folder) / path, std::ios::binary);
  stream.seekg(static_cast<std::streamoff>(offset));
  if (!stream.read(bytes.data(), static_cast<std::streamsize>(bytes.size()))) throw Refusal(who + "cannot be read");
  return bytes;
}

double HalfBits(unsigned short bits) {
  return static_cast<double>(static_cast<float>(half_float::half::FromBits(bits)));
}

template <class T>
void Decode(std::string const& bytes, std::vector<double>& values) {
  if (bytes.size() % sizeof(T) != 0) throw Refusal(std::to_string(bytes.size()) + " bytes are no whole elements");
  for (std::size_t i = 0; i < bytes.size(); i += sizeof(T)) {
    T value;
    std::memcpy(&value, &bytes[i], sizeof(T));
    values.push_back(static_cast<double>(value));
  }
}

void DecodeHalves(std::string const& bytes, std::vector<double>& values) {
  std::vector<double> bits;
  Decode<unsigned short>(bytes, bits);
  for (double const b : bits) values.push_back(HalfBits(static_cast<unsigned short>(b)));
}

// Little-endian elements as raw_data and external files hold them.
void DecodeRaw(int type, std::string const& bytes, std::vector<double>& values) {
  switch (type) {
    case TensorProto::FLOAT:
      return Decode<float>(bytes, values);
    case TensorProto::DOUBLE:
      return Decode<double>(bytes, values);
    case TensorProto::FLOAT16:
      return DecodeHalves(bytes, values);
    case TensorProto::INT64:
      return Decode<long long>(bytes, values);
    case TensorProto::INT32:
      return Decode<int>(bytes, values);
    case TensorProto::INT16:
      return Decode<short>(bytes, values);
    case TensorProto::INT8:
      return Decode<signed char>(bytes, values);
    case TensorProto::UINT64:
      return Decode<unsigned long long>(bytes, values);
    case TensorProto::UINT32:
      return Decode<unsigned int>(bytes, values);
    case TensorProto::UINT16:
      return Decode<unsigned short>(bytes, values);
    case TensorProto::UINT8:
      return Decode<unsigned char>(bytes, values);
    case TensorProto::BOOL:
      return Decode<unsigned char>(bytes, values);
    default:
      throw Refusal("element type " + TypeName(type) + " is not read");
  }
}

void DecodeFields(TensorProto const& tensor, std::vector<double>& values) {
  for (float const v : tensor.float_data()) values.push_back(static_cast<double>(v));
  for (double const v : tensor.double_data()) values.push_back(v);
  for (auto const v : tensor.int64_data()) values.push_back(static_cast<double>(v));
  for (auto const v : tensor.uint64_data()) values.push_back(static_cast<double>(v));
  bool const half = tensor.data_type() == TensorProto::FLOAT16;
  for (int const v : tensor.int32_data()) values.push_back(half ? HalfBits(static_cast<unsigned short>(v)) : v);
}

std::string OneLine(std::string text) {
  for (char& c : text) {
    if (std::iscntrl(static_cast<unsigned char>(c))) c = '?';
  }
  return text;
}

bool IsNumber(int type) {
  return type >= TensorProto::FLOAT && type <= TensorProto::UINT64 && type != TensorProto::STRING;
}

}  // namespace

Refusal::Refusal(std::string const& text) : std::runtime_error(OneLine(text)) {}

ElementLimit::ElementLimit(std::size_t most) { element_limit = std::min(most, kMostElements); }
ElementLimit::~ElementLimit() { element_limit = kMostElements; }

std::string Text(Shape const& shape) {
  std::string text;
  if (shape.size() > kMostAxes) return std::to_string(shape.size()) + " axes";
  for (long long const extent : shape) text += (text.empty() ? "" : "x") + std::to_string(extent);
  return text.empty() ? "scalar" : text;
}

std::string Text(double number) {
  char text[32];
  std::snprintf(text, sizeof text, "%g", number);
  return text;
}

std::size_t Count(Shape const& shape) {
  auto const limit = static_cast<long long>(element_limit);
  long long count = 1;
  for (long long const extent : shape) {
    if (shape.size() > kMostAxes || extent < 0 || (extent > 0 && count > limit / extent)) {
      throw Refusal("shape " + Text(shape) + " is no shape of at most " + std::to_string(limit) + " elements");
    }
    if (extent > 0) count *= extent;  // a product of parts stays in bounds where another extent is 0
  }
  return std::count(shape.begin(), shape.end(), 0) > 0 ? 0 : static_cast<std::size_t>(count);
}

long long Times(long long a, long long b) {
  long long product = 0;
  if (__builtin_mul_overflow(a, b, &product)) {
    throw Refusal("a product of " + std::to_string(a) + " and " + std::to_string(b) + " beyond 63 bits");
  }
  return product;
}

long long Product(Shape const& shape, std::size_t begin, std::size_t end) {
  long long product = 1;
  for (std::size_t i = begin; i < end; ++i) product = Times(product, shape[i]);
  return product;
}

std::size_t Axis(long long axis, std::size_t rank) {
  auto const signed_rank = static_cast<long long>(rank);
  if (axis < -signed_rank || axis >= signed_rank) {
    throw Refusal("axis = " + std::to_string(axis) + " is none of " + std::to_string(rank) + " axes");
  }
  return static_cast<std::size_t>(axis < 0 ? axis + signed_rank : axis);
}

std::vector<float> Array::Floats() const {
  std::vector<float> floats(values.size());
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (std::isfinite(values[i]) && std::abs(values[i]) > kLargestFloat)
      throw Refusal(Text(values[i]) + " is beyond what a float32 holds");
    floats[i] = static_cast<float>(values[i]);
  }
  return floats;
}

std::vector<long long> Array::Integers() const {
  std::vector<long long> integers;
  for (double const value : values) integers.push_back(ToInteger(value));
  return integers;
}

Array Scalar(double value) { return {{}, TensorProto::FLOAT, {value}}; }

long long ToInteger(double value) {
  if (std::isnan(value)) return 0;
  if (value >= 9.2233720368547758e18) return std::numeric_limits<long long>::max();
  if (value <= -9.2233720368547758e18) return std::numeric_limits<long long>::min();
  return static_cast<long long>(value);
}

double Rounded(double value, int type) {
  switch (type) {
    case TensorProto::FLOAT:
      return static_cast<double>(static_cast<float>(value));
    case TensorProto::DOUBLE:
      return value;
    case TensorProto::BOOL:
      return value != 0;
    case TensorProto::INT64:
      return std::trunc(value);
    case TensorProto::INT32:
      if (std::abs(std::trunc(value)) <= 2147483647.0) return std::trunc(value);
      throw Refusal("constant " + Text(value) + " is no int32");
    default:
      throw Refusal("constants of type " + TypeName(type) + " are not computed with");
  }
}

Shape BroadcastShape(Shape const& a, Shape const& b) {
  Shape const& longer = a.size() >= b.size() ? a : b;
  Shape const& shorter = a.size() >= b.size() ? b : a;
  Shape shape = longer;
  std::size_t const offset = longer.size() - shorter.size();
  for (std::size_t i = 0; i < shorter.size(); ++i) {
    long long const x = longer[offset + i], y = shorter[i];
    if (x != y && x != 1 && y != 1) throw Refusal("shapes " + Text(a) + " and " + Text(b) + " do not broadcast");
    shape[offset + i] = x == 1 ? y : x;
  }
  return shape;
}

std::vector<std::size_t> BroadcastOffsets(Shape const& from, Shape const& to) {
  std::vector<std::size_t> offsets{0};
  offsets.reserve(Count(to));
  std::vector<std::size_t> strides(to.size(), 0);
  std::size_t stride = 1;
  for (std::size_t i = 0; i < from.size(); ++i) {
    std::size_t const axis = from.size() - 1 - i;
    if (from[axis] != 1) strides[to.size() - 1 - i] = stride;
    stride *= static_cast<std::size_t>(from[axis]);
  }
  for (std::size_t axis = 0; axis < to.size(); ++axis) {
    std::vector<std::size_t> next;
    next.reserve(offsets.size() * static_cast<std::size_t>(to[axis]));
    for (std::size_t const offset : offsets) {
      for (long long i = 0; i < to[axis]; ++i) next.push_back(offset + static_cast<std::size_t>(i) * strides[axis]);
    }
    offsets = std::move(next);
  }
  return offsets;
}

Array ReadTensor(TensorProto const& tensor, std::string const& folder) {
  Array array{{tensor.dims().begin(), tensor.dims().end()}, tensor.data_type(), {}};
  std::string const who = "tensor " + tensor.name() + ": ";
  if (!IsNumber(array.type)) throw Refusal(who + "element type " + TypeName(array.type) + " is not read");
  std::size_t const count = Count(array.shape);
  if (tensor.data_location() == TensorProto::EXTERNAL) {
    DecodeRaw(array.type, External(tensor, count, folder), array.values);
  } else if (tensor.has_raw_data()) {
    DecodeRaw(array.type, tensor.raw_data(), array.values);
  } else {
    DecodeFields(tensor, array.values);
  }
  if (array.values.size() != count) {
    throw Refusal(who + "holds " + std::to_string(array.values.size()) + " elements, shape " + Text(array.shape) +
                  " needs " + std::to_string(count));
  }
  return array;
}

std::string TypeName(int type) {
  return onnx::TensorProto::DataType_IsValid(type)
             ? onnx::TensorProto::DataType_Name(static_cast<TensorProto::DataType>(type))
             : std::to_string(type);
}

}  // namespace convert_onnx
