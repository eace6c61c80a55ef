// Models and configurations: which records are made, what is refused, who reads whom.
#include "talvo/serialization/model_info.h"

#include <gtest/gtest.h>

#include <set>
#include <stdexcept>

#include "talvo/serialization/layer_info_activation.h"
#include "talvo/serialization/layer_info_tensor.h"
#include "tests/serialization/record_catalogue.h"
#include "tests/support/log_capture.h"

namespace talvo::test {
namespace {

using namespace runtime;

// A model of one layer, whose number in `squential_types` is `type` and whose record is `info`.
std::string OneLayer(unsigned short type, std::shared_ptr<LayerInfo> info) {
  TLModelInfo model;
  model.squential_ids = {"a"};
  model.squential_types = {type};
  model.layers["a"] = std::move(info);
  return Written(model, "bin");
}

TEST(Makers, MakeTheClassesOfTheTable) {
  std::set<unsigned int> numbers;
  for (RecordClass const& entry : RecordCatalogue()) {
    SCOPED_TRACE(entry.name);
    LogCapture const quiet;
    auto const may = [marks = Described().at(entry.name).marks](char const* mark) { return marks.count(mark) != 0; };
    auto const param = CreateInferenceParamPtr(entry.name.c_str());
    EXPECT_EQ(param != nullptr, may("made"));
    EXPECT_TRUE(param == nullptr || param->GetClassName() == entry.name);
    auto const info = std::dynamic_pointer_cast<LayerInfo>(entry.make());
    if (info == nullptr) continue;
    std::string const text = Written(*info, "json");
    if (may("alone")) {
      EXPECT_EQ(LayerInfoFactory(text)->GetClassTypeName(), entry.name);
    } else {
      EXPECT_EQ(RefusalOf([&] { LayerInfoFactory(text); }), "[TLN]: Unsupported Layer Type.\n");
    }
    if (!may("model")) continue;
    auto const number = static_cast<unsigned short>(entry.name == "TensorUnSqueezeInfo" ? 16 : info->type);
    TLModelInfo read;
    ReadFrom(read, OneLayer(number, info), "bin");
    EXPECT_EQ(read.layers.at("a")->type, number);
    EXPECT_EQ(read.layers.at("a")->GetClassTypeName(), entry.name);
    numbers.insert(number);
  }
  EXPECT_EQ(numbers.size(), 35u);
  for (unsigned int number = 0; number < 65536; number += number < 300 ? 1 : 65535 - 300) {
    if (numbers.count(number) != 0) continue;
    LogCapture const of_writing;
    std::string const bytes = OneLayer(static_cast<unsigned short>(number), std::make_shared<InputInfo>());
    EXPECT_EQ(RefusalOf([&] { ReadFrom(*std::make_unique<TLModelInfo>(), bytes, "bin"); }),
              number == 65535 ? "[TLN]: Unknow Layer Type.\n"
                              : "[TLN]: Unsupported Layer Type [" + std::to_string(number) + "].\n");
  }
  EXPECT_EQ(CreateInferenceParamPtr(""), nullptr);
  EXPECT_NE(RefusalOf([] { CreateInferenceParamPtr(nullptr); }), "");
  EXPECT_EQ(RefusalOf([] { LayerInfoFactory("[]"); }), "[TLN]: ");
  EXPECT_NE(RefusalOf([] { LayerInfoFactory("{}"); }).find("\"serializable_type\""), std::string::npos);
}

TEST(TLModelInfo, RefusesUnevenListsAndMissingRecords) {
  TLModelInfo uneven, without_record;
  uneven.squential_ids = without_record.squential_ids = {"a"};
  EXPECT_EQ(RefusalOf([&] { Written(uneven, "bin"); }), "[TLN]: Length of layer id and type mismatch.\n");
  without_record.squential_types = {0};
  without_record.layers["a"] = nullptr;
  EXPECT_NE(RefusalOf([&] { Written(without_record, "json"); }).find("\"a\""), std::string::npos);
}

TEST(TLModelInfo, ReadsAnIdOftenIntoOneRecordAndRefusesMore) {
  LogCapture const quiet;
  TLModelInfo model, read;
  model.squential_ids.assign(8, "a");
  model.squential_types.assign(8, 12);
  model.layers["a"] = std::make_shared<ConcatenateInfo>();
  model.layers["a"]->input_ids = {"b"};
  TLModelInfoArr models;
  models.squential_ids.assign(8, "net");
  models.squential_ids.push_back("before it in order");
  ReadFrom(read, Written(model, "json"), "json");
  EXPECT_EQ(read.layers.size(), 1u);
  EXPECT_EQ(read.layers["a"]->input_ids.size(), 8u);
  Written(models, "json");
  model.squential_ids.push_back("a");
  model.squential_types.push_back(12);
  models.squential_ids.push_back("net");
  EXPECT_NE(RefusalOf([&] { Written(model, "json"); }).find("\"a\" stands more than 8 times"), std::string::npos);
  EXPECT_NE(RefusalOf([&] { Written(models, "bin"); }).find("\"net\" stands more than 8 times"), std::string::npos);
}

TEST(TLModelInfo, TellsInputsAndOutputsOfTheGraph) {
  TLModelInfo model;
  auto const add = [&](std::string const& id, unsigned short type, std::vector<std::string> inputs) {
    model.layers[id] = std::make_shared<ConcatenateInfo>();
    model.layers[id]->input_ids = std::move(inputs);
    model.squential_ids.push_back(id);
    model.squential_types.push_back(type);
  };
  add("in_b", 0, {});
  add("middle", 12, {"in_b"});
  add("in_a", 0, {});
  add("last", 12, {"in_b", "in_b", "in_a"});
  model.squential_ids.push_back("middle");  // a second occurrence counts once
  model.squential_types.push_back(12);
  for (char const* id : {"z", "y"}) model.layers[id] = std::make_shared<ConcatenateInfo>();  // in no list
  EXPECT_EQ(model.GetInputIDs(), (std::vector<std::string>{"in_b", "in_a"}));
  EXPECT_EQ(model.GetOutputIDs(), (std::vector<std::string>{"middle", "last", "y", "z"}));
  EXPECT_EQ(model.GetOutputIDs().size(), 4u);
  EXPECT_EQ(model.layers["in_b"]->read_count, 3);  // counts start afresh
  model.layers["last"]->input_ids.push_back("absent");
  EXPECT_THROW(model.GetOutputIDs(), std::out_of_range);
}

TEST(LayerInfo, GoesOnWithoutAReadableType) {
  ClipInfo clip, read;
  clip.id = "last";
  std::string text = Written(clip, "json");
  LogCapture const log;
  ReadFrom(read, text.replace(text.find("\"type\""), 6, "\"typo\""), "json");
  EXPECT_EQ(read.type, 31);
  EXPECT_EQ(read.id, "last");
  EXPECT_EQ(log.Lines().back(), "[TLN] (Warnning): This may be a old version model file.");
}

// Each maker of a record from JSON looks for the version in the text.
TEST(Makers, HeedTheVersion) {
  ActivationInfo activation;
  activation.num_parameters = 3;
  TLModelInfo model;
  model.extra_info.summary = "told";
  TLModelCfg cfg;
  auto const with = [](Serializable& record, char const* version) {
    std::string text = Written(record, "json");
    return text.replace(text.find("20015"), 5, version);
  };
  ScratchFile const old_model(with(model, "20003")), new_model(with(model, "20016"));
  EXPECT_EQ(dynamic_cast<ActivationInfo&>(*LayerInfoFactory(with(activation, "20011"))).num_parameters, 1);
  EXPECT_EQ(parseModelInfoPtrFromJson(old_model.Path())->extra_info.summary, "");
  for (auto const& make : {std::function<void()>([&] { LayerInfoFactory(with(activation, "20016")); }),
                           std::function<void()>([&] { parseModelInfoPtrFromJson(new_model.Path()); }),
                           std::function<void()>([&] { parseModelCfgFromJsonContent(with(cfg, "20016")); })})
    EXPECT_EQ(RefusalOf(make), "[TLN]: _serialization_protocol_version > __SERIALIZATION_PROTOCOL_VERSION__.\n");
}

TEST(KernelCfg, KeepsItsParameterRecordWhenReadAgain) {
  KernelCfg cfg;
  cfg.infer_param_type = "InferenceParamActQuant";
  std::string const bytes = Written(cfg, "bin");  // the walk makes the record
  auto const param = cfg.infer_param;
  ASSERT_NE(param, nullptr);
  ReadFrom(cfg, bytes, "bin");
  EXPECT_EQ(cfg.infer_param, param);
  KernelCfg plain;
  EXPECT_EQ(Written(plain, "bin").size(), 4u + 2 * 8);
}

TEST(Parsing, RefusesARootThatIsNoObject) {
  std::string const text = "[TLN]: Document must be a Object.\n";
  ScratchFile const array("[]"), broken("{");
  EXPECT_EQ(RefusalOf([&] { parseModelInfoPtrFromJson(array.Path()); }), text);
  EXPECT_EQ(RefusalOf([&] { parseModelInfoPtrFromJson(broken.Path()); }), text);
  EXPECT_EQ(RefusalOf([] { parseModelCfgFromJsonContent("7"); }), text);
  TLNModel package;
  ReadFrom(package, Golden("package.json"), "json");
  auto const cfg = package.config_arr->configs["net"]->cpu_sse;
  EXPECT_EQ(ListFields(*parseModelCfgFromJsonContent(Written(*cfg, "json")), true), ListFields(*cfg, true));
}

}  // namespace
}  // namespace talvo::test
