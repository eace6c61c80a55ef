// Every record: its fields against the written list, its way through both forms and back, and the golden packages.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <sstream>

#include "talvo/serialization/layer_info.h"
#include "tests/serialization/golden_package.h"
#include "tests/serialization/record_catalogue.h"
#include "tests/support/log_capture.h"

namespace talvo::test {
namespace {

using namespace runtime;

// "kind key=value" lines of each class of fields.txt; a line without "=" promises no default.
std::map<std::string, std::vector<std::string>> DescribedFields() {
  std::map<std::string, std::vector<std::string>> classes;
  std::istringstream text(Golden("fields.txt"));
  std::string name;
  for (std::string line; std::getline(text, line);) {
    std::istringstream words(line);
    std::string first, word;
    words >> first;
    if (first == "#") continue;
    if (std::isupper(first[0])) {
      name = first;
      std::vector<std::string>& fields = classes[name];
      if (!(words >> word)) continue;
      if (std::isupper(word[0]))
        fields = classes.at(word);
      else
        fields = {"string serializable_type", "u16 type=" + word,
                  "string id= ", "vector<string> input_ids=", "u16 read_count"};
    } else {
      while (words >> word) classes.at(name).push_back(first + " " + word);
    }
  }
  return classes;
}

TEST(Records, HaveTheFieldsOfTheFormatInItsOrder) {
  auto const described = DescribedFields();
  EXPECT_EQ(described.size(), RecordCatalogue().size());
  for (RecordClass const& entry : RecordCatalogue()) {
    SCOPED_TRACE(entry.name);
    std::vector<std::string> const want = described.at(entry.name);
    std::vector<std::string> got = ListFields(*entry.make(), false);
    ASSERT_EQ(got.size(), want.size());
    for (std::size_t i = 0; i < want.size(); ++i) {
      if (want[i] == "string serializable_type") {
        EXPECT_EQ(got[i], want[i] + "=" + entry.name);
      }
      if (want[i].find('=') == std::string::npos) got[i].erase(got[i].find('='));
      EXPECT_EQ(got[i], want[i]);
    }
  }
}

// The lists of a placeholder come back from the stream behind as many empty ones.
void ExpectDoubledLists(LayerPlaceholderInfo* placeholder) {
  if (placeholder == nullptr) return;
  auto& lists = placeholder->input_shapes;
  lists.insert(lists.begin(), lists.size(), {});
}

TEST(Records, ComeBackFromBothFormsAsTheyWere) {
  LogCapture const quiet;
  for (RecordClass const& entry : RecordCatalogue()) {
    for (char const* form : {"bin", "json"}) {
      SCOPED_TRACE(entry.name + " as " + form);
      auto const written = entry.make(), read = entry.make();
      FillFields(*written);
      std::string const bytes = Written(*written, form);
      ReadFrom(*read, bytes, form);
      if (form == std::string("bin")) ExpectDoubledLists(dynamic_cast<LayerPlaceholderInfo*>(written.get()));
      EXPECT_EQ(ListFields(*read, true), ListFields(*written, true));
      if (dynamic_cast<LayerPlaceholderInfo*>(read.get()) == nullptr) {
        EXPECT_EQ(Written(*read, form), bytes);
      }
    }
  }
}

TEST(Golden, PackagesOfEveryVersionAreRead) {
  for (unsigned int version : {20003u, 20004u, 20006u, 20007u, 20011u, 20015u}) {
    SCOPED_TRACE(version);
    LogCapture const log;
    TLNModel read;
    ReadFrom(read, Golden("package_" + std::to_string(version) + ".tlnmodel"), "bin");
    auto const want = GoldenPackage(version);
    auto& layers = want->model_arr->models["net"]->layers;
    layers["axis"]->type = 16;
    ExpectDoubledLists(dynamic_cast<LayerPlaceholderInfo*>(layers["free"].get()));
    EXPECT_EQ(ListFields(read, true), ListFields(*want, true));
    std::vector<std::string> const warning = {
        "[TLN] (Warnning): This TLModelInfo may be a old vesion file, please verify it."};
    EXPECT_EQ(log.Lines(), warning);
  }
}

TEST(Golden, NewestPackageIsWrittenByteForByte) {
  LogCapture const quiet;
  EXPECT_EQ(Written(*GoldenPackage(20015), "bin"), Golden("package_20015.tlnmodel"));
  EXPECT_EQ(Written(*GoldenPackage(20015), "json"), Golden("package.json"));
}

TEST(Golden, JSONPackageIsRead) {
  LogCapture const quiet;
  TLNModel read;
  ReadFrom(read, Golden("package.json"), "json");
  auto const want = GoldenPackage(20015);
  want->model_arr->models["net"]->layers["axis"]->type = 16;
  EXPECT_EQ(ListFields(read, true), ListFields(*want, true));
}

// A key that a version does not have need not be there; from its version on it is required.
TEST(Records, BeginAFieldAtItsVersion) {
  struct Case {
    char const* name;
    unsigned int since;
    char const* key;
  };
  LogCapture const quiet;
  for (Case const& c :
       {Case{"NetExtraInfo", 20004, "summary"}, Case{"BatchNorm2dInfo", 20005, "num_batches_tracked"},
        Case{"BatchNorm1dInfo", 20005, "num_batches_tracked"}, Case{"TLModelMultiBackendCfgs", 20008, "cpu_armv82"},
        Case{"ActivationInfo", 20012, "num_parameters"}, Case{"ActivationInfo", 20012, "weight"}}) {
    SCOPED_TRACE(std::string(c.name) + "." + c.key);
    auto const& classes = RecordCatalogue();
    auto const entry = std::find_if(classes.begin(), classes.end(), [&](auto const& e) { return e.name == c.name; });
    ASSERT_NE(entry, classes.end());
    auto const read = [&](unsigned int version) {
      std::string text = Written(*entry->make(), "json");
      text.replace(text.find("20015"), 5, std::to_string(version));
      text.insert(text.find(std::string("\"") + c.key) + 1, "no ");
      ReadFrom(*entry->make(), text, "json");
    };
    read(c.since - 1);
    EXPECT_NE(RefusalOf([&] { read(c.since); }).find(c.key), std::string::npos);
  }
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
    TLNModel record;
    ReadFrom(record, bytes, form);
  }
}

}  // namespace
}  // namespace talvo::test
