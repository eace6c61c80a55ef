#include "talvo/image/yuv_rows_support.h"

#include "talvo/utility/restrict_support.h"

namespace talvo::kernel::image {
namespace {

using Term = std::uint16_t;

Term Product(unsigned int x, unsigned int y) { return static_cast<Term>(x * y); }

template <std::size_t kStep>
void FillTerms(WeightedBytes const& a, WeightedBytes const& b, std::size_t blocks, Term* TALVO_RESTRICT terms) {
  WeightedBytes const first = a, second = b;
  for (std::size_t i = 0; i < blocks; ++i) {
    Term const from_a = Product(static_cast<Term>(first.bytes[i * kStep] - first.offset), first.gain);
    Term const from_b = Product(static_cast<Term>(second.bytes[i * kStep] - second.offset), second.gain);
    terms[2 * i] = terms[2 * i + 1] = static_cast<Term>(from_a + from_b);
  }
}

}  // namespace

void ChrominanceTerms(WeightedBytes const& a, WeightedBytes const& b, std::size_t step, std::size_t blocks,
                      Term* terms) {
  (step == 1 ? FillTerms<1> : FillTerms<2>)(a, b, blocks, terms);
}

void JoinTerms(WeightedBytes const& y, Term const* TALVO_RESTRICT terms, std::size_t columns,
               unsigned char* TALVO_RESTRICT to) {
  unsigned char const* const TALVO_RESTRICT luminance = y.bytes;
  Term const offset = y.offset, gain = y.gain;
  for (std::size_t i = 0; i < columns; ++i) {
    auto const sum = static_cast<Term>(Product(static_cast<Term>(luminance[i] - offset), gain) + terms[i]);
    to[i] = static_cast<unsigned char>(sum >> 5);
  }
}

}  // namespace talvo::kernel::image
