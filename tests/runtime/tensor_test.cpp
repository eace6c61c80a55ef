#include "talvo/runtime/tensor.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "tests/support/log_capture.h"

namespace talvo::runtime {
namespace {

std::string Printed(TensorShape const& shape) {
  std::ostringstream text;
  text << shape;
  return text.str();
}

TEST(TensorShape, PrintsSixLinesAndNumbersWithoutANameAsEmpty) {
  TensorShape const named({3, 224, 224}, TensorShape::UINT8, TensorShape::CHW, TensorShape::MainMemory, {});
  EXPECT_EQ(Printed(named),
            "TensorShape: {\n\tShape: [3, 224, 224]\n\tLocation: MainMemory\n\tDataType: UINT8\n\tLayout: CHW\n}\n");
  TensorShape const nameless({}, 77, TensorShape::C, 78, {});
  for (int round = 0; round < 2; ++round)
    EXPECT_EQ(Printed(nameless), "TensorShape: {\n\tShape: []\n\tLocation: \n\tDataType: \n\tLayout: \n}\n");
}

// The numbers stand in model files.
TEST(TensorShape, NamesExactlyTheseLayouts) {
  std::map<unsigned int, std::string> const named = {
      {0, "CHW"},         {1, "HWC"},    {2, "C4HW4"},        {3, "C8HW8"},        {8, "NCHW"},  {9, "N4C4HW4n4c"},
      {10, "N8C8HW8n8c"}, {11, "GNCHW"}, {12, "GN4C4HW4n4c"}, {16, "GN8C8HW8n8c"}, {22, "NHWC"}, {23, "FLEXIABLE"}};
  for (unsigned int number = 0; number < 42; ++number) {
    std::string const want = named.count(number) != 0 ? named.at(number) : "";
    EXPECT_NE(Printed(TensorShape({}, 0, number, 0, {})).find("\tLayout: " + want + "\n"), std::string::npos) << number;
  }
}

TEST(TensorShape, CountsBytesOfEveryDataType) {
  unsigned int const sizes[] = {4, 2, 4, 2, 1, 4, 2, 1};
  for (unsigned int type = 0; type < 8; ++type) {
    EXPECT_EQ(ByteCount(TensorShape({3, 5}, type, TensorShape::FLEXIABLE, TensorShape::MainMemory, {})),
              15 * sizes[type]);
  }
  EXPECT_EQ(ElementCount({}), 1u);
  EXPECT_EQ(ElementCount({4294967295u, 1}), 4294967295u);
  EXPECT_EQ(ElementCount({65536, 65536, 65536, 65536, 0}), 0u);
  EXPECT_NE(test::RefusalOf([] { ElementCount({65536, 65536}); }).find("[65536, 65536]"), std::string::npos);
  TensorShape const large({1u << 30, 1}, 0, 0, 0, {});
  EXPECT_NE(test::RefusalOf([&] { ByteCount(large); }).find("[1073741824, 1]"), std::string::npos);
}

TEST(TensorShapeDeathTest, StopsAtAnUnknownDataType) {
  EXPECT_DEATH(ElementSize(8), "\\(false && \"Invalid type\"\\), function ElementSize, file tensor, ");
}

}  // namespace
}  // namespace talvo::runtime
