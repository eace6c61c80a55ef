#include "examples/read_digits/frame.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace read_digits {
namespace {

constexpr unsigned int kMaximumSide = 8192;
constexpr unsigned char kNoColor = 128;

Frame GrayFrame(unsigned int width, unsigned int height, unsigned char gray) {
  Frame frame{width, height, std::vector<unsigned char>(std::size_t{width} * height * 3 / 2, kNoColor)};
  std::fill_n(frame.nv21.begin(), std::size_t{width} * height, gray);
  return frame;
}

[[noreturn]] void Refuse(std::string const& path, std::string const& why) {
  throw std::runtime_error(path + ": " + why);
}

std::ifstream Open(std::string const& path) {
  std::ifstream stream(path, std::ios::binary);
  if (!stream || std::filesystem::is_directory(path)) Refuse(path, "cannot be opened as a file");
  return stream;
}

std::string SizeText(unsigned int width, unsigned int height) {
  return std::to_string(width) + " by " + std::to_string(height) + " pixels";
}

bool IsSide(unsigned int extent) { return extent >= 2 && extent <= kMaximumSide; }

// Fills `bytes` from the rest of the stream.
void ReadBytes(std::string const& path, std::string const& size, std::ifstream& stream,
               std::vector<unsigned char>& bytes) {
  stream.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  if (stream) return;
  Refuse(path, "holds " + std::to_string(stream.gcount()) + " bytes of the picture, " + size + " need " +
                   std::to_string(bytes.size()));
}

// The luminance between four pixels; outside the picture its nearest edge.
float Sample(Frame const& picture, float x, float y) {
  auto const clamp = [](float value, unsigned int side) {
    return std::min(std::max(value, 0.0f), static_cast<float>(side - 1));
  };
  float const cx = clamp(x, picture.width), cy = clamp(y, picture.height);
  auto const x0 = static_cast<std::size_t>(cx), y0 = static_cast<std::size_t>(cy);
  std::size_t const x1 = std::min(x0 + 1, std::size_t{picture.width} - 1),
                    y1 = std::min(y0 + 1, std::size_t{picture.height} - 1);
  auto const at = [&](std::size_t row, std::size_t column) {
    return static_cast<float>(picture.nv21[row * picture.width + column]);
  };
  float const fx = cx - static_cast<float>(x0), fy = cy - static_cast<float>(y0);
  return (at(y0, x0) * (1 - fx) + at(y0, x1) * fx) * (1 - fy) + (at(y1, x0) * (1 - fx) + at(y1, x1) * fx) * fy;
}

// Turns an upright frame so that `turn` degrees clockwise bring it back.
Frame Turned(Frame const& upright, unsigned int turn) {
  bool const sideways = turn % 180 == 90;
  Frame frame = GrayFrame(sideways ? upright.height : upright.width, sideways ? upright.width : upright.height, 0);
  for (unsigned int y = 0; y < upright.height; ++y) {
    for (unsigned int x = 0; x < upright.width; ++x) {
      unsigned int const right = upright.width - 1 - x, below = upright.height - 1 - y;
      unsigned int const row = turn == 90 ? right : turn == 180 ? below : turn == 270 ? x : y;
      unsigned int const column = turn == 90 ? y : turn == 180 ? right : turn == 270 ? below : x;
      frame.nv21[std::size_t{row} * frame.width + column] = upright.nv21[std::size_t{y} * upright.width + x];
    }
  }
  return frame;
}

}  // namespace

// Source: the netpbm project's description of the format.
Frame ReadPgm(std::string const& path) {
  std::ifstream stream = Open(path);
  char magic[2] = {};
  unsigned int numbers[3] = {};
  stream.read(magic, 2);
  for (unsigned int& number : numbers) {
    while (stream >> std::ws && stream.peek() == '#') stream.ignore(1 << 20, '\n');
    stream >> number;
  }
  stream.get();
  unsigned int const width = numbers[0], height = numbers[1], white = numbers[2];
  if (!stream || magic[0] != 'P' || magic[1] != '5') Refuse(path, "is no binary PGM (P5)");
  if (white == 0 || white > 255)
    Refuse(path, "has " + std::to_string(white) + " as its brightest value; 1 to 255 are read, 8 bits a pixel");
  if (!IsSide(width) || !IsSide(height)) Refuse(path, "has " + SizeText(width, height) + "; a side has 2 to 8192");
  std::vector<unsigned char> gray(std::size_t{width} * height);
  ReadBytes(path, SizeText(width, height), stream, gray);
  Frame frame = GrayFrame(width / 2 * 2, height / 2 * 2, 0);
  for (std::size_t y = 0; y < frame.height; ++y) {
    for (std::size_t x = 0; x < frame.width; ++x) {
      frame.nv21[y * frame.width + x] =
          static_cast<unsigned char>(std::min<unsigned int>(gray[y * width + x], white) * 255 / white);
    }
  }
  return frame;
}

Frame ReadNv21(std::string const& path, unsigned int width, unsigned int height) {
  if (width % 2 != 0 || height % 2 != 0 || !IsSide(width) || !IsSide(height))
    Refuse(path, "a frame of " + SizeText(width, height) + "; both sides must be even and from 2 to 8192");
  std::ifstream stream = Open(path);
  Frame frame{width, height, std::vector<unsigned char>(std::size_t{width} * height * 3 / 2)};
  ReadBytes(path, SizeText(width, height), stream, frame.nv21);
  return frame;
}

Frame Photograph(Frame const& picture, unsigned int number, View& view) {
  constexpr unsigned int kWidth = 640, kHeight = 480, kScale = 5, kMargin = 12;
  constexpr float kPaper = 205.0f, kInk = 40.0f;
  view.turn = number % 4 * 90;
  bool const sideways = view.turn % 180 == 90;
  Frame upright =
      GrayFrame(sideways ? kHeight : kWidth, sideways ? kWidth : kHeight, static_cast<unsigned char>(kPaper));
  unsigned int const width = picture.width * kScale, height = picture.height * kScale;
  unsigned int const left = 30 + number * 37 % (upright.width - width - 60),
                     top = 30 + number * 53 % (upright.height - height - 60);
  for (unsigned int y = 0; y < height; ++y) {
    for (unsigned int x = 0; x < width; ++x) {
      float const ink = Sample(picture, (static_cast<float>(x) + 0.5f) / kScale - 0.5f,
                               (static_cast<float>(y) + 0.5f) / kScale - 0.5f) /
                        255.0f;
      upright.nv21[std::size_t{top + y} * upright.width + left + x] =
          static_cast<unsigned char>(kPaper + (kInk - kPaper) * ink);
    }
  }
  view.left = left - kMargin - number % 7;
  view.top = top - kMargin;
  view.width = width + 2 * kMargin;
  view.height = height + kMargin + number % 11;
  return Turned(upright, view.turn);
}

}  // namespace read_digits
