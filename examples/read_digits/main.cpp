// Reads handwritten digits: from a camera frame through a small convolutional network to an answer.
//
//   read_digits                  reads photographs made from the pictures of examples/digits, as a phone held at any
//                                of four turns would take them, with portable kernels and with fused ones; prints the
//                                accuracy and the layer tables
//   read_digits FILE.pgm         reads one 8-bit gray picture of one digit, light on dark or dark on light
//   read_digits FRAME.nv21 WIDTH HEIGHT [TURN [LEFT TOP WIDTH HEIGHT]]
//                                reads a raw camera frame; TURN degrees clockwise (0, 90, 180, 270) bring it upright,
//                                the box in the upright picture holds the digit
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "examples/read_digits/frame.h"
#include "examples/read_digits/prepare.h"
#include "examples/report.h"
#include "talvo/talvo.h"

namespace {

using namespace talvo;
using read_digits::Frame;
using read_digits::kSide;
using read_digits::View;

constexpr char kFolder[] = TALVO_EXAMPLES_DIR "/digits";

struct Answer {
  std::vector<float> probabilities;
  std::vector<float> layer_times_ms;
  std::vector<float> input;            // what the network saw
  double prepare_ms = 0, time_ms = 0;  // from the frame to the input, and to the answer
  int Digit() const {
    return static_cast<int>(std::max_element(probabilities.begin(), probabilities.end()) - probabilities.begin());
  }
};

// The network, built once from its package.
class Reader {
 public:
  explicit Reader(bool prefer_fused) {
    std::string const path = std::string(kFolder) + "/digits.tlnmodel";
    utility::create_context(context_, 64);
    utility::init_register_operators(kernels_, params_);
    utility::init_register_fused_operators(kernels_);
    runtime::TLNModel file;
    if (utility::load_model(path, packages_, context_, kernels_, params_, "x86", 1, 0) != 0 ||
        !file.FromFile(path.c_str(), "bin")) {
      throw std::runtime_error(path + ": " + examples::log_text);
    }
    auto& package = packages_.at("digits");
    auto const& model = file.model_arr->models.at("digits");
    auto const& configs = file.config_arr->configs.at("digits");
    if (prefer_fused) utility::PreferFusedKernels(*configs->cpu_sse);
    utility::Load_Single_Net(package, model, configs, "x86");
    layer_ids_ = model->squential_ids;
  }

