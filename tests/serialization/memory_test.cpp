// What hostile files make the readers take, and memory that runs out on the way.
#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <stdexcept>

#include "fuzz/memory_meter.h"
#include "talvo/serialization/layer_info_activation.h"
#include "talvo/serialization/layer_info_rnn.h"
#include "talvo/serialization/layer_info_tensor.h"
#include "talvo/serialization/model_info.h"
#include "talvo/utility/file.h"
#include "tests/serialization/record_catalogue.h"
#include "tests/support/log_capture.h"

namespace talvo::test {
namespace {

using namespace runtime;
using fuzz::kMemoryRunsOut;
using fuzz::MemoryMeter;

// `pattern` again and again; each "#" in it is three characters that tell the round.
std::string Many(std::string const& pattern, unsigned int count) {
  std::string text;
  for (unsigned int i = 0; i < count; ++i) {
    for (char c : pattern) {
      if (c != '#')
        text += c;
      else  // from a stretch without quotes and backslashes
        for (unsigned int digit : {i % 64, i / 64 % 64, i / 4096}) text += static_cast<char>(0x5D + digit);
    }
  }
  return text;
}

std::string List(std::string const& pattern, unsigned int count) {
  std::string const text = Many(pattern, count);
  return "[" + text.substr(0, text.size() - 1) + "]";
}

std::string Table(std::string const& head, unsigned int count) {
  std::string const entries = Many("\"#\":null,", count);
  return "{" + head + "\"squential_ids\":" + List("\"#\",", count) + "," + entries.substr(0, entries.size() - 1) + "}";
}

std::string Model(std::string const& outputs, std::string const& rest) {
  return R"({"serializable_type":"","extra_info":null,"squential_output_ids":)" + outputs + "," + rest;
}

std::string Count(unsigned long long count) { return {reinterpret_cast<char const*>(&count), sizeof count}; }

// The record's own bytes but the last `cut`, then `rest`.
template <class Record>
std::string Bytes(std::size_t cut, std::string const& rest) {
  Record record;
  std::string const bytes = Written(record, "bin");
  return bytes.substr(0, bytes.size() - cut) + rest;
}

template <class Record>
bool IsRead(std::string const& path, char const* form) {
  try {
    return Record().FromFile(path.c_str(), form);
  } catch (std::runtime_error const&) {
    return false;
  }
}

// Two layers of two directions.
template <class Info>
Info Recurrent() {
  Info info;
  info.weight_ih_forward = info.weight_hh_forward = info.weight_ih_reverse =
      info.weight_hh_reverse = {std::string(20000, 'A'), std::string(40000, 'A')};
  info.bias_ih_forward = info.bias_hh_forward = info.bias_ih_reverse =
      info.bias_hh_reverse = {std::string(400, 'A'), std::string(400, 'A')};
  return info;
}

struct Case {
  char const* why;
  bool (*is_read)(std::string const& path, char const* form);
  bool want;
  std::string bytes;
};

void ExpectBounded(std::vector<Case> const& cases, char const* form, std::size_t factor) {
  LogCapture const quiet;
  for (Case const& c : cases) {
    SCOPED_TRACE(c.why);
    ScratchFile const file(c.bytes);
    std::string const path = file.Path();
    MemoryMeter const meter;
    bool const read = c.is_read(path, form);
    std::size_t const peak = meter.PeakBytes();
    EXPECT_EQ(read, c.want);
    EXPECT_LE(peak, factor * c.bytes.size() + (1u << 20)) << c.bytes.size() << " bytes";
  }
}

TEST(Memory, OfAJSONTextIsBoundByItsLength) {
  constexpr unsigned int kCount = 100000;
  std::string const nulls = Many("\"#\":null,", kCount), no_layers = "\"squential_ids\":[],\"squential_types\":[]}";
  LayerPlaceholderInfo record;
  TensorGetItemInfo item;
  LSTMInfo lstm = Recurrent<LSTMInfo>();
  GRUInfo gru = Recurrent<GRUInfo>();
  std::string const eight_times = R"({"serializable_type":"","squential_ids":["a","a","a","a","a","a","a","a"],"a":)";
  std::string placeholder = Written(record, "json"), items = Written(item, "json");
  placeholder.replace(placeholder.find("\"input_shapes\": []"), 18, "\"input_shapes\":" + List("[1],", kCount));
  items.replace(items.find("\"num_sampling_infos\": 0"), 23, "\"num_sampling_infos\": 65535");
  for (int i = 0; i < 65535; ++i) items.insert(items.size() - 2, ",\"" + std::to_string(i) + "\":null");
  ExpectBounded(
      {{"levels without an end", &IsRead<TimeInfo>, false, std::string(kMemoryRunsOut ? 1000000 : 10000, '[')},
       {"levels that end", &IsRead<TimeInfo>, false, Many("[", 500000) + Many("]", 500000)},
       {"numbers", &IsRead<TimeInfo>, false, List("1,", 500000)},
       {"texts", &IsRead<TLModelInfo>, true, Model(List("\"\",", 300000), no_layers)},
       {"lists of lists", &IsRead<LayerPlaceholderInfo>, true, placeholder},
       {"items that stand as null", &IsRead<TensorGetItemInfo>, true, items},
       {"layers that stand as null", &IsRead<TLModelInfo>, true,
        Model("[]", nulls + "\"squential_ids\":" + List("\"#\",", kCount) +
                        ",\"squential_types\":" + List("36,", kCount) + "}")},
       {"models that stand as null", &IsRead<TLModelInfoArr>, false, Table("\"serializable_type\":\"\",", kCount)},
       {"configurations that stand as null", &IsRead<TLModelMultiBackendCfgsArr>, false, Table("", kCount)},
       {"layers' kernels that stand as null", &IsRead<TLModelCfg>, false, Table("\"summary\":\"\",", kCount)},
       {"a model of many outputs read eight times", &IsRead<TLModelInfoArr>, false,
        eight_times + Model(List("\"\",", 300000), no_layers) + "}"},
       {"recurrent weights read 36 times", &IsRead<TLModelInfoArr>, true,
        eight_times +
            Model("[]", R"("squential_ids":["l","g"],"squential_types":[36,38],"l":)" + Written(lstm, "json") +
                            ",\"g\":" + Written(gru, "json") + "}") +
            "}"}},
      "json", 40);
}

TEST(Memory, OfABinaryFileIsBoundByItsLength) {
  TLModelInfoArr eight_times;
  eight_times.squential_ids.assign(8, "a");
  TLModelInfo& model = *(eight_times.models["a"] = std::make_shared<TLModelInfo>());
  model.squential_ids = {"l", "g"}, model.squential_types = {36, 38};
  model.layers["l"] = std::make_shared<LSTMInfo>(Recurrent<LSTMInfo>());
  model.layers["g"] = std::make_shared<GRUInfo>(Recurrent<GRUInfo>());
  constexpr unsigned int kCount = 20000;
  std::string const ids = Count(kCount) + Many(std::string("\3\0\0\0\0\0\0\0#", 9), kCount);
  auto const zeros = [](std::size_t each) { return std::string(kCount * each, '\0'); };
  ExpectBounded(
      {{"texts", &IsRead<TLModelInfo>, false,
        Bytes<TLModelInfo>(0, "").substr(0, 23) + Count(100000) + std::string(800000, '\0')},
       {"lists of lists", &IsRead<LayerPlaceholderInfo>, true,
        Bytes<LayerPlaceholderInfo>(
            24, Count(100000) + Many(std::string("\1\0\0\0\0\0\0\0xx", 10), 100000) + std::string(16, '\0'))},
       {"kernels", &IsRead<KernelCfgArr>, true, Bytes<KernelCfgArr>(8, ids + zeros(16))},
       {"layers' kernels", &IsRead<TLModelCfg>, true, Bytes<TLModelCfg>(8, ids + zeros(40))},
       {"configurations", &IsRead<TLModelMultiBackendCfgsArr>, true,
        Bytes<TLModelMultiBackendCfgsArr>(8, ids + zeros(128))},
       {"recurrent weights read eight times", &IsRead<TLModelInfoArr>, true, Written(eight_times, "bin")},
       {"items that are not there", &IsRead<TensorGetItemInfo>, false, Bytes<TensorGetItemInfo>(2, "\xFF\xFF")},
       {"a text that is not there", &IsRead<KernelCfg>, false, Bytes<KernelCfg>(16, Count(1ull << 24))},
       {"texts that are not there", &IsRead<LayerInfo>, false, Bytes<LayerInfo>(10, Count(1ull << 24))}},
      "bin", 16);
}

TEST(Memory, MayRunOutAnywhere) {
  if (!kMemoryRunsOut) GTEST_SKIP() << "malloc is the sanitizer's";
  LogCapture const quiet;
  TLNModel package;
  ReadFrom(package, Golden("package.json"), "json");
  auto& layer = *package.model_arr->models["net"]->layers["act"];
  dynamic_cast<ActivationInfo&>(layer).weight.assign(2000, 'A');
  ScratchFile const json(Written(package, "json")), binary(Written(package, "bin")), copy;
  for (std::function<bool()> const& action :
       {std::function<bool()>([&] { return TLNModel().FromFile(json.Path(), "json"); }),
        std::function<bool()>([&] { return TLNModel().FromFile(binary.Path(), "bin"); }),
        std::function<bool()>([&] { return package.ToFile(copy.Path(), "json"); }),
        std::function<bool()>([&] { return package.ToFile(copy.Path(), "bin"); })}) {
    std::size_t needed = 0;
    {
      MemoryMeter const meter;
      ASSERT_TRUE(action());
      needed = meter.PeakBytes();
    }
    int failed = 0;
    for (std::size_t limit = 0; limit < needed; limit += needed / 400 + 1) {  // less than any stack of the parser
      MemoryMeter const meter(limit);
      try {
        failed += action() ? 0 : 1;
      } catch (std::exception const&) {  // no memory, or a stream that could not be opened
        ++failed;
      }
    }
    EXPECT_GT(failed, 20);
    EXPECT_TRUE(action());
  }
  std::string content = "old";
  for (std::size_t limit = 0; limit < 1000000; limit += 5000) {
    MemoryMeter const meter(limit);
    bool const loaded = utility::LoadFile("/proc/self/exe", content);  // larger, and its path takes no memory
    ASSERT_FALSE(loaded);
  }
  EXPECT_EQ(content, "old");
}

}  // namespace
}  // namespace talvo::test
