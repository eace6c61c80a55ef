// Reads handwritten digits: from a camera-like gray picture through a small convolutional network to an answer.
//
//   read_digits             reads the pictures of examples/digits, and prints the accuracy and the layer table
//   read_digits FILE.pgm    reads one picture: 8-bit gray, one digit, light on dark or dark on light
#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "talvo/talvo.h"

namespace {

using namespace talvo;

constexpr char kFolder[] = TALVO_EXAMPLES_DIR "/digits";
constexpr unsigned int kSide = 28;  // the network's input: one channel of 28 by 28, 0 paper and 1 ink
constexpr unsigned int kInk = 20;   // the digit's longer side within it

struct Picture {
  unsigned int width = 0, height = 0;
  std::vector<unsigned char> gray;
};

// A binary PGM file of 8 bits a pixel. Source: the netpbm project's description of the format.
Picture ReadPgm(std::string const& path) {
  std::ifstream stream(path, std::ios::binary);
  if (!stream) throw std::runtime_error(path + ": cannot be opened");
  std::string magic;
  unsigned int numbers[3] = {};
  stream >> magic;
  for (unsigned int& number : numbers) {
    while (stream >> std::ws && stream.peek() == '#') stream.ignore(1 << 20, '\n');
    stream >> number;
  }
  stream.get();
  auto const [width, height, white] = numbers;
  if (!stream || magic != "P5" || white == 0 || white > 255 || width == 0 || height == 0 || width > 8192 ||
      height > 8192) {
    throw std::runtime_error(path + ": is no binary PGM of 8 bits a pixel and at most 8192 x 8192");
  }
  Picture picture{width, height, std::vector<unsigned char>(std::size_t{width} * height)};
  stream.read(reinterpret_cast<char*>(picture.gray.data()), static_cast<std::streamsize>(picture.gray.size()));
  if (!stream) throw std::runtime_error(path + ": ends inside the picture");
  return picture;
}

// Paper is what most of the rim shows; ink becomes the brighter of the two.
void MakeInkBright(Picture& picture) {
  std::size_t rim = 0, bright = 0;
  for (unsigned int y = 0; y < picture.height; ++y) {
    for (unsigned int x = 0; x < picture.width; ++x) {
      if (y != 0 && x != 0 && y + 1 != picture.height && x + 1 != picture.width) continue;
      ++rim;
      bright += picture.gray[std::size_t{y} * picture.width + x] >= 128;
    }
  }
  if (2 * bright <= rim) return;
  for (unsigned char& pixel : picture.gray) pixel = static_cast<unsigned char>(255 - pixel);
}

struct Box {
  unsigned int left, top, right, bottom;  // right and bottom lie behind
};

Box FindInk(Picture const& picture) {
  Box box{picture.width, picture.height, 0, 0};
  for (unsigned int y = 0; y < picture.height; ++y) {
    for (unsigned int x = 0; x < picture.width; ++x) {
      if (picture.gray[std::size_t{y} * picture.width + x] < 96) continue;
      box = {std::min(box.left, x), std::min(box.top, y), std::max(box.right, x + 1), std::max(box.bottom, y + 1)};
    }
  }
  if (box.right == 0) throw std::runtime_error("the picture shows no ink");
  return box;
}

// The mean gray of the part of the picture that one input pixel covers; what lies outside is paper.
float MeanOver(Picture const& picture, double left, double top, double step) {
  double sum = 0;
  constexpr int kSamples = 4;
  for (int j = 0; j < kSamples; ++j) {
    for (int i = 0; i < kSamples; ++i) {
      double const x = left + (i + 0.5) / kSamples * step, y = top + (j + 0.5) / kSamples * step;
      if (x < 0 || y < 0 || x >= picture.width || y >= picture.height) continue;
      sum += picture.gray[static_cast<std::size_t>(y) * picture.width + static_cast<std::size_t>(x)];
    }
  }
  return static_cast<float>(sum / (kSamples * kSamples * 255.0));
}

// A picture of the network's size is taken as it is; any other has its ink scaled to 20 pixels and centred.
std::vector<float> MakeInput(Picture picture) {
  std::vector<float> input;
  MakeInkBright(picture);
  if (picture.width == kSide && picture.height == kSide) {
    for (unsigned char pixel : picture.gray) input.push_back(static_cast<float>(pixel) / 255.0f);
    return input;
  }
  Box const ink = FindInk(picture);
  double const step = std::max(ink.right - ink.left, ink.bottom - ink.top) / double{kInk};
  double const left = (ink.left + ink.right) / 2.0 - kSide / 2.0 * step,
               top = (ink.top + ink.bottom) / 2.0 - kSide / 2.0 * step;
  for (unsigned int y = 0; y < kSide; ++y) {
    for (unsigned int x = 0; x < kSide; ++x) input.push_back(MeanOver(picture, left + x * step, top + y * step, step));
  }
  return input;
}

struct Answer {
  std::vector<float> probabilities;
  std::vector<float> layer_times_ms;
  double time_ms = 0;
  int Digit() const {
    return static_cast<int>(std::max_element(probabilities.begin(), probabilities.end()) - probabilities.begin());
  }
};

// The network, built once from its package.
class Reader {
 public:
  Reader() {
    std::string const path = std::string(kFolder) + "/digits.tlnmodel";
    utility::create_context(context_, 64);
    utility::init_register_operators(kernels_, params_);
    runtime::TLNModel file;
    if (utility::load_model(path, packages_, context_, kernels_, params_, "x86", 1, 0) != 0 ||
        !file.FromFile(path.c_str(), "bin")) {
      throw std::runtime_error(path + ": cannot be used");
    }
    auto& package = packages_.at("digits");
    auto const& model = file.model_arr->models.at("digits");
    utility::Load_Single_Net(package, model, file.config_arr->configs.at("digits"), "x86");
    layer_ids_ = model->squential_ids;
  }

