#include "tools/run_package/npy.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <new>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <vector>

#include "talvo/entry/model.h"
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

unsigned int DataTypeOf(std::string const& path, std::string_view descr) {
  if (descr.compare(0, 5, "'<f4'") == 0) return TensorShape::FLOAT32;
  if (descr.compare(0, 5, "'|u1'") == 0) return TensorShape::UINT8;
  Refuse(path, "holds " + Shown(descr.substr(0, descr.find(','))) + "; float32 ('<f4') and uint8 ('|u1') are read");
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
                                                      talvo::runtime::DeviceCPU& device) {
  std::ifstream stream = Open(path);
  std::string const header = ReadHeader(path, stream);
  if (ValueOf(path, header, "fortran_order").compare(0, 5, "False") != 0)
    Refuse(path, "is in Fortran order; C order is read");
  std::vector<unsigned int> const dims = ParseShape(path, ValueOf(path, header, "shape"));
  unsigned int const axes = layout.empty() ? talvo::LayoutOfRank(dims.size()) : LayoutNumber(layout).value();
  TensorShape const shape(dims, DataTypeOf(path, ValueOf(path, header, "descr")), axes, TensorShape::MainMemory,
                          TensorShape::Extra());
  std::size_t const bytes = BytesOf(path, shape);
  std::string const data = Read(stream, bytes + 1);
  if (data.size() != bytes) {
    Refuse(path, "holds " + (data.size() > bytes ? "more than " + std::to_string(bytes) : std::to_string(data.size())) +
                     " bytes of data, its shape " + Shown(DimsText(dims)) + " needs " + std::to_string(bytes));
  }
  return device.CreateTensor(shape, data.data());
}

}  // namespace

std::shared_ptr<talvo::runtime::TensorCPU> ReadNpy(std::string const& path, std::string const& layout,
                                                   talvo::runtime::DeviceCPU& device) {
  try {
    return ReadTensor(path, layout, device);
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
