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
  Log(1, "off by default");
  EXPECT_EQ(SetLogLevel(1 | 8), 0);
  Log(1, "verbose");
  Log(4, "masked");
  Log(8, "warning");
  Log(16, "masked");
  EXPECT_EQ(sink_.Lines(), (Lines{"[TLN] (Verbose): verbose", "[TLN] (Warnning): warning"}));
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

TEST_F(LogTest, RefusesEmptySettings) {
  EXPECT_EQ(SetLogTag("APP"), 0);
  EXPECT_EQ(SetLogTag(""), -1);
  EXPECT_EQ(SetLogCallback(nullptr), -1);
  Log(4, "still here");
  EXPECT_EQ(sink_.Lines(), Lines{"[APP] (Info): still here"});
}

TEST_F(LogTest, RefusesNullInPlaceOfAFault) {
  char const* const no_format = nullptr;
  EXPECT_NE(test::RefusalOf([] { SetLogTag(nullptr); }).find("SetLogTag"), std::string::npos);
  EXPECT_NE(test::RefusalOf([] { GetLogLevel(nullptr); }).find("GetLogLevel"), std::string::npos);
  EXPECT_NE(test::RefusalOf([&] { Log(4, no_format, 0); }).find("Log: "), std::string::npos);
  EXPECT_NE(test::RefusalOf([&] { StrFormat(no_format, 0); }).find("StrFormat: "), std::string::npos);
  EXPECT_NE(test::RefusalOf([&] { StringFormat(no_format, 0); }).find("StringFormat: "), std::string::npos);
}

// Both ways of refusing, with the tag of the application, whatever the mask.
TEST_F(LogTest, RefusalsReportAndThrowTheSameText) {
  SetLogTag("APP");
  SetLogLevel(0);
  for (bool const lazy : {false, true}) {
    EXPECT_EQ(test::RefusalOf([&] { lazy ? Refuse(nullptr) : void(Assert(false, nullptr)); }), "[APP]: ");
    EXPECT_EQ(sink_.Lines(), Lines()) << "nothing was to be said";
    auto const refuse = [&] { lazy ? Refuse("bad %s %d", "input", 1) : void(Assert(false, "bad %s %d", "input", 1)); };
    EXPECT_EQ(test::RefusalOf(refuse), "[APP]: bad input 1\n");
    EXPECT_EQ(sink_.Lines(), Lines{"[APP]: bad input 1\n"});
  }
}

// Each thread formats for itself: none sees another's text, in what it gets back or in a refusal.
TEST_F(LogTest, ThreadsKeepTheirTextsApart) {
  SetLogLevel(4);
  auto const talk = [](std::string const& own) {
    for (int i = 0; i < 2000; ++i) {
      StringFormat("%s", own.c_str());
      ASSERT_EQ(Log(8, "masked"), own);
      ASSERT_EQ(StrFormat("%s", own.c_str()), own);
    }
  };
  std::thread other(talk, std::string(1500, 'a'));
  talk(std::string(1500, 'b'));
  other.join();
}

TEST(StrReplaceAll, StartsAgainAtTheFront) {
  struct Case {
    char const *why, *source, *from, *to, *want;
  };
  for (Case const& c : {Case{"all occurrences", "a.b.c", ".", "::", "a::b::c"},
                        {"replaced text is replaced again", "aab", "ab", "b", "b"},
                        {"to nothing", "banana", "an", "", "ba"},
                        {"empty source and pattern", "", "", "to", "to"},
                        {"empty pattern", "abc", "", "to", "abc"}}) {
    EXPECT_EQ(StrReplaceALL(c.source, c.from, c.to), c.want) << c.why;
  }
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
