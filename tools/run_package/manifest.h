// What every layer of the runs gave, as a small file: to be compared with the same runs on another machine.
#pragma once

#include <string>
#include <vector>

#include "tools/run_package/session.h"

namespace run_package {

/// A tensor of a layer, as a line of the file: its parts stand behind tabs.
struct ManifestLine {
  std::string place;   // run, layer and output, tabs between them
  std::string what;    // kernel, dims and data type
  std::string digest;  // FNV-1a of 64 bits over the elements, every NaN counting as one
  std::string values;  // the elements in hexadecimal, blanks between them; or empty
};

/// Appends the tensors of a run that kept those of all its layers; `values` says whether their elements are told.
/// A layer that writes into the tensor of another shares it: both have the digest of what stood there at the end.
void AddToManifest(std::size_t run, RunResult const& result, bool values, std::vector<ManifestLine>& lines);

/// Throws std::runtime_error with the path where the file cannot be written.
void WriteManifest(std::string const& path, std::vector<ManifestLine> const& lines);

/// Compares with a written file. Throws std::runtime_error that names the first layer that differs and, where both hold
/// the elements, the first of these that does.
void VerifyManifest(std::string const& path, std::vector<ManifestLine> const& lines);

}  // namespace run_package
