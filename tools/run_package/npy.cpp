#include "tools/run_package/npy.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <new>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <tuple>
#include <utility>
#include <vector>

#include "talvo/entry/model.h"
#include "talvo/utility/half.h"
#include "tools/run_package/layouts.h"

namespace run_package {
namespace {

using talvo::runtime::DimsText;
using talvo::runtime::TensorShape;

constexpr std::string_view kMagic = "\x93NUMPY";
constexpr std::size_t kMaximumHeader = 65536, kMaximumRank = 64;

[[noreturn]] void Refuse(std::string const& path, std::string const& why) {
  throw std::runtime_error(path + ": " + why);
}

std::ifstream Open(std::string const& path) {
  std::error_code problem;
  if (std::filesystem::is_directory(path, problem)) Refuse(path, "is a folder");
  std::ifstream stream(path, std::ios::binary);
  if (!stream) Refuse(path, "cannot be opened");
  return stream;
}

// At most `count` bytes; in pieces, so that a claim alone takes no memory.
std::string Read(std::istream& stream, std::size_t count) {
  constexpr std::size_t kPiece = 1 << 20;
  std::string bytes;
  while (stream && bytes.size() < count) {
    std::size_t const start = bytes.size();
    bytes.resize(start + std::min(kPiece, count - start));
    stream.read(&bytes[start], static_cast<std::streamsize>(bytes.size() - start));
    bytes.resize(start + static_cast<std::size_t>(stream.gcount()));
  }
  return bytes;
}

// The beginning of a word from a file, as a message shows it.
std::string Shown(std::string_view word) {
  constexpr std::size_t kShown = 60;
  return std::string(word.substr(0, kShown)) + (word.size() > kShown ? "..." : "");
}

// The text behind "'key':" in the header's dictionary, blanks skipped.
std::string_view ValueOf(std::string const& path, std::string_view header, std::string const& key) {
  auto at = header.find("'" + key + "':");
  if (at == std::string_view::npos) Refuse(path, "its .npy header has no '" + key + "'");
  at = header.find_first_not_of(' ', at + key.size() + 3);
  return at == std::string_view::npos ? std::string_view() : header.substr(at);
}

std::vector<unsigned int> ParseShape(std::string const& path, std::string_view text) {
  auto const end = text.find(')');
  if (text.empty() || text[0] != '(' || end == std::string_view::npos) Refuse(path, "its .npy header has no shape");
  std::string const list(text.substr(1, end - 1));
  std::vector<unsigned int> dims;
  char const* at = list.c_str();
  while (*at != '\0') {
    char* after = nullptr;
    unsigned long long const extent = std::strtoull(at, &after, 10);
    if (after == at || extent > 0xFFFFFFFFull) Refuse(path, "its shape (" + Shown(list) + ") cannot be read");
    if (dims.size() == kMaximumRank) Refuse(path, "its shape has more than " + std::to_string(kMaximumRank) + " axes");
    dims.push_back(static_cast<unsigned int>(extent));
    at = after;
    while (*at == ',' || *at == ' ') ++at;
  }
  return dims;
}

// The dictionary behind the magic, the version and its own length.
std::string ReadHeader(std::string const& path, std::istream& stream) {
  std::string const start = Read(stream, kMagic.size() + 2);
  if (start.size() != kMagic.size() + 2 || start.compare(0, kMagic.size(), kMagic) != 0)
    Refuse(path, "is no .npy file");
  int const version = start[kMagic.size()];
  if (version < 1 || version > 3)
    Refuse(path, "is a .npy file of version " + std::to_string(version) + "; 1 to 3 are read");
  std::size_t const width = version == 1 ? 2 : 4;
  std::string const digits = Read(stream, width);
  std::size_t length = 0;
  for (std::size_t i = 0; i < digits.size(); ++i)
    length |= std::size_t{static_cast<unsigned char>(digits[i])} << (8 * i);
  if (length > kMaximumHeader)
    Refuse(path, "its .npy header has " + std::to_string(length) + " bytes; up to 65536 are read");
  std::string header = Read(stream, length);
  if (digits.size() != width || header.size() != length) Refuse(path, "ends inside its header");
  return header;
}

// How an array lies in its file.
struct Form {
  std::string name;  // of the type, as notes and refusals call it
  std::size_t bytes;
  bool swapped, fortran;

