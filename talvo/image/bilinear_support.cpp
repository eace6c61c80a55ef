#include "talvo/image/bilinear_support.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

#include "talvo/kernel/rows/pixels.h"
#include "talvo/utility/restrict_support.h"

namespace talvo::kernel::image {
namespace {

// Rounded half away from zero. A part lies in [0, 1], so that 16 bits hold every weight.
std::int16_t Weight(float part) { return static_cast<std::int16_t>(std::round(part * 2048.0f)); }

// Both taps of every output pixel, in a row each, so that the blend reads without gaps. Each row has room for a byte
// behind its end: pixels of three bytes move as four, of which the next one overwrites the last, but for those at the
// end of the source row, from pixel `inner` on.
template <std::size_t kPixelBytes>
void GatherTaps(unsigned char const* TALVO_RESTRICT row, std::uint32_t const* TALVO_RESTRICT first,
                std::size_t distance, std::size_t inner, std::size_t count, unsigned char* TALVO_RESTRICT left,
                unsigned char* TALVO_RESTRICT right) {
  constexpr std::size_t kMoved = kPixelBytes == 3 ? 4 : kPixelBytes;
  std::size_t x = 0;
  for (; x < inner; ++x) {
    unsigned char const* const pixel = row + std::size_t{first[x]} * kPixelBytes;
    std::memcpy(left + x * kPixelBytes, pixel, kMoved);
    std::memcpy(right + x * kPixelBytes, pixel + distance * kPixelBytes, kMoved);
  }
  for (; x < count; ++x) {
    unsigned char const* const pixel = row + std::size_t{first[x]} * kPixelBytes;
    std::memcpy(left + x * kPixelBytes, pixel, kPixelBytes);
    std::memcpy(right + x * kPixelBytes, pixel + distance * kPixelBytes, kPixelBytes);
  }
}

// Every value `times` times over.
std::vector<std::int16_t> Repeated(std::vector<std::int16_t> const& values, std::size_t times) {
  std::vector<std::int16_t> repeated(values.size() * times);
  for (std::size_t i = 0; i < repeated.size(); ++i) repeated[i] = values[i / times];
  return repeated;
}

// GatherTaps for pixels of 1 to 4 bytes.
constexpr decltype(&GatherTaps<1>) kGatherTaps[] = {GatherTaps<1>, GatherTaps<2>, GatherTaps<3>, GatherTaps<4>};

// Source rows interpolated horizontally, two at a time.
class Lines {
 public:
  Lines(PixelRows const& from, Taps const& columns, std::size_t pixel_bytes)
      : from_(from),
        columns_(columns),
        gather_taps_(kGatherTaps[pixel_bytes - 1]),
        count_(columns.first.size() * pixel_bytes),
        weight0_(Repeated(columns.weight0, pixel_bytes)),
        weight1_(Repeated(columns.weight1, pixel_bytes)),
        inner_(InnerPixels(columns)),
        left_(count_ + 1),
        right_(count_ + 1),
        upper_{kNone, std::vector<std::int16_t>(count_)},
        lower_{kNone, std::vector<std::int16_t>(count_)} {}

  // The source rows `row` and `row` + `distance`; what stands from the call before is not computed again.
  void MoveTo(std::size_t row, std::size_t distance) {
    // Enlarging, the next output row mostly reads the same two lines; one step on, the lower of them.
    if (lower_.row == row) std::swap(upper_, lower_);
    Fill(upper_, row);
    Fill(lower_, row + distance);
  }

  std::int16_t const* upper() const { return upper_.values.data(); }
  std::int16_t const* lower() const { return lower_.values.data(); }
  std::size_t count() const { return count_; }

 private:
  static constexpr std::size_t kNone = static_cast<std::size_t>(-1);
  struct Line {
    std::size_t row;
    std::vector<std::int16_t> values;
  };

  // Output pixels whose taps lie before the last pixel of a row.
  static std::size_t InnerPixels(Taps const& columns) {
    auto const is_inner = [&](std::uint32_t first) { return first + columns.distance + 1 < columns.extent; };
    auto const end = std::find_if_not(columns.first.begin(), columns.first.end(), is_inner);
    return static_cast<std::size_t>(end - columns.first.begin());
  }

  void Fill(Line& line, std::size_t row) {
    if (line.row == row) return;
    gather_taps_(from_.first + row * from_.row_bytes, columns_.first.data(), columns_.distance, inner_,
                 columns_.first.size(), left_.data(), right_.data());
    rows::BlendTaps(left_.data(), right_.data(), weight0_.data(), weight1_.data(), count_, line.values.data());
    line.row = row;
  }

  PixelRows const from_;
  Taps const& columns_;
  decltype(&GatherTaps<1>) const gather_taps_;
  std::size_t const count_;  // values of a line
  std::vector<std::int16_t> const weight0_, weight1_;
  std::size_t const inner_;
  std::vector<unsigned char> left_, right_;
  Line upper_, lower_;
};

}  // namespace

float CentreAligned(std::size_t i, double scale, double offset) {
  return static_cast<float>((static_cast<double>(i) + 0.5) * scale + offset - 0.5);
}

Taps::Taps(std::size_t from, std::size_t to, double scale, double offset)
    : first(to), weight0(to), weight1(to), distance(from > 1 ? 1 : 0), extent(from) {
  auto const last = static_cast<std::int64_t>(from) - 1;
  for (std::size_t i = 0; i < to; ++i) {
    float const s = CentreAligned(i, scale, offset);
    auto k = static_cast<std::int64_t>(std::floor(s));
    float part = k < 0 ? 0.0f : s - static_cast<float>(k);
    k = std::max<std::int64_t>(k, 0);
    if (k >= last) part = 1.0f;
    first[i] = static_cast<std::uint32_t>(std::max<std::int64_t>(std::min(k, last - 1), 0));
    weight0[i] = Weight(1.0f - part);
    weight1[i] = Weight(part);
  }
}

void ResizeBilinear(PixelRows const& from, Taps const& row_taps, Taps const& column_taps, std::size_t pixel_bytes,
                    unsigned char* to) {
  Lines lines(from, column_taps, pixel_bytes);
  for (std::size_t y = 0; y < row_taps.first.size(); ++y, to += lines.count()) {
    lines.MoveTo(row_taps.first[y], row_taps.distance);
    rows::BlendLines(lines.upper(), lines.lower(), row_taps.weight0[y], row_taps.weight1[y], lines.count(), to);
  }
}

}  // namespace talvo::kernel::image
