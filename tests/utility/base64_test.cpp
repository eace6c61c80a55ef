#include "talvo/utility/base64.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "talvo/kernel/rows/instruction_sets.h"
#include "talvo/utility/base64_support.h"
#include "tests/support/bits.h"
#include "tests/support/log_capture.h"

namespace talvo::runtime {
namespace {

// Bit by bit: six bits are a character, the last ones filled up with zeros.
std::string PlainEncode(std::vector<unsigned char> const& data) {
  std::string const alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (std::size_t bit = 0; bit < data.size() * 8; bit += 6) {
    std::size_t value = 0;
    for (std::size_t i = bit; i < bit + 6; ++i)
      value = value * 2 + (i < data.size() * 8 ? data[i / 8] >> (7 - i % 8) & 1u : 0u);
    text += alphabet[value];
  }
  while (text.size() % 4 != 0) text += '=';
  return text;
}

// Runs under each instruction set that the machine runs.
template <class Action>
void OnEachSet(Action action) {
  for (auto const set : kernel::rows::RunnableSets()) {
    SCOPED_TRACE(kernel::rows::NameOf(set));
    kernel::rows::ScopedInstructionSet const scoped(set);
    action();
  }
}

TEST(Base64, CodesEveryByteAndLength) {
  OnEachSet([] {
    for (std::size_t size : {0u, 1u, 2u, 3u, 47u, 48u, 63u, 64u, 65u, 191u, 192u, 193u, 255u, 256u, 257u, 3000u}) {
      auto data = test::Bytes(static_cast<std::uint32_t>(size), size);
      for (std::size_t i = 0; i < size && i < 256; ++i) data[i] = static_cast<unsigned char>(i);
      std::string const text = Base64Encode(data.data(), data.size());
      ASSERT_EQ(text, PlainEncode(data));
      EXPECT_EQ(Base64Decode(text), std::string(data.begin(), data.end()));
      for (std::size_t room = size < 10 ? 0 : size - 5; room < size + 3;
           ++room) {  // no byte more than there is room for
        std::string bytes(room + 4, '#');
        EXPECT_EQ(support::DecodeBase64(text, bytes.data(), room), std::min(room, size));
        EXPECT_EQ(bytes.substr(0, std::min(room, size)), Base64Decode(text).substr(0, room));
        EXPECT_EQ(bytes.substr(room), "####");
      }
    }
  });
}

TEST(Base64, StopsAtEachForeignCharacterAtEachPlace) {
  auto const data = test::Bytes(1, 600);
  std::string const text = PlainEncode(data), alphabet = PlainEncode(test::Bytes(2, 3000));
  OnEachSet([&] {
    for (std::size_t place = 0; place < text.size(); place += place < 520 ? 1 : 50) {
      for (int c = 0; c < 256; ++c) {
        if (alphabet.find(static_cast<char>(c)) != alphabet.npos) continue;
        std::string cut = text;
        cut[place] = static_cast<char>(c);
        std::string const got = Base64Decode(cut);
        ASSERT_EQ(got.size(), place * 6 / 8) << place << " " << c;
        ASSERT_TRUE(std::equal(got.begin(), got.end(), data.begin(),
                               [](char a, unsigned char b) { return static_cast<unsigned char>(a) == b; }));
      }
    }
  });
}

TEST(Base64, DecodesUpToTheFirstForeignCharacterAndRefusesMissingData) {
  for (auto const& [text, want] : {std::pair("Zm9v\nYmFy", "foo"),  // a line break at a group's end
                                   {"Zm9vYm\nFy", "foob"},          // and inside one
                                   {"Zm9vY\nmFy", "foo"},           // one character is left
                                   {"Zg==Zm9v", "f"},
                                   {"Zm9vYmE", "fooba"},  // padding left out
                                   {"Zm9_", "fo"},        // the URL alphabet is foreign
                                   {"Zm9v\xC3\xA4mFy", "foo"}})
    EXPECT_EQ(Base64Decode(text), want) << text;
  EXPECT_EQ(Base64Decode(std::string("Zm9v\0Zm9v", 9)), "foo") << "a zero character";
  EXPECT_EQ(test::RefusalOf([] { Base64Encode(nullptr, 3); }), "[TLN]: Base64Encode: no data for 3 bytes\n");
}

}  // namespace
}  // namespace talvo::runtime
