// Every record: its fields against the written list, its way through both forms and back, and the golden packages.
#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>

#include "talvo/serialization/layer_info_tensor.h"
#include "talvo/serialization/model_info.h"
#include "tests/serialization/record_catalogue.h"
#include "tests/support/log_capture.h"

namespace talvo::test {
namespace {

using namespace runtime;

TEST(Records, HaveTheFieldsOfEachVersionInOrder) {
  auto const described = Described();
  EXPECT_EQ(described.size(), RecordCatalogue().size());
  for (int version : {20003, 20004, 20005, 20006, 20007, 20008, 20011, 20012, 20015}) {
    for (RecordClass const& entry : RecordCatalogue()) {
      SCOPED_TRACE(entry.name + ", " + std::to_string(version));
      std::vector<std::string> want, got = ListFields(*entry.make(), false, static_cast<unsigned int>(version));
      for (Field const& field : described.at(entry.name).fields) {
        if (version < field.since || version > field.until) continue;
        std::string kind = field.kind;
        if (kind.find("blob") != kind.npos) kind.replace(kind.find("blob"), 4, "string");
        want.push_back(kind + " " + field.text + (field.text == "serializable_type" ? "=" + entry.name : ""));
        if (got.size() >= want.size() && want.back().find('=') == std::string::npos)
          got[want.size() - 1].erase(got[want.size() - 1].find('='));
      }
      EXPECT_EQ(got, want);
    }
  }
}

// The lists of a placeholder come back from the stream behind as many empty ones.
void DoubleLists(Serializable* record) {
  if (auto* const placeholder = dynamic_cast<LayerPlaceholderInfo*>(record))
    placeholder->input_shapes.insert(placeholder->input_shapes.begin(), placeholder->input_shapes.size(), {});
}

TEST(Records, GoThroughBothFormsAndBack) {
  LogCapture const quiet;
  auto const described = Described();
  for (RecordClass const& entry : RecordCatalogue()) {
    SCOPED_TRACE(entry.name);
    auto const written = entry.make(), fresh = entry.make(), used = entry.make(), twice = entry.make();
    bool const is_layer = dynamic_cast<LayerInfo*>(written.get()) != nullptr;
    EXPECT_EQ(written->serializable_type, is_layer ? entry.name : "Serializable") << "until the first walk";
    FillFields(*written);
    FillFields(*used, 1000);
    std::set<std::string> values;  // a member under the key of another would stand twice
    for (std::string const& line : ListFields(*written, false))
      EXPECT_TRUE(line.find("bool") == 0 || line.find("record") == 0 ||
                  values.insert(line.substr(line.find('='))).second)
          << line;
    std::string const json = Written(*written, "json"), binary = Written(*written, "bin");
    ReadFrom(*twice, json, "json");
    EXPECT_EQ(Written(*twice, "json"), json);
    DoubleLists(written.get());
    ReadFrom(*fresh, binary, "bin");
    auto const want = ListFields(*written, false), read = ListFields(*fresh, false);
    std::set<std::string> cut_fields, blobs;  // weights alone are cut to halves
    for (std::size_t i = 0; i < want.size(); ++i)
      if (read.at(i) != want[i]) cut_fields.insert(want[i].substr(0, want[i].find('=')));
    for (Field const& field : described.at(entry.name).fields)
      if (auto const at = field.kind.find("blob"); at != field.kind.npos)
        blobs.insert(std::string(field.kind).replace(at, 4, "string") + " " +
                     field.text.substr(0, field.text.find('=')));
    EXPECT_EQ(cut_fields, blobs);
    EXPECT_EQ(Written(*fresh, "bin"), Written(*written, "bin"));
    ReadFrom(*used, binary, "bin");  // replaces; lists of lists alone keep what stood in front
    bool const keeps = dynamic_cast<LayerPlaceholderInfo*>(used.get()) != nullptr;
    EXPECT_EQ(Written(*used, "bin") == binary, !keeps);
    auto const once = ListFields(*twice, false);
    ReadFrom(*twice, json, "json");  // appends to lists, replaces all else
    auto const got = ListFields(*twice, false);
    ASSERT_GE(got.size(), once.size());
    for (std::size_t i = 0; i < once.size(); ++i)
      EXPECT_EQ(got[i], once[i].find("vector") == 0 ? once[i] + once[i].substr(once[i].find('=') + 1) : once[i]);
  }
}

TEST(TensorGetItemInfo, NamesItsItemsByTheirNumbers) {
  TensorGetItemInfo info;
  info.num_sampling_infos = 2;
  auto const lines = ListFields(info, false);
  EXPECT_EQ(*(lines.end() - 2) + lines.back(), "record 0=record 1=");
}

TEST(Golden, PackageIsReadAndWrittenByteForByte) {
  LogCapture const quiet;
  TLNModel package;
  ReadFrom(package, Golden("package.json"), "json");
  auto& axis = package.model_arr->models.at("net")->layers.at("axis")->type;
  EXPECT_EQ(std::exchange(axis, 15), 16);  // the list of types overrules the record's own number
  EXPECT_EQ(Written(package, "json"), Golden("package.json"));
  axis = 15;
  EXPECT_EQ(Written(package, "bin"), Golden("package_20015.tlnmodel"));
}

TEST(Golden, PackagesOfEveryVersionAreRead) {
  LogCapture const log;
  TLNModel newest;
  ReadFrom(newest, Golden("package.json"), "json");
  DoubleLists(newest.model_arr->models.at("net")->layers.at("free").get());
  using Gate = std::tuple<int, std::string, std::string>;
  for (int version : {20003, 20004, 20006, 20007, 20011, 20015}) {
    SCOPED_TRACE(version);
    auto want = ListFields(newest, true);
    for (auto const& [since, field, before] : {Gate{20004, "string summary=a summary", "string summary="},
                                               Gate{20005, "i32 num_batches_tracked=77", "i32 num_batches_tracked=-1"},
                                               Gate{20008, "string summary=the youngest comes last", "string summary="},
                                               Gate{20012, "i16 num_parameters=2", "i16 num_parameters=1"},
                                               Gate{20012, "string weight=zczMPQ==", "string weight="}})
      if (version < since) std::replace(want.begin(), want.end(), field, before);
    TLNModel read;
    ReadFrom(read, Golden("package_" + std::to_string(version) + ".tlnmodel"), "bin");
    EXPECT_EQ(ListFields(read, true), want);
    EXPECT_EQ(log.Lines().back(), "[TLN] (Warnning): This TLModelInfo may be a old vesion file, please verify it.");
  }
  EXPECT_EQ(log.Lines().size(), 7u);
}

// After each refusal the same process goes on to destroy the record and to read the next file with a fresh one.
TEST(Golden, EveryPrefixIsRefused) {
  LogCapture const quiet;
  for (auto const& [name, form] : {std::pair("package_20015.tlnmodel", "bin"), std::pair("package.json", "json")}) {
    std::string const bytes = Golden(name);
    for (std::size_t size = 0; size < bytes.size(); ++size) {
      TLNModel record;
      EXPECT_THROW(ReadFrom(record, bytes.substr(0, size), form), std::runtime_error) << name << ", bytes: " << size;
    }
  }
}

}  // namespace
}  // namespace talvo::test
