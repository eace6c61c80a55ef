#include "talvo/runtime/tensor.h"

#include <gtest/gtest.h>

#include <sstream>

#include "tests/support/log_capture.h"

namespace talvo::runtime {
namespace {

using S = TensorShape;

struct Name {
  unsigned int enumerator, number;  // the numbers stand in model files
  char const* printed;
};

// clang-format off
Name const kTypes[] = {
    {S::FLOAT32, 0, "FLOAT32"}, {S::FLOAT16, 1, "FLOAT16"}, {S::INT32, 2, "INT32"}, {S::INT16, 3, "INT16"},
    {S::INT8, 4, "INT8"}, {S::UINT32, 5, "UINT32"}, {S::UINT16, 6, "UINT16"}, {S::UINT8, 7, "UINT8"}, {8, 8, ""}};
Name const kPlaces[] = {
    {S::CPUObject, 65536, "CPUObject"}, {S::MainMemory, 65537, "MainMemory"},
    {S::OpenGLObject, 131072, "OpenGLObject"}, {S::OpenGLSSBO, 131073, "OpenGLSSBO"},
    {S::OpenGLUBO, 131074, "OpenGLUBO"}, {S::OpenGLImage, 131076, "OpenGLImage"},
    {S::MetalObject, 262144, "MetalObject"}, {S::MetalBuffer, 266241, "MetalBuffer"},
    {S::MetalNoCopyBuffer, 266242, "MetalNoCopyBuffer"}, {S::MetalTempBuffer, 266244, "MetalTempBuffer"},
    {S::MetalImage, 270337, "MetalImage"}, {S::MetalTempImage, 270338, "MetalTempImage"}, {0, 0, ""}};
Name const kLayouts[] = {
    {S::CHW, 0, "CHW"}, {S::HWC, 1, "HWC"}, {S::C4HW4, 2, "C4HW4"}, {S::C8HW8, 3, "C8HW8"}, {4, 4, ""},
    {S::NCHW, 8, "NCHW"}, {S::N4C4HW4n4c, 9, "N4C4HW4n4c"}, {S::N8C8HW8n8c, 10, "N8C8HW8n8c"},
    {S::GNCHW, 11, "GNCHW"}, {S::GN4C4HW4n4c, 12, "GN4C4HW4n4c"}, {S::GC4N4HW4c4n, 15, ""},
    {S::GN8C8HW8n8c, 16, "GN8C8HW8n8c"}, {S::G4NCHW4, 17, ""}, {S::G8NCHW8, 18, ""}, {S::GN4CHW4, 19, ""},
    {S::GN8CHW8, 20, ""}, {S::GN, 21, ""}, {S::NHWC, 22, "NHWC"}, {S::FLEXIABLE, 23, "FLEXIABLE"}, {S::C, 24, ""},
    {S::GN2C2HW2c2n, 28, ""}, {S::GN16C16HW16c16n, 29, ""}, {S::SC, 30, ""}, {S::GNCL, 32, ""}, {S::CL, 33, ""},
    {S::N8C88c8n, 35, ""}, {S::GN8C8HW8c8n, 36, ""}, {S::GN4C8HW4n8c, 37, ""}, {S::GN8C4HW8n4c, 38, ""},
    {S::GN4C8HW8c4n, 39, ""}};
// clang-format on

TEST(TensorShape, PrintsSixLinesAndNumbersWithoutANameAsEmpty) {
  auto const check = [](TensorShape const& shape, std::string const& dims, char const* place, char const* type,
                        char const* layout) {
    std::ostringstream text;
    text << shape;
    EXPECT_EQ(text.str(), "TensorShape: {\n\tShape: [" + dims + "]\n\tLocation: " + place + "\n\tDataType: " + type +
                              "\n\tLayout: " + layout + "\n}\n");
  };
  for (int round = 0; round < 2; ++round) {
    for (Name const& name : kTypes)
      check({{}, name.number, 2, S::MainMemory, {}}, "", "MainMemory", name.printed, "C4HW4");
    for (Name const& name : kPlaces) check({{3}, 3, 22, name.number, {}}, "3", name.printed, "INT16", "NHWC");
    for (Name const& name : kLayouts)
      check({{3, 224, 8}, 7, name.number, 65536, {}}, "3, 224, 8", "CPUObject", "UINT8", name.printed);
  }
  for (Name const& name : kTypes) EXPECT_EQ(name.enumerator, name.number);
  for (Name const& name : kPlaces) EXPECT_EQ(name.enumerator, name.number);
  for (Name const& name : kLayouts) EXPECT_EQ(name.enumerator, name.number);
}

TEST(TensorShape, CountsBytesOfEveryDataType) {
  unsigned int const sizes[] = {4, 2, 4, 2, 1, 4, 2, 1};
  for (unsigned int type = 0; type < 8; ++type) EXPECT_EQ(ByteCount(S({3, 5}, type, 0, 0, {})), 15 * sizes[type]);
  EXPECT_EQ(ElementCount({}), 1u);
  EXPECT_EQ(ElementCount({4294967295u, 1}), 4294967295u);
  EXPECT_EQ(ElementCount({65536, 65536, 65536, 65536, 0}), 0u);
  EXPECT_NE(test::RefusalOf([] { ElementCount({65536, 65536}); }).find("[65536, 65536]"), std::string::npos);
  EXPECT_NE(test::RefusalOf([] {
              ByteCount(S({1u << 30, 1}, 0, 0, 0, {}));
            }).find("[1073741824, 1]"),
            std::string::npos);
  EXPECT_DEATH(ElementSize(8), "\\(false && \"Invalid type\"\\), function ElementSize, file tensor, ");
}

}  // namespace
}  // namespace talvo::runtime