  bool IsFloat() const { return name != "uint8"; }
  bool IsKept() const { return !swapped && !fortran && (name == "float32" || name == "uint8"); }
};

Form FormOf(std::string const& path, std::string_view header) {
  std::string_view const descr = ValueOf(path, header, "descr"), order = ValueOf(path, header, "fortran_order");
  bool const fortran = order.compare(0, 4, "True") == 0;
  for (auto const& [type, name, bytes] :
       {std::tuple("f2'", "float16", 2), {"f4'", "float32", 4}, {"f8'", "float64", 8}, {"u1'", "uint8", 1}}) {
    if (descr.size() > 2 && descr[0] == '\'' && descr.compare(2, 3, type) == 0)
      return {name, static_cast<std::size_t>(bytes), descr[1] == '>' && bytes > 1, fortran};
  }
  Refuse(path, "holds " + Shown(descr.substr(0, descr.find(','))) + "; float16, float32, float64 and uint8 are read");
}

template <typename T>
T Stored(char const* bytes) {
  T value;
  std::memcpy(&value, bytes, sizeof value);
  return value;
}

float AsFloat(char const* bytes, std::size_t size) {
  if (size == 2) return static_cast<float>(Stored<half_float::half>(bytes));
  if (size == 4) return Stored<float>(bytes);
  auto const value = Stored<double>(bytes);
  constexpr double kLargest = std::numeric_limits<float>::max();
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  return value > kLargest ? kInfinity : value < -kLargest ? -kInfinity : static_cast<float>(value);
}

// Moves on to the place behind `index` in C order, whose last axis runs fastest.
void Step(std::vector<std::size_t>& index, std::vector<unsigned int> const& dims) {
  for (std::size_t axis = dims.size(); axis-- > 0 && ++index[axis] == dims[axis];) index[axis] = 0;
}

// The data of a file as little-endian float32 or uint8 in C order.
std::string Converted(std::string data, Form const& form, std::vector<unsigned int> const& dims) {
  std::size_t const count = data.size() / form.bytes;
  if (form.swapped) {
    for (auto at = data.begin(); at != data.end(); at += static_cast<std::ptrdiff_t>(form.bytes))
      std::reverse(at, at + static_cast<std::ptrdiff_t>(form.bytes));
  }
  std::string result(count * (form.IsFloat() ? sizeof(float) : 1), '\0');
  std::vector<std::size_t> index(dims.size());
  for (std::size_t i = 0; i < count; ++i, Step(index, dims)) {
    std::size_t from = 0;
    for (std::size_t axis = dims.size(); form.fortran && axis-- > 0;) from = from * dims[axis] + index[axis];
    char const* const bytes = data.data() + (form.fortran ? from : i) * form.bytes;
    if (form.IsFloat()) {
      float const value = AsFloat(bytes, form.bytes);
      std::memcpy(&result[i * sizeof value], &value, sizeof value);
    } else {
      result[i] = *bytes;
    }
  }
  return result;
}

std::string NoteOf(Form const& form) {
  if (form.IsKept()) return "";
  return "holds " + form.name + (form.swapped ? ", big-endian" : "") + (form.fortran ? ", in Fortran order" : "") +
         "; converted to " + (form.IsFloat() ? "float32" : "uint8") + " in C order";
}

// Bytes of the data, as a tensor counts them.
std::size_t BytesOf(std::string const& path, TensorShape const& shape) {
  try {
    return talvo::runtime::ByteCount(shape);
  } catch (std::runtime_error const&) {
    Refuse(path, "its shape " + Shown(DimsText(shape.dims)) + " needs more bytes than a tensor can have");
  }
}

std::shared_ptr<talvo::runtime::TensorCPU> ReadTensor(std::string const& path, std::string const& layout,
                                                      talvo::runtime::DeviceCPU& device, std::string* note) {
  std::ifstream stream = Open(path);
  std::string const header = ReadHeader(path, stream);
  Form const form = FormOf(path, header);
  std::vector<unsigned int> const dims = ParseShape(path, ValueOf(path, header, "shape"));
  unsigned int const axes = layout.empty() ? talvo::LayoutOfRank(dims.size()) : LayoutNumber(layout).value();
  unsigned int const type = form.IsFloat() ? TensorShape::FLOAT32 : TensorShape::UINT8;
  TensorShape const shape(dims, type, axes, TensorShape::MainMemory, TensorShape::Extra());
  std::size_t const bytes = BytesOf(path, shape) / talvo::runtime::ElementSize(type) * form.bytes;
  std::string data = Read(stream, bytes + 1);
  if (data.size() != bytes) {
    Refuse(path, "holds " + (data.size() > bytes ? "more than " + std::to_string(bytes) : std::to_string(data.size())) +
                     " bytes of data, its shape " + Shown(DimsText(dims)) + " needs " + std::to_string(bytes));
  }
  if (!form.IsKept()) data = Converted(std::move(data), form, dims);
  if (note != nullptr) *note = NoteOf(form);
  return device.CreateTensor(shape, data.data());
}

}  // namespace

std::shared_ptr<talvo::runtime::TensorCPU> ReadNpy(std::string const& path, std::string const& layout,
                                                   talvo::runtime::DeviceCPU& device, std::string* note) {
  try {
    return ReadTensor(path, layout, device, note);
  } catch (std::bad_alloc const&) {
    Refuse(path, "there is not enough memory for its data");
  }
}

void WriteNpy(std::string const& path, talvo::runtime::Tensor const& tensor) {
  constexpr char const* kDescr[] = {"<f4", "<f2", "<i4", "<i2", "|i1", "<u4", "<u2", "|u1"};
  std::string shape;
  for (unsigned int extent : tensor.shape.dims) shape += std::to_string(extent) + ",";
  std::string header = std::string("{'descr': '") + kDescr[tensor.shape.data_type] +
                       "', 'fortran_order': False, 'shape': (" + shape + "), }";
  std::size_t const unpadded = kMagic.size() + 4 + header.size() + 1;
  header += std::string((64 - unpadded % 64) % 64, ' ') + "\n";
  std::ofstream stream(path, std::ios::binary);
  stream << kMagic << '\1' << '\0' << static_cast<char>(header.size() & 255) << static_cast<char>(header.size() >> 8)
         << header;
  stream.write(static_cast<char const*>(tensor.data),
               static_cast<std::streamsize>(talvo::runtime::ByteCount(tensor.shape)));
  if (!stream.flush()) Refuse(path, "cannot be written");
}

}  // namespace run_package
