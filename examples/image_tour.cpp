// Takes one photo through the image operations and writes each result, and a contact sheet of all, as PPM files:
//   image_tour PHOTO.ppm DIRECTORY
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "talvo/talvo.h"

namespace {

using namespace talvo::kernel::functional;
using talvo::runtime::TensorShape;
using Image = std::shared_ptr<talvo::runtime::Tensor>;
using Bytes = std::vector<unsigned char>;

struct Picture {  // interleaved RGB
  std::string name;
  unsigned int height = 0, width = 0;
  Bytes pixels;
};

Picture ReadPpm(std::string const& path) {
  std::ifstream stream(path, std::ios::binary);
  std::string magic;
  unsigned int maximum = 0;
  Picture picture;
  stream >> magic >> picture.width >> picture.height >> maximum;
  stream.get();
  picture.pixels.assign(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
  if (magic != "P6" || maximum != 255 || picture.pixels.size() != std::size_t{3} * picture.height * picture.width) {
    throw std::runtime_error(path + ": not a binary PPM of 8 bits");
  }
  if (picture.height % 2 != 0 || picture.width % 2 != 0) throw std::runtime_error(path + ": the extents must be even");
  return picture;
}

void WritePpm(std::string const& path, Picture const& picture) {
  std::ofstream stream(path, std::ios::binary);
  stream << "P6\n" << picture.width << ' ' << picture.height << "\n255\n";
  stream.write(reinterpret_cast<char const*>(picture.pixels.data()),
               static_cast<std::streamsize>(picture.pixels.size()));
  if (!stream.flush()) throw std::runtime_error(path + ": cannot be written");
}

unsigned char Clamp(float value) { return static_cast<unsigned char>(std::min(std::max(value, 0.0f), 255.0f)); }

// A camera's frame: H * W luminance, then rows of V, U pairs, one for each 2 x 2 block.
Bytes EncodeNv21(Picture const& photo) {
  std::size_t const h = photo.height, w = photo.width;
  Bytes frame(h * w * 3 / 2);
  for (std::size_t i = 0; i < h * w; ++i) {
    unsigned char const* const rgb = &photo.pixels[3 * i];
    auto const r = static_cast<float>(rgb[0]), g = static_cast<float>(rgb[1]), b = static_cast<float>(rgb[2]);
    float const y = 0.299f * r + 0.587f * g + 0.114f * b;
    frame[i] = Clamp(y);
    if (i / w % 2 == 1 || i % 2 == 1) continue;
    std::size_t const pair = h * w + i / w / 2 * w + i % w;
    frame[pair] = Clamp((r - y) * 64 / 90 + 128.5f);
    frame[pair + 1] = Clamp((b - y) * 64 / 113 + 128.5f);
  }
  return frame;
}

class Tour {
 public:
  Tour(Picture photo, std::string directory) : photo_(std::move(photo)), directory_(std::move(directory)) {
    talvo::utility::create_context(context_, 64);
    std::filesystem::create_directories(directory_);
    pixels_ = Device().CreateRGB888Tensor(photo_.height, photo_.width, photo_.pixels.data());
    planes_ = NewPlanes(photo_.height, photo_.width);
    process_.HWC2CHW(pixels_, planes_, context_);
    ShowPixels("photo", pixels_);
  }

  void Colours();
  void CameraFrames();
  void RotationsAndFlips();
  void Crops();
  void Resizes();
  void Normalisations();
  void Warps();
  void WriteContactSheet() const;

 private:
  talvo::runtime::DeviceCPU& Device() { return *context_->device_cpu; }
  Image NewPixels(unsigned int h, unsigned int w, unsigned int c = 3) {
    return Device().CreateU8HWCMainMem({h, w, c}, Bytes(std::size_t{h} * w * c, 60).data());
  }
  Image NewPlanes(unsigned int h, unsigned int w) { return Device().CreateRGBUInt8CHWTensor(h, w, nullptr); }
  Image NewFlexible(std::vector<unsigned int> const& dims, Bytes const& bytes) {
    TensorShape const shape(dims, TensorShape::UINT8, TensorShape::FLEXIABLE, TensorShape::MainMemory, {});
    return Device().CreateTensor(shape, bytes.data());
  }

  void Show(std::string const& name, unsigned int h, unsigned int w, Bytes pixels) {
    results_.push_back({name, h, w, std::move(pixels)});
    WritePpm(directory_ + "/" + name + ".ppm", results_.back());
  }
  // Rows and columns are dims[0] and dims[1].
  void ShowPixels(std::string const& name, Image const& image) {
    auto const* const first = static_cast<unsigned char const*>(image->data);
    auto const& dims = image->shape.dims;
    Show(name, dims[0], dims[1], Bytes(first, first + std::size_t{3} * dims[0] * dims[1]));
  }
  void ShowPlanes(std::string const& name, Image image) {
    Image pixels = NewPixels(image->shape.dims[1], image->shape.dims[2]);
    process_.CHW2HWC(image, pixels, context_);
    ShowPixels(name, pixels);
  }
  void ShowGray(std::string const& name, Image const& image, unsigned int h, unsigned int w) {
    auto const* const first = static_cast<unsigned char const*>(image->data);
    Bytes pixels(std::size_t{3} * h * w);
    for (std::size_t i = 0; i < pixels.size(); ++i) pixels[i] = first[i / 3];
    Show(name, h, w, std::move(pixels));
  }
  // Float planes, mapped back by value * scale + offset.
  void ShowFloats(std::string const& name, Image image, float scale = 1, float offset = 0) {
    auto const& dims = image->shape.dims;
    Image pixels = Device().CreateTensor(
        {{dims[1], dims[2], 3}, image->shape.data_type, TensorShape::HWC, TensorShape::MainMemory, {}}, nullptr);
    process_.CHW2HWC(image, pixels, context_);
    auto const* const first = static_cast<float const*>(pixels->data);
    Bytes bytes(std::size_t{3} * dims[1] * dims[2]);
    std::transform(first, first + bytes.size(), bytes.begin(),
                   [&](float v) { return Clamp(v * scale + offset + 0.5f); });
    Show(name, dims[1], dims[2], std::move(bytes));
  }

  Picture photo_;
  std::string directory_;
  std::shared_ptr<talvo::runtime::Context> context_;
  talvo::kernel::ImageProcessFallback process_;
  Image pixels_, planes_;
  std::vector<Picture> results_;
};

void Tour::Colours() {
  unsigned int const h = photo_.height, w = photo_.width;
  Bytes four;
  for (std::size_t i = 0; i < std::size_t{h} * w; ++i) {
    four.insert(four.end(), &photo_.pixels[3 * i], &photo_.pixels[3 * i] + 3);
    four.push_back(255);
  }
  Image rgba = Device().CreateRGBA8888Tensor(h, w, four.data());
  for (auto const& [name, code] : {std::pair<char const*, int>{"rgba_to_rgb", 1}, {"rgba_to_bgr", 3}}) {
    Image planes = NewPlanes(h, w);
    process_.ConvertPixel(rgba, planes, code, context_);
    ShowPlanes(name, planes);
  }
  Image planes = NewPlanes(h, w), free_planes = NewPlanes(h, w);
  process_.ConvertPixel(pixels_, planes, 4, context_);
  ShowPlanes("rgb_to_bgr", planes);
  F_ColorCvt_RGB2BGR_HWC_UInt8_To_CHW_UInt8_Arm(pixels_, free_planes);
  ShowPlanes("free_rgb_to_bgr", free_planes);
  Image gray = Device().CreateU8CHWMainMem({1, h, w}, nullptr), gray8 = Device().CreateGray8Tensor(h, w, nullptr);
  process_.ConvertPixel(pixels_, gray, 7, context_);
  ShowGray("rgb_to_gray", gray, h, w);
  process_.ConvertPixel(pixels_, gray, 6, context_);
  ShowGray("bgr_to_gray", gray, h, w);
  process_.ConvertPixel(rgba, gray, 11, context_);
  ShowGray("rgba_to_gray", gray, h, w);
  F_ColorCvt_RGB888_To_Gray8_Fallback(pixels_, gray8);
  ShowGray("free_rgb_to_gray", gray8, h, w);
}

void Tour::CameraFrames() {
  unsigned int const h = photo_.height, w = photo_.width;
  std::size_t const luminance = std::size_t{h} * w, blocks = luminance / 4;
  Bytes const nv21 = EncodeNv21(photo_);
  Bytes nv12 = nv21, iyuv = nv21;
  for (std::size_t i = 0; i < blocks; ++i) {
    nv12[luminance + 2 * i] = iyuv[luminance + i] = nv21[luminance + 2 * i + 1];
    nv12[luminance + 2 * i + 1] = iyuv[luminance + blocks + i] = nv21[luminance + 2 * i];
  }
  struct Frame {
    char const* name;
    Bytes const& bytes;
    int code;
  };
  for (Frame const& frame : {Frame{"nv21", nv21, 24}, {"nv12", nv12, 22}, {"iyuv", iyuv, 32}}) {
    Bytes bytes = frame.bytes;
    Image whole = Device().CreateYPlane8BitTensorExternal(h, w, bytes.data()), planes = NewPlanes(h, w);
    process_.ConvertPixel(whole, planes, frame.code, context_);
    ShowPlanes(frame.name, planes);
  }
  auto const matrix = std::make_shared<talvo::kernel::YUVCvtMatrix>(
      talvo::kernel::YUVCvtMatrix{1, 1.40625f, 0, -0.71875f, -0.34375f, 0, 1.765625f, 0, 0.5f, 0.5f});
  Image y = Device().CreateYPlane8BitTensor(h, w, nv21.data());
  Image vu = Device().CreateUVPlane8BitTensor(h / 2, w / 2, nv21.data() + luminance), planes = NewPlanes(h, w);
  F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8_Fallback(y, vu, matrix, planes);
  ShowPlanes("free_yuv_2_planes", planes);
}

void Tour::RotationsAndFlips() {
  unsigned int const h = photo_.height, w = photo_.width;
  struct Turn {
    char const* name;
    int code;
    bool on_its_side;
  };
  for (Turn const& turn : {Turn{"rotate_90", 50, true},
                           {"rotate_180", 51, false},
                           {"rotate_270", 52, true},
                           {"flip_horizontal", 53, false},
                           {"flip_vertical", 54, false}}) {
    Image turned = turn.on_its_side ? NewPixels(w, h) : NewPixels(h, w);
    process_.ConvertPixel(pixels_, turned, turn.code, context_);
    ShowPixels(turn.name, turned);
  }
  Image turned = NewPixels(w, h);
  F_Rotate_Clockwise90_HWC_Fallback(pixels_, turned);
  ShowPixels("free_rotate_90", turned);
}

void Tour::Crops() {
  unsigned int const h = photo_.height, w = photo_.width;
  // Both ends of the shares are included, so that half the width gives one column more.
  Image face = NewPixels(h / 2 + 1, w / 2 + 1), beyond = NewPixels(h / 2 + 1, w / 2 + 1);
  process_.ConvertPixel(pixels_, face, 0.25f, 0.0f, 0.75f, 0.5f, 102, context_);
  ShowPixels("crop", face);
  process_.ConvertPixel(pixels_, beyond, -0.25f, -0.25f, 0.25f, 0.25f, 102, context_);
  ShowPixels("crop_beyond_the_edge", beyond);
  Image part = NewPixels(h / 2, w / 2), filled = NewPixels(h, w);
  F_Crop_HWC_Memcpy(pixels_, 0, w / 4, h / 2, w / 2, part);
  ShowPixels("free_crop", part);
  F_Crop_U8_HWC_Memcpy(pixels_, -static_cast<int>(h / 4), static_cast<int>(w / 4), static_cast<int>(h),
                       static_cast<int>(w), 200, filled);
  ShowPixels("free_crop_filled", filled);
}

void Tour::Resizes() {
  unsigned int const h = photo_.height, w = photo_.width, to_h = h * 3 / 5, to_w = w * 9 / 10;
  Image photo = NewFlexible({h, w, 3}, photo_.pixels),
        resized = NewFlexible({to_h, to_w, 3}, Bytes(std::size_t{3} * to_h * to_w));
  process_.ConvertPixel(photo, resized, 83, context_);
  ShowPixels("resize_bilinear", resized);
  process_.ConvertPixel(photo, resized, 0.3f, 0.0f, 0.6f, 0.35f, 87, context_);
  ShowPixels("crop_resize_nearest", resized);
  Image gray = Device().CreateGray8Tensor(h, w, nullptr);
  F_ColorCvt_RGB888_To_Gray8_Fallback(pixels_, gray);
  auto const* const first = static_cast<unsigned char const*>(gray->data);
  Image flexible = NewFlexible({h, w}, Bytes(first, first + std::size_t{h} * w)),
        small = NewFlexible({h / 3, w / 3}, Bytes(std::size_t{h / 3} * (w / 3)));
  process_.ConvertPixel(flexible, small, 77, context_);
  ShowGray("resize_nearest", small, h / 3, w / 3);
  Image nearest = NewPixels(to_h, to_w), bilinear = NewPixels(to_h, to_w);
  F_Resize_Nearest_HWC_U8_C3_Fallback(pixels_, nearest);
  ShowPixels("free_resize_nearest", nearest);
  F_Resize_Bilinear_HWC_U8_C3_Fallback(pixels_, bilinear);
  ShowPixels("free_resize_bilinear", bilinear);
}

void Tour::Normalisations() {
  unsigned int const h = photo_.height, w = photo_.width;
  float const subtract[] = {127.5f, 127.5f, 127.5f}, multiply[] = {1 / 127.5f, 1 / 127.5f, 1 / 127.5f};
  Image sub = Device().CreateF32CMainMemory(3, subtract), mul = Device().CreateF32CMainMemory(3, multiply);
  Image floats = Device().CreateZeroF32CHWMainMem(3, h, w), shorts = Device().CreateS16CHWMainMem({3, h, w}, nullptr);
  F_Normalize_CHW_U8_To_CHW_F32_Fallback(planes_, sub, mul, floats);
  ShowFloats("normalised", floats, 127.5f, 127.5f);
  shorts->shape.extra.step_size = 12;
  F_Normalize_CHW_U8_To_CHW_S16_Fallback(planes_, sub, mul, shorts);
  auto const* const first = static_cast<short const*>(shorts->data);
  auto* const to = static_cast<float*>(floats->data);
  std::transform(first, first + std::size_t{3} * h * w, to, [](short v) { return static_cast<float>(v); });
  ShowFloats("normalised_fixed_point", floats, 127.5f / 4096, 127.5f);
}

void Tour::Warps() {
  unsigned int const h = photo_.height, w = photo_.width;
  Image floats = Device().CreateZeroF32CHWMainMem(3, h, w);
  process_.ConvertPixel(planes_, floats, 65, context_);
  auto const x = static_cast<float>(w) / 2, y = static_cast<float>(h) / 2;
  float const c = std::cos(0.4f), s = std::sin(0.4f), zoom = 1.25f;
  float const forward[] = {zoom * c, -zoom * s, x - zoom * (c * x - s * y),
                           zoom * s, zoom * c,  y - zoom * (s * x + c * y)};
  float const inverse[] = {c / zoom,  s / zoom, x - (c * x + s * y) / zoom,
                           -s / zoom, c / zoom, y - (-s * x + c * y) / zoom};
  struct Warp {
    char const* name;
    float const* matrix;
    int code;
  };
  for (Warp const& warp : {Warp{"affine_forward", forward, 56},
                           {"affine_inverse", inverse, 57},
                           {"affine_inverse_bilinear", inverse, 58}}) {
    Image warped = Device().CreateZeroF32CHWMainMem(3, h, w);
    process_.ConvertPixel(floats, warped, warp.matrix, warp.code, context_);
    ShowFloats(warp.name, warped);
  }
  float const normalised[] = {c, s, 0, -s, c, 0};
  Image matrix = Device().CreateF32FlexiableMainMemory({2, 3}, normalised),
        warped = Device().CreateZeroF32CHWMainMem(3, h, w);
  F_WarpAffine_Bilinear_CHW_F32_Arm(floats, matrix, warped);
  ShowFloats("free_affine_bilinear", warped);
}

// All results in rows of eight, in cells as large as the photo, with a line between them.
void Tour::WriteContactSheet() const {
  constexpr std::size_t kColumns = 8, kLine = 4;
  std::size_t const cell_h = photo_.height + kLine, cell_w = photo_.width + kLine;
  std::size_t const rows = (results_.size() + kColumns - 1) / kColumns;
  Picture sheet{
      "contact_sheet", static_cast<unsigned int>(rows * cell_h), static_cast<unsigned int>(kColumns * cell_w), {}};
  sheet.pixels.assign(std::size_t{3} * sheet.height * sheet.width, 32);
  for (std::size_t i = 0; i < results_.size(); ++i) {
    Picture const& result = results_[i];
    std::size_t const bytes = std::size_t{3} * std::min(result.width, photo_.width);
    for (std::size_t y = 0; y < std::min(result.height, photo_.height); ++y) {
      std::size_t const to = (i / kColumns * cell_h + y) * sheet.width + i % kColumns * cell_w;
      std::copy_n(&result.pixels[3 * y * result.width], bytes, &sheet.pixels[3 * to]);
    }
    std::printf("row %zu, column %zu: %s\n", i / kColumns + 1, i % kColumns + 1, result.name.c_str());
  }
  WritePpm(directory_ + "/contact_sheet.ppm", sheet);
  std::printf("%zu results and contact_sheet.ppm in %s\n", results_.size(), directory_.c_str());
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 3) {
    std::fprintf(stderr, "usage: image_tour PHOTO.ppm DIRECTORY\n");
    return 2;
  }
  try {
    Tour tour(ReadPpm(arguments[1]), arguments[2]);
    tour.Colours();
    tour.CameraFrames();
    tour.RotationsAndFlips();
    tour.Crops();
    tour.Resizes();
    tour.Normalisations();
    tour.Warps();
    tour.WriteContactSheet();
  } catch (std::exception const& error) {
    std::fprintf(stderr, "image_tour: %s\n", error.what());
    return 1;
  }
  return 0;
}
