// The binary stream: counts that lie, weights, streams of every kind.
#include "talvo/serialization/file_visitors.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <thread>
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
  FILEReader regular_reader(regular.get(), 20015);
  action(regular_reader);
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  std::thread feeder([&] {
    Stream const in(fdopen(ends[1], "wb"), &std::fclose);
    std::fwrite(bytes.data(), 1, bytes.size(), in.get());
  });
  Stream const out(fdopen(ends[0], "rb"), &std::fclose);
  FILEReader pipe_reader(out.get(), 20015);
  action(pipe_reader);
  feeder.join();
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

TEST(FILEReader, ReadsLongFieldsFromEveryStream) {
  std::string const text(1000001, 'x');
  OnBothStreams(Count(text.size()) + text + "!", [&](FILEReader& reader) {
    std::string read;
    signed char behind = 0;
    reader.Visit(&read, nullptr);
    reader.Visit(&behind, nullptr);
    EXPECT_TRUE(read == text);
    EXPECT_EQ(behind, '!');
  });
}

TEST(FILEReader, ReplacesVectorsAndKeepsZeroBytes) {
  OnBothStreams(Count(3) + std::string("a\0b", 3) + Count(0) + std::string("\2", 1) + Count(0), [](FILEReader& reader) {
    std::string text = "old";
    std::vector<int> numbers = {1, 2};
    std::vector<std::string> texts = {"old"};
    bool flag = false;
    reader.Visit(&text, nullptr);
    reader.Visit(&numbers, nullptr);
    reader.Visit(&flag, nullptr);
    reader.Visit(&texts, nullptr);
    EXPECT_EQ(text, std::string("a\0b", 3));
    EXPECT_TRUE(numbers.empty() && texts.empty());
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

std::string Text(std::vector<float> const& values, std::size_t bytes) {
  return Base64Encode(reinterpret_cast<unsigned char const*>(values.data()), bytes);
}

// Against the walk element by element, for lengths around the pieces that the library moves.
TEST(WeightBlob, EqualsTheWalkElementByElement) {
  for (std::size_t count : {0u, 1u, 12287u, 12288u, 12289u, 50000u}) {
    SCOPED_TRACE(count);
    std::vector<float> const values = SpecialFloats(7, count);
    std::string want = Count(count);
    std::vector<float> widened;
    for (float value : values) {
      half const cut(value);
      want.append(reinterpret_cast<char const*>(&cut), sizeof cut);
      widened.push_back(cut);
    }
    ScratchFile const file;
    {
      Stream const stream(std::fopen(file.Path(), "wb"), &std::fclose);
      FILEWriter writer(stream.get(), false);
      WriteWeightBlob(writer, Text(values, count * sizeof(float)));
    }
    EXPECT_TRUE(file.Bytes() == want);
    OnBothStreams(want + "!", [&](FILEReader& reader) {
      std::string text = "old";
      char behind = 0;
      ReadWeightBlob(reader, text);
      reader.Visit(&behind, nullptr);
      std::string const bytes = Base64Decode(text);
      ASSERT_EQ(bytes.size(), count * sizeof(float));
      std::vector<float> got(count);
      std::copy(bytes.begin(), bytes.end(), reinterpret_cast<char*>(got.data()));
      ExpectSameBits(widened, got);
      EXPECT_EQ(behind, '!');
    });
  }
}

TEST(WeightBlob, DropsWhatIsNoWholeFloatAndServesTheFourVisitorsAlone) {
  FullConnectionInfo dense;
  dense.weight = Text({1.0f, 2.0f}, 6);
  FullConnectionInfo read;
  ReadFrom(read, Written(dense, "bin"), "bin");
  EXPECT_EQ(read.weight, Text({1.0f}, 4));
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
