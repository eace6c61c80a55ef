#include "talvo/kernel/native/permute.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <numeric>

#include "tests/support/bits.h"
#include "tests/support/log_capture.h"

namespace talvo::kernel::native {
namespace {

using Dims = std::vector<unsigned int>;

// Element by element, from the definition: coordinate k of the result is source coordinate axes[k].
std::vector<unsigned char> PlainPermute(std::vector<unsigned char> const& source, Dims const& dims, std::size_t bytes,
                                        Dims const& axes) {
  std::vector<unsigned char> result(source.size());
  Dims at(dims.size());
  for (std::size_t i = 0; i < source.size() / bytes; ++i) {
    std::size_t rest = i, offset = 0;
    for (std::size_t axis = dims.size(); axis-- > 0; rest /= dims[axis])
      at[axis] = static_cast<unsigned int>(rest % dims[axis]);
    for (unsigned int axis : axes) offset = offset * dims[axis] + at[axis];
    std::memcpy(&result[offset * bytes], &source[i * bytes], bytes);
  }
  return result;
}

void ExpectPermuted(Dims const& dims, unsigned int bytes, Dims const& axes) {
  SCOPED_TRACE("dims " + testing::PrintToString(dims) + ", axes " + testing::PrintToString(axes) + ", " +
               std::to_string(bytes) + " bytes");
  std::size_t size = bytes;
  for (unsigned int extent : dims) size *= extent;
  auto const source = test::Bytes(1, size);
  std::vector<unsigned char> got(size, 0xEE);
  // One byte more in front, so that nothing relies on alignment.
  std::vector<unsigned char> shifted(1, 0);
  shifted.insert(shifted.end(), source.begin(), source.end());
  Transform_MainMemory_Permute_Fallback(shifted.data() + 1, dims, bytes, axes, got.data());
  ASSERT_EQ(got, PlainPermute(source, dims, bytes, axes));
}

TEST(Permute, MovesEveryOrderOfAxes) {
  for (Dims const& dims : {Dims{3, 5, 18, 7}, Dims{1, 20, 1, 33}, Dims{2, 2, 2, 2}, Dims{17, 1, 2, 19}}) {
    Dims axes{0, 1, 2, 3};
    do {
      for (unsigned int bytes : {1u, 2u, 4u, 8u, 5u}) ExpectPermuted(dims, bytes, axes);
    } while (std::next_permutation(axes.begin(), axes.end()));
  }
  ExpectPermuted({2, 3, 4, 2, 3, 4, 2}, 4, {6, 0, 5, 1, 4, 2, 3});
  ExpectPermuted({131, 70}, 2, {1, 0});
  ExpectPermuted({}, 4, {});
  unsigned char const source = 1;
  unsigned char destination = 2;
  Transform_MainMemory_Permute_Fallback(&source, {65536, 0, 65536, 65536, 65536}, 1, {1, 0, 2, 4, 3}, &destination);
  EXPECT_EQ(destination, 2);
}

TEST(Permute, RefusesWhatItCannotMove) {
  struct Case {
    bool source, destination;
    unsigned int bytes;
    Dims dims, axes;
    char const* text;
  };
  unsigned char memory[16] = {};
  for (Case const& c : {Case{false, false, 0, {2}, {}, "Input shared pointer is null."},
                        {true, false, 0, {2}, {}, "Output shared pointer is null."},
                        {true, true, 0, {2}, {}, "bytes per element must be >= 1."},
                        {true, true, 1, {2}, {}, "dimensions of shape must be equal to tranpose axes's."},
                        {true, true, 1, {2, 2}, {0, 2}, "permute: axis 2 is out of range or repeated among 2 axes"},
                        {true, true, 1, {2, 2}, {1, 1}, "permute: axis 1 is out of range or repeated among 2 axes"},
                        {true, true, 1, {65536, 65536}, {1, 0}, "permute: dims of more than 4294967295 elements"}}) {
    EXPECT_EQ(test::RefusalOf([&] {
                Transform_MainMemory_Permute_Fallback(c.source ? memory : nullptr, c.dims, c.bytes, c.axes,
                                                      c.destination ? memory + 8 : nullptr);
              }),
              std::string("[TLN]: ") + c.text + "\n");
  }
}

}  // namespace
}  // namespace talvo::kernel::native
