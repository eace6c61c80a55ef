// What the JSON pair writes, what it reads from each kind of value, and how it refuses.
#include "talvo/serialization/rapidjson_support.h"

#include "talvo/serialization/json_visitors.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string_view>

#include "talvo/serialization/json_text_support.h"
#include "talvo/serialization/layer_info_conv.h"
#include "talvo/serialization/layer_info_tensor.h"
#include "talvo/serialization/model_info.h"
#include "talvo/utility/log.h"
#include "tests/serialization/record_catalogue.h"
#include "tests/support/log_capture.h"

namespace talvo::test {
namespace {

using namespace runtime;
using half_float::half;

template <class T>
T Read(std::string const& value, T field = T()) {
  support::JSONText const text("{\"key\": " + value + "}");
  JSONNodeGetter(text.Root(), 0).Visit(&field, "key");
  return field;
}

template <class T>
std::string WrittenValue(T field) {
  JSONAllocator allocator;
  rapidjson::Value object(rapidjson::kObjectType);
  JSONNodeSetter(object, allocator, false).Visit(&field, "key");
  std::string const text = SerializeJSONValue(object);
  return text.substr(7, text.size() - 8);  // {"key":...}
}

TEST(JSONNodeGetter, NarrowsAndAppendsAsTheFormatSays) {
  EXPECT_EQ(Read<unsigned char>("300"), 44);
  EXPECT_EQ(Read<signed char>("200"), -56);
  EXPECT_EQ(Read<short>("-1"), -1);
  EXPECT_EQ(Read<unsigned short>("65537"), 1);
  EXPECT_EQ(Read<long long>("-9223372036854775808"), std::numeric_limits<long long>::min());
  EXPECT_EQ(Read<unsigned long long>("18446744073709551615"), std::numeric_limits<unsigned long long>::max());
  EXPECT_EQ(Read<float>("3"), 3.0f);
  EXPECT_EQ(Read<double>("0.1"), 0.1);
  EXPECT_EQ(Read<half>("2049.99").Bits(), 0x6800);  // 2048: what does not fit is cut
  EXPECT_EQ(Read<half>("-0.1").Bits(), 0xAE66);
  EXPECT_EQ(Read<std::string>("\"a\\u0000b\""), "a");
  EXPECT_EQ(Read<std::vector<int>>("[-3, 4]", {1}), (std::vector<int>{1, -3, 4}));
  EXPECT_EQ(Read<std::vector<unsigned short>>("[]", {1}), (std::vector<unsigned short>{1}));
  EXPECT_EQ(Read<std::vector<half>>("[0.5]"), std::vector<half>{half(0.5f)});
  using Lists = std::vector<std::vector<unsigned short>>;
  EXPECT_EQ(Read<Lists>("[[], [-1, 65538]]"), (Lists{{}, {65535, 2}}));
  char text[] = "####";
  support::JSONText const document("{\"key\": \"ab\"}");
  JSONNodeGetter(document.Root(), 0).Visit(&text[0], "key");
  EXPECT_STREQ(text, "ab##");
}

TEST(JSONNodeSetter, WritesEachKind) {
  EXPECT_EQ(WrittenValue(0.1f), "0.10000000149011612");
  EXPECT_EQ(Read<float>(WrittenValue(0.1f)), 0.1f);
  EXPECT_EQ(WrittenValue(half(65504.0f)), "65504.0");
  EXPECT_EQ(WrittenValue<signed char>(-5), "-5");
  EXPECT_EQ(WrittenValue<unsigned char>(200), "200");
  EXPECT_EQ(WrittenValue(std::numeric_limits<unsigned long long>::max()), "18446744073709551615");
  EXPECT_EQ(WrittenValue(true), "true");
  EXPECT_EQ(WrittenValue(std::string("a\0b", 3)), "\"a\"");
  EXPECT_EQ(WrittenValue(std::vector<long long>{-1, 2}), "[-1,2]");
  EXPECT_EQ(WrittenValue(std::vector<std::vector<unsigned short>>{{}, {1, 2}}), "[[],[1,2]]");
}

TEST(JSONNodeGetter, RefusesWithTheKeyAndItsPath) {
  struct Case {
    char const *from, *to, *problem, *key, *path;
  };
  for (Case const& c : {
           Case{"\"year\": 0", "\"yea\": 0", "the key is missing", "year", "extra_info.time.year"},
           Case{"\"year\": 0", "\"year\": 1.5", "needs an unsigned integer", "year", "extra_info.time.year"},
           Case{"\"year\": 0", "\"year\": -1", "needs an unsigned integer", "year", "extra_info.time.year"},
           Case{"\"year\": 0", "\"year\": null", "needs an unsigned integer", "year", "extra_info.time.year"},
           Case{"\"device\": \"\"", "\"device\": 7", "needs a string", "device", "extra_info.device"},
           Case{"\"squential_ids\": []", "\"squential_ids\": {}", "needs an array", "squential_ids", "squential_ids"},
           Case{"\"squential_ids\": []", "\"squential_ids\": [1]", "needs an array", "squential_ids", "squential_ids"},
           Case{"\"time\": {", "\"time\": [], \"x\": {", "read from an object", "serializable_type",
                "extra_info.time.serializable_type"},
       }) {
    SCOPED_TRACE(c.to);
    TLModelInfo model;
    std::string text = Written(model, "json");
    ASSERT_NE(text.find(c.from), std::string::npos);
    text.replace(text.find(c.from), std::string(c.from).size(), c.to);
    std::string const refusal = RefusalOf([&] { TLModelInfo().FromJsonString(text.c_str()); });
    EXPECT_NE(refusal.find(c.problem), std::string::npos) << refusal;
    EXPECT_NE(refusal.find(std::string("key \"") + c.key + "\", path \"" + c.path + "\""), std::string::npos)
        << refusal;
  }
  EXPECT_EQ(RefusalOf([] { LayerCfg().FromJsonString(R"({"summary": "", "input_converters": 5})"); }),
            "[TLN]: Created node is a unkown value.\n");
}

TEST(JSONNodeGetter, LeavesARecordUnderNullAsItIs) {
  NetExtraInfo extra;
  std::string text = Written(extra, "json");
  extra.time.year = 1999;
  extra.device = "overwritten";
  ReadFrom(extra, text.replace(text.find("\"time\": {"), 9, "\"time\": null, \"x\": {"), "json");
  EXPECT_EQ(extra.time.year, 1999u);
  EXPECT_EQ(extra.device, "");
}

// Objects with many members are searched through an index; the first of equal keys counts in both ways.
TEST(JSONNodeGetter, TakesTheFirstOfEqualKeysWhateverTheSize) {
  std::string many;
  for (int i = 0; i < 100; ++i) many += "\"" + std::to_string(i) + "\": " + std::to_string(i) + ", ";
  for (std::string const& filler : {std::string(), many}) {
    support::JSONText const document("{\"b\": 1, \"a\": 2, " + filler + "\"b\": 3}");
    JSONNodeGetter getter(document.Root(), 20015);
    int a = 0, b = 0;
    getter.Visit(&a, "a");
    getter.Visit(&b, "b");
    EXPECT_EQ(std::make_pair(a, b), std::make_pair(2, 1));
    EXPECT_NE(RefusalOf([&] { getter.Visit(&a, "c"); }).find("the key is missing"), std::string::npos);
  }
}

// Every byte at every place of a run, at all alignments: the scanner looks at blocks, and strings move in place.
TEST(JSONText, HoldsEveryByteAtEveryPlace) {
  std::vector<std::string> texts;
  std::string want = "[";
  for (unsigned int byte = 1; byte < 256; ++byte) {
    for (std::size_t at = 0; at < 135; ++at) {
      char const c = static_cast<char>(byte);
      texts.push_back(std::string(at, 'x') + c + std::string(at % 67, 'y') + c + std::string(at % 3, 'z'));
      char escaped[8] = {'\\', c};
      if (auto const letter = std::string_view("\"\\\b\f\n\r\t").find(c); letter != std::string_view::npos)
        escaped[1] = "\"\\bfnrt"[letter];
      else
        std::snprintf(escaped, sizeof escaped, byte < 32 ? "\\u%04X" : "%c", byte);
      want += (want.size() > 1 ? ",\"" : "\"") + std::string(at, 'x') + escaped + std::string(at % 67, 'y') + escaped +
              std::string(at % 3, 'z') + "\"";
      if (byte >= 32) continue;
      for (std::size_t front : {0u, 1u, 7u})  // as it stands, a control character is no JSON
        ASSERT_TRUE(support::JSONText(std::string(front, ' ') + "[\"" + texts.back() + "\"]").Root().IsNull());
    }
  }
  want += "]";
  JSONAllocator allocator;
  ASSERT_TRUE(SerializeJSONValue(ToJSONValue(texts, allocator)) == want);
  std::vector<std::string> read;
  JSONValueTo(support::JSONText(want).Root(), read);
  EXPECT_TRUE(read == texts);
  support::JSONText const escapes(R"("\u0041bc\u00e9d\/\ud83d\ude00ef\u20acg\u0067")");
  EXPECT_STREQ(escapes.Root().GetString(), u8"Abc\u00e9d/\U0001F600ef\u20acgg");
}

TEST(JSONValues, AreRenderedAndTakenOneByOne) {
  std::string const deep = std::string(300000, '[') + "{\"a\":[1,{}]}" + std::string(300000, ']');
  EXPECT_EQ(SerializeJSONValue(support::JSONText(deep).Root()), deep);
  {
    LogCapture const log;
    utility::SetLogLevel(1);
    printjsonvalue(support::JSONText("{\"share\": \"100 %s\"}").Root());
    rapidjson::Value const infinity(HUGE_VAL);
    EXPECT_THROW(printjsonvalue(infinity), std::runtime_error);
    utility::SetLogLevel(30);
    printjsonvalue(infinity);  // the level is off: nothing looks at the value
    EXPECT_EQ(log.Lines().front(), "[TLN] (Verbose): {\"share\":\"100 %s\"}");
  }
  JSONAllocator allocator;
  EXPECT_EQ(SerializeJSONValue(ToJSONValue(std::vector<std::string>{"a", "b"}, allocator)), "[\"a\",\"b\"]");
  TensorSqueezeInfo squeeze;
  squeeze.dim = -2;
  rapidjson::Value const object = ToJSONValue(&squeeze, allocator);
  EXPECT_EQ(SerializeJSONValue(object).find("{\"serialization_protocol_version\":20015,\"serializable_type\":"), 0u);
  TensorSqueezeInfo back;
  JSONValueTo(object, &back);
  EXPECT_EQ(back.dim, -2);
  std::vector<std::string> texts = {"kept"};
  JSONValueTo(support::JSONText("[\"x\"]").Root(), texts);
  EXPECT_EQ(texts, (std::vector<std::string>{"kept", "x"}));
  std::string text;
  EXPECT_NE(RefusalOf([&] { JSONValueTo(object, text); }), "");
  EXPECT_NE(RefusalOf([&] { JSONValueTo(object, texts); }), "");
  EXPECT_NE(RefusalOf([&] { object["absent"].GetInt(); }), "");  // rapidjson's own assertions throw as well
}

}  // namespace
}  // namespace talvo::test
