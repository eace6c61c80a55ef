// The command line of run_package.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "tools/common/program.h"

namespace run_package {

/// LAYER=FILE.npy or LAYER=LAYOUT:FILE.npy; an empty layout leaves the choice to the array's rank.
struct InputFile {
  std::string layer, layout, path;
};

struct Arguments {
  std::string package;
  std::string model;  // empty: the package's only model
  std::string backend = "x86";
  std::vector<std::vector<InputFile>> runs = {{}};  // the inputs of each run of the net, in order
  std::vector<std::string> outputs;                 // layer ids; empty: the model's outputs
  std::string output_dir;                           // empty: nothing is written
  unsigned int repeat = 1;
  std::map<std::string, std::vector<unsigned int>> shapes;  // extents of inputs without a file, for the two below
  bool check = false, memory = false;
  bool prefer_fused = false;
  bool profile = false;
  bool list = false;
  bool json = false;
  std::string trace, page;       // files for the times of layers and for a browser; empty: none
  std::string manifest, verify;  // files of digests of the layers, to be written and to be compared with; empty: none
  bool values = false;           // with the elements
};

extern tools::Usage const kUsage;

/// Throws tools::UsageError.
Arguments ParseArguments(int count, char const* const* words);

}  // namespace run_package
