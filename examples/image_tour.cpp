// Takes one photo through every image operation and writes each result, and a contact sheet of all, as PPM files:
//   image_tour PHOTO.ppm DIRECTORY     (a binary PPM of 8 bits, its sides even and from 2 to 1024 pixels)
// The operations that have an Arm twin are run in their other form; the results are the same.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "examples/report.h"
#include "talvo/talvo.h"

namespace {

using namespace talvo::kernel::functional;
using talvo::runtime::TensorShape;
using Image = std::shared_ptr<talvo::runtime::Tensor>;
using Bytes = std::vector<unsigned char>;
using Dims = std::vector<unsigned int>;

struct Picture {  // interleaved RGB
  std::string name;
  unsigned int height = 0, width = 0;
  Bytes pixels;
};

[[noreturn]] void Refuse(std::string const& path, std::string const& why) {
  throw std::runtime_error(path + ": " + why);
}

// Source: the netpbm project's description of the format.
Picture ReadPpm(std::string const& path) {
  constexpr unsigned int kMaximumSide = 1024;  // all results are kept for the contact sheet
  std::ifstream stream(path, std::ios::binary);
  if (!stream || std::filesystem::is_directory(path)) Refuse(path, "cannot be opened as a file");
  char magic[2] = {};
  unsigned int maximum = 0;
  Picture picture;
  stream.read(magic, 2);
  for (unsigned int* number : {&picture.width, &picture.height, &maximum}) {
    while (stream >> std::ws && stream.peek() == '#') stream.ignore(1 << 20, '\n');
    stream >> *number;
  }
  stream.get();
  if (!stream || magic[0] != 'P' || magic[1] != '6' || maximum != 255) Refuse(path, "is no binary PPM (P6) of 8 bits");
  std::string const size = std::to_string(picture.width) + " by " + std::to_string(picture.height) + " pixels";
  for (unsigned int side : {picture.width, picture.height}) {
    if (side < 2 || side > kMaximumSide || side % 2 != 0)
      Refuse(path, "has " + size + "; both sides must be even and from 2 to " + std::to_string(kMaximumSide));
  }
  picture.pixels.resize(std::size_t{3} * picture.height * picture.width);
  stream.read(reinterpret_cast<char*>(picture.pixels.data()), static_cast<std::streamsize>(picture.pixels.size()));
  if (!stream) {
    Refuse(path, "holds " + std::to_string(stream.gcount()) + " bytes of pixels, " + size + " need " +
                     std::to_string(picture.pixels.size()));
  }
  return picture;
}

void WritePpm(std::string const& path, Picture const& picture) {
  std::ofstream stream(path, std::ios::binary);
  stream << "P6\n" << picture.width << ' ' << picture.height << "\n255\n";
  stream.write(reinterpret_cast<char const*>(picture.pixels.data()),
               static_cast<std::streamsize>(picture.pixels.size()));
  if (!stream.flush()) Refuse(path, "cannot be written");
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
    std::error_code problem;
    std::filesystem::create_directories(directory_, problem);
    if (problem) Refuse(directory_, "cannot be made a folder: " + problem.message());
    pixels_ = Device().CreateRGB888Tensor(photo_.height, photo_.width, photo_.pixels.data());
    planes_ = NewPlanes(photo_.height, photo_.width);
    process_.HWC2CHW(pixels_, planes_, context_);
    ShowPixels("photo", pixels_);
  }

  void Colours();
  void Grays();
  void CameraFrames();
  void RotationsAndFlips();
  void Crops();
  void FreeCrops();
  void Resizes();
  void Normalisations();
  void Warps();
  void WriteContactSheet() const;

