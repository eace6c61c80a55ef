// The binary stream: counts that lie, weights, streams of every kind.
#include "talvo/serialization/file_visitors.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <typeinfo>

#include "talvo/serialization/layer_info_conv.h"
#include "talvo/serialization/layer_info_rnn.h"
#include "talvo/serialization/model_info.h"
#include "talvo/serialization/weight_blob.h"
#include "talvo/utility/base64.h"
#include "tests/serialization/record_catalogue.h"
#include "tests/support/bits.h"
#include "tests/support/log_capture.h"

namespace talvo::test {
namespace {

using namespace runtime;
using half_float::half;
using Stream = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

std::string Count(unsigned long long count) { return {reinterpret_cast<char const*>(&count), sizeof count}; }

// Runs `action` on a reader over `bytes`: of a regular file, then of a pipe, which cannot tell its length.
void OnBothStreams(std::string const& bytes, std::function<void(FILEReader&)> const& action) {
  ScratchFile const file(bytes);
  Stream const regular(std::fopen(file.Path(), "rb"), &std::fclose);
  Stream const piped(popen((std::string("cat ") + file.Path()).c_str(), "r"), &pclose);
  for (auto const& stream : {regular.get(), piped.get()}) {
    FILEReader reader(stream, 20015);
    action(reader);
  }
}

template <class T>
void ExpectRefusedCount(std::string const& bytes, std::type_info const& named) {
  OnBothStreams(bytes, [&](FILEReader& reader) {
    T field;
    EXPECT_EQ(RefusalOf([&] { reader.Visit(&field, nullptr); }),
              std::string("[TLN]: failed to read a ") + named.name() + " value, error code is 0.\n\n");
  });
}

TEST(FILEReader, RefusesCountsBeyondTheStream) {
  for (unsigned long long count : {3ull, 100000ull, 1ull << 40, 1ull << 62, ~0ull}) {
    SCOPED_TRACE(count);
    std::string const bytes = Count(count) + "xy";
    ExpectRefusedCount<std::string>(bytes, typeid(std::string));
    ExpectRefusedCount<std::vector<float>>(bytes, typeid(std::vector<float>));
    ExpectRefusedCount<std::vector<half>>(bytes, typeid(std::vector<half>));
    ExpectRefusedCount<std::vector<unsigned long long>>(bytes, typeid(std::vector<unsigned long long>));
    ExpectRefusedCount<std::vector<std::string>>(bytes, typeid(unsigned long long));
    using Lists = std::vector<std::vector<unsigned short>>;
    ExpectRefusedCount<Lists>(bytes, typeid(unsigned long long));
    ExpectRefusedCount<Lists>(Count(1) + bytes, typeid(Lists));
    OnBothStreams(bytes, [&](FILEReader& reader) {
      std::string text;
      EXPECT_EQ(RefusalOf([&] { ReadWeightBlob(reader, text); }),
                std::string("[TLN]: failed to read a ") + typeid(half).name() + " value, error code is 0.\n\n");
      EXPECT_EQ(text, "");
    });
  }
  ExpectRefusedCount<double>("1234567", typeid(double));
  ExpectRefusedCount<std::string>("1234567", typeid(unsigned long long));
}

TEST(FILEReader, ReadsLongTextsZeroBytesAndFlagsFromEveryStream) {
  std::string const text(1000001, '\0');
  OnBothStreams(Count(text.size()) + text + "\2", [&](FILEReader& reader) {
    std::string read = "old";
    bool flag = false;
    reader.Visit(&read, nullptr);
    reader.Visit(&flag, nullptr);
    EXPECT_TRUE(read == text);
    EXPECT_TRUE(flag);
  });
}

TEST(FILEReader, OpensAndBorrowsStreams) {
  EXPECT_EQ(RefusalOf([] { FILEReader(nullptr, 20015); }),
            "[TLN]: cant construct FILEReader object using a NULL ptr.\n");
  EXPECT_NE(RefusalOf([] { FILEReader("/nowhere"); }).find("/nowhere"), std::string::npos);
  EXPECT_NE(RefusalOf([] { FILEWriter("/nowhere/file"); }).find("/nowhere/file"), std::string::npos);
  ScratchFile const file;
  unsigned int number = 20003, read = 0;
  FILEWriter(file.Path()).Visit(&number, nullptr);
  EXPECT_EQ(file.Bytes(), std::string("\x2f\x4e\0\0\x23\x4e\0\0", 8));
  FILEReader(file.Path()).Visit(&read, nullptr);
  EXPECT_EQ(read, 20003u);
  ScratchFile const short_file("\x23");
  EXPECT_EQ(FILEReader(short_file.Path())._serialization_protocol_version, 20015u);
}

TEST(FILEWriter, RefusesAFullStream) {
  Stream const full(std::fopen("/dev/full", "wb"), &std::fclose);
  ASSERT_NE(full, nullptr);
  std::setbuf(full.get(), nullptr);
  FILEWriter writer(full.get(), false);
  float number = 1;
  std::string text = "x";
  EXPECT_EQ(RefusalOf([&] { writer.Visit(&number, nullptr); }),
            "[TLN]: failed to write a f value, error code is 1.\n\n");
  EXPECT_EQ(RefusalOf([&] { writer.Visit(&text, nullptr); }),
            "[TLN]: failed to write the y value, error code is 1.\n\n");
}

// Against the walk element by element, for lengths around the pieces that the library moves.
TEST(WeightBlob, EqualsTheWalkElementByElement) {
  for (std::size_t count : {0u, 1u, 12287u, 12288u, 12289u, 50000u}) {
    SCOPED_TRACE(count);
    std::string want = Count(count);
    std::vector<float> widened;
    auto const values = SpecialFloats(7, count);
    for (float value : values) {
      half const cut(value);
      want.append(reinterpret_cast<char const*>(&cut), sizeof cut);
      widened.push_back(cut);
    }
    ScratchFile const file;
    {
      Stream const stream(std::fopen(file.Path(), "wb"), &std::fclose);
      FILEWriter writer(stream.get(), false);
      WriteWeightBlob(writer, WeightText(values));
    }
    EXPECT_TRUE(file.Bytes() == want);
    OnBothStreams(want, [&](FILEReader& reader) {
      std::string text = "old";
      ReadWeightBlob(reader, text);
      std::vector<float> got(count);
      ASSERT_EQ(Base64Decode(text).size(), count * sizeof(float));
      if (count != 0) std::memcpy(got.data(), Base64Decode(text).data(), count * sizeof(float));
      ExpectSameBits(widened, got);
    });
  }
}

TEST(WeightBlob, DropsWhatIsNoWholeFloatAndServesTheFourVisitorsAlone) {
  FullConnectionInfo dense;
  dense.weight = WeightText({1.0f, 2.0f}).substr(0, 8);  // six bytes
  FullConnectionInfo read;
  ReadFrom(read, Written(dense, "bin"), "bin");
  EXPECT_EQ(read.weight, WeightText({1.0f}));
  EXPECT_EQ(read.bias, "");
  struct Other : Visitor {
#define TALVO_VISIT(type) \
  void Visit(type*, char const*) override {}
    TALVO_FOR_EACH_VISITED_TYPE(TALVO_VISIT)
#undef TALVO_VISIT
  };
  auto const other = std::make_shared<Other>();
  EXPECT_EQ(RefusalOf([&] { dense.VisitAttr(other); }), "[TLN]: Not Implemented.\n");
  EXPECT_EQ(RefusalOf([&] { GRUInfo().VisitAttr(other); }), "[TLN]: Not Implemented.\n");
}

}  // namespace
}  // namespace talvo::test
