#include "talvo/utility/log.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

#include "talvo/utility/refuse_support.h"
#include "tests/support/log_capture.h"

namespace talvo::utility {
namespace {

using Lines = std::vector<std::string>;

class LogTest : public testing::Test {
 protected:
  ~LogTest() override {
    SetLogTag("TLN");
    SetLogLevel(30);
  }

  test::LogCapture sink_;
};

TEST_F(LogTest, GivesEachLevelItsPrefixAndKeepsAllOtherNumbersSilent) {
  SetLogLevel(0xFFFFFFFFu);
  for (int level : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 15, 16, 17, 20, 32, -1, -16}) Log(level, "%s %d", "level", level);
  EXPECT_EQ(sink_.Lines(), (Lines{"[TLN] (Verbose): level 1", "[TLN] (Info): level 4", "[TLN] (Warnning): level 8",
                                  "[TLN]: level 16\n"}));
}

TEST_F(LogTest, TreatsTheMaskAsASetOfBits) {
  unsigned int mask = 0;
  EXPECT_EQ(GetLogLevel(&mask), 0);
  EXPECT_EQ(mask, 30u);
  EXPECT_EQ(SetLogLevel(1 | 8), 0);
  for (int level : {1, 4, 8, 16}) Log(level, "line");
  EXPECT_EQ(sink_.Lines(), (Lines{"[TLN] (Verbose): line", "[TLN] (Warnning): line"}));
}

TEST_F(LogTest, ReturnsTheLastFormattedTextWhenFiltered) {
  EXPECT_EQ(Log(4, "shown"), "shown");
  EXPECT_EQ(Log(2, "silent"), "shown");
  StringFormat("from %s", "StringFormat");
  StrFormat("another buffer");
  EXPECT_EQ(Assert(true, "held"), 0);
  EXPECT_EQ(Log(1, "masked"), "from StringFormat");
  EXPECT_THROW(Assert(false, "refused %d", 7), std::runtime_error);
  EXPECT_EQ(Log(1, "masked"), "refused 7");
}

TEST_F(LogTest, CutsLongTexts) {
  std::string const long_text(5000, 'x');
  EXPECT_EQ(Log(4, "%s", long_text.c_str()), std::string(2047, 'x'));
  EXPECT_EQ(sink_.Lines(), Lines{"[TLN] (Info): " + std::string(2047, 'x')});
  EXPECT_EQ(StringFormat("%s", long_text.c_str()), std::string(2047, 'x'));
  EXPECT_EQ(StrFormat("%s", long_text.substr(0, 3000).c_str()), std::string(3000, 'x'));
  EXPECT_EQ(StrFormat("%s", long_text.c_str()), std::string(4095, 'x'));
}

TEST_F(LogTest, RefusesNullInPlaceOfAFault) {
  char const* const none = nullptr;
  EXPECT_EQ(test::RefusalOf([] { SetLogTag(nullptr); }).find("[TLN]: SetLogTag: "), 0u);
  EXPECT_EQ(test::RefusalOf([] { GetLogLevel(nullptr); }).find("[TLN]: GetLogLevel: "), 0u);
  EXPECT_EQ(test::RefusalOf([&] { Log(4, none, 0); }).find("[TLN]: Log: "), 0u);
  EXPECT_EQ(test::RefusalOf([&] { StrFormat(none, 0); }).find("[TLN]: StrFormat: "), 0u);
  EXPECT_EQ(test::RefusalOf([&] { StringFormat(none, 0); }).find("[TLN]: StringFormat: "), 0u);
}

// Both ways of refusing, with the tag of the application, whatever the mask.
TEST_F(LogTest, RefusalsReportAndThrowTheSameText) {
  EXPECT_EQ(SetLogTag("APP"), 0);
  EXPECT_EQ(SetLogTag(""), -1);
  EXPECT_EQ(SetLogCallback(nullptr), -1);
  Log(4, "still here");
  EXPECT_EQ(sink_.Lines(), Lines{"[APP] (Info): still here"});
  SetLogLevel(0);
  for (bool const lazy : {false, true}) {
    EXPECT_EQ(test::RefusalOf([&] { lazy ? Refuse(nullptr) : void(Assert(false, nullptr)); }), "[APP]: ");
    EXPECT_EQ(sink_.Lines(), Lines()) << "nothing was to be said";
    auto const refuse = [&] { lazy ? Refuse("bad %s %d", "input", 1) : void(Assert(false, "bad %s %d", "input", 1)); };
    EXPECT_EQ(test::RefusalOf(refuse), "[APP]: bad input 1\n");
    EXPECT_EQ(sink_.Lines(), Lines{"[APP]: bad input 1\n"});
  }
}

TEST_F(LogTest, ThreadsKeepTheirTextsApart) {
  StringFormat("of this thread");
  std::thread([] {
    EXPECT_EQ(Log(2, "silent"), "");
    StringFormat("of another");
  }).join();
  EXPECT_EQ(Log(2, "silent"), "of this thread");
}

TEST(StrReplaceAll, StartsAgainAtTheFront) {
  EXPECT_EQ(StrReplaceALL("a.b.c", ".", "::"), "a::b::c");
  EXPECT_EQ(StrReplaceALL("aab", "ab", "b"), "b") << "replaced text is replaced again";
  EXPECT_EQ(StrReplaceALL("banana", "an", ""), "ba");
  EXPECT_EQ(StrReplaceALL("", "", "to") + StrReplaceALL("abc", "", "to"), "toabc") << "empty patterns";
}

TEST(ToStr, GivesTheFirstWordOfTheStream) {
  EXPECT_EQ(ToStr(0.1f), "0.1");
  EXPECT_EQ(ToStr(1234567.0), "1.23457e+06");
  EXPECT_EQ(ToStr(' '), "");
  EXPECT_EQ(ToStr(static_cast<unsigned char>(65)), "A");
  EXPECT_EQ(ToStr(18446744073709551615ull), "18446744073709551615");
}

}  // namespace
}  // namespace talvo::utility