 private:
  talvo::runtime::DeviceCPU& Device() { return *context_->device_cpu; }
  Image NewBytes(Dims const& dims, unsigned int layout, Bytes const& bytes) {
    return Device().CreateTensor({dims, TensorShape::UINT8, layout, TensorShape::MainMemory, {}}, bytes.data());
  }
  Image NewPixels(unsigned int h, unsigned int w, unsigned int c = 3) {
    return NewBytes({h, w, c}, TensorShape::HWC, Bytes(std::size_t{h} * w * c, 60));
  }
  Image NewPlanes(unsigned int h, unsigned int w) { return Device().CreateRGBUInt8CHWTensor(h, w, nullptr); }
  // The photo with gray alone, red and green, all colours, or colours and what else has its place in a pixel.
  Bytes Channels(std::size_t count) const {
    Bytes bytes;
    for (std::size_t i = 0; i < photo_.pixels.size(); i += 3) {
      unsigned char const* const rgb = &photo_.pixels[i];
      if (count == 1) bytes.push_back(static_cast<unsigned char>((rgb[0] + 2 * rgb[1] + rgb[2]) / 4));
      for (std::size_t c = 0; count > 1 && c < count; ++c) bytes.push_back(c < 3 ? rgb[c] : 255);
    }
    return bytes;
  }