  Answer Read(std::string const& path, Frame const& frame, View const& view) {
    auto& package = *packages_.at("digits");
    Answer answer;
    double const start = utility::get_time_in_ms();
    auto const input = read_digits::PrepareInput(path, frame, view, context_);
    answer.prepare_ms = utility::get_time_in_ms() - start;
    answer.input.assign(input->Data<float>(), input->Data<float>() + std::size_t{kSide} * kSide);
    package.inputs[package.net->input_ids.at("picture")] = input;
    auto const outputs =
        package.net->Forward(package.inputs, package.output_ids, package.context, &answer.layer_times_ms, nullptr);
    package.inputs.clear();
    answer.time_ms = utility::get_time_in_ms() - start;
    auto const output = std::static_pointer_cast<runtime::TensorCPU>(outputs.at(package.output_ids.front()).front());
    answer.probabilities.assign(output->Data<float>(), output->Data<float>() + output->shape.dims[0]);
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
void Print(Answer const& answer) {
  std::vector<float> const& input = answer.input;
  constexpr char kShades[] = " .:*#";
  for (unsigned int row = 0; row < kSide / 2; ++row) {
    std::string line;
    for (unsigned int x = 0; x < kSide; ++x) {
      float const shade = (input[2 * row * kSide + x] + input[(2 * row + 1) * kSide + x]) / 2.0f;
      line += kShades[std::clamp(static_cast<int>(shade * 5.0f), 0, 4)];  // below 0: on the other side of the paper
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

void ReadOne(std::string const& path, Frame const& frame, View const& view) {
  Reader reader(false);
  Answer const answer = reader.Read(path, frame, view);
  Print(answer);
  std::printf("%s: %d, in %.3f ms, %.3f of them for the image\n", path.c_str(), answer.Digit(), answer.time_ms,
              answer.prepare_ms);
}

// The digit in a name like digit_07_label_0.pgm.
int LabelOf(std::filesystem::path const& path) { return path.stem().string().back() - '0'; }

void ReadAll() {
  std::vector<std::filesystem::path> paths;
  for (auto const& entry : std::filesystem::directory_iterator(kFolder)) {
    if (entry.path().extension() == ".pgm") paths.push_back(entry.path());
  }
  std::sort(paths.begin(), paths.end());
  Reader reader(false), fused_reader(true);
  std::size_t right = 0;
  Answer answer, fused;
  for (std::size_t i = 0; i < paths.size(); ++i) {
    auto const& path = paths[i];
    View view;
    Frame const frame =
        read_digits::Photograph(read_digits::ReadPgm(path.string()), static_cast<unsigned int>(i), view);
    answer = reader.Read(path.string(), frame, view);
    Print(answer);
    fused = fused_reader.Read(path.string(), frame, view);
    bool const is_right = answer.Digit() == LabelOf(path) && fused.Digit() == answer.Digit();
    right += is_right;
    std::printf("%s, %u by %u, turned by %u: %d, %s, in %.3f ms (fused kernels %.3f), %.3f of them for the image\n\n",
                path.filename().c_str(), frame.width, frame.height, view.turn, answer.Digit(),
                is_right ? "right" : "WRONG", answer.time_ms, fused.time_ms, answer.prepare_ms);
  }
  std::printf("%zu of %zu right\n", right, paths.size());
  reader.PrintLayers(answer.layer_times_ms);
  fused_reader.PrintLayers(fused.layer_times_ms);
  if (right != paths.size()) throw std::runtime_error("some pictures were read wrong");
}

// A whole number, or a usage error.
unsigned int Number(char const* word) {
  char* end = nullptr;
  unsigned long const number = std::strtoul(word, &end, 10);
  if (word[0] < '0' || word[0] > '9' || *end != '\0' || number > 100000) {
    throw std::invalid_argument(std::string(word) + " is no whole number up to 100000");
  }
  return static_cast<unsigned int>(number);
}

void ReadFrame(int count, char** words) {
  Frame const frame = read_digits::ReadNv21(words[1], Number(words[2]), Number(words[3]));
  View view;
  view.turn = count > 4 ? Number(words[4]) : 0;
  if (view.turn % 90 != 0 || view.turn > 270)
    throw std::invalid_argument(std::string("TURN is 0, 90, 180 or 270, not ") + words[4]);
  bool const sideways = view.turn % 180 == 90;
  view.width = sideways ? frame.height : frame.width;
  view.height = sideways ? frame.width : frame.height;
  if (count == 9) view = {view.turn, Number(words[5]), Number(words[6]), Number(words[7]), Number(words[8])};
  ReadOne(words[1], frame, view);
}

void ReadPicture(char const* path) {
  Frame const frame = read_digits::ReadPgm(path);
  ReadOne(path, frame, {0, 0, 0, frame.width, frame.height});
}

}  // namespace

int main(int count, char** words) {
  examples::KeepLog();
  try {
    if (count > 1 && (words[1][0] == '-' || words[1][0] == '\0'))
      throw std::invalid_argument("\"" + std::string(words[1]) + "\" is no file");
    if (count == 1) {
      ReadAll();
    } else if (count == 2) {
      ReadPicture(words[1]);
    } else if (count == 4 || count == 5 || count == 9) {
      ReadFrame(count, words);
    } else {
      throw std::invalid_argument("wrong number of words");
    }
    return examples::Finish("read_digits");
  } catch (std::invalid_argument const& error) {
    std::fprintf(
        stderr,
        "read_digits: %s\nusage: read_digits [FILE.pgm | FRAME.nv21 WIDTH HEIGHT [TURN [LEFT TOP WIDTH HEIGHT]]]\n",
        error.what());
    return 2;
  } catch (std::exception const& error) {
    return examples::Fail("read_digits", error);
  }
}
