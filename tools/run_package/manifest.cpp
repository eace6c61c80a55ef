#include "tools/run_package/manifest.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>

#include "talvo/runtime/tensor.h"

namespace run_package {
namespace {

using talvo::runtime::Tensor;
using talvo::runtime::TensorShape;

constexpr char kTitle[] = "talvo manifest 1";

std::string Hexadecimal(std::uint64_t number, unsigned int bytes) {
  char text[17];
  std::snprintf(text, sizeof text, "%0*llx", static_cast<int>(2 * bytes), static_cast<unsigned long long>(number));
  return text;
}

// The elements as numbers of their bytes.
std::vector<std::uint64_t> Elements(Tensor const& tensor) {
  unsigned int const bytes = talvo::runtime::ElementSize(tensor.shape.data_type);
  std::vector<std::uint64_t> elements(talvo::runtime::ElementCount(tensor.shape.dims));
  auto const* source = static_cast<unsigned char const*>(tensor.data);
  for (std::uint64_t& element : elements) {
    std::memcpy(&element, source, bytes);
    source += bytes;
    bool const is_nan = tensor.shape.data_type == TensorShape::FLOAT32 && (element & 0x7FFFFFFF) > 0x7F800000;
    if (is_nan) element = 0x7FC00000;
  }
  return elements;
}

ManifestLine LineOf(Tensor const& tensor, bool values) {
  ManifestLine line;
  unsigned int const bytes = talvo::runtime::ElementSize(tensor.shape.data_type);
  std::uint64_t digest = 0xCBF29CE484222325;
  for (std::uint64_t const element : Elements(tensor)) {
    digest = (digest ^ element) * 0x100000001B3;
    if (values) line.values += (line.values.empty() ? "" : " ") + Hexadecimal(element, bytes);
  }
  line.digest = Hexadecimal(digest, 8);
  return line;
}

// "; element 3 is bf800000 here and bf800001 there", where both tell their elements.
std::string FirstDifference(std::string const& here, std::string const& there) {
  if (here.empty() || there.empty()) return "";
  std::istringstream ours(here), theirs(there);
  std::string a, b;
  for (std::size_t i = 0; ours >> a && theirs >> b; ++i)
    if (a != b) return "; element " + std::to_string(i) + " is " + a + " here and " + b + " there";
  return "";
}

std::map<std::string, ManifestLine> Read(std::string const& path) {
  std::ifstream file(path);
  if (!file.is_open()) throw std::runtime_error(path + ": cannot be opened");
  std::string text;
  if (!std::getline(file, text) || text != kTitle) throw std::runtime_error(path + ": is no manifest");
  std::map<std::string, ManifestLine> lines;
  while (std::getline(file, text)) {
    std::vector<std::string> parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, '\t');) parts.push_back(part);
    if (parts.size() < 5) throw std::runtime_error(path + ": is cut short at \"" + text + "\"");
    std::string const place = parts[0] + "\t" + parts[1] + "\t" + parts[2];
    lines[place] = {place, parts[3], parts[4], parts.size() > 5 ? parts[5] : ""};
  }
  return lines;
}

}  // namespace

void AddToManifest(std::size_t run, RunResult const& result, bool values, std::vector<ManifestLine>& lines) {
  for (talvo::LayerTime const& layer : result.layer_times.back()) {
    for (std::size_t i = 0; i < result.tensors.TensorCount(layer.id); ++i) {
      Tensor const& tensor = result.tensors.At(layer.id, i);
      ManifestLine line = LineOf(tensor, values);
      std::string id = layer.id;
      std::replace_if(
          id.begin(), id.end(), [](char c) { return c == '\t' || c == '\n'; }, ' ');
      line.place = "run " + std::to_string(run) + "\tlayer " + id + "\toutput " + std::to_string(i);
      line.what = layer.kernel + " " + talvo::runtime::DimsText(tensor.shape.dims) + " of type " +
                  std::to_string(tensor.shape.data_type);
      lines.push_back(std::move(line));
    }
  }
}

void WriteManifest(std::string const& path, std::vector<ManifestLine> const& lines) {
  std::ofstream file(path);
  file << kTitle << "\n";
  for (ManifestLine const& line : lines) {
    file << line.place << "\t" << line.what << "\t" << line.digest << (line.values.empty() ? "" : "\t") << line.values
         << "\n";
  }
  if (!file.flush()) throw std::runtime_error(path + ": cannot be written");
}

void VerifyManifest(std::string const& path, std::vector<ManifestLine> const& lines) {
  auto const there = Read(path);
  for (ManifestLine const& here : lines) {
    std::string place = here.place;
    std::replace(place.begin(), place.end(), '\t', ',');
    auto const found = there.find(here.place);
    if (found == there.end()) throw std::runtime_error(path + ": does not hold " + place);
    if (found->second.what != here.what)
      throw std::runtime_error(path + ": " + place + " is " + here.what + " here and " + found->second.what + " there");
    if (found->second.digest != here.digest) {
      throw std::runtime_error(path + ": " + place + " (" + here.what + ") has the digest " + here.digest +
                               " here and " + found->second.digest + " there" +
                               FirstDifference(here.values, found->second.values));
    }
  }
  if (there.size() != lines.size())
    throw std::runtime_error(path + ": holds " + std::to_string(there.size()) + " tensors, these runs gave " +
                             std::to_string(lines.size()));
}

}  // namespace run_package
