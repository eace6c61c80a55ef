// The image operations at the sizes of camera frames and of net inputs. Each stands beside a memcpy of its output's
// bytes ("memcpy") and beside the plain loop that defines it ("plain").
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "talvo/talvo.h"

namespace {

using namespace talvo::kernel::functional;
using talvo::runtime::TensorShape;
using Image = std::shared_ptr<talvo::runtime::Tensor>;
using Dims = std::vector<unsigned int>;

constexpr unsigned int kH = 1080, kW = 1920;
constexpr std::size_t kPixels = std::size_t{kH} * kW;

talvo::kernel::ImageProcessFallback process;

talvo::runtime::DeviceCPU& Device() {
  static std::shared_ptr<talvo::runtime::Context> const context = [] {
    std::shared_ptr<talvo::runtime::Context> made;
    talvo::utility::create_context(made, 64);
    return made;
  }();
  return *context->device_cpu;
}

Image Make(Dims dims, unsigned int layout, unsigned int type = TensorShape::UINT8) {
  TensorShape const shape(std::move(dims), type, layout, TensorShape::MainMemory, TensorShape::Extra());
  auto image = Device().CreateTensor(shape, nullptr);
  auto* const bytes = image->Data<unsigned char>();
  for (std::size_t i = 0; i < talvo::runtime::ByteCount(shape); ++i) {
    bytes[i] = static_cast<unsigned char>(i * 2654435761u >> 13);
  }
  return image;
}

Image MakeFloats(Dims dims) {
  auto image = Make(std::move(dims), TensorShape::CHW, TensorShape::FLOAT32);
  auto* const values = static_cast<float*>(image->data);
  for (std::size_t i = 0; i < talvo::runtime::ElementCount(image->shape.dims); ++i) {
    values[i] = static_cast<float>(i % 251);
  }
  return image;
}

unsigned char* Bytes(Image const& image) { return static_cast<unsigned char*>(image->data); }

// Runs `work` and reports bytes of `output` a second, and nanoseconds for each of its elements.
template <class Work>
void Measure(benchmark::State& state, Image const& output, Work const& work) {
  for (auto _ : state) {
    work();
    benchmark::ClobberMemory();
  }
  auto const runs = static_cast<std::int64_t>(state.iterations());
  state.SetBytesProcessed(runs * talvo::runtime::ByteCount(output->shape));
  state.counters["ns_per_value"] =
      benchmark::Counter(1e-9 * static_cast<double>(runs) * talvo::runtime::ElementCount(output->shape.dims),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// A family: the operation, a memcpy of the output's bytes, and the plain loop.
template <class Operation, class Plain>
void Register(std::string const& name, Image src, Image dst, Operation operation, Plain plain) {
  benchmark::RegisterBenchmark((name + "/talvo").c_str(), [=](benchmark::State& state) {
    Image from = src, to = dst;
    Measure(state, dst, [&] { operation(from, to); });
  });
  benchmark::RegisterBenchmark((name + "/memcpy").c_str(), [=](benchmark::State& state) {
    std::size_t const bytes = talvo::runtime::ByteCount(dst->shape);
    Image const from = Make({static_cast<unsigned int>(bytes)}, TensorShape::FLEXIABLE);
    Measure(state, dst, [&] { std::memcpy(dst->data, from->data, bytes); });
  });
  benchmark::RegisterBenchmark((name + "/plain").c_str(), [=](benchmark::State& state) {
    Measure(state, dst, [&] { plain(Bytes(src), Bytes(dst)); });
  });
}

void RegisterColours() {
  auto const planes = Make({3, kH, kW}, TensorShape::CHW), pixels = Make({kH, kW, 3}, TensorShape::HWC);
  auto const rgba = Make({kH, kW, 4}, TensorShape::HWC), gray = Make({1, kH, kW}, TensorShape::CHW);
  auto const frame = Make({kH, kW, 2}, TensorShape::HWC);  // holds luminance and chrominance
  auto const yuv = [](std::size_t u, std::size_t v) {
    return [=](unsigned char const* from, unsigned char* to) {
      for (std::size_t i = 0; i < kPixels; ++i) {
        unsigned char const* const pair = from + kPixels + i / kW / 2 * kW + i % kW / 2 * 2;
        int const y = from[i], du = pair[u] - 128, dv = pair[v] - 128;
        to[i] = static_cast<unsigned char>((64 * y + 90 * dv) >> 6);
        to[kPixels + i] = static_cast<unsigned char>((64 * y - 22 * du - 46 * dv) >> 6);
        to[2 * kPixels + i] = static_cast<unsigned char>((64 * y + 113 * du) >> 6);
      }
    };
  };
  Register(
      "NV21ToPlanes/1080p", frame, planes, [](Image& s, Image& d) { process.ConvertYUV2RGB_NV21(s, d, nullptr); },
      yuv(1, 0));
  Register(
      "NV12ToPlanes/1080p", frame, planes, [](Image& s, Image& d) { process.ConvertYUV2RGB_NV12(s, d, nullptr); },
      yuv(0, 1));
  auto const split = [](std::size_t step) {
    return [=](unsigned char const* from, unsigned char* to) {
      for (std::size_t i = 0; i < kPixels; ++i) {
        for (std::size_t k = 0; k < 3; ++k) to[k * kPixels + i] = from[i * step + k];
      }
    };
  };
  Register(
      "RGBAToPlanes/1080p", rgba, planes, [](Image& s, Image& d) { process.ConvertRGBAtoRGB(s, d, nullptr); },
      split(4));
  Register(
      "HWC2CHW/1080p", pixels, planes, [](Image& s, Image& d) { process.HWC2CHW(s, d, nullptr); }, split(3));
  Register(
      "CHW2HWC/1080p", planes, pixels, [](Image& s, Image& d) { process.CHW2HWC(s, d, nullptr); },
      [](unsigned char const* from, unsigned char* to) {
        for (std::size_t i = 0; i < kPixels; ++i) {
          for (std::size_t k = 0; k < 3; ++k) to[i * 3 + k] = from[k * kPixels + i];
        }
      });
  auto const planes4 = Make({4, kH, kW}, TensorShape::CHW), plane = Make({kH, kW, 1}, TensorShape::HWC);
  Register(
      "HWC2CHW/1080p_4", rgba, planes4, [](Image& s, Image& d) { process.HWC2CHW(s, d, nullptr); },
      [](unsigned char const* from, unsigned char* to) {
        for (std::size_t i = 0; i < kPixels; ++i) {
          for (std::size_t k = 0; k < 4; ++k) to[k * kPixels + i] = from[i * 4 + k];
        }
      });
  Register(
      "CHW2HWC/1080p_4", planes4, rgba, [](Image& s, Image& d) { process.CHW2HWC(s, d, nullptr); },
      [](unsigned char const* from, unsigned char* to) {
        for (std::size_t i = 0; i < kPixels; ++i) {
          for (std::size_t k = 0; k < 4; ++k) to[i * 4 + k] = from[k * kPixels + i];
        }
      });
  Register(
      "HWC2CHW/1080p_1", plane, gray, [](Image& s, Image& d) { process.HWC2CHW(s, d, nullptr); },
      [](unsigned char const* from, unsigned char* to) {
        for (std::size_t i = 0; i < kPixels; ++i) to[i] = from[i];
      });
  auto const weighted = [](std::size_t step) {
    return [=](unsigned char const* from, unsigned char* to) {
      for (std::size_t i = 0; i < kPixels; ++i) {
        unsigned char const* const p = from + i * step;
        to[i] = static_cast<unsigned char>((77 * p[0] + 150 * p[1] + 29 * p[2]) >> 8);
      }
    };
  };
  Register(
      "RGB2Gray/1080p", pixels, gray, [](Image& s, Image& d) { process.ConvertRGB2Gray(s, d, nullptr); }, weighted(3));
  Register(
      "RGBA2Gray/1080p", rgba, gray, [](Image& s, Image& d) { process.ConvertRGBA2Gray(s, d, nullptr); }, weighted(4));
  auto const in_double = [](std::size_t step) {
    return [=](unsigned char const* from, unsigned char* to) {
      double const first = step == 3 ? 0.299 : 0.114, third = step == 3 ? 0.114 : 0.299;
      for (std::size_t i = 0; i < kPixels; ++i) {
        unsigned char const* const p = from + i * step;
        to[i] = static_cast<unsigned char>(first * p[0] + 0.587 * p[1] + third * p[2]);
      }
    };
  };
  // The yardstick of gray: a loop that reads as many bytes for each pixel as there are channels, and writes one.
  auto const traffic = [=](std::string const& name, Image const& input, auto join) {
    benchmark::RegisterBenchmark((name + "/traffic").c_str(), [=](benchmark::State& state) {
      Measure(state, gray, [&] {
        unsigned char const* __restrict__ const from = Bytes(input);
        unsigned char* __restrict__ const to = Bytes(gray);
        for (std::size_t i = 0; i < kPixels; ++i) to[i] = static_cast<unsigned char>(join(from + i));
      });
    });
  };
  traffic("RGB2Gray/1080p", pixels, [](unsigned char const* p) { return p[0] ^ p[kPixels] ^ p[2 * kPixels]; });
  traffic("RGBA2Gray/1080p", rgba,
          [](unsigned char const* p) { return p[0] ^ p[kPixels] ^ p[2 * kPixels] ^ p[3 * kPixels]; });
  Register(
      "FreeGray/1080p", pixels, gray, [](Image& s, Image& d) { F_ColorCvt_RGB888_To_Gray8_Fallback(s, d); },
      in_double(3));
  Register(
      "FreeGrayFour/1080p", rgba, gray, [](Image& s, Image& d) { F_ColorCvt_RGBA8888_To_Gray8_Fallback(s, d); },
      in_double(4));
}

void RegisterTurns() {
  auto const pixels = Make({kH, kW, 3}, TensorShape::HWC), turned = Make({kW, kH, 3}, TensorShape::HWC);
  auto const plane = Make({1, kH, kW}, TensorShape::CHW), turned_plane = Make({1, kW, kH}, TensorShape::CHW);
  auto const flipped = Make({kH, kW, 3}, TensorShape::HWC);
  auto const rotate = [](std::size_t n) {
    return [=](unsigned char const* from, unsigned char* to) {
      for (std::size_t y = 0; y < kH; ++y) {
        for (std::size_t x = 0; x < kW; ++x) std::memcpy(to + (x * kH + kH - 1 - y) * n, from + (y * kW + x) * n, n);
      }
    };
  };
  Register(
      "Rotate90/1080p_rgb", pixels, turned, [](Image& s, Image& d) { process.ClockwiseRotate90(s, d, nullptr); },
      rotate(3));
  Register(
      "Rotate90/1080p_plane", plane, turned_plane, [](Image& s, Image& d) { process.ClockwiseRotate90(s, d, nullptr); },
      rotate(1));
  auto const flip = [](bool rows, bool columns) {
    return [=](unsigned char const* from, unsigned char* to) {
      for (std::size_t y = 0; y < kH; ++y) {
        for (std::size_t x = 0; x < kW; ++x) {
          std::size_t const to_y = rows ? kH - 1 - y : y, to_x = columns ? kW - 1 - x : x;
          std::memcpy(to + (to_y * kW + to_x) * 3, from + (y * kW + x) * 3, 3);
        }
      }
    };
  };
  Register(
      "FlipHorizontal/1080p_rgb", pixels, flipped, [](Image& s, Image& d) { process.Flip_Horizintal(s, d, nullptr); },
      flip(false, true));
  Register(
      "FlipVertical/1080p_rgb", pixels, flipped, [](Image& s, Image& d) { process.Flip_Vertical(s, d, nullptr); },
      flip(true, false));
  Register(
      "Rotate180/1080p_rgb", pixels, flipped, [](Image& s, Image& d) { process.ClockwiseRotate180(s, d, nullptr); },
      flip(true, true));
  auto const crop = Make({720, 1280, 3}, TensorShape::HWC);
  Register(
      "Crop/1080p_to_720p", pixels, crop, [](Image& s, Image& d) { F_Crop_HWC_Memcpy(s, 180, 320, 720, 1280, d); },
      [](unsigned char const* from, unsigned char* to) {
        for (std::size_t y = 0; y < 720; ++y) {
          for (std::size_t x = 0; x < 1280 * 3; ++x) to[y * 1280 * 3 + x] = from[((y + 180) * kW + 320) * 3 + x];
        }
      });
}

// Bilinear fixed point, value by value.
void PlainBilinear(unsigned char const* from, std::size_t fh, std::size_t fw, unsigned char* to, std::size_t th,
                   std::size_t tw) {
  struct Tap {
    std::size_t k;
    int w0, w1;
  };
  auto const tap = [](std::size_t i, std::size_t extent, std::size_t count) {
    auto const s = static_cast<float>(
        (static_cast<double>(i) + 0.5) * static_cast<double>(extent) / static_cast<double>(count) - 0.5);
    float const k = std::fmax(std::floor(s), 0.0f);
    bool const last = k >= static_cast<float>(extent - 1);
    float const f = last ? 1.0f : std::fmax(s - k, 0.0f);
    return Tap{last ? extent - 2 : static_cast<std::size_t>(k), static_cast<int>(std::lround((1 - f) * 2048)),
               static_cast<int>(std::lround(f * 2048))};
  };
  std::vector<Tap> columns(tw);
  for (std::size_t x = 0; x < tw; ++x) columns[x] = tap(x, fw, tw);
  for (std::size_t y = 0; y < th; ++y) {
    Tap const row = tap(y, fh, th);
    unsigned char const* const upper = from + row.k * fw * 3;
    unsigned char const* const lower = upper + fw * 3;
    for (std::size_t x = 0; x < tw; ++x) {
      Tap const& column = columns[x];
      for (std::size_t c = 0; c < 3; ++c) {
        std::size_t const at = column.k * 3 + c;
        int const p = (upper[at] * column.w0 + upper[at + 3] * column.w1) >> 4;
        int const q = (lower[at] * column.w0 + lower[at + 3] * column.w1) >> 4;
        to[(y * tw + x) * 3 + c] = static_cast<unsigned char>((((p * row.w0) >> 16) + ((q * row.w1) >> 16) + 2) >> 2);
      }
    }
  }
}

void RegisterResizes() {
  struct Case {
    char const* name;
    unsigned int fh, fw, th, tw;
  };
  for (Case const& c :
       {Case{"Bilinear/1080p_to_224", kH, kW, 224, 224}, {"Bilinear/480p_to_960p", 480, 640, 960, 1280}}) {
    Register(
        c.name, Make({c.fh, c.fw, 3}, TensorShape::FLEXIABLE), Make({c.th, c.tw, 3}, TensorShape::FLEXIABLE),
        [](Image& s, Image& d) { process.Resize_Bilinear_C3(s, d, nullptr); },
        [c](unsigned char const* from, unsigned char* to) { PlainBilinear(from, c.fh, c.fw, to, c.th, c.tw); });
  }
}

void RegisterNormalisations() {
  Dims const dims = {3, 224, 224};
  constexpr std::size_t kPlane = 224 * 224;
  static float const sub[] = {123.675f, 116.28f, 103.53f}, mul[] = {0.0171f, 0.0175f, 0.0174f};
  static Image const subs = Device().CreateF32CMainMemory(3, sub), muls = Device().CreateF32CMainMemory(3, mul);
  auto const bytes = Make(dims, TensorShape::CHW);
  auto const floats = Make(dims, TensorShape::CHW, TensorShape::FLOAT32);
  auto const shorts = Make(dims, TensorShape::CHW, TensorShape::INT16);
  shorts->shape.extra.step_size = 10;
  Register(
      "NormaliseU8ToF32/3x224x224", bytes, floats,
      [](Image& s, Image& d) { F_Normalize_CHW_U8_To_CHW_F32_Fallback(s, subs, muls, d); },
      [](unsigned char const* from, unsigned char* to) {
        auto* const out = reinterpret_cast<float*>(to);
        for (std::size_t i = 0; i < 3 * kPlane; ++i) out[i] = (from[i] - sub[i / kPlane]) * mul[i / kPlane];
      });
  Register(
      "NormaliseF32/3x224x224", MakeFloats(dims), floats,
      [](Image& s, Image& d) { F_Normalize_CHW_F32_Fallback(s, subs, muls, d); },
      [](unsigned char const* from, unsigned char* to) {
        auto const* const in = reinterpret_cast<float const*>(from);
        auto* const out = reinterpret_cast<float*>(to);
        for (std::size_t i = 0; i < 3 * kPlane; ++i) out[i] = (in[i] - sub[i / kPlane]) * mul[i / kPlane];
      });
  Register(
      "NormaliseU8ToS16/3x224x224", bytes, shorts,
      [](Image& s, Image& d) { F_Normalize_CHW_U8_To_CHW_S16_Fallback(s, subs, muls, d); },
      [](unsigned char const* from, unsigned char* to) {
        auto* const out = reinterpret_cast<std::int16_t*>(to);
        for (std::size_t i = 0; i < 3 * kPlane; ++i) {
          out[i] = static_cast<std::int16_t>((from[i] - sub[i / kPlane]) * (mul[i / kPlane] * 1024.0f));
        }
      });
}

constexpr int kSide = 512;
constexpr std::size_t kPlane = std::size_t{kSide} * kSide;

// Calls one(output element, column, row) for each element of three planes.
template <class One>
void ForEachElement(One const& one) {
  for (std::size_t i = 0; i < 3 * kPlane; ++i) {
    one(i, static_cast<float>(i % kSide), static_cast<float>(i % kPlane / kSide));
  }
}

std::size_t Element(std::size_t i, int x, int y) {
  return i / kPlane * kPlane + static_cast<std::size_t>(y) * kSide + static_cast<std::size_t>(x);
}

float Blend(float t00, float t10, float t01, float t11, float fx, float fy) {
  return (t11 * fx + t01 * (1 - fx)) * fy + (t10 * fx + t00 * (1 - fx)) * (1 - fy);
}

void PlainNearest(float const* m, float const* in, float* out) {
  ForEachElement([=](std::size_t i, float x, float y) {
    auto const sx = static_cast<int>(m[0] * x + m[1] * y + m[2] + 0.5f);
    auto const sy = static_cast<int>(m[3] * x + m[4] * y + m[5] + 0.5f);
    if (sx >= 0 && sx < kSide && sy >= 0 && sy < kSide) out[i] = in[Element(i, sx, sy)];
  });
}

void PlainBilinearWarp(float const* m, float const* in, float* out) {
  ForEachElement([=](std::size_t i, float x, float y) {
    float const u = m[0] * x + m[1] * y + m[2], v = m[3] * x + m[4] * y + m[5];
    auto const ix = static_cast<int>(u), iy = static_cast<int>(v);
    if (ix < 0 || ix >= kSide - 1 || iy < 0 || iy >= kSide - 1) return;
    float const* const t = in + Element(i, ix, iy);
    out[i] = Blend(t[0], t[1], t[kSide], t[kSide + 1], u < 0 ? 0 : u - static_cast<float>(ix),
                   v < 0 ? 0 : v - static_cast<float>(iy));
  });
}

// In normalised coordinates, with a test for each neighbour.
void PlainFreeWarp(float const* m, float const* in, float* out) {
  constexpr float kHalf = kSide / 2;
  ForEachElement([=](std::size_t i, float x, float y) {
    float const nx = (x + 0.5f) / kHalf - 1, ny = (y + 0.5f) / kHalf - 1;
    float const u = (m[0] * nx + m[1] * ny + m[2] + 1) * kHalf - 0.5f;
    float const v = (m[3] * nx + m[4] * ny + m[5] + 1) * kHalf - 0.5f;
    auto const ix = static_cast<int>(u), iy = static_cast<int>(v);
    bool const left = 0 < ix && ix < kSide, upper = 0 < iy && iy < kSide;
    bool const right = 0 <= ix && ix + 1 < kSide, lower = 0 <= iy && iy + 1 < kSide;
    auto const t = [&](int tx, int ty, bool inside) { return inside ? in[Element(i, tx, ty)] : 0.0f; };
    out[i] = Blend(t(ix, iy, left && upper), t(ix + 1, iy, right && upper), t(ix, iy + 1, left && lower),
                   t(ix + 1, iy + 1, right && lower), u - static_cast<float>(ix), v - static_cast<float>(iy));
  });
}

// A frame to a network's input, beside the resize of such a picture alone with one read of the rows that it touches.
void RegisterCameraFrames() {
  constexpr unsigned int kInput = 224;
  auto const nv21 = Make({kH * 3 / 2, kW, 1}, TensorShape::HWC), pixels = Make({kH, kW, 3}, TensorShape::FLEXIABLE);
  auto const small = Make({kInput, kInput, 3}, TensorShape::FLEXIABLE);
  talvo::FrameTarget target;
  target.width = target.height = kInput;
  std::shared_ptr<talvo::runtime::Context> context;
  talvo::utility::create_context(context, 64);
  for (unsigned int turn : {0u, 90u}) {
    target.turn = turn;
    std::string const name = "CameraFrame/NV21_1080p_to_224_turned_" + std::to_string(turn);
    benchmark::RegisterBenchmark((name + "/talvo").c_str(), [=](benchmark::State& state) {
      auto const frame =
          talvo::Frame::Packed(talvo::FrameFormat::kNV21, kW, kH, nv21->data, talvo::runtime::ByteCount(nv21->shape));
      Measure(state, small, [&] { benchmark::DoNotOptimize(talvo::TensorFromFrame(frame, target, context)); });
    });
  }
  benchmark::RegisterBenchmark("CameraFrame/NV21_1080p_to_224/resize_and_read", [=](benchmark::State& state) {
    Image from = pixels, to = small;
    std::vector<unsigned char> row(kW);
    Measure(state, small, [&] {
      process.Resize_Bilinear_C3(from, to, nullptr);
      for (std::size_t y = 0; y < kInput * 3;
           ++y) {  // two rows of luminance and one of chrominance for each output row
        std::memcpy(row.data(), Bytes(nv21) + y * kH * 3 / 2 / (kInput * 3) * kW, kW);
        benchmark::DoNotOptimize(row.data());
      }
    });
  });
}

void RegisterWarps() {
  static float const m[] = {0.9f, -0.3f, 90.0f, 0.3f, 0.9f, -30.0f};
  static float const normalised[] = {0.9f, -0.3f, 0.05f, 0.3f, 0.9f, -0.02f};
  static Image const matrix = Device().CreateF32FlexiableMainMemory({2, 3}, normalised);
  auto const src = MakeFloats({3, kSide, kSide}), dst = MakeFloats({3, kSide, kSide});
  auto const plain = [](auto function, float const* values) {
    return [=](unsigned char const* from, unsigned char* to) {
      function(values, reinterpret_cast<float const*>(from), reinterpret_cast<float*>(to));
    };
  };
  Register(
      "AffineInverseBilinear/3x512x512", src, dst,
      [](Image& s, Image& d) { process.Affine_INV_BILINEAR_Float(s, d, m, nullptr); }, plain(PlainBilinearWarp, m));
  Register(
      "AffineInverse/3x512x512", src, dst, [](Image& s, Image& d) { process.Affine_INV_Float(s, d, m, nullptr); },
      plain(PlainNearest, m));
  Register(
      "FreeAffineBilinear/3x512x512", src, dst,
      [](Image& s, Image& d) { F_WarpAffine_Bilinear_CHW_F32_Arm(s, matrix, d); }, plain(PlainFreeWarp, normalised));
}

}  // namespace

int main(int count, char** arguments) {
  benchmark::Initialize(&count, arguments);
  RegisterColours();
  RegisterTurns();
  RegisterResizes();
  RegisterNormalisations();
  RegisterCameraFrames();
  RegisterWarps();
  benchmark::RunSpecifiedBenchmarks();
}