  Answer Read(std::vector<float> const& input) {
    auto& package = *packages_.at("digits");
    package.inputs[package.net->input_ids.at("picture")] =
        context_->device_cpu->CreateF32CHWMainMem({1, kSide, kSide}, input.data());
    Answer answer;
    double const start = utility::get_time_in_ms();
    auto const outputs =
        package.net->Forward(package.inputs, package.output_ids, package.context, &answer.layer_times_ms, nullptr);
    answer.time_ms = utility::get_time_in_ms() - start;
    auto const output = std::static_pointer_cast<runtime::TensorCPU>(outputs.at(package.output_ids.front()).front());
    answer.probabilities.assign(output->Data<float>(), output->Data<float>() + output->shape.dims[0]);
    package.inputs.clear();
    return answer;
  }

  void PrintLayers(std::vector<float> const& times_ms) const {
    std::printf("\nlayer           ms      kernel\n");
    for (std::size_t i = 0; i < times_ms.size(); ++i) {
      std::printf("%-14s  %6.3f  %s\n", layer_ids_[i].c_str(), static_cast<double>(times_ms[i]),
                  packages_.at("digits")->net->layers[i]->kernel->GetName().c_str());
    }
  }

 private:
  // Released from the last to the first: packages before the context, registries after the packages.
  runtime::ClassRegistry<std::shared_ptr<runtime::IKernel>> kernels_;
  runtime::ClassRegistry<std::shared_ptr<runtime::InferenceParam>> params_;
  std::shared_ptr<runtime::Context> context_;
  std::map<std::string, std::shared_ptr<utility::_NetworkPackage>> packages_;
  std::vector<std::string> layer_ids_;
};

// Ten rows of bars beside the picture, two picture rows to a text row.
void Print(std::vector<float> const& input, Answer const& answer) {
  constexpr char kShades[] = " .:*#";
  for (unsigned int row = 0; row < kSide / 2; ++row) {
    std::string line;
    for (unsigned int x = 0; x < kSide; ++x) {
      float const shade = (input[2 * row * kSide + x] + input[(2 * row + 1) * kSide + x]) / 2.0f;
      line += kShades[std::min(4, static_cast<int>(shade * 5.0f))];
    }
    if (row >= 2 && row < 12) {
      auto const probability = static_cast<double>(answer.probabilities[row - 2]);
      std::printf("%s  %u %s %.3f\n", line.c_str(), row - 2,
                  std::string(static_cast<std::size_t>(probability * 30.0 + 0.5), '=').c_str(), probability);
    } else {
      std::printf("%s\n", line.c_str());
    }
  }
}

int ReadOne(std::string const& path) {
  Reader reader;
  auto const input = MakeInput(ReadPgm(path));
  Answer const answer = reader.Read(input);
  Print(input, answer);
  std::printf("%s: %d, in %.3f ms\n", path.c_str(), answer.Digit(), answer.time_ms);
  return 0;
}

// The digit in a name like digit_07_label_0.pgm.
int LabelOf(std::filesystem::path const& path) { return path.stem().string().back() - '0'; }

int ReadAll() {
  std::vector<std::filesystem::path> paths;
  for (auto const& entry : std::filesystem::directory_iterator(kFolder)) {
    if (entry.path().extension() == ".pgm") paths.push_back(entry.path());
  }
  std::sort(paths.begin(), paths.end());
  Reader reader;
  std::size_t right = 0;
  Answer answer;
  for (auto const& path : paths) {
    auto const input = MakeInput(ReadPgm(path.string()));
    answer = reader.Read(input);
    Print(input, answer);
    bool const is_right = answer.Digit() == LabelOf(path);
    right += is_right;
    std::printf("%s: %d, %s, in %.3f ms\n\n", path.filename().c_str(), answer.Digit(), is_right ? "right" : "WRONG",
                answer.time_ms);
  }
  std::printf("%zu of %zu right\n", right, paths.size());
  reader.PrintLayers(answer.layer_times_ms);
  return right == paths.size() ? 0 : 1;
}

}  // namespace

int main(int count, char** words) {
  if (count > 2) {
    std::fprintf(stderr, "usage: read_digits [FILE.pgm]\n");
    return 2;
  }
  try {
    return count == 2 ? ReadOne(words[1]) : ReadAll();
  } catch (std::exception const& error) {
    std::fprintf(stderr, "read_digits: %s\n", error.what());
    return 1;
  }
}