  void Show(std::string const& name, unsigned int h, unsigned int w, Bytes pixels) {
    results_.push_back({name, h, w, std::move(pixels)});
    WritePpm(directory_ + "/" + name + ".ppm", results_.back());
  }
  // Interleaved channels: gray, or the first three.
  void ShowChannels(std::string const& name, Image const& image, unsigned int h, unsigned int w, std::size_t count) {
    auto const* const first = static_cast<unsigned char const*>(image->data);
    Bytes pixels(std::size_t{3} * h * w);
    for (std::size_t i = 0; i < pixels.size(); ++i) {
      if (count == 1) pixels[i] = first[i / 3];
      if (count > 1 && i % 3 < count) pixels[i] = first[i / 3 * count + i % 3];
    }
    Show(name, h, w, std::move(pixels));
  }
  void ShowPixels(std::string const& name, Image const& image) {
    auto const& dims = image->shape.dims;
    ShowChannels(name, image, dims[0], dims[1], dims[2]);
  }
  void ShowPlanes(std::string const& name, Image image) {
    Image pixels = NewPixels(image->shape.dims[1], image->shape.dims[2]);
    process_.ConvertPixel(image, pixels, 61, context_);
    ShowPixels(name, pixels);
  }
  // Float planes, mapped back by value * scale + offset.
  void ShowFloats(std::string const& name, Image image, float scale = 1, float offset = 0) {
    auto const& dims = image->shape.dims;
    Image pixels = Device().CreateTensor(
        {{dims[1], dims[2], 3}, image->shape.data_type, TensorShape::HWC, TensorShape::MainMemory, {}}, nullptr);
    process_.ConvertPixel(image, pixels, 61, context_);
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

// A conversion of the class by its code, and what the picture shows.
struct Coded {
  char const* name;
  Image& from;
  int code;
};

// The same for a free function from one image to another.
struct Free {
  char const* name;
  void (*function)(Image const&, Image&);
  Image input;
};

void Tour::Colours() {
  unsigned int const h = photo_.height, w = photo_.width;
  Image rgba = Device().CreateRGBA8888Tensor(h, w, Channels(4).data()), pixels = pixels_;
  for (Coded const& copy : {Coded{"rgba_to_rgb", rgba, 1},
                            {"rgba_to_bgr", rgba, 3},
                            {"rgb_to_bgr", pixels, 4},
                            {"rgb_to_bgr_planes", planes_, 4},
                            {"hwc_to_chw", pixels, 60}}) {
    Image planes = NewPlanes(h, w);
    process_.ConvertPixel(copy.from, planes, copy.code, context_);
    ShowPlanes(copy.name, planes);
  }
  for (Free const& free : {Free{"free_rgba_to_rgb", F_ColorCvt_RGBA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback, rgba},
                           {"free_bgra_to_rgb", F_ColorCvt_BGRA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback, rgba},
                           {"free_rgb_to_rgb", F_ColorCvt_RGB2RGB_HWC_UInt8_To_CHW_UInt8_Arm, pixels},
                           {"free_rgb_to_bgr", F_ColorCvt_RGB2BGR_HWC_UInt8_To_CHW_UInt8_Arm, pixels}}) {
    Image planes = NewPlanes(h, w);
    free.function(free.input, planes);
    ShowPlanes(free.name, planes);
  }
}

void Tour::Grays() {
  unsigned int const h = photo_.height, w = photo_.width;
  Image rgba = Device().CreateRGBA8888Tensor(h, w, Channels(4).data()), pixels = pixels_;
  for (Coded const& gray : {Coded{"rgb_to_gray", pixels, 7}, {"bgr_to_gray", pixels, 6}, {"rgba_to_gray", rgba, 11}}) {
    Image plane = Device().CreateU8CHWMainMem({1, h, w}, nullptr);
    process_.ConvertPixel(gray.from, plane, gray.code, context_);
    ShowChannels(gray.name, plane, h, w, 1);
  }
  for (Free const& free : {Free{"free_rgb_to_gray", F_ColorCvt_RGB888_To_Gray8_Fallback, pixels},
                           {"free_bgr_to_gray", F_ColorCvt_BGR888_To_Gray8_Fallback, pixels},
                           {"free_rgba_to_gray", F_ColorCvt_RGBA8888_To_Gray8_Fallback, rgba},
                           {"free_bgra_to_gray", F_ColorCvt_BGRA8888_To_Gray8_Fallback, rgba}}) {
    Image gray = Device().CreateGray8Tensor(h, w, nullptr);
    free.function(free.input, gray);
    ShowPixels(free.name, gray);
  }
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
  // The gains of V, the first chrominance value, and of U, the second, for each plane.
  auto const matrix = std::make_shared<talvo::kernel::YUVCvtMatrix>(
      talvo::kernel::YUVCvtMatrix{1, 1.40625f, 0, -0.71875f, -0.34375f, 0, 1.765625f, 0, 0.5f, 0.5f});
  Image const y = Device().CreateYPlane8BitTensor(h, w, nv21.data());
  Image const vu = Device().CreateUVPlane8BitTensor(h / 2, w / 2, nv21.data() + luminance);
  Image const u = Device().CreateYPlane8BitTensor(h / 2, w / 2, iyuv.data() + luminance);
  Image const v = Device().CreateYPlane8BitTensor(h / 2, w / 2, iyuv.data() + luminance + blocks);
  Image planes = NewPlanes(h, w), planes3 = NewPlanes(h, w);
  F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8_Fallback(y, vu, matrix, planes);
  ShowPlanes("free_yuv_2_planes", planes);
  F_ColorCvt_YUV_3Plane_UInt8_To_CHW_UInt8_Fallback(y, v, u, matrix, planes3);
  ShowPlanes("free_yuv_3_planes", planes3);
}

void Tour::RotationsAndFlips() {
  unsigned int const h = photo_.height, w = photo_.width;
  struct Turn {
    char const* name;
    int code;
    void (*free)(Image const&, Image&);
    bool on_its_side;
  };
  for (Turn const& turn : {Turn{"rotate_90", 50, F_Rotate_Clockwise90_HWC_Fallback, true},
                           {"rotate_180", 51, F_Rotate_Clockwise180_HWC_Fallback, false},
                           {"rotate_270", 52, F_Rotate_Clockwise270_HWC_Fallback, true},
                           {"flip_horizontal", 53, F_HFlip_HWC_Fallback, false},
                           {"flip_vertical", 54, F_VFlip_HWC_Fallback, false}}) {
    unsigned int const to_h = turn.on_its_side ? w : h, to_w = turn.on_its_side ? h : w;
    Image pixels = NewPixels(to_h, to_w), free = NewPixels(to_h, to_w), planes = NewPlanes(to_h, to_w);
    process_.ConvertPixel(pixels_, pixels, turn.code, context_);
    ShowPixels(turn.name, pixels);
    process_.ConvertPixel(planes_, planes, turn.code, context_);
    ShowPlanes(std::string(turn.name) + "_planes", planes);
    turn.free(pixels_, free);
    ShowPixels(std::string("free_") + turn.name, free);
  }
}

void Tour::Crops() {
  unsigned int const h = photo_.height, w = photo_.width;
  for (unsigned int n = 1; n <= 4; ++n) {
    // Both ends of the shares are included, so that half the width gives one column more.
    Image photo = NewBytes({h, w, n}, TensorShape::HWC, Channels(n)), face = NewPixels(h / 2 + 1, w / 2 + 1, n);
    process_.ConvertPixel(photo, face, 0.25f, 0.0f, 0.75f, 0.5f, 99 + static_cast<int>(n), context_);
    ShowPixels("crop_c" + std::to_string(n), face);
  }
  Image beyond = NewPixels(h / 2 + 1, w / 2 + 1);
  process_.ConvertPixel(pixels_, beyond, -0.25f, -0.25f, 0.25f, 0.25f, 102, context_);
  ShowPixels("crop_c3_beyond_the_edge", beyond);
}

void Tour::FreeCrops() {
  unsigned int const h = photo_.height, w = photo_.width, to_h = h / 2, to_w = w / 2;
  Image part = NewPixels(to_h, to_w), planes = NewPlanes(to_h, to_w), filled = NewPixels(h, w);
  F_Crop_HWC_Memcpy(pixels_, 0, w / 4, to_h, to_w, part);
  ShowPixels("free_crop", part);
  F_Crop_CHW_Memcpy(planes_, 0, w / 4, to_h, to_w, planes);
  ShowPlanes("free_crop_planes", planes);
  // With no more channels than a block has, the blocked layouts hold interleaved pixels.
  Image blocks4 = NewBytes({1, to_h, to_w, 4}, TensorShape::C4HW4, Bytes(std::size_t{4} * to_h * to_w));
  F_Crop_C4HW4_Memcpy(NewBytes({1, h, w, 4}, TensorShape::C4HW4, Channels(4)), 0, w / 4, to_h, to_w, blocks4);
  ShowChannels("free_crop_blocks_of_4", blocks4, to_h, to_w, 4);
  Image blocks8 = NewBytes({1, to_h, to_w, 8}, TensorShape::C8HW8, Bytes(std::size_t{8} * to_h * to_w));
  F_Crop_C8HW8_Memcpy(NewBytes({1, h, w, 8}, TensorShape::C8HW8, Channels(8)), 0, w / 4, to_h, to_w, blocks8);
  ShowChannels("free_crop_blocks_of_8", blocks8, to_h, to_w, 8);
  F_Crop_U8_HWC_Memcpy(pixels_, -static_cast<int>(h / 4), static_cast<int>(w / 4), static_cast<int>(h),
                       static_cast<int>(w), 200, filled);
  ShowPixels("free_crop_filled", filled);
}

void Tour::Resizes() {
  unsigned int const h = photo_.height, w = photo_.width, to_h = h * 3 / 5, to_w = w * 9 / 10;
  constexpr void (*kNearest[])(Image const&, Image&) = {
      F_Resize_Nearest_HWC_U8_C1_Fallback, F_Resize_Nearest_HWC_U8_C2_Fallback, F_Resize_Nearest_HWC_U8_C3_Fallback,
      F_Resize_Nearest_HWC_U8_C4_Fallback};
  constexpr void (*kBilinear[])(Image const&, Image&) = {
      F_Resize_Bilinear_HWC_U8_C1_Fallback, F_Resize_Bilinear_HWC_U8_C2_Fallback, F_Resize_Bilinear_HWC_U8_C3_Fallback,
      F_Resize_Bilinear_HWC_U8_C4_Fallback};
  Image gray = NewBytes({h, w}, TensorShape::FLEXIABLE, Channels(1));
  Image small = NewBytes({to_h, to_w}, TensorShape::FLEXIABLE, Bytes(std::size_t{to_h} * to_w));
  process_.ConvertPixel(gray, small, 77, context_);
  ShowChannels("resize_nearest_c1", small, to_h, to_w, 1);
  for (unsigned int n = 1; n <= 4; ++n) {
    std::string const suffix = "_c" + std::to_string(n);
    Bytes const empty(std::size_t{n} * to_h * to_w);
    // The class's bilinear resize of one channel has an axis in front.
    Image photo = NewBytes(n == 1 ? Dims{1, h, w} : Dims{h, w, n}, TensorShape::FLEXIABLE, Channels(n));
    Image resized = NewBytes(n == 1 ? Dims{1, to_h, to_w} : Dims{to_h, to_w, n}, TensorShape::FLEXIABLE, empty);
    process_.ConvertPixel(photo, resized, 80 + static_cast<int>(n), context_);
    ShowChannels("resize_bilinear" + suffix, resized, to_h, to_w, n);
    photo = NewBytes({h, w, n}, TensorShape::FLEXIABLE, Channels(n));
    resized = NewBytes({to_h, to_w, n}, TensorShape::FLEXIABLE, empty);
    process_.ConvertPixel(photo, resized, 0.3f, 0.0f, 0.6f, 0.35f, 84 + static_cast<int>(n), context_);
    if (n != 2) ShowPixels("crop_resize_nearest" + suffix, resized);  // the operation of two channels does nothing
    kNearest[n - 1](photo, resized);
    ShowPixels("free_resize_nearest" + suffix, resized);
    kBilinear[n - 1](photo, resized);
    ShowPixels("free_resize_bilinear" + suffix, resized);
  }
}

void Tour::Normalisations() {
  unsigned int const h = photo_.height, w = photo_.width;
  float const subtract[] = {127.5f, 127.5f, 127.5f}, multiply[] = {1 / 127.5f, 1 / 127.5f, 1 / 127.5f};
  Image sub = Device().CreateF32CMainMemory(3, subtract), mul = Device().CreateF32CMainMemory(3, multiply);
  Image floats = Device().CreateZeroF32CHWMainMem(3, h, w), shorts = Device().CreateS16CHWMainMem({3, h, w}, nullptr);
  Image values = Device().CreateZeroF32CHWMainMem(3, h, w);
  process_.ConvertPixel(planes_, values, 65, context_);
  ShowFloats("bytes_to_floats", values);
  F_Normalize_CHW_U8_To_CHW_F32_Fallback(planes_, sub, mul, floats);
  ShowFloats("free_normalise_u8_to_f32", floats, 127.5f, 127.5f);
  F_Normalize_CHW_F32_Fallback(values, sub, mul, floats);
  ShowFloats("free_normalise_f32", floats, 127.5f, 127.5f);
  Normalize_CHW_Float_Fallback(values, floats, multiply, nullptr);
  ShowFloats("free_normalise_by_factor_alone", floats, 127.5f);
  shorts->shape.extra.step_size = 12;
  F_Normalize_CHW_U8_To_CHW_S16_Fallback(planes_, sub, mul, shorts);
  auto const* const first = static_cast<short const*>(shorts->data);
  auto* const to = static_cast<float*>(floats->data);
  std::transform(first, first + std::size_t{3} * h * w, to, [](short v) { return static_cast<float>(v); });
  ShowFloats("free_normalise_u8_to_s16", floats, 127.5f / 4096, 127.5f);
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
    std::fprintf(stderr,
                 "usage: image_tour PHOTO.ppm DIRECTORY\n"
                 "  PHOTO.ppm  a binary PPM (P6) of 8 bits, its sides even and from 2 to 1024 pixels\n"
                 "  DIRECTORY  where the results go; it is made if there is none\n");
    return 2;
  }
  examples::KeepLog();
  try {
    Tour tour(ReadPpm(arguments[1]), arguments[2]);
    tour.Colours();
    tour.Grays();
    tour.CameraFrames();
    tour.RotationsAndFlips();
    tour.Crops();
    tour.FreeCrops();
    tour.Resizes();
    tour.Normalisations();
    tour.Warps();
    tour.WriteContactSheet();
    return examples::Finish("image_tour");
  } catch (std::exception const& error) {
    return examples::Fail("image_tour", error);
  }
}
